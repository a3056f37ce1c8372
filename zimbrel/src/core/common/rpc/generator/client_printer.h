#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_CLIENT_PRINTER_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_CLIENT_PRINTER_H_

#include "google/protobuf/io/printer.h"

#include "zimbrel/src/core/common/rpc/generator/service_model.h"

namespace orvane::generator {

// Prints x.client.h: for each service, the class through which a client calls
// it.
void PrintClientHeader(const FileModel& file,
                       google::protobuf::io::Printer* out);

// Prints x.client.cc: the definitions of their members.
void PrintClientSource(const FileModel& file,
                       google::protobuf::io::Printer* out);

}  // namespace orvane::generator

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_CLIENT_PRINTER_H_
