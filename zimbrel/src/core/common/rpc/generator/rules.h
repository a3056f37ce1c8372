// The rules for a proto file whose services are to become classes.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_RULES_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_RULES_H_

#include <string>

#include "google/protobuf/descriptor.h"

namespace orvane::generator {

// All broken rules of a file, in the order of the file, each a line of the form
// "file:line:column: Service.Method: sentence\n". Empty if there are none, and
// for a file without services. Line and column count from 1; they are left out
// where the descriptors do not carry them.
std::string BrokenRules(const google::protobuf::FileDescriptor& file);

// The same for Python's own rules, which are about names. A file without
// services can break them too.
std::string BrokenPythonRules(const google::protobuf::FileDescriptor& file);

}  // namespace orvane::generator

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_RULES_H_
