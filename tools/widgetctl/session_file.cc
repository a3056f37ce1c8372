#include "tools/widgetctl/session_file.h"

#include <cstddef>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/ascii.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "absl/strings/strip.h"

namespace widgetctl {
namespace {

constexpr absl::string_view kArrow = "=>";
constexpr absl::string_view kServe = "serve";

// The position of the first arrow outside the JSON's strings.
std::size_t FindArrow(absl::string_view text) {
  bool in_string = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (in_string && text[i] == '\\') {
      ++i;  // An escaped quote does not end the string.
    } else if (text[i] == '"') {
      in_string = !in_string;
    } else if (!in_string && text.substr(i, kArrow.size()) == kArrow) {
      return i;
    }
  }
  return absl::string_view::npos;
}

// The first word and the rest, without the blanks around both.
std::pair<absl::string_view, absl::string_view> SplitWord(
    absl::string_view text) {
  const std::pair<absl::string_view, absl::string_view> parts =
      absl::StrSplit(absl::StripAsciiWhitespace(text),
                     absl::MaxSplits(absl::ByAnyChar(" \t"), 1));
  return {parts.first, absl::StripLeadingAsciiWhitespace(parts.second)};
}

// Parses METHOD JSON => ANSWER. `subject` and `request` are for the errors:
// what the line is, such as "a call", and what the JSON is.
absl::StatusOr<RecordedCall> ParseAnswered(absl::string_view line,
                                           absl::string_view subject,
                                           absl::string_view request) {
  const std::size_t arrow = FindArrow(line);
  if (arrow == absl::string_view::npos) {
    return absl::InvalidArgumentError(
        absl::StrCat(subject, " lacks its `=>` and answer"));
  }
  const auto call = SplitWord(line.substr(0, arrow));
  absl::string_view answer =
      absl::StripLeadingAsciiWhitespace(line.substr(arrow + kArrow.size()));
  const auto outcome = absl::ConsumePrefix(&answer, "error:")
                           ? RecordedCall::Outcome::kError
                           : RecordedCall::Outcome::kResponse;
  if (outcome == RecordedCall::Outcome::kError) {
    absl::ConsumePrefix(&answer, " ");  // The rest is the exact text.
  } else {
    answer = absl::StripTrailingAsciiWhitespace(answer);
  }

  if (call.first.empty()) {
    return absl::InvalidArgumentError("no method in front of `=>`");
  }
  if (call.second.empty()) {
    return absl::InvalidArgumentError(
        absl::StrCat(call.first, " lacks its ", request));
  }
  if (answer.empty() && outcome == RecordedCall::Outcome::kResponse) {
    return absl::InvalidArgumentError(absl::StrCat(
        call.first, " lacks its answer; an empty response is written {}"));
  }
  return RecordedCall{std::string(call.first), std::string(call.second),
                      outcome, std::string(answer)};
}

struct VerbWords {
  absl::string_view word;
  RecordedStep::Verb verb;
  absl::string_view json;  // What the JSON is, for errors.
};

constexpr VerbWords kVerbs[] = {
    {"watch", RecordedStep::Verb::kWatch, "key"},
    {"event", RecordedStep::Verb::kEvent, "event"},
    {"called", RecordedStep::Verb::kCalled, "call"},
    {"end", RecordedStep::Verb::kEnd, "key"},
};

absl::StatusOr<RecordedStep> ParseStep(const VerbWords& verb,
                                       absl::string_view rest) {
  const auto [method, json] = SplitWord(rest);
  if (method.empty()) {
    return absl::InvalidArgumentError(
        absl::StrCat(verb.word, " lacks its method"));
  }
  if (json.empty()) {
    return absl::InvalidArgumentError(
        absl::StrCat(verb.word, " ", method, " lacks its ", verb.json));
  }
  return RecordedStep{verb.verb, std::string(method), std::string(json)};
}

// `line` is neither blank nor a remark.
absl::StatusOr<SessionLine> ParseLine(int number, absl::string_view line) {
  const auto [word, rest] = SplitWord(line);
  for (const VerbWords& verb : kVerbs) {
    if (verb.word != word) continue;
    absl::StatusOr<RecordedStep> step = ParseStep(verb, rest);
    if (!step.ok()) return step.status();
    return SessionLine{number, *std::move(step)};
  }
  // Not `rest`: the text of an error may end in blanks.
  const bool is_serve = word == kServe;
  absl::StatusOr<RecordedCall> call =
      is_serve ? ParseAnswered(line.substr(kServe.size()), kServe, "key")
               : ParseAnswered(line, "a call",
                               "request; an empty one is written {}");
  if (!call.ok()) return call.status();
  if (is_serve) return SessionLine{number, RecordedServe{*std::move(call)}};
  return SessionLine{number, *std::move(call)};
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
    absl::StatusOr<SessionLine> parsed = ParseLine(number, line);
    if (!parsed.ok()) {
      return absl::InvalidArgumentError(
          absl::StrCat("line ", number, ": ", parsed.status().message()));
    }
    lines.push_back(*std::move(parsed));
  }
  return lines;
}

}  // namespace widgetctl
