#include "tools/widgetctl/session.h"

#include <map>
#include <optional>
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

  explicit Loader(absl::Span<const ServiceDescriptor* const> services)
      : services_(services) {}

  absl::StatusOr<SessionStep> Load(const SessionLine& line) {
    line_ = line.number;
    host_ = &hosts_[line.connection];
    absl::StatusOr<Action> action =
        std::visit([this](const auto& content) { return this->Take(content); },
                   line.content);
    if (!action.ok()) {
      return absl::InvalidArgumentError(
          absl::StrCat("line ", line_, ": ", action.status().message()));
    }
    return SessionStep{line_, line.connection, *std::move(action)};
  }

 private:
  // What belongs to one name of connections.
  struct Host {
    struct Opened {
      int line;
      bool answers;  // By itself.
    };

    std::map<std::string, Opened> open;  // By name.
    std::map<const MethodDescriptor*, Opened> methods;
  };

  const ServiceDescriptor& ServiceOf(const std::string& method) const {
    return ServiceWithMethod(services_, method);
  }

  static absl::StatusOr<Action> Take(const Remark& remark) { return remark; }

  absl::StatusOr<Action> Take(const RecordedCall& recorded) {
    absl::StatusOr<UnaryCall> call = PrepareCall(
        ServiceOf(recorded.method), recorded.method, recorded.request);
    if (!call.ok()) return call.status();
    if (recorded.answer.kind == RecordedAnswer::Kind::kError) {
      return CallStep{*std::move(call),
                      absl::UnknownError(recorded.answer.text), false};
    }
    auto response = NewMessage(call->method->output_type());
    if (absl::Status read =
            ReadJson(absl::StrCat("the response of ", recorded.method),
                     recorded.answer.text, response.get());
        !read.ok()) {
      return read;
    }
    return CallStep{*std::move(call), std::move(response),
                    recorded.answer.kind == RecordedAnswer::Kind::kFields};
  }

  absl::StatusOr<Action> Take(const RecordedStep& step) {
    switch (step.verb) {
      case RecordedStep::Verb::kWatch:
        return TakeWatch(step);
      case RecordedStep::Verb::kServe:
        return TakeServe(step);
      case RecordedStep::Verb::kEvent:
      case RecordedStep::Verb::kCalled:
        return TakeArrival(step);
      case RecordedStep::Verb::kEnd:
        return TakeEnd(step);
      case RecordedStep::Verb::kAllow:
        return TakeAllow(step);
      case RecordedStep::Verb::kDisconnect:
        break;
    }
    *host_ = {};
    return DisconnectStep{};
  }

  absl::StatusOr<Action> TakeWatch(const RecordedStep& step) {
    absl::StatusOr<Subscription> watch =
        PrepareWatch(ServiceOf(step.method), step.method, step.json);
    if (!watch.ok()) return watch.status();
    if (absl::Status opened = Open(*watch, "watched", false); !opened.ok())
      return opened;
    return WatchStep{*std::move(watch)};
  }

  absl::StatusOr<Action> TakeServe(const RecordedStep& step) {
    absl::StatusOr<Subscription> serve =
        PrepareServe(ServiceOf(step.method), step.method, step.json);
    if (!serve.ok()) return serve.status();
    std::optional<AnswerTemplate> answer;
    if (step.answer.has_value()) {
      auto read = AnswerTemplate::Read(*serve->method, *step.answer);
      if (!read.ok()) return read.status();
      answer = *std::move(read);
    }
    if (absl::Status opened = Open(*serve, "served", answer.has_value());
        !opened.ok())
      return opened;
    return ServeStep{*std::move(serve), std::move(answer)};
  }

  absl::StatusOr<Action> TakeArrival(const RecordedStep& step) {
    const bool is_event = step.verb == RecordedStep::Verb::kEvent;
    const ServiceDescriptor& service = ServiceOf(step.method);
    const auto method =
        is_event ? FindMethodOfKind(service, step.method,
                                    MethodKind::kEventStream, "watched")
                 : FindMethodOfKind(service, step.method,
                                    MethodKind::kCallbackStream, "served");
    if (!method.ok()) return method.status();
    ArrivalStep arrival{*method, NewMessage((*method)->output_type()),
                        std::nullopt};
    if (absl::Status read =
            ReadJson(absl::StrCat(is_event ? "the event of " : "the call of ",
                                  step.method),
                     step.json, arrival.expected.get());
        !read.ok()) {
      return read;
    }
    const auto opened = host_->methods.find(*method);
    if (opened == host_->methods.end()) {
      return absl::InvalidArgumentError(
          absl::StrCat(step.method, " was not ",
                       is_event ? "watched" : "served", " before"));
    }
    if (!step.answer.has_value()) return arrival;
    if (opened->second.answers) {
      return absl::InvalidArgumentError(
          absl::StrCat("the calls of ", step.method, " are answered in line ",
                       opened->second.line));
    }
    arrival.answer = ReadAnswer(**method, *step.answer);
    if (!arrival.answer->ok() &&
        step.answer->kind != RecordedAnswer::Kind::kError) {
      return arrival.answer->status();
    }
    return arrival;
  }

  absl::StatusOr<Action> TakeEnd(const RecordedStep& step) {
    const ServiceDescriptor& service = ServiceOf(step.method);
    const auto method = FindMethod(service, step.method);
    if (!method.ok()) return method.status();
    const auto kind = orvane::KindOf(**method);
    if (kind == MethodKind::kUnary) {
      return absl::InvalidArgumentError(
          absl::StrCat(step.method, " cannot be ended: it is of kind unary"));
    }
    absl::StatusOr<Subscription> stream =
        kind == MethodKind::kCallbackStream
            ? PrepareServe(service, step.method, step.json)
            : PrepareWatch(service, step.method, step.json);
    if (!stream.ok()) return stream.status();
    if (host_->open.erase(stream->Name()) == 0) {
      return absl::InvalidArgumentError(
          absl::StrCat(stream->Name(), " is not open"));
    }
    return EndStep{*std::move(stream)};
  }

  absl::StatusOr<Action> TakeAllow(const RecordedStep& step) {
    const auto method = FindMethod(ServiceOf(step.method), step.method);
    if (!method.ok()) return method.status();
    if (orvane::KindOf(**method) == MethodKind::kUnary) {
      return absl::InvalidArgumentError(
          absl::StrCat(step.method, " cannot be allowed: it is of kind unary"));
    }
    return AllowStep{*method};
  }

  absl::Status Open(const Subscription& subscription, absl::string_view use,
                    bool answers) {
    const Host::Opened now = {line_, answers};
    const auto [open, is_new] = host_->open.emplace(subscription.Name(), now);
    if (!is_new) {
      return absl::InvalidArgumentError(absl::StrCat(
          open->first, " is ", use, " since line ", open->second.line));
    }
    host_->methods.insert_or_assign(subscription.method, now);
    return absl::OkStatus();
  }

  const absl::Span<const ServiceDescriptor* const> services_;
  int line_ = 0;
  Host* host_ = nullptr;
  std::map<std::string, Host> hosts_;  // By the connection's name.
};

}  // namespace

absl::StatusOr<std::vector<SessionStep>> LoadSession(
    absl::Span<const ServiceDescriptor* const> services,
    absl::string_view text) {
  const absl::StatusOr<std::vector<SessionLine>> lines = ParseSession(text);
  if (!lines.ok()) return lines.status();
  std::vector<SessionStep> steps;
  Loader loader(services);
  for (const SessionLine& line : *lines) {
    absl::StatusOr<SessionStep> step = loader.Load(line);
    if (!step.ok()) return step.status();
    steps.push_back(*std::move(step));
  }
  return steps;
}

}  // namespace widgetctl
