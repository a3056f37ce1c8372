// A recorded session that is ready to be played.

#ifndef TOOLS_WIDGETCTL_SESSION_H_
#define TOOLS_WIDGETCTL_SESSION_H_

#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "tools/widgetctl/call.h"
#include "tools/widgetctl/session_file.h"
#include "tools/widgetctl/streams.h"

namespace widgetctl {

struct CallStep {
  UnaryCall call;
  Answer expected;
};

struct WatchStep {
  Subscription subscription;
};

struct ServeStep {
  Subscription subscription;
  Answer answer;  // To every call.
};

// What the next event, or call of the widget, of a method must have; it may
// have more, such as times and names that are never the same twice.
struct ArrivalStep {
  const google::protobuf::MethodDescriptor* method;
  std::unique_ptr<google::protobuf::Message> expected;
};

struct EndStep {
  Subscription subscription;  // As it was opened.
};

struct SessionStep {
  int line;  // Of the file.
  std::variant<Remark, CallStep, WatchStep, ServeStep, ArrivalStep, EndStep>
      action;
};

// Reads the text of a session file. Finds every method and reads all JSON, so
// that a session with a mistake in its last line does nothing at all. What is
// opened must not be open already, what ends must be, and what is to arrive
// must have been watched or served before. An error names its line.
absl::StatusOr<std::vector<SessionStep>> LoadSession(
    const google::protobuf::ServiceDescriptor& service, absl::string_view text);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_SESSION_H_
