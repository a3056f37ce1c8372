#include "tools/widgetctl/json.h"

#include "google/protobuf/util/json_util.h"

namespace widgetctl {

absl::Status FromJson(const std::string& json,
                      google::protobuf::Message* message) {
  message->Clear();
  // The type of the status depends on the release of protobuf.
  const auto status =
      google::protobuf::util::JsonStringToMessage(json, message);
  if (status.ok()) return absl::OkStatus();
  return absl::InvalidArgumentError(std::string(status.message()));
}

std::string ToJson(const google::protobuf::Message& message) {
  std::string json;
  if (!google::protobuf::util::MessageToJsonString(message, &json).ok()) {
    // An Any of a type that is not linked in has no JSON.
    return message.ShortDebugString();
  }
  return json;
}

}  // namespace widgetctl
