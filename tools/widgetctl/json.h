// Messages as JSON, in protobuf's own mapping: field names in lowerCamelCase,
// 64-bit numbers and bytes (base64) as strings, enum values by name.

#ifndef TOOLS_WIDGETCTL_JSON_H_
#define TOOLS_WIDGETCTL_JSON_H_

#include <memory>
#include <string>

#include "absl/status/status.h"
#include "absl/strings/string_view.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

namespace widgetctl {

// Replaces the content of `message`. kInvalidArgument if `json` is not JSON or
// does not fit the message's type, for example because of an unknown field; the
// text is protobuf's and says what is wrong where. The content of `message` is
// unspecified then.
absl::Status FromJson(const std::string& json,
                      google::protobuf::Message* message);

// Like FromJson, but an error begins with what the JSON is: "the request of
// Show is not valid JSON for BrowserId: …" if `what` is "the request of Show".
absl::Status ReadJson(absl::string_view what, const std::string& json,
                      google::protobuf::Message* message);

// An empty message. `type` must be in the generated pool.
std::unique_ptr<google::protobuf::Message> NewMessage(
    const google::protobuf::Descriptor* type);

// One line, without fields that have their default value.
std::string ToJson(const google::protobuf::Message& message);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_JSON_H_
