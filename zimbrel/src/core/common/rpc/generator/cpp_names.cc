#include "zimbrel/src/core/common/rpc/generator/cpp_names.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <set>

#include "google/protobuf/compiler/cpp/names.h"
#include "google/protobuf/descriptor.pb.h"

namespace orvane::generator {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::ServiceDescriptor;

// Words of C++20 that older versions of protobuf do not treat as reserved.
constexpr const char* kNewWords[] = {
    "char8_t",  "char16_t", "char32_t",  "co_await",  "co_return",
    "co_yield", "concept",  "consteval", "constinit", "requires"};

// Whether `file` or something that it imports declares `name` in the package
// `scope`, as a type, a service or a package.
bool Declares(const FileDescriptor& file, const std::string& scope,
              const std::string& name, std::set<const FileDescriptor*>* seen) {
  if (!seen->insert(&file).second) return false;
  const std::string package(file.package());
  if ((package + ".").rfind(scope + "." + name + ".", 0) == 0) return true;
  if (package == scope && (file.FindMessageTypeByName(name) != nullptr ||
                           file.FindEnumTypeByName(name) != nullptr ||
                           file.FindServiceByName(name) != nullptr))
    return true;
  for (int i = 0; i < file.dependency_count(); ++i) {
    if (Declares(*file.dependency(i), scope, name, seen)) return true;
  }
  return false;
}

}  // namespace

std::string Identifier(const std::string& name) {
  if (std::find(std::begin(kNewWords), std::end(kNewWords), name) !=
      std::end(kNewWords))
    return name + "_";
  // protobuf does not export its list of reserved words. The C++ name that it
  // gives to an enumerator called `name` shows whether `name` is one of them;
  // in that of a message, newer protobufs also avoid the names of their own
  // members.
  google::protobuf::FileDescriptorProto proto;
  proto.set_name("name.proto");
  auto* const type = proto.add_enum_type();
  type->set_name(name + "_type");
  type->add_value()->set_name(name);
  type->mutable_value(0)->set_number(0);
  google::protobuf::DescriptorPool pool;
  return google::protobuf::compiler::cpp::EnumValueName(
      pool.BuildFile(proto)->enum_type(0)->value(0));
}

std::string NamespaceOf(const FileDescriptor& file) {
  std::string name(file.package());
  for (std::size_t dot = name.find('.'); dot != std::string::npos;
       dot = name.find('.', dot))
    name.replace(dot, 1, "::");
  return name;
}

bool IsHidden(const std::string& outer, const FileDescriptor& file) {
  const std::string package(file.package());
  for (std::size_t end = package.size(); end != std::string::npos && end > 0;
       end = package.rfind('.', end - 1)) {
    std::set<const FileDescriptor*> seen;
    if (Declares(file, package.substr(0, end), outer, &seen)) return true;
  }
  return false;
}

std::string ClientName(const ServiceDescriptor& service) {
  return std::string(service.name()) + "Client";
}

std::string TypeName(const Descriptor& type, const ServiceDescriptor& service) {
  const std::string name =
      google::protobuf::compiler::cpp::QualifiedClassName(&type).substr(2);
  const std::string outer = name.substr(0, name.find("::"));
  const bool is_hidden = IsHidden(outer, *service.file()) ||
                         service.FindMethodByName(outer) != nullptr;
  return is_hidden ? "::" + name : name;
}

std::string MangledPath(const std::string& path) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string mangled;
  for (const char c : path) {
    if ((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') ||
        (c >= 'a' && c <= 'z')) {
      mangled += c;
      continue;
    }
    const auto code = static_cast<unsigned char>(c);
    mangled += '_';
    mangled += kDigits[code / 16];
    mangled += kDigits[code % 16];
  }
  return mangled;
}

}  // namespace orvane::generator
