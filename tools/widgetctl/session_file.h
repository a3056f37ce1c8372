// Recorded sessions: a text file with what a host does and the results that it
// expects.
//
//   # The host shows a view that exists, and one that does not.
//   Show {"value": 1} => {}
//   Show {"value": 7} => error: browser 7 does not exist
//
//   # It follows the cursor, and takes the focus when it is asked to.
//   watch WhenCursorChanged 1
//   serve OnTakeFocus 1 => {"taken": true}
//   ForwardKeyPress {"browserId": {"value": 1}, "key": {"key": "Tab"}} => {}
//   called OnTakeFocus {"browserId": {"value": 1}, "call": {}}
//   end OnTakeFocus 1
//
// A line is blank, a remark behind `#`, or one of these:
//
//   METHOD JSON => ANSWER        calls the method with this request
//   watch METHOD KEY             opens an event stream for the browser KEY
//   event METHOD JSON            the next event of this method has these fields
//   serve METHOD KEY => ANSWER   opens a callback stream for the browser KEY
//                                and answers each of its calls
//   serve METHOD KEY             likewise, and leaves answering to `called`
//   called METHOD JSON           the next call of this method has these fields
//   called METHOD JSON => ANSWER likewise, and answers it; lines of this kind
//                                that follow a call are taken while the call
//                                waits for its own answer
//   end METHOD KEY               ends the stream that was opened with this KEY
//   allow METHOD                 events and calls of this method may come that
//                                no line expects; lines that do wait for one
//                                that has their fields, and pass over others
//   disconnect                   ends the connection; a later line makes a new
//                                one
//
// An ANSWER is the response as JSON, or `error: ` and the exact text of the
// error up to the end of the line. With `=~` in place of `=>` the response has
// these fields and may have others. A KEY is a BrowserId as JSON, or just its
// number. In the ANSWER of `serve`, "${frame.frameId}" stands for that field of
// the call.
//
// Each service is reached over a connection of its own. `@NAME ` in front of a
// line makes it go over another one, which is as good as another host.

#ifndef TOOLS_WIDGETCTL_SESSION_FILE_H_
#define TOOLS_WIDGETCTL_SESSION_FILE_H_

#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"

namespace widgetctl {

// A line that does nothing.
struct Remark {
  std::string text;  // With its `#`.
};

// What stands behind the arrow of a line.
struct RecordedAnswer {
  enum class Kind {
    kResponse,  // => JSON
    kFields,    // =~ JSON: may have other fields too.
    kError,     // => error: text
  };

  Kind kind;
  std::string text;  // The JSON, or the text of the error.
};

// A call and its expected answer. All JSON is as it stands in the file.
struct RecordedCall {
  std::string method;
  std::string request;
  RecordedAnswer answer;
};

// A line that begins with a verb.
struct RecordedStep {
  enum class Verb {
    kWatch,
    kEvent,
    kServe,
    kCalled,
    kEnd,
    kAllow,
    kDisconnect
  };

  Verb verb;
  std::string method;  // Empty for kDisconnect.
  std::string json;    // The key, the event or the call, if it has one.
  std::optional<RecordedAnswer> answer = std::nullopt;
};

struct SessionLine {
  int number;  // From 1.
  std::variant<Remark, RecordedCall, RecordedStep> content;
  std::string connection = "";  // The NAME behind `@`; empty without one.
};

// The lines that are not blank. kInvalidArgument names the first line that is
// not of one of these kinds. Does not check whether methods exist or JSON is
// valid.
absl::StatusOr<std::vector<SessionLine>> ParseSession(absl::string_view text);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_SESSION_FILE_H_
