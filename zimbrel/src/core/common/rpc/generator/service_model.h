// What the printers need to know of a proto file.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_SERVICE_MODEL_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_SERVICE_MODEL_H_

#include <string>
#include <vector>

#include "google/protobuf/descriptor.h"

#include "zimbrel/src/core/common/rpc/method_kind.h"

namespace orvane::generator {

struct MethodModel {
  const google::protobuf::MethodDescriptor* proto;
  int index;  // Within its service.
  MethodKind kind;
  std::string proto_name;  // As the proto spells it.
  std::string name;        // In C++.
  std::string request;     // C++ types, as spelled inside the class.
  std::string response;
  // C++ types too, empty for a unary method: of its stream, of what its
  // accessor returns, and of the keys that a client subscribes to.
  std::string stream;
  std::string accessor;
  std::string key;
  std::vector<std::string> comment;  // Lines of text, empty if there are none.
};

struct ServiceModel {
  const google::protobuf::ServiceDescriptor* proto;
  int index;                // Within its file.
  std::string full_name;    // In the proto.
  std::string name;         // In C++.
  std::string client_name;  // Its client's.
  std::vector<std::string> comment;
  std::vector<MethodModel> methods;  // In the order of the proto.

  bool Has(MethodKind kind) const;
  bool HasStreams() const;
};

struct FileModel {
  const google::protobuf::FileDescriptor* proto;
  std::string path;          // As imported: "rpc/browser/browser_widget.proto".
  std::string stem;          // The path without ".proto".
  std::string mangled_path;  // The path as a part of protobuf's identifiers.
  std::string log_path;      // What fatal log entries name as their source.
  std::string cpp_namespace;  // "a::b", or empty.
  std::vector<ServiceModel> services;

  bool Has(MethodKind kind) const;
  bool HasStreams() const;
};

// `file` breaks no rule (rules.h). A prefix that is not empty goes before the
// log path, with a slash between.
FileModel ReadFile(const google::protobuf::FileDescriptor& file,
                   const std::string& log_path_prefix);

}  // namespace orvane::generator

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_GENERATOR_SERVICE_MODEL_H_
