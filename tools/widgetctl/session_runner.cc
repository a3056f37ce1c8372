#include "tools/widgetctl/session_runner.h"

#include <chrono>
#include <cstddef>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "google/protobuf/util/message_differencer.h"

#include "tools/widgetctl/json.h"

namespace widgetctl {

using google::protobuf::Message;
using google::protobuf::ServiceDescriptor;
using google::protobuf::util::MessageDifferencer;

namespace {

using Clock = std::chrono::steady_clock;

// An answer goes below its call where both together would be wider.
constexpr std::size_t kColumns = 100;
constexpr absl::string_view kLineBreak = "\n                    ";
constexpr absl::string_view kArrow = " => ";

// As a session file has it.
std::string Ending(absl::string_view error) {
  return absl::StrCat("error: ", error);
}

std::string Ending(const Message& response) { return ToJson(response); }

}  // namespace

absl::StatusOr<SessionRunner> SessionRunner::Load(
    const ServiceDescriptor& service, absl::string_view text) {
  const absl::StatusOr<std::vector<SessionLine>> lines = ParseSession(text);
  if (!lines.ok()) return lines.status();
  SessionRunner runner;
  for (const SessionLine& line : *lines) {
    if (const auto* const remark = std::get_if<Remark>(&line.content)) {
      runner.steps_.emplace_back(*remark);
    }
    if (const auto* const call = std::get_if<RecordedCall>(&line.content)) {
      absl::StatusOr<Step> step = LoadCall(service, line.number, *call);
      if (!step.ok()) {
        return absl::InvalidArgumentError(
            absl::StrCat("line ", line.number, ": ", step.status().message()));
      }
      runner.steps_.emplace_back(*std::move(step));
    }
  }
  return runner;
}

absl::StatusOr<SessionRunner::Step> SessionRunner::LoadCall(
    const ServiceDescriptor& service, int line, const RecordedCall& recorded) {
  absl::StatusOr<UnaryCall> call =
      PrepareCall(service, recorded.method, recorded.request);
  if (!call.ok()) return call.status();
  Step step{line, *std::move(call), nullptr, ""};
  if (recorded.outcome == RecordedCall::Outcome::kError) {
    step.expected_error = recorded.answer;
    return step;
  }
  step.expected_response.reset(step.call.response->New());
  if (const absl::Status read =
          FromJson(recorded.answer, step.expected_response.get());
      !read.ok()) {
    return absl::InvalidArgumentError(absl::StrCat(
        "the response of ", recorded.method, " is no JSON of ",
        step.expected_response->GetTypeName(), ": ", read.message()));
  }
  return step;
}

bool SessionRunner::Step::IsExpected(const absl::Status& status) const {
  if (expected_response == nullptr) {
    return !status.ok() && status.message() == expected_error;
  }
  return status.ok() &&
         MessageDifferencer::Equals(*call.response, *expected_response);
}

void SessionRunner::Step::Report(const absl::Status& status,
                                 absl::Duration spent,
                                 std::ostream& transcript) const {
  const bool is_expected = IsExpected(status);
  const std::string made =
      absl::StrFormat("%-7s %9.3f ms  %s %s", is_expected ? "ok" : "DIFFERS",
                      absl::ToDoubleMilliseconds(spent), call.method->name(),
                      ToJson(*call.request));
  const std::string actual =
      status.ok() ? Ending(*call.response) : Ending(status.message());
  if (is_expected) {
    const bool fits = made.size() + kArrow.size() + actual.size() <= kColumns;
    transcript << made << (fits ? "" : kLineBreak) << kArrow << actual << '\n';
    return;
  }
  const std::string expected = expected_response == nullptr
                                   ? Ending(expected_error)
                                   : Ending(*expected_response);
  transcript << made << '\n'
             << "  line " << line << ", expected: " << expected << '\n'
             << "  line " << line << ", actual:   " << actual << '\n';
}

bool SessionRunner::Run(absl::Duration timeout, orvane::SocketClient& client,
                        std::ostream& transcript) const {
  int calls = 0;
  int different = 0;
  absl::Duration total;
  bool follows_call = false;
  for (const auto& content : steps_) {
    if (const auto* const remark = std::get_if<Remark>(&content)) {
      transcript << (follows_call ? "\n" : "") << remark->text << '\n';
      follows_call = false;
      continue;
    }
    const Step& step = *std::get_if<Step>(&content);
    const Clock::time_point begin = Clock::now();
    const absl::Status status = MakeCall(step.call, timeout, client);
    const absl::Duration spent = absl::FromChrono(Clock::now() - begin);
    step.Report(status, spent, transcript);
    follows_call = true;
    total += spent;
    ++calls;
    if (step.IsExpected(status)) continue;
    ++different;
    if (!client.status().ok()) {
      transcript << "\nthe connection is gone; no further calls are made\n";
      return false;
    }
  }
  transcript << absl::StrFormat(
      "\n%d %s in %.1f ms: %s\n", calls, calls == 1 ? "call" : "calls",
      absl::ToDoubleMilliseconds(total),
      different == 0 ? "all as expected"
                     : absl::StrCat(different, " not as expected"));
  return different == 0;
}

}  // namespace widgetctl
