// What things are called in Python, in agreement with the message code that
// protoc itself writes.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_PYTHON_NAMES_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_PYTHON_NAMES_H_

#include <string>

#include "google/protobuf/descriptor.h"

namespace orvane::generator {

// The module of a file's messages: "home.thermostat_pb2". The protos that come
// with orvane, all of them below rpc/, are modules of the package orvane, so
// that another module `rpc` is not in their way.
std::string MessageModule(const google::protobuf::FileDescriptor& file);

// A message's class inside its module: "Confirm.Call".
std::string ClassInModule(const google::protobuf::Descriptor& type);

// A method's name: "ForwardKeyPress" gives "forward_key_press". An underscore
// is appended to what Python reserves.
std::string PythonMethodName(const std::string& name);

}  // namespace orvane::generator

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_PYTHON_NAMES_H_
