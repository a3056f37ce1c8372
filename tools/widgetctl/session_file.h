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
//   called METHOD JSON           the next call of this method had these fields
//   end METHOD KEY               ends the stream that was opened with this KEY
//
// An ANSWER is the response as JSON, or `error: ` and the exact text of the
// error up to the end of the line. A KEY is a BrowserId as JSON, or just its
// number.

#ifndef TOOLS_WIDGETCTL_SESSION_FILE_H_
#define TOOLS_WIDGETCTL_SESSION_FILE_H_

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

// A call and its expected answer. All JSON is as it stands in the file.
struct RecordedCall {
  enum class Outcome { kResponse, kError };

  std::string method;
  std::string request;
  Outcome outcome;
  std::string answer;  // The response, or the text of the error.
};

// `serve`: like a call, with the key as its request.
struct RecordedServe {
  RecordedCall call;
};

// A line without an answer.
struct RecordedStep {
  enum class Verb { kWatch, kEvent, kCalled, kEnd };

  Verb verb;
  std::string method;
  std::string json;  // The key, the event or the call.
};

struct SessionLine {
  int number;  // From 1.
  std::variant<Remark, RecordedCall, RecordedServe, RecordedStep> content;
};

// The lines that are not blank. kInvalidArgument names the first line that is
// not of one of these kinds. Does not check whether methods exist or JSON is
// valid.
absl::StatusOr<std::vector<SessionLine>> ParseSession(absl::string_view text);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_SESSION_FILE_H_
