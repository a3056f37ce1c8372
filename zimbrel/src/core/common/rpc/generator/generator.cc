#include "zimbrel/src/core/common/rpc/generator/generator.h"

#include <memory>
#include <utility>

#include "google/protobuf/descriptor.h"
#include "google/protobuf/io/printer.h"
#include "google/protobuf/io/zero_copy_stream.h"

#include "zimbrel/src/core/common/rpc/generator/client_printer.h"
#include "zimbrel/src/core/common/rpc/generator/header_printer.h"
#include "zimbrel/src/core/common/rpc/generator/rules.h"
#include "zimbrel/src/core/common/rpc/generator/service_model.h"
#include "zimbrel/src/core/common/rpc/generator/source_printer.h"

namespace orvane::generator {
namespace {

using google::protobuf::FileDescriptor;
using google::protobuf::compiler::GeneratorContext;
using google::protobuf::io::Printer;

// False, with an error, if the parameter is not as told in the header.
bool ReadParameter(const std::string& parameter, std::string* log_path_prefix,
                   std::string* error) {
  std::vector<std::pair<std::string, std::string>> options;
  google::protobuf::compiler::ParseGeneratorParameter(parameter, &options);
  for (const auto& [name, value] : options) {
    if (name != "log_path_prefix") {
      *error = "unknown parameter \"" + name +
               "\"; the only one is log_path_prefix=PATH";
      return false;
    }
    *log_path_prefix = value;
  }
  return true;
}

void Write(const FileModel& file, const std::string& name,
           void (*print)(const FileModel&, Printer*),
           GeneratorContext* context) {
  const std::unique_ptr<google::protobuf::io::ZeroCopyOutputStream> stream(
      context->Open(name));
  Printer printer(stream.get(), '$');
  print(file, &printer);
}

}  // namespace

bool Generator::Generate(const FileDescriptor* file,
                         const std::string& parameter,
                         GeneratorContext* context, std::string* error) const {
  return GenerateAll({file}, parameter, context, error);
}

bool Generator::GenerateAll(const std::vector<const FileDescriptor*>& files,
                            const std::string& parameter,
                            GeneratorContext* context,
                            std::string* error) const {
  std::string log_path_prefix;
  if (!ReadParameter(parameter, &log_path_prefix, error)) return false;

  std::string findings;
  for (const FileDescriptor* file : files) findings += BrokenRules(*file);
  if (!findings.empty()) {
    findings.pop_back();  // protoc ends the last line itself.
    *error = "nothing was written:\n" + findings;
    return false;
  }

  for (const FileDescriptor* file : files) {
    if (file->service_count() == 0) continue;
    const FileModel model = ReadFile(*file, log_path_prefix);
    Write(model, model.stem + ".rpc.h", PrintHeader, context);
    Write(model, model.stem + ".rpc.cc", PrintSource, context);
    Write(model, model.stem + ".client.h", PrintClientHeader, context);
    Write(model, model.stem + ".client.cc", PrintClientSource, context);
  }
  return true;
}

std::uint64_t Generator::GetSupportedFeatures() const {
  return FEATURE_PROTO3_OPTIONAL;
}

}  // namespace orvane::generator
