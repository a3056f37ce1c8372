// Python: the clients of a file's services.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_PYTHON_PRINTER_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_PYTHON_PRINTER_H_

#include "google/protobuf/io/printer.h"

#include "zimbrel/src/core/common/rpc/generator/service_model.h"

namespace orvane::generator {

// x_client.py: a class for each service, over orvane.Connection.
void PrintPythonClient(const FileModel& file,
                       google::protobuf::io::Printer* out);

}  // namespace orvane::generator

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_PYTHON_PRINTER_H_
