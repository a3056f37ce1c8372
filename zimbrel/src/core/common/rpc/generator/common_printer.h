// Parts that several generated files have in common.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_COMMON_PRINTER_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_COMMON_PRINTER_H_

#include <string>

#include "google/protobuf/io/printer.h"

#include "zimbrel/src/core/common/rpc/generator/service_model.h"

namespace orvane::generator {

// The first lines: where the file comes from.
void PrintOrigin(const FileModel& file, google::protobuf::io::Printer* out);

// Prints an assertion that the runtime has the generator's version.
void PrintVersionCheck(google::protobuf::io::Printer* out);

// Prints what registers the proto at start-up. Belongs inside an unnamed
// namespace.
void PrintRegistration(const FileModel& file,
                       google::protobuf::io::Printer* out);

// Print the begin and the end of the namespace of the file's classes, if it has
// one.
void PrintNamespaceBegin(const FileModel& file,
                         google::protobuf::io::Printer* out);
void PrintNamespaceEnd(const FileModel& file,
                       google::protobuf::io::Printer* out);

// The title of the section with methods of this kind.
std::string TitleOf(MethodKind kind);

}  // namespace orvane::generator

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_COMMON_PRINTER_H_
