#include "tools/widgetctl/session_file.h"

#include <cstddef>

#include "absl/status/status.h"
#include "absl/strings/ascii.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "absl/strings/strip.h"

namespace widgetctl {
namespace {

constexpr absl::string_view kArrow = "=>";

// Where the first arrow stands that is not inside a string of the JSON.
std::size_t FindArrow(absl::string_view text) {
  bool in_string = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (in_string && text[i] == '\\') {
      ++i;  // What is escaped ends no string.
    } else if (text[i] == '"') {
      in_string = !in_string;
    } else if (!in_string && text.substr(i, kArrow.size()) == kArrow) {
      return i;
    }
  }
  return absl::string_view::npos;
}

absl::StatusOr<RecordedCall> ParseCall(absl::string_view line) {
  const std::size_t arrow = FindArrow(line);
  if (arrow == absl::string_view::npos) {
    return absl::InvalidArgumentError("a call lacks its `=>` and answer");
  }
  const std::pair<absl::string_view, absl::string_view> call =
      absl::StrSplit(absl::StripAsciiWhitespace(line.substr(0, arrow)),
                     absl::MaxSplits(absl::ByAnyChar(" \t"), 1));
  absl::string_view answer =
      absl::StripLeadingAsciiWhitespace(line.substr(arrow + kArrow.size()));
  const auto outcome = absl::ConsumePrefix(&answer, "error:")
                           ? RecordedCall::Outcome::kError
                           : RecordedCall::Outcome::kResponse;
  if (outcome == RecordedCall::Outcome::kError) {
    absl::ConsumePrefix(&answer, " ");  // The rest is the text, to the letter.
  } else {
    answer = absl::StripTrailingAsciiWhitespace(answer);
  }

  if (call.first.empty()) {
    return absl::InvalidArgumentError("no method in front of `=>`");
  }
  if (call.second.empty()) {
    return absl::InvalidArgumentError(absl::StrCat(
        call.first, " lacks its request; an empty one is written {}"));
  }
  if (answer.empty() && outcome == RecordedCall::Outcome::kResponse) {
    return absl::InvalidArgumentError(absl::StrCat(
        call.first, " lacks its answer; an empty response is written {}"));
  }
  return RecordedCall{
      std::string(call.first),
      std::string(absl::StripLeadingAsciiWhitespace(call.second)), outcome,
      std::string(answer)};
}

}  // namespace

absl::StatusOr<std::vector<SessionLine>> ParseSession(absl::string_view text) {
  std::vector<SessionLine> lines;
  int number = 0;
  for (const absl::string_view whole : absl::StrSplit(text, '\n')) {
    ++number;
    const absl::string_view line = absl::StripLeadingAsciiWhitespace(whole);
    if (line.empty()) continue;
    if (line.front() == '#') {
      lines.push_back({number, Remark{std::string(
                                   absl::StripTrailingAsciiWhitespace(line))}});
      continue;
    }
    absl::StatusOr<RecordedCall> call = ParseCall(line);
    if (!call.ok()) {
      return absl::InvalidArgumentError(
          absl::StrCat("line ", number, ": ", call.status().message()));
    }
    lines.push_back({number, *std::move(call)});
  }
  return lines;
}

}  // namespace widgetctl
