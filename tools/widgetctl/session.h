// A recorded session that is ready to be replayed.

#ifndef TOOLS_WIDGETCTL_SESSION_H_
#define TOOLS_WIDGETCTL_SESSION_H_

#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "absl/types/span.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "tools/widgetctl/answer_template.h"
#include "tools/widgetctl/call.h"
#include "tools/widgetctl/session_file.h"
#include "tools/widgetctl/streams.h"

namespace widgetctl {

struct CallStep {
  UnaryCall call;
  Answer expected;
  bool may_have_more;  // Fields than `expected`.
};

struct WatchStep {
  Subscription subscription;
};

struct ServeStep {
  Subscription subscription;
  std::optional<AnswerTemplate> answer;  // To every call; none: see below.
};

// The fields that the next event, or call from the widget, must have. It may
// have more, such as times and names that differ on every run.
struct ArrivalStep {
  const google::protobuf::MethodDescriptor* method;
  std::unique_ptr<google::protobuf::Message> expected;
  std::optional<Answer> answer;  // To the call, of a stream without answers.
};

struct EndStep {
  Subscription subscription;  // The one that opened the stream.
};

// What arrives of the method may be unexpected from here on.
struct AllowStep {
  const google::protobuf::MethodDescriptor* method;
};

// Ends the connection, with its streams.
struct DisconnectStep {};

struct SessionStep {
  int line;                // Of the file.
  std::string connection;  // Its name; empty for the one without.
  std::variant<Remark, CallStep, WatchStep, ServeStep, ArrivalStep, EndStep,
               AllowStep, DisconnectStep>
      action;
};

// Reads the text of a session file. Looks up every method in `services`, at
// least one, and parses all JSON, so that a session with a mistake does nothing
// at all. It is an error to open a stream that is open, to end one that is not,
// to expect an event or a call of a method that was not watched or served
// before, and to answer a call that its stream answers. An error names its
// line.
absl::StatusOr<std::vector<SessionStep>> LoadSession(
    absl::Span<const google::protobuf::ServiceDescriptor* const> services,
    absl::string_view text);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_SESSION_H_
