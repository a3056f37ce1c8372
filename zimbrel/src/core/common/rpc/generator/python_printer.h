// Python: the clients of a file's services, and its messages.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_PYTHON_PRINTER_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_PYTHON_PRINTER_H_

#include <string>

#include "google/protobuf/compiler/code_generator.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/io/printer.h"

#include "zimbrel/src/core/common/rpc/generator/service_model.h"

namespace orvane::generator {

// x_client.py: a class for each service, over orvane.Connection.
void PrintPythonClient(const FileModel& file,
                       google::protobuf::io::Printer* out);

// x_pb2.py and x_pb2.pyi, as protoc writes them except the imports of orvane's
// own protos. False, with an error, if protoc's generators refuse the file.
bool WritePythonMessages(const google::protobuf::FileDescriptor& file,
                         google::protobuf::compiler::GeneratorContext* context,
                         std::string* error);

}  // namespace orvane::generator

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_PYTHON_PRINTER_H_
