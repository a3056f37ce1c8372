#include "zimbrel/src/core/common/rpc/generator/python_names.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <iterator>

#include "google/protobuf/compiler/code_generator.h"

namespace orvane::generator {
namespace {

constexpr const char* kKeywords[] = {
    "False",  "None",   "True",    "and",      "as",       "assert", "async",
    "await",  "break",  "class",   "continue", "def",      "del",    "elif",
    "else",   "except", "finally", "for",      "from",     "global", "if",
    "import", "in",     "is",      "lambda",   "nonlocal", "not",    "or",
    "pass",   "raise",  "return",  "try",      "while",    "with",   "yield"};

// The client's attribute, and what the types of its methods are made of, in
// addition to the modules of messages.
constexpr const char* kUsedByClients[] = {"_connection", "float", "orvane"};

template <typename Names>
bool IsOneOf(const std::string& name, const Names& names) {
  return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

bool IsUpper(char c) {
  return std::isupper(static_cast<unsigned char>(c)) != 0;
}
bool IsLower(char c) {
  return std::islower(static_cast<unsigned char>(c)) != 0;
}

// A file's path without ".proto", as part of the names of Python's modules.
std::string ModuleStem(const google::protobuf::FileDescriptor& file) {
  std::string stem =
      google::protobuf::compiler::StripProto(std::string(file.name()));
  std::replace(stem.begin(), stem.end(), '-', '_');
  std::replace(stem.begin(), stem.end(), '/', '.');
  return stem;
}

}  // namespace

std::string MessageModule(const google::protobuf::FileDescriptor& file) {
  return ModuleStem(file) + "_pb2";
}

std::string ClientPath(const google::protobuf::FileDescriptor& file) {
  std::string path = ModuleStem(file);
  std::replace(path.begin(), path.end(), '.', '/');
  return path + "_client.py";
}

bool IsKeyword(const std::string& name) { return IsOneOf(name, kKeywords); }

std::string ClassIn(const std::string& module,
                    const google::protobuf::Descriptor& type) {
  const std::string owner = type.containing_type() == nullptr
                                ? module
                                : ClassIn(module, *type.containing_type());
  const std::string name(type.name());
  return IsKeyword(name) ? "getattr(" + owner + ", \"" + name + "\")"
                         : owner + "." + name;
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
  const bool is_taken = IsKeyword(words) || IsOneOf(words, kUsedByClients) ||
                        words.ends_with("_pb2");
  return is_taken ? words + "_" : words;
}

}  // namespace orvane::generator
