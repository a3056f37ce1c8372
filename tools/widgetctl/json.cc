#include "tools/widgetctl/json.h"

#include "absl/strings/str_cat.h"
#include "google/protobuf/util/json_util.h"

namespace widgetctl {

using google::protobuf::Descriptor;
using google::protobuf::Message;
using google::protobuf::MessageFactory;

absl::Status FromJson(const std::string& json, Message* message) {
  message->Clear();
  // The type of the status depends on the release of protobuf.
  const auto status =
      google::protobuf::util::JsonStringToMessage(json, message);
  if (status.ok()) return absl::OkStatus();
  return absl::InvalidArgumentError(std::string(status.message()));
}

absl::Status ReadJson(absl::string_view what, const std::string& json,
                      Message* message) {
  absl::Status read = FromJson(json, message);
  if (read.ok()) return read;
  return absl::InvalidArgumentError(
      absl::StrCat(what, " is not valid JSON for ", message->GetTypeName(),
                   ": ", read.message()));
}

std::unique_ptr<Message> NewMessage(const Descriptor* type) {
  const Message* const prototype =
      MessageFactory::generated_factory()->GetPrototype(type);
  return std::unique_ptr<Message>(prototype->New());
}

std::string ToJson(const Message& message) {
  std::string json;
  if (!google::protobuf::util::MessageToJsonString(message, &json).ok()) {
    // An Any of a type that is not linked in has no JSON.
    return message.ShortDebugString();
  }
  return json;
}

}  // namespace widgetctl
