#include "tools/widgetctl/session_runner.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <string>
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

class Runner {
 public:
  Runner(absl::Duration timeout, orvane::EventLoop& loop,
         orvane::SocketClient& client, std::ostream& transcript)
      : timeout_(timeout),
        loop_(loop),
        client_(client),
        transcript_(transcript) {}

  // Runs a step. False if the session cannot go on.
  bool Take(const SessionStep& step) {
    line_ = step.line;
    const int different = different_;
    std::visit([this](const auto& action) { Do(action); }, step.action);
    if (different_ == different || client_.status().ok()) return true;
    transcript_ << "\nthe connection is gone; no further calls are made\n";
    return false;
  }

  // Reports what arrived unexpectedly, and the totals. True if everything was
  // as expected.
  bool Finish() {
    for (const auto& [name, why] : ended_) {
      Unexpected(absl::StrCat(
          "end of ", name,
          why.ok() ? "" : ": " + orvane::Printable(why.message())));
    }
    for (const auto& [method, messages] : arrived_) {
      for (const auto& message : messages) {
        Unexpected(absl::StrCat(ArrivalVerb(*method), " ", method->name(), " ",
                                ToJson(*message)));
      }
    }
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

 private:
  void Do(const Remark& remark) {
    transcript_ << (follows_step_ ? "\n" : "") << remark.text << '\n';
    follows_step_ = false;
  }

  void Do(const CallStep& step) {
    ++calls_;
    const Clock::time_point begin = Clock::now();
    const Answer actual = MakeCall(step.call, timeout_, client_);
    const bool is_expected = AreSame(actual, step.expected);
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
    Note(absl::StrCat("watch ", watch.Name()));
    Add(watch, OpenWatch(
                   watch, client_,
                   [this, &watch](const Message& event) {
                     std::unique_ptr<Message>& arrived =
                         arrived_[watch.method].emplace_back(event.New());
                     arrived->CopyFrom(event);
                   },
                   EndOf(watch)));
  }

  void Do(const ServeStep& step) {
    const Subscription& serve = step.subscription;
    Note(absl::StrCat("serve ", serve.Name(), kArrow, ToText(step.answer)));
    Add(serve, OpenServe(
                   serve, client_,
                   [this, &step](WidgetCall call) {
                     // An error is what the session asks for.
                     call.Give(step.answer).IgnoreError();
                     arrived_[step.subscription.method].push_back(
                         std::move(call).TakeMessage());
                   },
                   EndOf(serve)));
  }

  void Do(const ArrivalStep& step) {
    ++(IsEvent(*step.method) ? events_ : served_);
    const Clock::time_point begin = Clock::now();
    const std::string missing = Await(step.method);
    std::unique_ptr<Message> actual;
    if (missing.empty()) {
      std::deque<std::unique_ptr<Message>>& messages = arrived_[step.method];
      actual = std::move(messages.front());
      messages.pop_front();
    }
    const bool is_expected =
        actual != nullptr && HasAllOf(*actual, *step.expected);
    const std::string expected = ToJson(*step.expected);
    const std::string made =
        absl::StrCat(Prefix(is_expected, begin), ArrivalVerb(*step.method), " ",
                     step.method->name());
    if (is_expected) {
      transcript_ << made << ' ' << expected << '\n';
    } else {
      Differs(made, expected, actual == nullptr ? missing : ToJson(*actual));
    }
  }

  void Do(const EndStep& step) {
    const std::string name = step.subscription.Name();
    Note(absl::StrCat("end ", name));
    open_.erase(name);
  }

  // Waits until something of this method has arrived, or tells why nothing has.
  std::string Await(const MethodDescriptor* method) {
    bool is_late = false;
    const auto deadline =
        loop_.RunAfter(timeout_, [&is_late] { is_late = true; });
    const auto is_open = [this, method] {
      return absl::c_any_of(open_, [method](const auto& entry) {
        return entry.second.method == method;
      });
    };
    const std::deque<std::unique_ptr<Message>>& messages = arrived_[method];
    loop_.RunUntil([&] { return !messages.empty() || is_late || !is_open(); });
    if (!messages.empty()) return "";
    return is_late
               ? absl::StrCat("nothing within ", absl::FormatDuration(timeout_))
               : "nothing, and no stream is open";
  }

  void Add(const Subscription& subscription,
           std::unique_ptr<orvane::ClientStream> stream) {
    open_.emplace(subscription.Name(),
                  OpenStream{subscription.method, std::move(stream)});
  }

  orvane::OnEnd EndOf(const Subscription& subscription) {
    return [this, name = subscription.Name()](const absl::Status& why) {
      ended_.emplace_back(name, why);
      open_.erase(name);
    };
  }

  // The status and the time since `begin`, which is added to the total.
  std::string Prefix(bool is_expected, Clock::time_point begin) {
    follows_step_ = true;
    const absl::Duration spent = absl::FromChrono(Clock::now() - begin);
    total_ += spent;
    return absl::StrFormat("%-7s %9.3f ms  ", is_expected ? "ok" : "DIFFERS",
                           absl::ToDoubleMilliseconds(spent));
  }

  // Writes a step that has no result.
  void Note(absl::string_view what) {
    follows_step_ = true;
    transcript_ << absl::StrFormat("%22s%s\n", "", what);
  }

  void Differs(absl::string_view made, absl::string_view expected,
               absl::string_view actual) {
    ++different_;
    transcript_ << made << '\n'
                << "  line " << line_ << ", expected: " << expected << '\n'
                << "  line " << line_ << ", actual:   " << actual << '\n';
  }

  void Unexpected(absl::string_view what) {
    ++unexpected_;
    transcript_ << absl::StrFormat("%-22s%s\n", "UNEXPECTED", what);
  }

  struct OpenStream {
    const MethodDescriptor* method;
    std::unique_ptr<orvane::ClientStream> stream;
  };

  struct InServiceOrder {
    bool operator()(const MethodDescriptor* one,
                    const MethodDescriptor* other) const {
      return one->index() < other->index();
    }
  };

  const absl::Duration timeout_;
  orvane::EventLoop& loop_;
  orvane::SocketClient& client_;
  std::ostream& transcript_;

  int line_ = 0;
  bool follows_step_ = false;
  int calls_ = 0;
  int events_ = 0;
  int served_ = 0;
  int different_ = 0;
  int unexpected_ = 0;
  absl::Duration total_;

  // Messages that no step has expected yet.
  std::map<const MethodDescriptor*, std::deque<std::unique_ptr<Message>>,
           InServiceOrder>
      arrived_;
  // Streams that ended by themselves.
  std::vector<std::pair<std::string, absl::Status>> ended_;
  // By the subscription's name. The last member, since handlers use the others.
  std::map<std::string, OpenStream> open_;
};

}  // namespace

bool RunSession(const std::vector<SessionStep>& steps, absl::Duration timeout,
                orvane::EventLoop& loop, orvane::SocketClient& client,
                std::ostream& transcript) {
  Runner runner(timeout, loop, client, transcript);
  for (const SessionStep& step : steps) {
    if (!runner.Take(step)) return false;
  }
  return runner.Finish();
}

}  // namespace widgetctl
