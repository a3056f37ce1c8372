#include "zimbrel/src/core/common/rpc/generator/python_names.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <iterator>

#include "google/protobuf/compiler/code_generator.h"

namespace orvane::generator {
namespace {

constexpr const char* kReserved[] = {
    "and",      "as",       "assert", "async", "await",  "break",  "class",
    "continue", "def",      "del",    "elif",  "else",   "except", "finally",
    "for",      "from",     "global", "if",    "import", "in",     "is",
    "lambda",   "nonlocal", "not",    "or",    "pass",   "raise",  "return",
    "try",      "while",    "with",   "yield"};

bool IsUpper(char c) {
  return std::isupper(static_cast<unsigned char>(c)) != 0;
}
bool IsLower(char c) {
  return std::islower(static_cast<unsigned char>(c)) != 0;
}

}  // namespace

std::string MessageModule(const google::protobuf::FileDescriptor& file) {
  std::string module =
      google::protobuf::compiler::StripProto(std::string(file.name()));
  std::replace(module.begin(), module.end(), '-', '_');
  std::replace(module.begin(), module.end(), '/', '.');
  return (module.starts_with("rpc.") ? "orvane." : "") + module + "_pb2";
}

std::string ClassInModule(const google::protobuf::Descriptor& type) {
  const std::string name(type.name());
  return type.containing_type() == nullptr
             ? name
             : ClassInModule(*type.containing_type()) + "." + name;
}

std::string PythonMethodName(const std::string& name) {
  std::string words;
  for (std::size_t i = 0; i < name.size(); ++i) {
    // "GetURLOfPage" has the words get, url, of and page.
    const bool begins_word = i > 0 && IsUpper(name[i]) && name[i - 1] != '_' &&
                             (!IsUpper(name[i - 1]) ||
                              (i + 1 < name.size() && IsLower(name[i + 1])));
    if (begins_word) words.push_back('_');
    words.push_back(
        static_cast<char>(std::tolower(static_cast<unsigned char>(name[i]))));
  }
  const bool is_reserved = std::find(std::begin(kReserved), std::end(kReserved),
                                     words) != std::end(kReserved);
  return is_reserved ? words + "_" : words;
}

}  // namespace orvane::generator
