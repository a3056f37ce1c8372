#include "tools/widgetctl/completion.h"

#include <cstddef>
#include <optional>
#include <set>
#include <utility>

#include "absl/strings/ascii.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_replace.h"
#include "absl/strings/str_split.h"
#include "absl/strings/strip.h"

#include "tools/widgetctl/methods.h"
#include "zimbrel/src/core/common/rpc/method_kind.h"

namespace widgetctl {

using google::protobuf::Descriptor;
using google::protobuf::EnumDescriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;
using orvane::MethodKind;

namespace {

using Words = std::set<std::string>;

// What is left of each word that begins with `typed`, with `end` behind it.
std::vector<std::string> Rest(const Words& words, absl::string_view typed,
                              absl::string_view end = " ") {
  std::vector<std::string> rest;
  for (const std::string& word : words) {
    if (absl::StartsWith(word, typed))
      rest.push_back(absl::StrCat(word.substr(typed.size()), end));
  }
  return rest;
}

// JSON ------------------------------------------------------------------------

// Follows the beginning of a message up to its end, and knows what may follow.
class JsonReader {
 public:
  explicit JsonReader(const Descriptor& type) : root_(&type) {}

  std::vector<std::string> Read(absl::string_view json) {
    for (const char c : json) {
      if (!Take(c)) return {};
    }
    return Continue();
  }

 private:
  enum class At {
    kValue,      // Before a value.
    kInString,   // The value.
    kInLiteral,  // A number, true, false or null.
    kBehindValue,
    kKey,  // Before a key, or the end of an object without any.
    kInKey,
    kBehindKey,  // Before the colon.
  };

  // An object or a list.
  struct Level {
    const Descriptor* type;        // Null in a list.
    const FieldDescriptor* field;  // Of a list: whose values are in it.
    Words keys;                    // That have been there.
  };

  bool IsInList() const {
    return !levels_.empty() && levels_.back().type == nullptr;
  }

  // Whose value is next. Null for the whole message.
  const FieldDescriptor* Field() const {
    return IsInList() ? levels_.back().field : field_;
  }

  bool Take(char c) {
    if (is_escaped_) {
      is_escaped_ = false;
      return true;
    }
    switch (at_) {
      case At::kInString:
      case At::kInKey:
        if (c == '\\') {
          is_escaped_ = true;
        } else if (c != '"') {
          token_.push_back(c);
        } else if (at_ == At::kInString) {
          at_ = At::kBehindValue;
        } else {
          return EndKey();
        }
        return true;
      case At::kInLiteral:
        if (absl::ascii_isalnum(c) || c == '.' || c == '-' || c == '+') {
          token_.push_back(c);
          return true;
        }
        at_ = At::kBehindValue;
        break;
      default:
        break;
    }
    return absl::ascii_isspace(c) || TakeMark(c);
  }

  bool TakeMark(char c) {
    token_.clear();
    switch (at_) {
      case At::kValue:
        return BeginValue(c);
      case At::kBehindValue:
        if (c == '}' || c == ']') return EndLevel();
        if (c != ',' || levels_.empty()) return false;
        at_ = IsInList() ? At::kValue : At::kKey;
        return true;
      case At::kKey:
        if (c == '}') return EndLevel();
        at_ = At::kInKey;
        return c == '"';
      case At::kBehindKey:
        at_ = At::kValue;
        return c == ':';
      default:
        return false;
    }
  }

  bool BeginValue(char c) {
    if (c == '"') {
      at_ = At::kInString;
    } else if (c == '{') {
      const Descriptor* const type =
          Field() == nullptr ? root_ : Field()->message_type();
      levels_.push_back({type, nullptr, {}});
      at_ = At::kKey;
      return type != nullptr;
    } else if (c == '[') {
      levels_.push_back({nullptr, Field(), {}});
    } else if (c == ']') {
      return EndLevel();
    } else {
      token_.push_back(c);
      at_ = At::kInLiteral;
    }
    return true;
  }

  bool EndLevel() {
    if (levels_.empty()) return false;
    levels_.pop_back();
    at_ = At::kBehindValue;
    return true;
  }

  bool EndKey() {
    Level& level = levels_.back();
    field_ = nullptr;
    for (int i = 0; i < level.type->field_count(); ++i) {
      if (level.type->field(i)->json_name() == token_)
        field_ = level.type->field(i);
    }
    level.keys.insert(token_);
    at_ = At::kBehindKey;
    return field_ != nullptr;
  }

  std::vector<std::string> Continue() const {
    switch (at_) {
      case At::kValue:
        return Values();
      case At::kInString:
        return Field() != nullptr && Field()->enum_type() != nullptr
                   ? Rest(ValuesOf(*Field()->enum_type()), token_, "\"")
                   : std::vector<std::string>();
      case At::kInLiteral:
        return Field() != nullptr &&
                       Field()->type() == FieldDescriptor::TYPE_BOOL
                   ? Rest({"false", "true"}, token_, "")
                   : std::vector<std::string>();
      case At::kBehindValue:
        if (levels_.empty()) return {};
        return {", ", IsInList() ? "]" : "}"};
      case At::kKey:
        return Keys("\"");
      case At::kInKey:
        return Keys("");
      case At::kBehindKey:
        return {": "};
    }
    return {};
  }

  std::vector<std::string> Keys(absl::string_view begin) const {
    Words keys;
    const Level& level = levels_.back();
    for (int i = 0; i < level.type->field_count(); ++i) {
      const std::string name(level.type->field(i)->json_name());
      if (!level.keys.contains(name)) keys.insert(absl::StrCat(begin, name));
    }
    return Rest(keys, token_, "\": ");
  }

  // What a value of the field begins with, or is.
  std::vector<std::string> Values() const {
    const FieldDescriptor* const field = Field();
    if (field == nullptr) return {"{"};
    if (field->is_repeated() && !IsInList()) return {"["};
    switch (field->cpp_type()) {
      case FieldDescriptor::CPPTYPE_MESSAGE:
        return {"{"};
      case FieldDescriptor::CPPTYPE_STRING:
        return {"\""};
      case FieldDescriptor::CPPTYPE_BOOL:
        return {"false", "true"};
      case FieldDescriptor::CPPTYPE_ENUM: {
        std::vector<std::string> values;
        for (const std::string& value : ValuesOf(*field->enum_type()))
          values.push_back(absl::StrCat("\"", value, "\""));
        return values;
      }
      default:
        return {};
    }
  }

  // But the first, which is never sent.
  static Words ValuesOf(const EnumDescriptor& type) {
    Words values;
    for (int i = 1; i < type.value_count(); ++i)
      values.emplace(type.value(i)->name());
    return values;
  }

  const Descriptor* const root_;
  At at_ = At::kValue;
  bool is_escaped_ = false;
  std::string token_;  // Of the key or value that has begun.
  const FieldDescriptor* field_ = nullptr;  // Of the latest key.
  std::vector<Level> levels_;
};

// The command line ------------------------------------------------------------

// The words of a line, without their quotes. The last one may be unfinished, or
// empty.
struct TypedLine {
  std::vector<std::string> words;
  char quote = '\0';  // That the last word is in.
};

TypedLine Split(absl::string_view line) {
  TypedLine typed{{""}};
  bool is_escaped = false;
  for (const char c : line) {
    std::string& word = typed.words.back();
    if (is_escaped) {
      word.push_back(c);
      is_escaped = false;
    } else if (c == '\\' && typed.quote != '\'') {
      is_escaped = true;
    } else if (typed.quote != '\0') {
      if (c == typed.quote) {
        typed.quote = '\0';
      } else {
        word.push_back(c);
      }
    } else if (c == '\'' || c == '"') {
      typed.quote = c;
    } else if (!absl::ascii_isspace(c)) {
      word.push_back(c);
    } else if (!word.empty()) {
      typed.words.emplace_back();
    }
  }
  return typed;
}

// `texts` continue a word of a shell; those that need it get its quotes.
std::vector<std::string> Quoted(std::vector<std::string> texts,
                                const TypedLine& typed) {
  for (std::string& text : texts) {
    if (typed.quote == '"') {
      text = absl::StrReplaceAll(text, {{"\"", "\\\""}});
    } else if (typed.quote == '\0' && typed.words.back().empty()) {
      text = absl::StrCat("'", text);
    }
  }
  return texts;
}

void AddTypes(const Descriptor& type, Words& names) {
  if (!names.emplace(type.name()).second) return;
  for (int i = 0; i < type.field_count(); ++i) {
    if (const auto* const message = type.field(i)->message_type())
      AddTypes(*message, names);
    if (const auto* const values = type.field(i)->enum_type())
      names.emplace(values->name());
  }
}

class Completer {
 public:
  Completer(absl::Span<const ServiceDescriptor* const> services,
            absl::Span<const CompletedCommand> commands, TypedLine typed)
      : services_(services), commands_(commands), typed_(std::move(typed)) {}

  std::vector<std::string> Complete() {
    const std::string& last = typed_.words.back();
    for (std::size_t i = 1; i + 1 < typed_.words.size(); ++i) {
      const std::string& word = typed_.words[i];
      if (!absl::StartsWith(word, "--")) {
        arguments_.push_back(word);
      } else if (TakesValue(word)) {
        if (++i + 1 == typed_.words.size()) return ValuesOf(word);
      }
    }
    if (typed_.words.size() < 2) return {};
    if (absl::StartsWith(last, "-")) return Rest(Options(), last);
    if (arguments_.empty()) return Rest(CommandNames(), last);
    return Argument();
  }

 private:
  static bool TakesValue(const std::string& option) {
    static const Words* const kFlags = new Words{
        "--json", "--no-payloads", "--text", "--watch", "--help", "--version"};
    return !absl::StrContains(option, '=') && !kFlags->contains(option);
  }

  Words CommandNames() const {
    Words names;
    for (const CompletedCommand& command : commands_)
      names.insert(command.name);
    return names;
  }

  // Those of all commands, and of the one that has been typed.
  Words Options() const {
    Words options = {"--socket", "--service", "--timeout", "--help",
                     "--version"};
    for (const CompletedCommand& command : commands_) {
      if (!arguments_.empty() && command.name != arguments_.front()) continue;
      for (absl::string_view word :
           absl::StrSplit(command.options, absl::ByAnyChar(" []()|"))) {
        if (absl::StartsWith(word, "--")) options.emplace(word);
      }
    }
    return options;
  }

  // Of any kind, or of one.
  Words Methods(std::optional<MethodKind> kind) const {
    Words names;
    for (const ServiceDescriptor* const service : services_) {
      for (int i = 0; i < service->method_count(); ++i) {
        if (!kind.has_value() || orvane::KindOf(*service->method(i)) == kind)
          names.emplace(service->method(i)->name());
      }
    }
    return names;
  }

  std::vector<std::string> ValuesOf(const std::string& option) const {
    const std::string& last = typed_.words.back();
    if (option == "--service") {
      Words names;
      for (const ServiceDescriptor* const service : services_)
        names.emplace(service->name());
      return Rest(names, last);
    }
    if (option == "--method") return Rest(Methods(std::nullopt), last);
    if (option == "--reply") {
      const MethodDescriptor* const method = Method();
      if (method == nullptr ||
          orvane::KindOf(*method) != MethodKind::kCallbackStream) {
        return {};
      }
      return Json(*method->output_type()
                       ->FindFieldByName(orvane::kResponseField)
                       ->message_type());
    }
    return {};
  }

  // The one that has been typed.
  const MethodDescriptor* Method() const {
    if (arguments_.size() < 2) return nullptr;
    return ServiceWithMethod(services_, arguments_[1])
        .FindMethodByName(arguments_[1]);
  }

  std::vector<std::string> Argument() const {
    const std::string& command = arguments_.front();
    const std::string& last = typed_.words.back();
    const bool is_first = arguments_.size() == 1;
    if (command == "describe" && is_first) {
      Words names = Methods(std::nullopt);
      for (const ServiceDescriptor* const service : services_) {
        for (int i = 0; i < service->method_count(); ++i) {
          AddTypes(*service->method(i)->input_type(), names);
          AddTypes(*service->method(i)->output_type(), names);
        }
      }
      return Rest(names, last);
    }
    const std::pair<absl::string_view, MethodKind> kinds[] = {
        {"call", MethodKind::kUnary},
        {"watch", MethodKind::kEventStream},
        {"serve", MethodKind::kCallbackStream}};
    for (const auto& [name, kind] : kinds) {
      if (command != name) continue;
      if (is_first) return Rest(Methods(kind), last);
      const MethodDescriptor* const method = Method();
      if (arguments_.size() > 2 || method == nullptr ||
          orvane::KindOf(*method) != kind) {
        return {};
      }
      return Json(kind == MethodKind::kUnary ? *method->input_type()
                                             : orvane::KeyTypeOf(*method));
    }
    return {};
  }

  std::vector<std::string> Json(const Descriptor& type) const {
    return Quoted(JsonContinuations(type, typed_.words.back()), typed_);
  }

  const absl::Span<const ServiceDescriptor* const> services_;
  const absl::Span<const CompletedCommand> commands_;
  const TypedLine typed_;
  std::vector<std::string> arguments_;  // Before the last word.
};

}  // namespace

std::vector<std::string> Continuations(
    absl::Span<const ServiceDescriptor* const> services,
    absl::Span<const CompletedCommand> commands, absl::string_view line) {
  return Completer(services, commands, Split(line)).Complete();
}

std::vector<std::string> JsonContinuations(const Descriptor& type,
                                           absl::string_view json) {
  return JsonReader(type).Read(json);
}

}  // namespace widgetctl
