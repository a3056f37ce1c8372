// Messages in protobuf's text format.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_TEXT_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_TEXT_H_

#include <string>

#include "google/protobuf/message.h"

namespace orvane::testing {

// Replaces `message` by what `text` says. Ends the test's process if the text
// cannot be parsed.
void Parse(const std::string& text, google::protobuf::Message* message);

template <typename Message>
Message Parsed(const std::string& text) {
  Message message;
  Parse(text, &message);
  return message;
}

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_TEXT_H_
