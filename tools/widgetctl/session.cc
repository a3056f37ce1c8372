#include "tools/widgetctl/session.h"

#include <map>
#include <set>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"

#include "tools/widgetctl/json.h"
#include "tools/widgetctl/methods.h"
#include "zimbrel/src/core/common/rpc/method_kind.h"

namespace widgetctl {

using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;
using orvane::MethodKind;

namespace {

// Checks the lines one after the other and remembers which streams are open.
class Loader {
 public:
  using Action = decltype(SessionStep::action);

  explicit Loader(const ServiceDescriptor& service) : service_(service) {}

  absl::StatusOr<SessionStep> Load(const SessionLine& line) {
    line_ = line.number;
    absl::StatusOr<Action> action =
        std::visit([this](const auto& content) { return this->Take(content); },
                   line.content);
    if (!action.ok()) {
      return absl::InvalidArgumentError(
          absl::StrCat("line ", line_, ": ", action.status().message()));
    }
    return SessionStep{line_, *std::move(action)};
  }

 private:
  static absl::StatusOr<Action> Take(const Remark& remark) { return remark; }

  absl::StatusOr<Action> Take(const RecordedCall& recorded) {
    absl::StatusOr<UnaryCall> call =
        PrepareCall(service_, recorded.method, recorded.request);
    if (!call.ok()) return call.status();
    if (recorded.outcome == RecordedCall::Outcome::kError) {
      return CallStep{*std::move(call), absl::UnknownError(recorded.answer)};
    }
    auto response = NewMessage(call->method->output_type());
    if (absl::Status read =
            ReadJson(absl::StrCat("the response of ", recorded.method),
                     recorded.answer, response.get());
        !read.ok()) {
      return read;
    }
    return CallStep{*std::move(call), std::move(response)};
  }

  absl::StatusOr<Action> Take(const RecordedServe& recorded) {
    const RecordedCall& call = recorded.call;
    absl::StatusOr<Subscription> serve =
        PrepareServe(service_, call.method, call.request);
    if (!serve.ok()) return serve.status();
    Answer answer = call.outcome == RecordedCall::Outcome::kError
                        ? Answer(absl::UnknownError(call.answer))
                        : ReadResponse(*serve->method, call.answer);
    if (!answer.ok() && call.outcome == RecordedCall::Outcome::kResponse) {
      return answer.status();
    }
    if (absl::Status opened = Open(*serve, "served"); !opened.ok())
      return opened;
    return ServeStep{*std::move(serve), std::move(answer)};
  }

  absl::StatusOr<Action> Take(const RecordedStep& step) {
    switch (step.verb) {
      case RecordedStep::Verb::kWatch:
        return TakeWatch(step);
      case RecordedStep::Verb::kEvent:
      case RecordedStep::Verb::kCalled:
        return TakeArrival(step);
      case RecordedStep::Verb::kEnd:
        break;
    }
    return TakeEnd(step);
  }

  absl::StatusOr<Action> TakeWatch(const RecordedStep& step) {
    absl::StatusOr<Subscription> watch =
        PrepareWatch(service_, step.method, step.json);
    if (!watch.ok()) return watch.status();
    if (absl::Status opened = Open(*watch, "watched"); !opened.ok())
      return opened;
    return WatchStep{*std::move(watch)};
  }

  absl::StatusOr<Action> TakeArrival(const RecordedStep& step) {
    const bool is_event = step.verb == RecordedStep::Verb::kEvent;
    const auto method =
        is_event ? FindMethodOfKind(service_, step.method,
                                    MethodKind::kEventStream, "watched")
                 : FindMethodOfKind(service_, step.method,
                                    MethodKind::kCallbackStream, "served");
    if (!method.ok()) return method.status();
    ArrivalStep arrival{*method, NewMessage((*method)->output_type())};
    if (absl::Status read =
            ReadJson(absl::StrCat(is_event ? "the event of " : "the call of ",
                                  step.method),
                     step.json, arrival.expected.get());
        !read.ok()) {
      return read;
    }
    if (!opened_methods_.contains(*method)) {
      return absl::InvalidArgumentError(
          absl::StrCat(step.method, " was not ",
                       is_event ? "watched" : "served", " before"));
    }
    return arrival;
  }

  absl::StatusOr<Action> TakeEnd(const RecordedStep& step) {
    const auto method = FindMethod(service_, step.method);
    if (!method.ok()) return method.status();
    const auto kind = orvane::KindOf(**method);
    if (kind == MethodKind::kUnary) {
      return absl::InvalidArgumentError(
          absl::StrCat(step.method, " cannot be ended: it is of kind unary"));
    }
    absl::StatusOr<Subscription> stream =
        kind == MethodKind::kCallbackStream
            ? PrepareServe(service_, step.method, step.json)
            : PrepareWatch(service_, step.method, step.json);
    if (!stream.ok()) return stream.status();
    if (open_.erase(stream->Name()) == 0) {
      return absl::InvalidArgumentError(
          absl::StrCat(stream->Name(), " is not open"));
    }
    return EndStep{*std::move(stream)};
  }

  absl::Status Open(const Subscription& subscription, absl::string_view use) {
    const auto [open, is_new] = open_.emplace(subscription.Name(), line_);
    if (!is_new) {
      return absl::InvalidArgumentError(
          absl::StrCat(open->first, " is ", use, " since line ", open->second));
    }
    opened_methods_.insert(subscription.method);
    return absl::OkStatus();
  }

  const ServiceDescriptor& service_;
  int line_ = 0;
  std::map<std::string, int> open_;  // By name, the line that opens it.
  std::set<const MethodDescriptor*> opened_methods_;
};

// Empty if there are only remarks.
std::string FirstMethod(const std::vector<SessionLine>& lines) {
  for (const SessionLine& line : lines) {
    if (const auto* const call = std::get_if<RecordedCall>(&line.content))
      return call->method;
    if (const auto* const serve = std::get_if<RecordedServe>(&line.content))
      return serve->call.method;
    if (const auto* const step = std::get_if<RecordedStep>(&line.content))
      return step->method;
  }
  return "";
}

}  // namespace

absl::StatusOr<std::vector<SessionStep>> LoadSession(
    absl::Span<const ServiceDescriptor* const> services,
    absl::string_view text) {
  const absl::StatusOr<std::vector<SessionLine>> lines = ParseSession(text);
  if (!lines.ok()) return lines.status();
  std::vector<SessionStep> steps;
  Loader loader(ServiceWithMethod(services, FirstMethod(*lines)));
  for (const SessionLine& line : *lines) {
    absl::StatusOr<SessionStep> step = loader.Load(line);
    if (!step.ok()) return step.status();
    steps.push_back(*std::move(step));
  }
  return steps;
}

}  // namespace widgetctl
