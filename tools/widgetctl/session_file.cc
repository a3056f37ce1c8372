#include "tools/widgetctl/session_file.h"

#include <cstddef>
#include <optional>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/ascii.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "absl/strings/strip.h"

namespace widgetctl {
namespace {

// Where the arrow outside the JSON's strings begins: `=>` or `=~`.
std::size_t FindArrow(absl::string_view text) {
  bool in_string = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (in_string && text[i] == '\\') {
      ++i;  // An escaped quote does not end the string.
    } else if (text[i] == '"') {
      in_string = !in_string;
    } else if (!in_string && text[i] == '=' && i + 1 < text.size() &&
               (text[i + 1] == '>' || text[i + 1] == '~')) {
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

// What stands in front of an arrow, and what behind it.
struct Answered {
  absl::string_view question;
  std::optional<RecordedAnswer> answer;
};

// `method` is for the error.
absl::StatusOr<Answered> SplitAnswer(absl::string_view line,
                                     absl::string_view method) {
  const std::size_t arrow = FindArrow(line);
  if (arrow == absl::string_view::npos) return Answered{line, std::nullopt};
  const bool is_part = line[arrow + 1] == '~';
  // The text of an error may end in blanks.
  absl::string_view text =
      absl::StripLeadingAsciiWhitespace(line.substr(arrow + 2));
  if (!is_part && absl::ConsumePrefix(&text, "error:")) {
    absl::ConsumePrefix(&text, " ");
    return Answered{
        line.substr(0, arrow),
        RecordedAnswer{RecordedAnswer::Kind::kError, std::string(text)}};
  }
  text = absl::StripTrailingAsciiWhitespace(text);
  if (text.empty()) {
    return absl::InvalidArgumentError(absl::StrCat(
        method, " lacks its answer; an empty response is written {}"));
  }
  return Answered{line.substr(0, arrow),
                  RecordedAnswer{is_part ? RecordedAnswer::Kind::kFields
                                         : RecordedAnswer::Kind::kResponse,
                                 std::string(text)}};
}

absl::StatusOr<RecordedCall> ParseCall(absl::string_view line) {
  const absl::string_view method = SplitWord(line).first;
  absl::StatusOr<Answered> parts = SplitAnswer(line, method);
  if (!parts.ok()) return parts.status();
  if (!parts->answer.has_value())
    return absl::InvalidArgumentError("a call lacks its `=>` and answer");
  const auto call = SplitWord(parts->question);
  if (call.first.empty())
    return absl::InvalidArgumentError("no method in front of `=>`");
  if (call.second.empty()) {
    return absl::InvalidArgumentError(absl::StrCat(
        call.first, " lacks its request; an empty one is written {}"));
  }
  return RecordedCall{std::string(call.first), std::string(call.second),
                      *std::move(parts->answer)};
}

struct VerbWords {
  absl::string_view word;
  RecordedStep::Verb verb;
  absl::string_view json;  // What the JSON is, for errors; empty without any.
  bool may_answer = false;
};

constexpr VerbWords kVerbs[] = {
    {"watch", RecordedStep::Verb::kWatch, "key"},
    {"event", RecordedStep::Verb::kEvent, "event"},
    {"serve", RecordedStep::Verb::kServe, "key", true},
    {"called", RecordedStep::Verb::kCalled, "call", true},
    {"end", RecordedStep::Verb::kEnd, "key"},
    {"allow", RecordedStep::Verb::kAllow, ""},
};
constexpr absl::string_view kDisconnect = "disconnect";

absl::StatusOr<RecordedStep> ParseStep(const VerbWords& verb,
                                       absl::string_view rest) {
  absl::StatusOr<Answered> parts = Answered{rest, std::nullopt};
  if (verb.may_answer) parts = SplitAnswer(rest, SplitWord(rest).first);
  if (!parts.ok()) return parts.status();
  const auto [method, json] = SplitWord(parts->question);
  if (method.empty()) {
    return absl::InvalidArgumentError(
        absl::StrCat(verb.word, " lacks its method"));
  }
  if (json.empty() != verb.json.empty()) {
    return absl::InvalidArgumentError(
        json.empty()
            ? absl::StrCat(verb.word, " ", method, " lacks its ", verb.json)
            : absl::StrCat(verb.word, " takes a method and nothing else"));
  }
  if (parts->answer.has_value() &&
      parts->answer->kind == RecordedAnswer::Kind::kFields) {
    return absl::InvalidArgumentError(absl::StrCat(
        verb.word, " ", method, " gives an answer, which needs `=>`"));
  }
  return RecordedStep{verb.verb, std::string(method), std::string(json),
                      std::move(parts->answer)};
}

// `line` is neither blank nor a remark.
absl::StatusOr<decltype(SessionLine::content)> ParseContent(
    absl::string_view line) {
  const auto [word, stripped] = SplitWord(line);
  if (word == kDisconnect && stripped.empty())
    return RecordedStep{RecordedStep::Verb::kDisconnect, "", ""};
  for (const VerbWords& verb : kVerbs) {
    // Not `stripped`: the text of an error may end in blanks.
    if (verb.word == word) return ParseStep(verb, line.substr(word.size()));
  }
  return ParseCall(line);
}

absl::StatusOr<SessionLine> ParseLine(int number, absl::string_view line) {
  SessionLine parsed{number, Remark{}};
  if (absl::ConsumePrefix(&line, "@")) {
    parsed.connection = std::string(line.substr(0, line.find_first_of(" \t")));
    line.remove_prefix(parsed.connection.size());
    line = absl::StripLeadingAsciiWhitespace(line);
    if (parsed.connection.empty())
      return absl::InvalidArgumentError("`@` lacks the connection's name");
    if (line.empty()) {
      return absl::InvalidArgumentError(absl::StrCat(
          "nothing is to be done over connection @", parsed.connection));
    }
  }
  auto content = ParseContent(line);
  if (!content.ok()) return content.status();
  parsed.content = *std::move(content);
  return parsed;
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
