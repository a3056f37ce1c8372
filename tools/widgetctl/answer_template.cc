#include "tools/widgetctl/answer_template.h"

#include <cstddef>
#include <memory>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "absl/strings/string_view.h"
#include "google/protobuf/wrappers.pb.h"

#include "tools/widgetctl/json.h"
#include "tools/widgetctl/streams.h"
#include "zimbrel/src/core/common/rpc/method_kind.h"

namespace widgetctl {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::MethodDescriptor;

namespace {

constexpr absl::string_view kBegin = "\"${";
constexpr absl::string_view kEnd = "}\"";

const FieldDescriptor* FieldWithJsonName(const Descriptor& type,
                                         absl::string_view name) {
  for (int i = 0; i < type.field_count(); ++i) {
    if (type.field(i)->json_name() == name) return type.field(i);
  }
  return nullptr;
}

// `Value` is one of protobuf's wrappers, whose JSON is that of the value alone.
template <typename Value, typename T>
std::string InJson(const T& plain) {
  Value value;
  value.set_value(plain);
  return ToJson(value);
}

// The JSON of a field that is no message.
std::string ValueInJson(const Message& message, const FieldDescriptor* field) {
  const google::protobuf::Reflection& fields = *message.GetReflection();
  switch (field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_INT32:
      return absl::StrCat(fields.GetInt32(message, field));
    case FieldDescriptor::CPPTYPE_UINT32:
      return absl::StrCat(fields.GetUInt32(message, field));
    case FieldDescriptor::CPPTYPE_INT64:
      return absl::StrCat(fields.GetInt64(message, field));
    case FieldDescriptor::CPPTYPE_UINT64:
      return absl::StrCat(fields.GetUInt64(message, field));
    case FieldDescriptor::CPPTYPE_BOOL:
      return fields.GetBool(message, field) ? "true" : "false";
    case FieldDescriptor::CPPTYPE_ENUM:
      return absl::StrCat(fields.GetEnumValue(message, field));
    case FieldDescriptor::CPPTYPE_FLOAT:
      return InJson<google::protobuf::FloatValue>(
          fields.GetFloat(message, field));
    case FieldDescriptor::CPPTYPE_DOUBLE:
      return InJson<google::protobuf::DoubleValue>(
          fields.GetDouble(message, field));
    case FieldDescriptor::CPPTYPE_STRING:
      return field->type() == FieldDescriptor::TYPE_BYTES
                 ? InJson<google::protobuf::BytesValue>(
                       fields.GetString(message, field))
                 : InJson<google::protobuf::StringValue>(
                       fields.GetString(message, field));
    case FieldDescriptor::CPPTYPE_MESSAGE:
      break;
  }
  return ToJson(fields.GetMessage(message, field));
}

const Message& Get(const Message& message, const FieldDescriptor* field) {
  return message.GetReflection()->GetMessage(message, field);
}

}  // namespace

Answer ReadAnswer(const MethodDescriptor& method,
                  const RecordedAnswer& recorded) {
  if (recorded.kind == RecordedAnswer::Kind::kError)
    return absl::UnknownError(recorded.text);
  return ReadResponse(method, recorded.text);
}

absl::StatusOr<AnswerTemplate> AnswerTemplate::Read(
    const MethodDescriptor& method, const RecordedAnswer& recorded) {
  AnswerTemplate read(&method, recorded);
  if (recorded.kind == RecordedAnswer::Kind::kError) return read;
  absl::string_view rest = recorded.text;
  for (std::size_t begin = rest.find(kBegin); begin != absl::string_view::npos;
       begin = rest.find(kBegin)) {
    const std::size_t end = rest.find(kEnd, begin);
    if (end == absl::string_view::npos) break;
    const std::size_t name = begin + kBegin.size();
    absl::StatusOr<Path> path = FindPath(method, rest.substr(name, end - name));
    if (!path.ok()) return path.status();
    read.texts_.emplace_back(rest.substr(0, begin));
    read.paths_.push_back(*std::move(path));
    rest.remove_prefix(end + kEnd.size());
  }
  read.texts_.emplace_back(rest);
  // Whether the JSON fits does not depend on the call.
  const Answer empty = read.For(*NewMessage(method.output_type()));
  if (!empty.ok()) return empty.status();
  return read;
}

absl::StatusOr<AnswerTemplate::Path> AnswerTemplate::FindPath(
    const MethodDescriptor& method, absl::string_view names) {
  Path path = {method.output_type()->FindFieldByName(orvane::kCallField)};
  for (const absl::string_view name : absl::StrSplit(names, '.')) {
    const Descriptor* const type = path.back()->message_type();
    const FieldDescriptor* const field =
        type == nullptr ? nullptr : FieldWithJsonName(*type, name);
    if (field == nullptr || field->is_repeated()) {
      return absl::InvalidArgumentError(
          absl::StrCat("a call of ", method.name(), " has no field ", names));
    }
    path.push_back(field);
  }
  return path;
}

Answer AnswerTemplate::For(const Message& message) const {
  if (recorded_.kind == RecordedAnswer::Kind::kError)
    return absl::UnknownError(recorded_.text);
  std::string json;
  for (std::size_t i = 0; i < paths_.size(); ++i) {
    const Message* at = &message;
    for (std::size_t step = 0; step + 1 < paths_[i].size(); ++step)
      at = &Get(*at, paths_[i][step]);
    absl::StrAppend(&json, texts_[i], ValueInJson(*at, paths_[i].back()));
  }
  return ReadResponse(*method_, absl::StrCat(json, texts_.back()));
}

std::string AnswerTemplate::text() const {
  if (recorded_.kind == RecordedAnswer::Kind::kError)
    return absl::StrCat("error: ", recorded_.text);
  if (!paths_.empty()) return recorded_.text;
  return ToJson(**For(*NewMessage(method_->output_type())));
}

}  // namespace widgetctl
