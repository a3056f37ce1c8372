// What things are called in Python, in agreement with the message code that
// protoc itself writes.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_PYTHON_NAMES_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_PYTHON_NAMES_H_

#include <string>

#include "google/protobuf/descriptor.h"

namespace orvane::generator {

// The module of a file's messages: "home.thermostat_pb2".
std::string MessageModule(const google::protobuf::FileDescriptor& file);

// Where the clients of a file's services go: "home/thermostat_client.py".
std::string ClientPath(const google::protobuf::FileDescriptor& file);

// Whether Python reserves the name, so that only getattr and import_module can
// use it.
bool IsKeyword(const std::string& name);

// A message's class in the module that is imported as `module`:
// "thermostat_pb2.Confirm.Call", or getattr(thermostat_pb2, "class").
std::string ClassIn(const std::string& module,
                    const google::protobuf::Descriptor& type);

// A method's name: "ForwardKeyPress" gives "forward_key_press". An underscore
// is appended to what Python reserves, and to what means something else inside
// the client's class.
std::string PythonMethodName(const std::string& name);

}  // namespace orvane::generator

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_PYTHON_NAMES_H_
