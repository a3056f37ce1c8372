#include "tools/widgetctl/describe.h"

#include <algorithm>
#include <set>

#include "absl/status/status.h"
#include "absl/strings/ascii.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "absl/strings/str_split.h"

#include "tools/widgetctl/methods.h"

namespace widgetctl {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::EnumDescriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::MethodDescriptor;
using google::protobuf::OneofDescriptor;
using google::protobuf::ServiceDescriptor;
using google::protobuf::SourceLocation;

namespace {

// The comments of a descriptor, as indented lines.
template <typename D>
std::string Comments(const D& described, absl::string_view indent) {
  SourceLocation location;
  if (!described.GetSourceLocation(&location)) return "";
  std::string lines;
  for (const std::string* const comment :
       {&location.leading_comments, &location.trailing_comments}) {
    if (comment->empty()) continue;
    for (absl::string_view line :
         absl::StrSplit(absl::StripTrailingAsciiWhitespace(*comment), '\n')) {
      absl::StrAppend(&lines, indent, "//", line, "\n");
    }
  }
  return lines;
}

std::string Signature(const MethodDescriptor& method) {
  return absl::StrCat("rpc ", method.name(), "(",
                      method.client_streaming() ? "stream " : "",
                      method.input_type()->full_name(), ") returns (",
                      method.server_streaming() ? "stream " : "",
                      method.output_type()->full_name(), ")");
}

std::string TypeName(const FieldDescriptor& field) {
  std::string name;
  if (field.message_type() != nullptr) {
    name = std::string(field.message_type()->full_name());
  } else if (field.enum_type() != nullptr) {
    name = std::string(field.enum_type()->full_name());
  } else {
    name = std::string(field.type_name());
  }
  if (field.is_repeated()) return absl::StrCat("[", name, "]");
  const bool can_be_absent = field.has_presence() &&
                             field.message_type() == nullptr &&
                             field.real_containing_oneof() == nullptr;
  return can_be_absent ? absl::StrCat("optional ", name) : name;
}

// Puts a blank line in front of a member that has comments.
void AppendMember(const std::string& comments, const std::string& member,
                  std::string* text) {
  const bool is_first =
      absl::string_view(*text).substr(text->size() - 2) == "{\n";
  absl::StrAppend(text, comments.empty() || is_first ? "" : "\n", comments,
                  member);
}

void AppendField(const FieldDescriptor& field, absl::string_view indent,
                 std::string* text) {
  AppendMember(
      Comments(field, indent),
      absl::StrCat(indent, field.json_name(), ": ", TypeName(field), "\n"),
      text);
}

std::string Text(const Descriptor& message) {
  std::string text = absl::StrCat(Comments(message, ""), "message ",
                                  message.full_name(), " {\n");
  for (int i = 0; i < message.field_count(); ++i) {
    const FieldDescriptor& field = *message.field(i);
    const OneofDescriptor* const oneof = field.real_containing_oneof();
    if (oneof == nullptr) {
      AppendField(field, "  ", &text);
    } else if (oneof->field(0) == &field) {
      AppendMember(Comments(*oneof, "  "),
                   absl::StrCat("  oneof ", oneof->name(), " {\n"), &text);
      for (int j = 0; j < oneof->field_count(); ++j) {
        AppendField(*oneof->field(j), "    ", &text);
      }
      absl::StrAppend(&text, "  }\n");
    }
  }
  return absl::StrCat(text, "}\n");
}

std::string Text(const EnumDescriptor& type) {
  std::string text =
      absl::StrCat(Comments(type, ""), "enum ", type.full_name(), " {\n");
  for (int i = 0; i < type.value_count(); ++i) {
    AppendMember(Comments(*type.value(i), "  "),
                 absl::StrCat("  ", type.value(i)->name(), " = ",
                              type.value(i)->number(), "\n"),
                 &text);
  }
  return absl::StrCat(text, "}\n");
}

// Texts of types, each type once, in the order in which they are added.
class Glossary {
 public:
  // Also adds all types that its fields need.
  void Add(const Descriptor* message) {
    if (!seen_.insert(message).second) return;
    Append(Text(*message));
    for (int i = 0; i < message->field_count(); ++i) {
      const FieldDescriptor& field = *message->field(i);
      if (field.message_type() != nullptr) Add(field.message_type());
      if (field.enum_type() != nullptr) Add(field.enum_type());
    }
  }

  void Add(const EnumDescriptor* type) {
    if (seen_.insert(type).second) Append(Text(*type));
  }

  void Append(const std::string& entry) {
    absl::StrAppend(&text_, text_.empty() ? "" : "\n", entry);
  }

  const std::string& text() const { return text_; }

 private:
  std::set<const void*> seen_;
  std::string text_;
};

}  // namespace

std::string ListMethods(const ServiceDescriptor& service) {
  int longest = 0;
  for (int i = 0; i < service.method_count(); ++i) {
    longest =
        std::max(longest, static_cast<int>(service.method(i)->name().size()));
  }
  std::string list;
  for (int i = 0; i < service.method_count(); ++i) {
    const MethodDescriptor& method = *service.method(i);
    absl::StrAppendFormat(&list, "%2d  %-*s  %-15s  %s -> %s\n", i, longest,
                          method.name(), KindName(method),
                          method.input_type()->full_name(),
                          method.output_type()->full_name());
  }
  return list;
}

std::string DescribeService(const ServiceDescriptor& service) {
  std::string text = absl::StrCat(Comments(service, ""), "service ",
                                  service.full_name(), " {\n");
  for (int i = 0; i < service.method_count(); ++i) {
    AppendMember(Comments(*service.method(i), "  "),
                 absl::StrCat("  ", Signature(*service.method(i)), "\n"),
                 &text);
  }
  return absl::StrCat(text, "}\n");
}

absl::StatusOr<std::string> DescribeNamed(const ServiceDescriptor& service,
                                          absl::string_view name) {
  Glossary glossary;
  const std::string plain(name);
  if (const MethodDescriptor* const method = service.FindMethodByName(plain)) {
    glossary.Append(
        absl::StrCat(Comments(*method, ""), Signature(*method), "\n"));
    glossary.Add(method->input_type());
    glossary.Add(method->output_type());
    return glossary.text();
  }
  const DescriptorPool& pool = *service.file()->pool();
  for (const std::string& full_name :
       {plain, absl::StrCat(service.file()->package(), ".", plain)}) {
    if (const Descriptor* const type = pool.FindMessageTypeByName(full_name)) {
      glossary.Add(type);
      return glossary.text();
    }
    if (const EnumDescriptor* const type = pool.FindEnumTypeByName(full_name)) {
      glossary.Add(type);
      return glossary.text();
    }
  }

  std::set<std::string> candidates;
  for (int i = 0; i < service.method_count(); ++i) {
    candidates.emplace(service.method(i)->name());
    candidates.emplace(service.method(i)->input_type()->name());
    candidates.emplace(service.method(i)->output_type()->name());
  }
  return absl::NotFoundError(absl::StrCat("no method, message or enum ", name,
                                          " in ", service.full_name(),
                                          DidYouMean(name, candidates)));
}

}  // namespace widgetctl
