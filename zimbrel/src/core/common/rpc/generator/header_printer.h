#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_HEADER_PRINTER_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_HEADER_PRINTER_H_

#include "google/protobuf/io/printer.h"

#include "zimbrel/src/core/common/rpc/generator/service_model.h"

namespace orvane::generator {

// Prints x.rpc.h: one class for each service.
void PrintHeader(const FileModel& file, google::protobuf::io::Printer* out);

}  // namespace orvane::generator

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_HEADER_PRINTER_H_
