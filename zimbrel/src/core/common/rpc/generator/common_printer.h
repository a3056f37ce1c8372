// Pieces that several of the generated files have.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_COMMON_PRINTER_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_COMMON_PRINTER_H_

#include <string>

#include "google/protobuf/io/printer.h"

#include "zimbrel/src/core/common/rpc/generator/service_model.h"

namespace orvane::generator {

// The first lines: where the file comes from.
void PrintOrigin(const FileModel& file, google::protobuf::io::Printer* out);

// Refuses to compile with a runtime of another version.
void PrintVersionCheck(google::protobuf::io::Printer* out);

// Registers the proto at start-up, for use inside an unnamed namespace.
void PrintRegistration(const FileModel& file,
                       google::protobuf::io::Printer* out);

// Opens and closes the namespace of the file's classes, if it has one.
void PrintNamespaceBegin(const FileModel& file,
                         google::protobuf::io::Printer* out);
void PrintNamespaceEnd(const FileModel& file,
                       google::protobuf::io::Printer* out);

// What methods of a kind are called above them in a class.
std::string TitleOf(MethodKind kind);

}  // namespace orvane::generator

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_COMMON_PRINTER_H_
