#include "examples/testing/text.h"

#include "absl/log/log.h"
#include "google/protobuf/text_format.h"

namespace example_testing {

void Parse(const std::string& text, google::protobuf::Message* message) {
  if (!google::protobuf::TextFormat::ParseFromString(text, message))
    LOG(FATAL) << "cannot be parsed as " << message->GetTypeName() << ": "
               << text;
}

}  // namespace example_testing
