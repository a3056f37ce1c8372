// What things are called in C++, in agreement with the message code that protoc
// itself writes.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_CPP_NAMES_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_CPP_NAMES_H_

#include <string>

#include "google/protobuf/descriptor.h"

namespace orvane::generator {

// `name`, with an underscore appended if C++ reserves it.
std::string Identifier(const std::string& name);

// The namespace of a file's classes: "a::b", or empty. No part of the package
// is a reserved word.
std::string NamespaceOf(const google::protobuf::FileDescriptor& file);

// Whether inside the namespace of `file` the C++ name `outer` is hidden: a
// package or type of that name, in this file or in what it imports, lies in the
// file's package or in one around it. Global names hide nothing.
bool IsHidden(const std::string& outer,
              const google::protobuf::FileDescriptor& file);

// The class of a service's client.
std::string ClientName(const google::protobuf::ServiceDescriptor& service);

// The class of a message as spelled inside the class of `service`. It begins
// with "::" only if it needs to.
std::string TypeName(const google::protobuf::Descriptor& type,
                     const google::protobuf::ServiceDescriptor& service);

// A file's path as it stands in the names of protobuf's tables:
// "a/b_c.proto" gives "a_2fb_5fc_2eproto".
std::string MangledPath(const std::string& path);

}  // namespace orvane::generator

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_CPP_NAMES_H_
