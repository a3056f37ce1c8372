#include "zimbrel/src/core/common/rpc/generator/generator.h"

#include <memory>
#include <utility>

#include "google/protobuf/descriptor.h"
#include "google/protobuf/io/printer.h"
#include "google/protobuf/io/zero_copy_stream.h"

#include "zimbrel/src/core/common/rpc/generator/client_printer.h"
#include "zimbrel/src/core/common/rpc/generator/header_printer.h"
#include "zimbrel/src/core/common/rpc/generator/python_names.h"
#include "zimbrel/src/core/common/rpc/generator/python_printer.h"
#include "zimbrel/src/core/common/rpc/generator/rules.h"
#include "zimbrel/src/core/common/rpc/generator/service_model.h"
#include "zimbrel/src/core/common/rpc/generator/source_printer.h"

namespace orvane::generator {
namespace {

using google::protobuf::FileDescriptor;
using google::protobuf::compiler::GeneratorContext;
using google::protobuf::io::Printer;

enum class Language { kCpp, kPython };

struct Options {
  Language language = Language::kCpp;
  std::string log_path_prefix;
};

// False, with an error, if the parameter is not as told in the header.
bool ReadParameter(const std::string& parameter, Options* options,
                   std::string* error) {
  std::vector<std::pair<std::string, std::string>> words;
  google::protobuf::compiler::ParseGeneratorParameter(parameter, &words);
  for (const auto& [name, value] : words) {
    if (name == "log_path_prefix") {
      options->log_path_prefix = value;
    } else if (name == "language" && (value == "cpp" || value == "python")) {
      options->language =
          value == "python" ? Language::kPython : Language::kCpp;
    } else if (name == "language") {
      *error = "unknown language \"" + value + "\"; there are cpp and python";
      return false;
    } else {
      *error = "unknown parameter \"" + name +
               "\"; there are language=LANGUAGE and log_path_prefix=PATH";
      return false;
    }
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

void WriteCpp(const FileDescriptor& file, const Options& options,
              GeneratorContext* context) {
  if (file.service_count() == 0) return;
  const FileModel model = ReadFile(file, options.log_path_prefix);
  Write(model, model.stem + ".rpc.h", PrintHeader, context);
  Write(model, model.stem + ".rpc.cc", PrintSource, context);
  Write(model, model.stem + ".client.h", PrintClientHeader, context);
  Write(model, model.stem + ".client.cc", PrintClientSource, context);
}

void WritePython(const FileDescriptor& file, const Options& options,
                 GeneratorContext* context) {
  if (file.service_count() == 0) return;
  const FileModel model = ReadFile(file, options.log_path_prefix);
  Write(model, ClientPath(file), PrintPythonClient, context);
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
  Options options;
  if (!ReadParameter(parameter, &options, error)) return false;
  const bool is_python = options.language == Language::kPython;

  std::string findings;
  for (const FileDescriptor* file : files) {
    findings += BrokenRules(*file);
    if (is_python) findings += BrokenPythonRules(*file);
  }
  if (!findings.empty()) {
    findings.pop_back();  // protoc ends the last line itself.
    *error = "nothing was written:\n" + findings;
    return false;
  }

  for (const FileDescriptor* file : files) {
    if (is_python) {
      WritePython(*file, options, context);
    } else {
      WriteCpp(*file, options, context);
    }
  }
  return true;
}

std::uint64_t Generator::GetSupportedFeatures() const {
  return FEATURE_PROTO3_OPTIONAL;
}

}  // namespace orvane::generator
