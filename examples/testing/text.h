// Messages in protobuf's text format.

#ifndef EXAMPLES_TESTING_TEXT_H_
#define EXAMPLES_TESTING_TEXT_H_

#include <string>

#include "google/protobuf/message.h"

namespace example_testing {

// Replaces `message` by what `text` says. Ends the test's process if the text
// cannot be parsed.
void Parse(const std::string& text, google::protobuf::Message* message);

template <typename Message>
Message Parsed(const std::string& text) {
  Message message;
  Parse(text, &message);
  return message;
}

}  // namespace example_testing

#endif  // EXAMPLES_TESTING_TEXT_H_
