// The C++ names of things in a proto; they agree with the message code that
// protoc itself writes.

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

// Whether the global C++ name `outer` is hidden inside the namespace of `file`:
// the file's package or one around it has a package or type of that name, in
// this file or in one that it imports. The root package does not count.
bool IsHidden(const std::string& outer,
              const google::protobuf::FileDescriptor& file);

// The class name of a service's client.
std::string ClientName(const google::protobuf::ServiceDescriptor& service);

// The class name of a message as spelled inside the class of `service`. Begins
// with "::" only if another name hides it.
std::string TypeName(const google::protobuf::Descriptor& type,
                     const google::protobuf::ServiceDescriptor& service);

// A file's path in the form that protobuf uses in the names of its tables:
// "a_2fb_5fc_2eproto" for "a/b_c.proto".
std::string MangledPath(const std::string& path);

}  // namespace orvane::generator

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_CPP_NAMES_H_
