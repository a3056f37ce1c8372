#include "zimbrel/src/core/common/rpc/testing/text.h"

#include "absl/log/log.h"
#include "google/protobuf/text_format.h"

namespace orvane::testing {

void Parse(const std::string& text, google::protobuf::Message* message) {
  if (!google::protobuf::TextFormat::ParseFromString(text, message))
    LOG(FATAL) << "cannot be parsed as " << message->GetTypeName() << ": "
               << text;
}

}  // namespace orvane::testing
