// A recorded session that is ready to be replayed.

#ifndef TOOLS_WIDGETCTL_SESSION_H_
#define TOOLS_WIDGETCTL_SESSION_H_

#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "absl/types/span.h"
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

// The fields that the next event, or call from the widget, must have. It may
// have more, such as times and names that differ on every run.
struct ArrivalStep {
  const google::protobuf::MethodDescriptor* method;
  std::unique_ptr<google::protobuf::Message> expected;
};

struct EndStep {
  Subscription subscription;  // The one that opened the stream.
};

struct SessionStep {
  int line;  // Of the file.
  std::variant<Remark, CallStep, WatchStep, ServeStep, ArrivalStep, EndStep>
      action;
};

// Reads the text of a session file. Looks up every method and parses all JSON,
// so that a session with a mistake does nothing at all. It is an error to open
// a stream that is open, to end one that is not, and to expect an event or a
// call of a method that was not watched or served before. An error names its
// line. A session is about one service: that of `services` which has its first
// method.
absl::StatusOr<std::vector<SessionStep>> LoadSession(
    absl::Span<const google::protobuf::ServiceDescriptor* const> services,
    absl::string_view text);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_SESSION_H_
