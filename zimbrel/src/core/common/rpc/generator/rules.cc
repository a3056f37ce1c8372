#include "zimbrel/src/core/common/rpc/generator/rules.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <sstream>
#include <vector>

#include "google/protobuf/descriptor.pb.h"

#include "zimbrel/src/core/common/rpc/generator/cpp_names.h"
#include "zimbrel/src/core/common/rpc/generator/python_names.h"
#include "zimbrel/src/core/common/rpc/method_kind.h"

namespace orvane::generator {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::FileDescriptorProto;
using google::protobuf::FileOptions;
using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;
using google::protobuf::SourceLocation;

// Namespaces that the generated code names.
constexpr const char* kNamespaces[] = {"absl", "google", "orvane", "std"};

// Names that the generated members use for themselves.
constexpr const char* kMemberNames[] = {"descriptor",
                                        "GetDescriptor",
                                        "CallMethod",
                                        "GetRequestPrototype",
                                        "GetResponsePrototype",
                                        "OpenStream",
                                        "RefuseCall",
                                        "ServiceDescriptorAt",
                                        "kSourcePath",
                                        "method",
                                        "controller",
                                        "request",
                                        "response",
                                        "done",
                                        "channel",
                                        "connection",
                                        "connection_",
                                        "timeout",
                                        "on_answer",
                                        "key",
                                        "on_event",
                                        "on_call",
                                        "on_end",
                                        "MethodAt"};

class Findings {
 public:
  explicit Findings(const FileDescriptor& file) : file_(file) {}

  // At an element of the file, by its path in FileDescriptorProto.
  void Add(const std::vector<int>& path, const std::string& sentence) {
    SourceLocation location;
    AddAt(file_.GetSourceLocation(path, &location) ? &location : nullptr,
          sentence);
  }

  void Add(const MethodDescriptor& method, const std::string& sentence) {
    SourceLocation location;
    AddAt(method.GetSourceLocation(&location) ? &location : nullptr,
          std::string(method.service()->name()) + "." +
              std::string(method.name()) + ": " + sentence);
  }

  const std::string& text() const { return text_; }

 private:
  void AddAt(const SourceLocation* location, const std::string& sentence) {
    text_ += std::string(file_.name()) + ":";
    if (location != nullptr) {
      text_ += std::to_string(location->start_line + 1) + ":" +
               std::to_string(location->start_column + 1) + ":";
    }
    text_ += " " + sentence + "\n";
  }

  const FileDescriptor& file_;
  std::string text_;
};

void CheckPackage(const FileDescriptor& file, Findings* findings) {
  const std::vector<int> path = {FileDescriptorProto::kPackageFieldNumber};
  std::istringstream package{std::string(file.package())};
  for (std::string part; std::getline(package, part, '.');) {
    if (Identifier(part) != part) {
      findings->Add(path, "the package has a part " + part +
                              ", which C++ reserves, so that it cannot be a "
                              "namespace");
    }
  }
  for (const char* name : kNamespaces) {
    if (IsHidden(name, file)) {
      findings->Add(path, "what is called " + std::string(name) +
                              " in this package, or around it, hides the "
                              "namespace " +
                              name + " from the generated code");
    }
  }
}

void CheckOptions(const FileDescriptor& file, Findings* findings) {
  if (file.options().cc_generic_services()) {
    findings->Add({FileDescriptorProto::kOptionsFieldNumber,
                   FileOptions::kCcGenericServicesFieldNumber},
                  "cc_generic_services makes protoc write a class of the same "
                  "name as ours; it must be off");
  }
  if (file.options().optimize_for() == FileOptions::LITE_RUNTIME) {
    findings->Add({FileDescriptorProto::kOptionsFieldNumber,
                   FileOptions::kOptimizeForFieldNumber},
                  "messages of LITE_RUNTIME have no descriptors, which a "
                  "service needs; services go into a file without it");
  }
}

// A callback stream finds the call that a frame belongs to by its key, and what
// to do with the frame by the member of its oneof.
void CheckCallbackType(const MethodDescriptor& method, Findings* findings) {
  const Descriptor& type = *method.input_type();
  const std::string type_name(type.full_name());

  const FieldDescriptor* key = type.FindFieldByName(kKeyField);
  if (key == nullptr || key->is_repeated() ||
      key->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE ||
      key->real_containing_oneof() != nullptr) {
    findings->Add(method, "the callback type " + type_name +
                              " must have a singular message field "
                              "`browser_id` outside any oneof");
  }

  const FieldDescriptor* subscribe = type.FindFieldByName(kSubscribeField);
  const auto is_stage = [&](const char* name) {
    const FieldDescriptor* field = type.FindFieldByName(name);
    return field != nullptr &&
           field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE &&
           field->real_containing_oneof() == subscribe->real_containing_oneof();
  };
  if (subscribe == nullptr || subscribe->type() != FieldDescriptor::TYPE_BOOL ||
      subscribe->real_containing_oneof() == nullptr || !is_stage(kCallField) ||
      !is_stage(kResponseField)) {
    findings->Add(method, "the callback type " + type_name +
                              " must have one oneof with a bool `subscribe` "
                              "and messages `call` and `response`");
  }
}

void CheckKind(const MethodDescriptor& method, Findings* findings) {
  const auto kind = KindOf(method);
  if (kind == MethodKind::kCallbackStream) CheckCallbackType(method, findings);
  if (kind.has_value()) return;
  if (method.client_streaming() != method.server_streaming()) {
    findings->Add(
        method,
        std::string("a streaming method must have `stream` on both sides; "
                    "this one has it only before what it ") +
            (method.client_streaming() ? "takes" : "returns"));
    return;
  }
  findings->Add(
      method,
      "a streaming method must either take rpc.EventSubscription (an event "
      "stream) or return the type that it takes (a callback stream); this one "
      "takes " +
          std::string(method.input_type()->full_name()) + " and returns " +
          std::string(method.output_type()->full_name()));
}

// Names in C++ of the methods of a service so far, each with that in the proto.
using Names = std::map<std::string, std::string>;

void CheckName(const MethodDescriptor& method, Names* names,
               Findings* findings) {
  const std::string name(method.name());
  const std::string cpp_name = Identifier(name);
  if (cpp_name == Identifier(std::string(method.service()->name()))) {
    findings->Add(method,
                  "a method cannot have the name of its service, which in C++ "
                  "is that of the constructor");
  }
  if (cpp_name == ClientName(*method.service())) {
    findings->Add(
        method,
        "a method cannot have the name of its service's client, which "
        "in C++ is that of the constructor");
  }
  if (std::find(std::begin(kMemberNames), std::end(kMemberNames), cpp_name) !=
      std::end(kMemberNames)) {
    findings->Add(method, "the generated class uses the name " + cpp_name +
                              " itself; the method needs another one");
  }
  const auto [first, is_new] = names->emplace(cpp_name, name);
  if (!is_new) {
    findings->Add(method, "the C++ name " + cpp_name +
                              " is already that of the method " +
                              first->second);
  }
}

// The client's class stands beside those of the package's messages, enums and
// services.
void CheckClientName(const ServiceDescriptor& service, Findings* findings) {
  const std::string name = ClientName(service);
  const std::string package(service.file()->package());
  const std::string full_name = package.empty() ? name : package + "." + name;
  const DescriptorPool& pool = *service.file()->pool();
  if (pool.FindMessageTypeByName(full_name) == nullptr &&
      pool.FindEnumTypeByName(full_name) == nullptr &&
      pool.FindServiceByName(full_name) == nullptr) {
    return;
  }
  findings->Add({FileDescriptorProto::kServiceFieldNumber, service.index()},
                std::string(service.name()) + ": its client is called " + name +
                    ", which is already the name of something else in this "
                    "package");
}

void CheckService(const ServiceDescriptor& service, Findings* findings) {
  CheckClientName(service, findings);
  Names names;
  for (int i = 0; i < service.method_count(); ++i) {
    CheckName(*service.method(i), &names, findings);
    CheckKind(*service.method(i), findings);
  }
}

}  // namespace

std::string BrokenRules(const FileDescriptor& file) {
  if (file.service_count() == 0) return "";
  Findings findings(file);
  CheckPackage(file, &findings);
  CheckOptions(file, &findings);
  for (int i = 0; i < file.service_count(); ++i)
    CheckService(*file.service(i), &findings);
  return findings.text();
}

std::string BrokenPythonRules(const FileDescriptor& file) {
  Findings findings(file);
  if (file.name().starts_with("orvane/")) {
    findings.Add(
        std::vector<int>{},
        "a proto cannot be in a folder orvane, since Python would look "
        "for its modules in the package of that name");
  }
  for (int i = 0; i < file.service_count(); ++i) {
    Names names;
    for (int j = 0; j < file.service(i)->method_count(); ++j) {
      const MethodDescriptor& method = *file.service(i)->method(j);
      const std::string name(method.name());
      if (name.starts_with("__")) {
        findings.Add(method,
                     "a method's name cannot begin with two "
                     "underscores, which Python treats specially in a "
                     "class");
      }
      const auto [first, is_new] = names.emplace(PythonMethodName(name), name);
      if (!is_new) {
        findings.Add(method, "the Python name " + first->first +
                                 " is already that of the method " +
                                 first->second);
      }
    }
  }
  return findings.text();
}

}  // namespace orvane::generator
