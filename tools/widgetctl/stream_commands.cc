#include "tools/widgetctl/stream_commands.h"

#include <csignal>
#include <cstddef>
#include <deque>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"
#include "absl/time/time.h"
#include "google/protobuf/message.h"

#include "tools/widgetctl/call.h"
#include "tools/widgetctl/json.h"
#include "tools/widgetctl/methods.h"
#include "tools/widgetctl/shell_command.h"
#include "tools/widgetctl/streams.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/printable.h"
#include "zimbrel/src/core/common/rpc/transport/client_stream.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace widgetctl {

using google::protobuf::Message;
using google::protobuf::MethodDescriptor;
using orvane::ClientStream;
using orvane::EventLoop;
using orvane::SocketClient;

namespace {

// Flushed, so that a program that reads the output gets each line at once.
void PrintLine(absl::string_view line) { std::cout << line << std::endl; }

// Counts the events or answers of a stream until the command ends.
class Progress {
 public:
  // `unit` tells what is counted, in the plural.
  Progress(const Options& options, absl::string_view method,
           absl::string_view unit)
      : options_(options), method_(method), unit_(unit) {}

  void CountOne() { ++counted_; }
  bool is_complete() const { return counted_ == options_.count; }

  orvane::OnEnd OnEnd() {
    return [this](const absl::Status& why) { end_ = why; };
  }

  // Runs the loop until the count is complete, a signal asks for the end, the
  // stream has ended or it takes too long. Called once.
  ExitCode Run(EventLoop& loop, const SocketClient& client) {
    loop.OnSignal({SIGINT, SIGTERM}, [this] { is_interrupted_ = true; });
    std::unique_ptr<EventLoop::Timer> deadline;
    if (options_.count.has_value()) {
      deadline = loop.RunAfter(options_.timeout, [this] { is_late_ = true; });
    }
    loop.RunUntil([this] {
      return is_complete() || is_interrupted_ || end_.has_value() || is_late_;
    });
    if (is_complete() || is_interrupted_) return kOk;
    if (end_.has_value()) return FailBecauseOf(*end_, client);
    return Fail(kFailed, absl::StrCat(method_, " failed: ", counted_, " of ",
                                      *options_.count, " ", unit_, " within ",
                                      absl::FormatDuration(options_.timeout)));
  }

 private:
  ExitCode FailBecauseOf(const absl::Status& end,
                         const SocketClient& client) const {
    if (end.ok()) {
      return Fail(kNoConnection,
                  absl::StrCat(method_, " ended: the widget completed it"));
    }
    return Fail(
        client.status().ok() ? kFailed : kNoConnection,
        absl::StrCat(method_, " failed: ", orvane::Printable(end.message())));
  }

  const Options& options_;
  const absl::string_view method_;
  const absl::string_view unit_;
  int counted_ = 0;
  bool is_interrupted_ = false;
  bool is_late_ = false;
  std::optional<absl::Status> end_;
};

absl::Status CheckThereIsOneAnswer(const Options& options) {
  const int answers = (options.reply.has_value() ? 1 : 0) +
                      (options.fail.has_value() ? 1 : 0) +
                      (options.command.has_value() ? 1 : 0);
  if (answers == 1) return absl::OkStatus();
  return absl::InvalidArgumentError(
      answers == 0 ? "serve needs --reply JSON, --fail TEXT or "
                     "--command COMMAND"
                   : "serve takes only one of --reply, --fail and --command");
}

// The JSON of the message is never "{}", since it has the call.
std::string ToLine(const WidgetCall& call) {
  const std::string json = ToJson(call.message());
  return absl::StrCat(R"({"callId":")", call.id(), R"(",)", json.substr(1));
}

// Answers each call with what a command prints, as soon as the command has
// ended. Some commands run at the same time; further calls wait for their end,
// and beyond a limit they fail.
class CommandAnswers {
 public:
  CommandAnswers(EventLoop* loop, const MethodDescriptor* method,
                 const Options& options, Progress* progress)
      : loop_(loop), method_(method), options_(options), progress_(progress) {}

  void Take(WidgetCall call, const std::string& line) {
    const Call taken = std::make_shared<WidgetCall>(std::move(call));
    if (waiting_.size() == kMostWaiting) {
      return Give(*taken, absl::ResourceExhaustedError(absl::StrCat(
                              kMostRunning, " commands run and ", kMostWaiting,
                              " calls wait, which are the limits")));
    }
    taken->OnGivenUp([this, call = taken.get()] { Drop(call); });
    waiting_.emplace_back(taken, line);
    BeginNext();
  }

 private:
  using Call = std::shared_ptr<WidgetCall>;

  // The help of serve tells these.
  static constexpr std::size_t kMostRunning = 16;
  static constexpr std::size_t kMostWaiting = 100;

  void BeginNext() {
    while (!waiting_.empty() && running_.size() < kMostRunning) {
      const auto [call, line] = std::move(waiting_.front());
      waiting_.pop_front();
      Begin(call, line);
    }
  }

  // Nobody waits for the answer any longer, so its command ends too.
  void Drop(const WidgetCall* call) {
    std::cerr << "widgetctl: call " << call->id() << " was given up"
              << std::endl;
    const auto is_it = [call](const auto& each) {
      return each.first.get() == call;
    };
    std::erase_if(waiting_, is_it);
    std::erase_if(running_, is_it);
    progress_->CountOne();
    BeginNext();
  }

  void Begin(const Call& call, const std::string& line) {
    absl::StatusOr<std::unique_ptr<ShellCommand>> started = ShellCommand::Start(
        loop_, *options_.command, absl::StrCat(line, "\n"),
        [this, call](const absl::StatusOr<std::string>& printed) {
          const auto ended = running_.extract(call);
          Give(*call, printed);
          BeginNext();
        });
    if (!started.ok()) return Give(*call, started.status());
    running_.emplace(call, *std::move(started));
  }

  void Give(const WidgetCall& call,
            const absl::StatusOr<std::string>& printed) {
    const Answer answer = printed.ok() ? ReadResponse(*method_, *printed)
                                       : Answer(printed.status());
    if (const absl::Status given = call.Give(answer); !given.ok()) {
      std::cerr << "widgetctl: call " << call.id()
                << " failed: " << given.message() << std::endl;
    }
    progress_->CountOne();
  }

  EventLoop* const loop_;
  const MethodDescriptor* const method_;
  const Options& options_;
  Progress* const progress_;
  std::map<Call, std::unique_ptr<ShellCommand>> running_;
  std::deque<std::pair<Call, std::string>> waiting_;  // With its line.
};

}  // namespace

ExitCode Watch(const Options& options,
               const std::vector<std::string>& method_and_key) {
  const absl::StatusOr<Subscription> watch =
      PrepareWatch(ServiceWithMethod(options.services, method_and_key[0]),
                   method_and_key[0], method_and_key[1]);
  if (!watch.ok()) return Fail(kUsage, watch.status().message());

  EventLoop loop;
  const absl::StatusOr<std::unique_ptr<SocketClient>> client =
      SocketClient::Connect(&loop, options.socket);
  if (!client.ok()) return Fail(kNoConnection, client.status().message());
  Progress progress(options, method_and_key[0], "events");
  const std::unique_ptr<ClientStream> stream = OpenWatch(
      *watch, **client,
      [&progress](const Message& event) {
        if (progress.is_complete()) return;
        PrintLine(ToJson(event));
        progress.CountOne();
      },
      progress.OnEnd());
  return progress.Run(loop, **client);
}

ExitCode Serve(const Options& options,
               const std::vector<std::string>& method_and_key) {
  const absl::StatusOr<Subscription> serve =
      PrepareServe(ServiceWithMethod(options.services, method_and_key[0]),
                   method_and_key[0], method_and_key[1]);
  if (!serve.ok()) return Fail(kUsage, serve.status().message());
  if (const absl::Status checked = CheckThereIsOneAnswer(options);
      !checked.ok()) {
    return Fail(kUsage, checked.message());
  }
  std::optional<Answer> fixed;  // Empty if a command gives the answers.
  if (options.reply.has_value()) {
    fixed = ReadResponse(*serve->method, *options.reply);
    if (!fixed->ok()) return Fail(kUsage, fixed->status().message());
  } else if (options.fail.has_value()) {
    fixed = absl::UnknownError(*options.fail);
  }

  EventLoop loop;
  const absl::StatusOr<std::unique_ptr<SocketClient>> client =
      SocketClient::Connect(&loop, options.socket);
  if (!client.ok()) return Fail(kNoConnection, client.status().message());
  Progress progress(options, method_and_key[0], "calls");
  CommandAnswers answers(&loop, serve->method, options, &progress);
  int begun = 0;
  const std::unique_ptr<ClientStream> stream = OpenServe(
      *serve, **client,
      [&](WidgetCall call) {
        // A call beyond the count is cancelled when the stream ends.
        if (begun == options.count) return;
        ++begun;
        const std::string line = ToLine(call);
        PrintLine(line);
        if (!fixed.has_value()) return answers.Take(std::move(call), line);
        call.Give(*fixed).IgnoreError();  // With --fail an error is expected.
        progress.CountOne();
      },
      progress.OnEnd());
  return progress.Run(loop, **client);
}

}  // namespace widgetctl
