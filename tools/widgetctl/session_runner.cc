#include "tools/widgetctl/session_runner.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include "absl/algorithm/container.h"
#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "google/protobuf/util/message_differencer.h"

#include "tools/widgetctl/json.h"
#include "tools/widgetctl/methods.h"
#include "zimbrel/src/core/common/rpc/method_kind.h"
#include "zimbrel/src/core/common/rpc/printable.h"

namespace widgetctl {

using google::protobuf::Message;
using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;
using google::protobuf::util::MessageDifferencer;

namespace {

using Clock = std::chrono::steady_clock;

// If a call and its answer together are wider, the answer gets a line of its
// own.
constexpr std::size_t kColumns = 100;
constexpr absl::string_view kLineBreak = "\n                    ";
constexpr absl::string_view kArrow = " => ";

// The form that an answer has in a session file, but fit for a terminal.
std::string ToText(const Answer& answer) {
  return answer.ok()
             ? ToJson(**answer)
             : absl::StrCat("error: ",
                            orvane::Printable(answer.status().message()));
}

bool AreSame(const Answer& one, const Answer& other) {
  if (!one.ok() || !other.ok()) {
    return !one.ok() && !other.ok() &&
           one.status().message() == other.status().message();
  }
  return MessageDifferencer::Equals(**one, **other);
}

// Whether every field that `expected` has is the same in `actual`.
bool HasAllOf(const Message& actual, const Message& expected) {
  MessageDifferencer differencer;
  differencer.set_scope(MessageDifferencer::PARTIAL);
  return differencer.Compare(expected, actual);
}

std::string Count(int number, absl::string_view what) {
  return absl::StrCat(number, " ", what, number == 1 ? "" : "s");
}

// Whether what arrives on a stream of the method is an event, not a call.
bool IsEvent(const MethodDescriptor& method) {
  return orvane::KindOf(method) == orvane::MethodKind::kEventStream;
}

absl::string_view ArrivalVerb(const MethodDescriptor& method) {
  return IsEvent(method) ? "event" : "called";
}

// An event, or a call that waits for its answer.
struct Arrival {
  const Message& message() const {
    return event != nullptr ? *event : call->message();
  }

  std::unique_ptr<Message> event;
  std::optional<WidgetCall> call;
};

struct InServiceOrder {
  bool operator()(const MethodDescriptor* one,
                  const MethodDescriptor* other) const {
    return std::pair(one->service()->full_name(), one->index()) <
           std::pair(other->service()->full_name(), other->index());
  }
};

struct OpenStream {
  const MethodDescriptor* method;
  std::unique_ptr<orvane::ClientStream> stream;
};

// What belongs to one name of connections, which is as good as a host of its
// own. It has a connection for each service.
struct Host {
  std::map<const ServiceDescriptor*, std::unique_ptr<orvane::SocketClient>>
      clients;
  std::set<const MethodDescriptor*> allowed;
  // What no step has expected yet.
  std::map<const MethodDescriptor*, std::deque<Arrival>, InServiceOrder>
      arrived;
  // Streams that ended by themselves.
  std::vector<std::pair<std::string, absl::Status>> ended;
  // By the subscription's name. The last member, since handlers use the others.
  std::map<std::string, OpenStream> open;
};

// Of a method whose arrivals may be unexpected, the latest are kept.
constexpr std::size_t kMaxAllowedArrivals = 100;

class Runner {
 public:
  Runner(const std::vector<SessionStep>& steps, absl::Duration timeout,
         orvane::EventLoop& loop, const Connect& connect,
         std::ostream& transcript)
      : steps_(steps),
        timeout_(timeout),
        loop_(loop),
        connect_(connect),
        transcript_(transcript) {}

  SessionOutcome Run() {
    while (next_ < steps_.size()) {
      if (!Take(steps_[next_++])) return {false, connection_};
    }
    const bool is_as_expected = Finish();
    if (!is_as_expected) LookForLostConnections();
    return {is_as_expected, connection_};
  }

 private:
  // Runs a step. False if the session cannot go on.
  bool Take(const SessionStep& step) {
    line_ = step.line;
    host_ = &hosts_[step.connection];
    label_ =
        step.connection.empty() ? "" : absl::StrCat("@", step.connection, " ");
    const int different = different_;
    std::visit([this](const auto& action) { Do(action); }, step.action);
    if (!connection_.ok()) return false;
    if (different_ == different) return true;
    LookForLostConnections();
    if (connection_.ok()) return true;
    transcript_ << "\nthe connection is gone; no further calls are made\n";
    return false;
  }

  // Reports what arrived unexpectedly, and the totals. True if everything was
  // as expected.
  bool Finish() {
    for (const auto& [name, host] : hosts_) TellUnexpected(host);
    transcript_ << '\n' << Count(calls_, "call");
    if (events_ > 0) transcript_ << ", " << Count(events_, "event");
    if (served_ > 0) transcript_ << ", " << Count(served_, "served call");
    transcript_ << absl::StrFormat(" in %.1f ms: ",
                                   absl::ToDoubleMilliseconds(total_));
    if (different_ > 0) transcript_ << different_ << " not as expected";
    if (different_ > 0 && unexpected_ > 0) transcript_ << ", ";
    if (unexpected_ > 0) transcript_ << unexpected_ << " unexpected";
    const bool as_expected = different_ == 0 && unexpected_ == 0;
    transcript_ << (as_expected ? "all as expected\n" : "\n");
    return as_expected;
  }

  void Do(const Remark& remark) {
    transcript_ << (follows_step_ ? "\n" : "") << remark.text << '\n';
    follows_step_ = false;
  }

  void Do(const CallStep& step) {
    orvane::SocketClient* const client = ClientFor(*step.call.method);
    if (client == nullptr) return;
    ++calls_;
    const Clock::time_point begin = Clock::now();
    std::optional<Answer> ended;
    client->Call(step.call.method, *step.call.request,
                 [&ended](Answer answer) { ended = std::move(answer); },
                 {.timeout = timeout_});
    AnswerMeanwhile();
    loop_.RunUntil([&ended] { return ended.has_value(); });
    const Answer actual = *std::move(ended);
    const bool is_expected =
        step.may_have_more ? actual.ok() && HasAllOf(**actual, **step.expected)
                           : AreSame(actual, step.expected);
    const std::string made =
        absl::StrCat(Prefix(is_expected, begin), step.call.method->name(), " ",
                     ToJson(*step.call.request));
    if (!is_expected) {
      return Differs(made, ToText(step.expected), ToText(actual));
    }
    const std::string answer = ToText(actual);
    const bool fits = made.size() + kArrow.size() + answer.size() <= kColumns;
    transcript_ << made << (fits ? "" : kLineBreak) << kArrow << answer << '\n';
  }

  void Do(const WatchStep& step) {
    const Subscription& watch = step.subscription;
    orvane::SocketClient* const client = ClientFor(*watch.method);
    if (client == nullptr) return;
    Note(absl::StrCat("watch ", watch.Name()));
    Add(watch,
        OpenWatch(
            watch, *client,
            [this, host = host_, &watch](const Message& event) {
              std::unique_ptr<Message> copy(event.New());
              copy->CopyFrom(event);
              Arrived(*host, watch.method, {std::move(copy), std::nullopt});
            },
            EndOf(watch)));
  }

  void Do(const ServeStep& step) {
    const Subscription& serve = step.subscription;
    orvane::SocketClient* const client = ClientFor(*serve.method);
    if (client == nullptr) return;
    Note(absl::StrCat(
        "serve ", serve.Name(),
        step.answer.has_value()
            ? absl::StrCat(kArrow, orvane::Printable(step.answer->text()))
            : ""));
    Add(serve,
        OpenServe(
            serve, *client,
            [this, host = host_, &step](WidgetCall call) {
              // An error is what the session asks for.
              if (step.answer.has_value()) {
                call.Give(step.answer->For(call.message())).IgnoreError();
              }
              Arrived(*host, step.subscription.method,
                      {nullptr, std::move(call)});
            },
            EndOf(serve)));
  }

  void Do(const ArrivalStep& step) {
    ++(IsEvent(*step.method) ? events_ : served_);
    const Clock::time_point begin = Clock::now();
    std::deque<Arrival>& arrived = host_->arrived[step.method];
    const std::string missing = Await(step);
    const bool is_expected =
        missing.empty() && HasAllOf(arrived.front().message(), *step.expected);
    const std::string expected = ToJson(*step.expected);
    const std::string made =
        absl::StrCat(Prefix(is_expected, begin), ArrivalVerb(*step.method), " ",
                     step.method->name());
    const std::string answer = step.answer.has_value()
                                   ? absl::StrCat(kArrow, ToText(*step.answer))
                                   : "";
    if (is_expected) {
      transcript_ << made << ' ' << expected << answer << '\n';
    } else {
      Differs(made, expected,
              missing.empty() ? ToJson(arrived.front().message()) : missing);
    }
    if (!missing.empty()) return;
    // An error is what the session asks for.
    if (step.answer.has_value())
      arrived.front().call->Give(*step.answer).IgnoreError();
    arrived.pop_front();
  }

  void Do(const EndStep& step) {
    const std::string name = step.subscription.Name();
    Note(absl::StrCat("end ", name));
    host_->open.erase(name);
  }

  void Do(const AllowStep& step) {
    Note(absl::StrCat("allow ", step.method->name()));
    host_->allowed.insert(step.method);
  }

  void Do(const DisconnectStep&) {
    Note("disconnect");
    TellUnexpected(*host_);
    host_->open.clear();  // First, so that no handler learns of it.
    *host_ = {};
  }

  // Takes the steps behind a call that answer calls of the widget's, since it
  // may wait for them before it answers the call itself.
  void AnswerMeanwhile() {
    const auto is_one = [](const SessionStep& step) {
      const auto* const arrival = std::get_if<ArrivalStep>(&step.action);
      return (arrival != nullptr && arrival->answer.has_value()) ||
             std::holds_alternative<Remark>(step.action);
    };
    std::size_t behind = next_;
    while (behind < steps_.size() && is_one(steps_[behind])) ++behind;
    // Remarks at the end are about what follows.
    while (behind > next_ &&
           std::holds_alternative<Remark>(steps_[behind - 1].action)) {
      --behind;
    }
    const auto of_call = std::tuple(line_, host_, label_);
    while (next_ < behind && Take(steps_[next_])) ++next_;
    std::tie(line_, host_, label_) = of_call;
  }

  void LookForLostConnections() {
    for (const auto& [name, host] : hosts_) {
      for (const auto& [service, client] : host.clients)
        connection_.Update(client->status());
    }
  }

  // The connection for methods of that service. Null if there is none.
  orvane::SocketClient* ClientFor(const MethodDescriptor& method) {
    auto& client = host_->clients[method.service()];
    if (client == nullptr) {
      auto connected = connect_();
      connection_.Update(connected.status());
      if (connected.ok()) client = *std::move(connected);
    }
    return client.get();
  }

  void Arrived(Host& host, const MethodDescriptor* method, Arrival arrival) {
    std::deque<Arrival>& arrived = host.arrived[method];
    arrived.push_back(std::move(arrival));
    if (host.allowed.contains(method) && arrived.size() > kMaxAllowedArrivals)
      arrived.pop_front();
  }

  // Waits until what the step expects is the first of what has arrived, or
  // tells why it is not. What is not allowed to be passed over stays the first.
  std::string Await(const ArrivalStep& step) {
    bool is_late = false;
    const auto deadline =
        loop_.RunAfter(timeout_, [&is_late] { is_late = true; });
    const auto is_open = [this, &step] {
      return absl::c_any_of(host_->open, [&step](const auto& entry) {
        return entry.second.method == step.method;
      });
    };
    std::deque<Arrival>& arrived = host_->arrived[step.method];
    const auto is_there = [&] {
      if (!host_->allowed.contains(step.method)) return !arrived.empty();
      const auto fits = [&](const Arrival& one) {
        return HasAllOf(one.message(), *step.expected);
      };
      if (absl::c_none_of(arrived, fits)) return false;
      while (!fits(arrived.front())) arrived.pop_front();
      return true;
    };
    bool found = false;
    loop_.RunUntil([&] {
      found = is_there();
      return found || is_late || !is_open();
    });
    if (found) return "";
    return is_late
               ? absl::StrCat("nothing within ", absl::FormatDuration(timeout_))
               : "nothing, and no stream is open";
  }

  void Add(const Subscription& subscription,
           std::unique_ptr<orvane::ClientStream> stream) {
    host_->open.emplace(subscription.Name(),
                        OpenStream{subscription.method, std::move(stream)});
  }

  orvane::OnEnd EndOf(const Subscription& subscription) {
    return [host = host_, name = subscription.Name()](const absl::Status& why) {
      host->ended.emplace_back(name, why);
      host->open.erase(name);
    };
  }

  // The status and the time since `begin`, which is added to the total.
  std::string Prefix(bool is_expected, Clock::time_point begin) {
    follows_step_ = true;
    const absl::Duration spent = absl::FromChrono(Clock::now() - begin);
    total_ += spent;
    return absl::StrFormat("%-7s %9.3f ms  %s", is_expected ? "ok" : "DIFFERS",
                           absl::ToDoubleMilliseconds(spent), label_);
  }

  // Writes a step that has no result.
  void Note(absl::string_view what) {
    follows_step_ = true;
    transcript_ << absl::StrFormat("%22s%s%s\n", "", label_, what);
  }

  void Differs(absl::string_view made, absl::string_view expected,
               absl::string_view actual) {
    ++different_;
    transcript_ << made << '\n'
                << "  line " << line_ << ", expected: " << expected << '\n'
                << "  line " << line_ << ", actual:   " << actual << '\n';
  }

  void TellUnexpected(const Host& host) {
    for (const auto& [name, why] : host.ended) {
      Unexpected(absl::StrCat(
          "end of ", name,
          why.ok() ? "" : ": " + orvane::Printable(why.message())));
    }
    for (const auto& [method, arrivals] : host.arrived) {
      if (host.allowed.contains(method)) continue;
      for (const Arrival& arrival : arrivals) {
        Unexpected(absl::StrCat(ArrivalVerb(*method), " ", method->name(), " ",
                                ToJson(arrival.message())));
      }
    }
  }

  void Unexpected(absl::string_view what) {
    ++unexpected_;
    transcript_ << absl::StrFormat("%-22s%s\n", "UNEXPECTED", what);
  }

  const std::vector<SessionStep>& steps_;
  std::size_t next_ = 0;
  const absl::Duration timeout_;
  orvane::EventLoop& loop_;
  const Connect& connect_;
  std::ostream& transcript_;
  absl::Status connection_;

  int line_ = 0;
  std::string label_;  // Of the connection, in front of what is done over it.
  bool follows_step_ = false;
  int calls_ = 0;
  int events_ = 0;
  int served_ = 0;
  int different_ = 0;
  int unexpected_ = 0;
  absl::Duration total_;

  Host* host_ = nullptr;  // Of the step.
  std::map<std::string, Host> hosts_;
};

}  // namespace

SessionOutcome RunSession(const std::vector<SessionStep>& steps,
                          absl::Duration timeout, orvane::EventLoop& loop,
                          const Connect& connect, std::ostream& transcript) {
  return Runner(steps, timeout, loop, connect, transcript).Run();
}

}  // namespace widgetctl
