// Recorded sessions: calls in a text file, each with the answer it must get.
//
//   # The host shows a view that exists, and one that does not.
//   Show {"value": 1} => {}
//   Show {"value": 7} => error: browser 7 does not exist
//
// A line is a call, a remark behind `#`, or blank. A call is a method, its
// request as JSON, `=>`, and then either the response as JSON, or `error: ` and
// the whole text of the error up to the end of the line, to the letter.

#ifndef TOOLS_WIDGETCTL_SESSION_FILE_H_
#define TOOLS_WIDGETCTL_SESSION_FILE_H_

#include <string>
#include <variant>
#include <vector>

#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"

namespace widgetctl {

// Words between the calls.
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

struct SessionLine {
  int number;  // From 1.
  std::variant<Remark, RecordedCall> content;
};

// The lines that are not blank. kInvalidArgument names the first line that is
// none of these kinds. Whether methods exist and JSON is right is not looked
// at.
absl::StatusOr<std::vector<SessionLine>> ParseSession(absl::string_view text);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_SESSION_FILE_H_
