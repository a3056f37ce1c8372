#include "zimbrel/src/core/common/rpc/generator/python_printer.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "zimbrel/src/core/common/rpc/generator/python_names.h"

namespace orvane::generator {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::MethodDescriptor;
using google::protobuf::io::Printer;

// The type of a message field of what a callback stream carries.
const Descriptor& TypeOfField(const MethodDescriptor& method,
                              const char* field) {
  return *method.input_type()->FindFieldByName(field)->message_type();
}

// What the method's parameters and its result are made of.
std::vector<const Descriptor*> TypesOf(const MethodModel& method) {
  const MethodDescriptor& proto = *method.proto;
  switch (method.kind) {
    case MethodKind::kUnary:
      return {proto.input_type(), proto.output_type()};
    case MethodKind::kEventStream:
      return {&KeyTypeOf(proto), proto.output_type()};
    case MethodKind::kCallbackStream:
      break;
  }
  return {&KeyTypeOf(proto), &TypeOfField(proto, kCallField),
          &TypeOfField(proto, kResponseField)};
}

bool HasKeyword(const std::string& module) {
  std::istringstream parts(module);
  for (std::string part; std::getline(parts, part, '.');) {
    if (IsKeyword(part)) return true;
  }
  return false;
}

// Whether a type checker understands the class as Python spells it. If not, the
// stub that protoc writes for its module cannot be parsed either.
bool HasType(const Descriptor& type) {
  for (const Descriptor* part = &type; part != nullptr;
       part = part->containing_type()) {
    if (IsKeyword(std::string(part->name()))) return false;
  }
  return !HasKeyword(MessageModule(*type.file()));
}

// The modules that a client imports, each with the name it has there.
class Imports {
 public:
  explicit Imports(const FileModel& file) {
    Add(*file.proto);
    for (const ServiceModel& service : file.services) {
      for (const MethodModel& method : service.methods) {
        Add(*method.proto->output_type()->file());
        for (const Descriptor* type : TypesOf(method)) {
          Add(*type->file());
          has_any_ = has_any_ || !HasType(*type);
        }
      }
    }
    std::map<std::string, int> last_parts;
    for (const auto& [module, name] : names_) ++last_parts[LastPart(module)];
    std::set<std::string> taken;
    for (auto& [module, name] : names_) {
      name = LastPart(module);
      if (last_parts[name] > 1) {
        name = module;
        std::replace(name.begin(), name.end(), '.', '_');
      }
      while (!taken.insert(name).second) name.push_back('_');
    }
  }

  // How the class of a message is spelled.
  std::string Spelled(const Descriptor& type) const {
    return ClassIn(NameOf(*type.file()), type);
  }

  // The same where it is the type of a parameter or result.
  std::string Annotation(const Descriptor& type) const {
    return HasType(type) ? Spelled(type) : "Any";
  }

  const std::string& NameOf(const FileDescriptor& file) const {
    return names_.at(MessageModule(file));
  }

  // The standard library first, then ours and protoc's, in the order of the
  // modules.
  void Print(Printer* out) const {
    const bool has_keyword =
        std::any_of(names_.begin(), names_.end(),
                    [](const auto& entry) { return HasKeyword(entry.first); });
    if (has_keyword) out->Print("import importlib\n");
    if (has_any_) out->Print("from typing import Any\n");
    if (has_keyword || has_any_) out->Print("\n");
    out->Print("import orvane\n");
    for (const auto& [module, name] : names_) {
      if (HasKeyword(module)) continue;
      const std::size_t dot = module.rfind('.');
      if (dot != std::string::npos)
        out->Print("from $package$ ", "package", module.substr(0, dot));
      const std::string last = LastPart(module);
      out->Print("import $module$", "module", last);
      if (name != last) out->Print(" as $name$", "name", name);
      out->Print("\n");
    }
    if (has_keyword) out->Print("\n");
    for (const auto& [module, name] : names_) {
      if (!HasKeyword(module)) continue;
      out->Print("$name$ = importlib.import_module(\"$module$\")\n", "name",
                 name, "module", module);
    }
  }

 private:
  static std::string LastPart(const std::string& module) {
    const std::size_t dot = module.rfind('.');
    return dot == std::string::npos ? module : module.substr(dot + 1);
  }

  void Add(const FileDescriptor& file) {
    names_.emplace(MessageModule(file), "");
  }

  std::map<std::string, std::string> names_;  // By module.
  bool has_any_ = false;
};

// A comment's text as it may stand between the quotes of a docstring.
std::string Escaped(const std::string& line) {
  std::string text;
  for (const char c : line) {
    if (c == '\\' || c == '"') text.push_back('\\');
    text.push_back(c);
  }
  return text;
}

// `lines` begin with a blank each, as they would behind "//".
void PrintDocstring(const std::string& indent,
                    const std::vector<std::string>& lines, Printer* out) {
  static constexpr char kQuotes[] = R"(""")";
  std::string text = indent + kQuotes;
  bool is_first = true;
  for (const std::string& line : lines) {
    const std::string words =
        Escaped(line.starts_with(" ") ? line.substr(1) : line);
    if (!is_first) text += "\n" + (words.empty() ? "" : indent);
    text += words;
    is_first = false;
  }
  if (lines.size() > 1) text += "\n" + indent;
  text += kQuotes;
  out->PrintRaw(text + "\n");
}

std::vector<std::string> Documentation(const std::vector<std::string>& comment,
                                       const std::string& otherwise) {
  return comment.empty() ? std::vector<std::string>{otherwise} : comment;
}

void PrintUnary(const MethodModel& method, const Imports& imports,
                Printer* out) {
  out->Print(
      "\n"
      "    async def $name$(\n"
      "        self,\n"
      "        request: $request$,\n"
      "        *,\n"
      "        timeout: float | None = None,\n"
      "    ) -> $response$:\n",
      "name", PythonMethodName(method.proto_name), "request",
      imports.Annotation(*method.proto->input_type()), "response",
      imports.Annotation(*method.proto->output_type()));
  PrintDocstring(
      "        ",
      Documentation(method.comment, " Calls " + method.proto_name + "."), out);
  out->Print(
      "        return await self._connection.call(\n"
      "            self.SERVICE.methods[$index$], request, $response$, "
      "timeout\n"
      "        )\n",
      "index", std::to_string(method.index), "response",
      imports.Spelled(*method.proto->output_type()));
}

void PrintEventStream(const MethodModel& method, const Imports& imports,
                      Printer* out) {
  out->Print(
      "\n"
      "    def $name$(\n"
      "        self, key: $key$\n"
      "    ) -> orvane.Events[$event$]:\n",
      "name", PythonMethodName(method.proto_name), "key",
      imports.Annotation(KeyTypeOf(*method.proto)), "event",
      imports.Annotation(*method.proto->output_type()));
  PrintDocstring(
      "        ",
      Documentation(method.comment, " Watches " + method.proto_name + "."),
      out);
  out->Print(
      "        return self._connection.watch(\n"
      "            self.SERVICE.methods[$index$], key, $event$\n"
      "        )\n",
      "index", std::to_string(method.index), "event",
      imports.Spelled(*method.proto->output_type()));
}

void PrintCallbackStream(const MethodModel& method, const Imports& imports,
                         Printer* out) {
  out->Print(
      "\n"
      "    def $name$(\n"
      "        self,\n"
      "        key: $key$,\n"
      "        handler: orvane.Handler[\n"
      "            $call$,\n"
      "            $response$,\n"
      "        ],\n"
      "    ) -> orvane.Serving:\n",
      "name", PythonMethodName(method.proto_name), "key",
      imports.Annotation(KeyTypeOf(*method.proto)), "call",
      imports.Annotation(TypeOfField(*method.proto, kCallField)), "response",
      imports.Annotation(TypeOfField(*method.proto, kResponseField)));
  PrintDocstring(
      "        ",
      Documentation(method.comment, " Serves " + method.proto_name + "."), out);
  out->Print(
      "        return self._connection.serve(\n"
      "            self.SERVICE.methods[$index$], key, $type$, handler\n"
      "        )\n",
      "index", std::to_string(method.index), "type",
      imports.Spelled(*method.proto->output_type()));
}

void PrintMethod(const MethodModel& method, const Imports& imports,
                 Printer* out) {
  switch (method.kind) {
    case MethodKind::kUnary:
      return PrintUnary(method, imports, out);
    case MethodKind::kEventStream:
      return PrintEventStream(method, imports, out);
    case MethodKind::kCallbackStream:
      return PrintCallbackStream(method, imports, out);
  }
}

void PrintClient(const ServiceModel& service, const FileModel& file,
                 const Imports& imports, Printer* out) {
  const std::string name(service.proto->name());
  out->Print("\n\nclass $name$Client:\n", "name", name);
  PrintDocstring(
      "    ",
      Documentation(service.comment, " Calls " + service.full_name + "."), out);
  out->Print(
      "\n"
      "    SERVICE = $module$.DESCRIPTOR.services_by_name[\"$name$\"]\n"
      "\n"
      "    def __init__(self, connection: orvane.Connection) -> None:\n"
      "        connection.use(self.SERVICE)\n"
      "        self._connection = connection\n",
      "module", imports.NameOf(*file.proto), "name", name);
  for (const MethodModel& method : service.methods)
    PrintMethod(method, imports, out);
}

}  // namespace

void PrintPythonClient(const FileModel& file, Printer* out) {
  const Imports imports(file);
  out->Print(
      "# Generated by protoc-gen-orvane from $path$. Do not edit.\n"
      "\"\"\"The client's side of the services of $path$.\"\"\"\n"
      "\n"
      "from __future__ import annotations\n"
      "\n",
      "path", file.path);
  imports.Print(out);
  for (const ServiceModel& service : file.services)
    PrintClient(service, file, imports, out);
}

}  // namespace orvane::generator
