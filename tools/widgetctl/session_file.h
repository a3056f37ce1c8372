// Recorded sessions: what a host does, in a text file, and what must come of
// it.
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
//   end METHOD KEY               ends the stream that was opened so
//
// An ANSWER is the response as JSON, or `error: ` and the whole text of the
// error up to the end of the line, to the letter. A KEY is a BrowserId as JSON,
// or its bare number.

#ifndef TOOLS_WIDGETCTL_SESSION_FILE_H_
#define TOOLS_WIDGETCTL_SESSION_FILE_H_

#include <string>
#include <variant>
#include <vector>

#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"

namespace widgetctl {

// Words between the lines that do something.
struct Remark {
  std::string text;  // With its `#`.
};

// A call and what must come of it. All JSON is as it stands in the file.
struct RecordedCall {
  enum class Outcome { kResponse, kError };

  std::string method;
  std::string request;
  Outcome outcome;
  std::string answer;  // The response, or the text of the error.
};

// `serve`: as a call, with the key for a request.
struct RecordedServe {
  RecordedCall call;
};

// The lines without an answer.
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
// none of these kinds. Whether methods exist and JSON is right is not looked
// at.
absl::StatusOr<std::vector<SessionLine>> ParseSession(absl::string_view text);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_SESSION_FILE_H_
