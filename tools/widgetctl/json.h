// Messages as JSON, in protobuf's own mapping: field names in lowerCamelCase,
// 64-bit numbers and bytes (base64) as strings, enum values by name.

#ifndef TOOLS_WIDGETCTL_JSON_H_
#define TOOLS_WIDGETCTL_JSON_H_

#include <string>

#include "absl/status/status.h"
#include "google/protobuf/message.h"

namespace widgetctl {

// Replaces the content of `message`. kInvalidArgument, with protobuf's words on
// what is wrong where, if `json` is not JSON or does not fit the message's
// type; unknown fields count as wrong. The message is unspecified then.
absl::Status FromJson(const std::string& json,
                      google::protobuf::Message* message);

// One line, without fields that have their default value.
std::string ToJson(const google::protobuf::Message& message);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_JSON_H_
