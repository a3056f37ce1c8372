#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_SOURCE_PRINTER_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_SOURCE_PRINTER_H_

#include "google/protobuf/io/printer.h"

#include "zimbrel/src/core/common/rpc/generator/service_model.h"

namespace orvane::generator {

// Prints x.rpc.cc: the code that binds the file's descriptors, and the
// definitions of each class's members.
void PrintSource(const FileModel& file, google::protobuf::io::Printer* out);

}  // namespace orvane::generator

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_SOURCE_PRINTER_H_
