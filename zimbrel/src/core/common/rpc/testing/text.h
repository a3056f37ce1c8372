// Messages as tests write them.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_TEXT_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_TEXT_H_

#include <string>

#include "google/protobuf/message.h"

namespace orvane::testing {

// Fills `message` from protobuf's text format. Ends the test's process if the
// text is wrong.
void Parse(const std::string& text, google::protobuf::Message* message);

template <typename Message>
Message Parsed(const std::string& text) {
  Message message;
  Parse(text, &message);
  return message;
}

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_TEXT_H_
