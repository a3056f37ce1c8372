#include "zimbrel/src/core/common/rpc/generator/service_model.h"

#include <algorithm>
#include <sstream>

#include "google/protobuf/compiler/code_generator.h"

#include "zimbrel/src/core/common/rpc/generator/cpp_names.h"

namespace orvane::generator {
namespace {

using google::protobuf::FileDescriptor;
using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;
using google::protobuf::SourceLocation;

// A line of a comment as it goes behind "//": a block's second star and blanks
// at the end are dropped, a missing blank at the front is added.
std::string CommentLine(std::string line, bool is_first) {
  const auto end = line.find_last_not_of(" \t\r");
  line.resize(end == std::string::npos ? 0 : end + 1);
  if (is_first && line.starts_with("*")) line.erase(0, 1);
  const bool has_space = line.empty() || line[0] == ' ' || line[0] == '/';
  return has_space ? line : " " + line;
}

// The comment above a declaration, or else the one behind it, without blank
// lines at its ends.
template <typename Descriptor>
std::vector<std::string> CommentOf(const Descriptor& descriptor) {
  SourceLocation location;
  if (!descriptor.GetSourceLocation(&location)) return {};
  std::istringstream text(location.leading_comments.empty()
                              ? location.trailing_comments
                              : location.leading_comments);
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) {
    line = CommentLine(line, lines.empty());
    if (!lines.empty() || !line.empty()) lines.push_back(line);
  }
  while (!lines.empty() && lines.back().empty()) lines.pop_back();
  return lines;
}

MethodModel ReadMethod(const MethodDescriptor& method) {
  const std::string name(method.name());
  MethodModel model = {
      .proto = &method,
      .index = method.index(),
      .kind = *KindOf(method),
      .proto_name = name,
      .name = Identifier(name),
      .request = TypeName(*method.input_type(), *method.service()),
      .response = TypeName(*method.output_type(), *method.service()),
      .stream = "",
      .accessor = "",
      .key = "",
      .comment = CommentOf(method)};
  if (model.kind == MethodKind::kUnary) return model;
  model.key = TypeName(KeyTypeOf(method), *method.service());
  if (model.kind == MethodKind::kEventStream) {
    model.stream = "orvane::EventStream<" + model.response + ">";
    model.accessor = "orvane::Publisher<" + model.response + ">";
  } else {
    model.stream = "orvane::CallbackStream<" + model.response + ">";
    model.accessor = "orvane::Caller<" + model.response + ">";
  }
  return model;
}

ServiceModel ReadService(const ServiceDescriptor& service) {
  ServiceModel model = {.proto = &service,
                        .index = service.index(),
                        .full_name = std::string(service.full_name()),
                        .name = Identifier(std::string(service.name())),
                        .client_name = ClientName(service),
                        .comment = CommentOf(service),
                        .methods = {}};
  for (int i = 0; i < service.method_count(); ++i)
    model.methods.push_back(ReadMethod(*service.method(i)));
  return model;
}

}  // namespace

bool ServiceModel::Has(MethodKind kind) const {
  return std::any_of(
      methods.begin(), methods.end(),
      [kind](const MethodModel& method) { return method.kind == kind; });
}

bool ServiceModel::HasStreams() const {
  return Has(MethodKind::kEventStream) || Has(MethodKind::kCallbackStream);
}

bool FileModel::Has(MethodKind kind) const {
  return std::any_of(
      services.begin(), services.end(),
      [kind](const ServiceModel& service) { return service.Has(kind); });
}

bool FileModel::HasStreams() const {
  return Has(MethodKind::kEventStream) || Has(MethodKind::kCallbackStream);
}

FileModel ReadFile(const FileDescriptor& file,
                   const std::string& log_path_prefix) {
  const std::string path(file.name());
  const std::string stem = google::protobuf::compiler::StripProto(path);
  FileModel model = {
      .proto = &file,
      .path = path,
      .stem = stem,
      .mangled_path = MangledPath(path),
      .log_path = (log_path_prefix.empty() ? "" : log_path_prefix + "/") +
                  stem + ".rpc",
      .cpp_namespace = NamespaceOf(file),
      .services = {}};
  for (int i = 0; i < file.service_count(); ++i)
    model.services.push_back(ReadService(*file.service(i)));
  return model;
}

}  // namespace orvane::generator
