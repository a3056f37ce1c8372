// The program's watch and serve, run against a widget in this process.

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <csignal>
#include <fstream>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/functional/function_ref.h"
#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "examples/testing/child_process.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/transport/stream_message.pb.h"
#include "tools/widgetctl/program_test.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/transport/raw_peer.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace widgetctl {
namespace {

using example_testing::ChildProcess;
using rpc::transport::StreamMessage;
using ::testing::HasSubstr;
using ::testing::StartsWith;

struct SilentWidget final : rpc::BrowserWidgetRpc {
  std::optional<orvane::SocketServer> server;
};

BrowserId Browser(std::uint64_t value) {
  BrowserId browser;
  browser.set_value(value);
  return browser;
}

rpc::CursorChanged Cursor(rpc::CursorType type) {
  rpc::CursorChanged event;
  *event.mutable_browser_id() = Browser(1);
  event.mutable_cursor()->set_type(type);
  return event;
}

class WidgetctlStreamsTest : public ProgramTest<SilentWidget> {
 protected:
  using Answer = absl::StatusOr<rpc::TakeFocusResponse>;

  ChildProcess Start(std::vector<std::string> arguments) {
    return ChildProcess(Command(std::move(arguments)));
  }

  // Runs `task` on the service thread and waits for it.
  void OnServiceThread(absl::FunctionRef<void()> task) {
    std::promise<void> done;
    loop().Post([task, &done] {
      task();
      done.set_value();
    });
    done.get_future().wait();
  }

  // Publishes the first event as soon as someone hears it, the others at once.
  void Publish(const std::vector<rpc::CursorChanged>& events) {
    OnServiceThread([this, &events] {
      for (const rpc::CursorChanged& event : events) {
        loop().RunUntil([&event] {
          return orvane::Publish<rpc::CursorChanged>(event.browser_id(),
                                                     event) > 0;
        });
      }
    });
  }

  // Makes calls one right after the other, as soon as someone serves them.
  std::vector<std::future<Answer>> Call(int number) {
    std::vector<std::future<Answer>> answers;
    OnServiceThread([this, number, &answers] {
      for (int i = 0; i < number; ++i) {
        const auto answer = std::make_shared<std::promise<Answer>>();
        answers.push_back(answer->get_future());
        loop().RunUntil([&answer] { return TryToCall(answer); });
      }
    });
    return answers;
  }

  Answer CallOne() { return Call(1).front().get(); }

  void EndTheWidget() {
    OnServiceThread([this] { widget().server.reset(); });
  }

 private:
  static bool TryToCall(const std::shared_ptr<std::promise<Answer>>& answer) {
    rpc::TakeFocusCall call;
    call.set_direction(rpc::FOCUS_DIRECTION_FORWARD);
    return orvane::Call<rpc::TakeFocus>(
               Browser(1), call,
               [answer](rpc::TakeFocusResponse response) {
                 answer->set_value(std::move(response));
               },
               [answer](absl::Status why) {
                 answer->set_value(std::move(why));
               })
        .ok();
  }
};

constexpr char kPointer[] =
    R"({"browserId":{"value":"1"},"cursor":{"type":"CURSOR_TYPE_POINTER"}})";
constexpr char kText[] =
    R"({"browserId":{"value":"1"},"cursor":{"type":"CURSOR_TYPE_TEXT"}})";

TEST_F(WidgetctlStreamsTest, WatchPrintsEachEventAtOnce) {
  ChildProcess watch = Start({"watch", "WhenCursorChanged", R"({"value": 1})"});
  Publish({Cursor(rpc::CURSOR_TYPE_POINTER)});
  EXPECT_EQ(watch.ReadLine(), kPointer);
  Publish({Cursor(rpc::CURSOR_TYPE_TEXT)});
  EXPECT_EQ(watch.ReadLine(), kText);
}

TEST_F(WidgetctlStreamsTest, WatchTakesABareNumberForAKey) {
  ChildProcess watch = Start({"watch", "WhenCursorChanged", "1"});
  Publish({Cursor(rpc::CURSOR_TYPE_POINTER)});
  EXPECT_EQ(watch.ReadLine(), kPointer);
}

TEST_F(WidgetctlStreamsTest, WatchHearsOfItsBrowserAlone) {
  ChildProcess watch = Start({"watch", "WhenCursorChanged", "1"});
  Publish({Cursor(rpc::CURSOR_TYPE_POINTER)});
  OnServiceThread([] {
    EXPECT_EQ(orvane::Publish<rpc::CursorChanged>(
                  Browser(2), Cursor(rpc::CURSOR_TYPE_TEXT)),
              0u);
  });
}

TEST_F(WidgetctlStreamsTest, WatchEndsWellWhenItIsInterrupted) {
  for (const int signal : {SIGINT, SIGTERM}) {
    ChildProcess watch = Start({"watch", "WhenCursorChanged", "1"});
    Publish({Cursor(rpc::CURSOR_TYPE_POINTER)});
    EXPECT_EQ(watch.ReadLine(), kPointer);
    watch.Signal(signal);
    EXPECT_THAT(watch.Wait(), Succeeds(""));
  }
}

TEST_F(WidgetctlStreamsTest, WatchEndsAfterItsCountAndNotLater) {
  ChildProcess watch =
      Start({"watch", "WhenCursorChanged", "1", "--count", "2"});
  Publish({Cursor(rpc::CURSOR_TYPE_POINTER), Cursor(rpc::CURSOR_TYPE_TEXT),
           Cursor(rpc::CURSOR_TYPE_POINTER)});
  EXPECT_THAT(watch.Wait(),
              Succeeds(absl::StrCat(kPointer, "\n", kText, "\n")));
}

TEST_F(WidgetctlStreamsTest, WatchGivesUpIfItsCountDoesNotCome) {
  EXPECT_THAT(Widgetctl({"watch", "WhenCursorChanged", "1", "--count", "1",
                         "--timeout", "0.05"}),
              Fails(1,
                    "widgetctl: WhenCursorChanged failed: 0 of 1 events within "
                    "50ms\n"));
}

TEST_F(WidgetctlStreamsTest, WatchWithoutACountHasNoTimeout) {
  ChildProcess watch =
      Start({"--timeout", "1e-9", "watch", "WhenCursorChanged", "1"});
  Publish({Cursor(rpc::CURSOR_TYPE_POINTER)});
  EXPECT_EQ(watch.ReadLine(), kPointer);
  watch.Signal(SIGTERM);
  EXPECT_THAT(watch.Wait(), Succeeds(""));
}

TEST_F(WidgetctlStreamsTest, WatchTellsThatTheWidgetHasEnded) {
  ChildProcess watch = Start({"watch", "WhenCursorChanged", "1"});
  Publish({Cursor(rpc::CURSOR_TYPE_POINTER)});
  EXPECT_EQ(watch.ReadLine(), kPointer);
  EndTheWidget();
  EXPECT_THAT(watch.Wait(),
              Fails(3,
                    "widgetctl: WhenCursorChanged ended: the widget completed "
                    "it\n"));
}

constexpr char kCall[] =
    R"("browserId":{"value":"1"},"call":{"direction":"FOCUS_DIRECTION_FORWARD"}})";

TEST_F(WidgetctlStreamsTest, ServePrintsEachCallAndAnswersIt) {
  ChildProcess serve =
      Start({"serve", "OnTakeFocus", "1", "--reply", R"({"taken": true})"});
  for (int i = 0; i < 2; ++i) {
    const Answer answer = CallOne();
    ASSERT_TRUE(answer.ok()) << answer.status();
    EXPECT_TRUE(answer->taken());
    EXPECT_THAT(
        serve.ReadLine(),
        testing::MatchesRegex(
            R"re(\{"callId":"[0-9]+","browserId":\{"value":"1"\},)re"
            R"re("call":\{"direction":"FOCUS_DIRECTION_FORWARD"\}\})re"));
  }
  serve.Signal(SIGTERM);
  EXPECT_THAT(serve.Wait(), Succeeds(""));
}

TEST_F(WidgetctlStreamsTest, ServeFailsEachCall) {
  ChildProcess serve =
      Start({"serve", "OnTakeFocus", "1", "--fail", "not now", "--count", "2"});
  EXPECT_EQ(CallOne().status().code(), absl::StatusCode::kUnknown);
  EXPECT_EQ(CallOne().status().code(), absl::StatusCode::kUnknown);
  EXPECT_EQ(serve.Wait().exit_code, 0);
}

TEST_F(WidgetctlStreamsTest, ServeEndsAfterItsCountAndAnswersNoMore) {
  ChildProcess serve =
      Start({"serve", "OnTakeFocus", "1", "--reply", "{}", "--count", "2"});
  std::vector<std::future<Answer>> answers = Call(3);
  EXPECT_TRUE(answers[0].get().ok());
  EXPECT_TRUE(answers[1].get().ok());
  EXPECT_EQ(answers[2].get().status().code(), absl::StatusCode::kCancelled);
  serve.ReadLine();
  serve.ReadLine();
  EXPECT_THAT(serve.Wait(), Succeeds(""));
}

TEST_F(WidgetctlStreamsTest, ServeGivesUpIfItsCountDoesNotCome) {
  EXPECT_THAT(
      Widgetctl({"serve", "OnTakeFocus", "1", "--reply", "{}", "--count", "3",
                 "--timeout", "0.05"}),
      Fails(1, "widgetctl: OnTakeFocus failed: 0 of 3 calls within 50ms\n"));
}

TEST_F(WidgetctlStreamsTest, ServeTellsThatTheWidgetHasEnded) {
  ChildProcess serve = Start({"serve", "OnTakeFocus", "1", "--reply", "{}"});
  EXPECT_TRUE(CallOne().ok());
  serve.ReadLine();
  EndTheWidget();
  EXPECT_THAT(
      serve.Wait(),
      Fails(3, "widgetctl: OnTakeFocus ended: the widget completed it\n"));
}

TEST_F(WidgetctlStreamsTest, ServeAnswersWithWhatACommandPrints) {
  const std::string input = Path("input");
  ChildProcess serve =
      Start({"serve", "OnTakeFocus", "1", "--command",
             absl::StrCat("cat >", input, R"(; echo '{"taken": true}')")});
  const Answer answer = CallOne();
  ASSERT_TRUE(answer.ok()) << answer.status();
  EXPECT_TRUE(answer->taken());
  std::string line;
  std::getline(std::ifstream(input), line);
  EXPECT_EQ(line, serve.ReadLine());
  EXPECT_THAT(line, HasSubstr(kCall));
}

TEST_F(WidgetctlStreamsTest, ServeGoesOnAfterACommandThatFails) {
  ChildProcess serve =
      Start({"serve", "OnTakeFocus", "1", "--count", "2", "--command",
             absl::StrCat("mkdir ", Path("again"), " && exit 4; echo '{}'")});
  EXPECT_EQ(CallOne().status().code(), absl::StatusCode::kUnknown);
  EXPECT_TRUE(CallOne().ok());
  const ChildProcess::Result result = serve.Wait();
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_THAT(result.errors,
              testing::MatchesRegex(
                  "widgetctl: call [0-9]+ failed: the command exited with 4\n"
                  "mkdir: [^\n]*\n"));
}

TEST_F(WidgetctlStreamsTest, ServeFailsACallWhoseCommandPrintsNoResponse) {
  ChildProcess serve = Start(
      {"serve", "OnTakeFocus", "1", "--count", "1", "--command", "echo no"});
  EXPECT_EQ(CallOne().status().code(), absl::StatusCode::kUnknown);
  const ChildProcess::Result result = serve.Wait();
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_THAT(result.errors,
              HasSubstr(" failed: the response of OnTakeFocus is no JSON of "
                        "rpc.TakeFocusResponse: "));
}

TEST_F(WidgetctlStreamsTest, ServeTakesCallsWhileACommandRuns) {
  const std::string fifo = Path("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  // The first call is answered by what the command of the second one says.
  ChildProcess serve =
      Start({"serve", "OnTakeFocus", "1", "--count", "2", "--command",
             absl::StrCat("if mkdir ", Path("again"), " 2>&-; then cat ", fifo,
                          "; else echo '{\"taken\": true}' >", fifo,
                          "; echo '{}'; fi")});
  std::vector<std::future<Answer>> answers = Call(2);
  std::vector<bool> taken;
  for (std::future<Answer>& future : answers) {
    const Answer answer = future.get();
    ASSERT_TRUE(answer.ok()) << answer.status();
    taken.push_back(answer->taken());
  }
  // Which of the two commands comes first is the system's choice.
  EXPECT_THAT(taken, testing::UnorderedElementsAre(true, false));
  EXPECT_EQ(serve.Wait().exit_code, 0);
}

TEST_F(WidgetctlStreamsTest, ServeTakesItsCommandsAlongWhenItIsInterrupted) {
  ChildProcess serve =
      Start({"serve", "OnTakeFocus", "1", "--command", "exec sleep 1000"});
  std::future<Answer> answer = std::move(Call(1).front());
  EXPECT_THAT(serve.ReadLine(), StartsWith("{\"callId\":"));
  serve.Signal(SIGTERM);
  // The command would keep stderr open.
  EXPECT_THAT(serve.Wait(), Succeeds(""));
  EXPECT_EQ(answer.get().status().code(), absl::StatusCode::kCancelled);
}

// A widget that says just what a test tells it to.
class RawWidget {
 public:
  explicit RawWidget(const std::string& path)
      : listening_(*orvane::ListeningSocket::Open(path)),
        listener_(listening_.ReleaseDescriptor()) {}

  void Accept() {
    descriptor_ = ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(descriptor_, 0);
    host_.emplace(orvane::OwnedDescriptor(descriptor_));
  }

  // Waits for the next frame. One without a kind at the end of the connection.
  StreamMessage Next() {
    while (host_->frames.size() == taken_ && !host_->closed) {
      pollfd readable{descriptor_, POLLIN, 0};
      ::poll(&readable, 1, -1);
      host_->Receive();
    }
    if (host_->frames.size() == taken_) return {};
    return host_->frames[taken_++];
  }

  // Takes the frames that open a stream and subscribe it; returns its id.
  std::uint64_t AcceptStream() {
    Accept();
    const std::uint64_t id = Next().stream_id();
    Next();
    return id;
  }

  void Send(StreamMessage::Kind kind, std::uint64_t stream,
            const std::string& payload, const std::string& error = "") {
    StreamMessage frame;
    frame.set_kind(kind);
    frame.set_stream_id(stream);
    frame.set_call_id(12);
    frame.set_payload(payload);
    if (!error.empty()) {
      frame.set_error_code(static_cast<int>(absl::StatusCode::kUnimplemented));
      frame.set_error_text(error);
    }
    host_->Send(frame);
  }

  void HangUp() { host_.reset(); }

 private:
  orvane::ListeningSocket listening_;
  const orvane::OwnedDescriptor listener_;
  int descriptor_ = -1;  // host_'s.
  std::optional<orvane::RawPeer> host_;
  std::size_t taken_ = 0;
};

class WidgetctlFramesTest : public testing::Test {
 protected:
  ChildProcess Start(std::vector<std::string> arguments) {
    std::vector<std::string> command = {WIDGETCTL, "--socket", socket_};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return ChildProcess(command);
  }

 private:
  const example_testing::TemporaryFolder folder_;
  const std::string socket_ = folder_.path() + "/widget.sock";

 protected:
  RawWidget widget_{socket_};
};

TEST_F(WidgetctlFramesTest, WatchOpensAndSubscribesAndCompletes) {
  ChildProcess watch = Start({"watch", "WhenTooltipChanged", "1"});
  widget_.Accept();
  const StreamMessage open = widget_.Next();
  EXPECT_EQ(open.kind(), StreamMessage::KIND_OPEN);
  EXPECT_EQ(open.method(), static_cast<std::uint32_t>(
                               rpc::BrowserWidgetRpc::descriptor()
                                   ->FindMethodByName("WhenTooltipChanged")
                                   ->index()));
  const StreamMessage subscribe = widget_.Next();
  EXPECT_EQ(subscribe.kind(), StreamMessage::KIND_NEXT);
  rpc::EventSubscription subscription;
  ASSERT_TRUE(subscription.ParseFromString(subscribe.payload()));
  EXPECT_EQ(subscription.subscribe().value(), 1u);

  watch.Signal(SIGINT);
  const StreamMessage complete = widget_.Next();
  EXPECT_EQ(complete.kind(), StreamMessage::KIND_COMPLETE);
  EXPECT_EQ(complete.stream_id(), open.stream_id());
  EXPECT_EQ(watch.Wait().exit_code, 0);
}

TEST_F(WidgetctlFramesTest, WatchTellsThatTheConnectionIsGone) {
  ChildProcess watch = Start({"watch", "WhenCursorChanged", "1"});
  widget_.AcceptStream();
  widget_.HangUp();
  EXPECT_THAT(watch.Wait(), Fails(3,
                                  "widgetctl: WhenCursorChanged failed: the "
                                  "widget closed the connection\n"));
}

TEST_F(WidgetctlFramesTest, WatchTellsWhyTheWidgetRefusesIt) {
  ChildProcess watch = Start({"watch", "WhenCursorChanged", "1"});
  const std::uint64_t stream = widget_.AcceptStream();
  widget_.Send(StreamMessage::KIND_ERROR, stream, "", "no cursors here");
  EXPECT_THAT(
      watch.Wait(),
      Fails(1, "widgetctl: WhenCursorChanged failed: no cursors here\n"));
}

TEST_F(WidgetctlFramesTest, WatchEndsAtAnEventThatItCannotRead) {
  ChildProcess watch = Start({"watch", "WhenCursorChanged", "1"});
  const std::uint64_t stream = widget_.AcceptStream();
  widget_.Send(StreamMessage::KIND_NEXT, stream, "\xff");
  EXPECT_THAT(watch.Wait(), Fails(1,
                                  "widgetctl: WhenCursorChanged failed: the "
                                  "widget sent what is no "
                                  "rpc.CursorChanged\n"));
}

TEST_F(WidgetctlFramesTest, ServeEndsAtAMessageThatIsNoCall) {
  ChildProcess serve = Start({"serve", "OnTakeFocus", "1", "--reply", "{}"});
  const std::uint64_t stream = widget_.AcceptStream();
  widget_.Send(StreamMessage::KIND_NEXT, stream, "");
  EXPECT_THAT(serve.Wait(), Fails(1,
                                  "widgetctl: OnTakeFocus failed: the widget "
                                  "sent a rpc.TakeFocus without a call\n"));
}

TEST_F(WidgetctlFramesTest, ServeAnswersUnderTheIdAndTheBrowserOfTheCall) {
  ChildProcess serve =
      Start({"serve", "OnTakeFocus", "1", "--reply", R"({"taken": true})"});
  const std::uint64_t stream = widget_.AcceptStream();
  rpc::TakeFocus message;
  *message.mutable_browser_id() = Browser(1);
  message.mutable_call();
  widget_.Send(StreamMessage::KIND_NEXT, stream, message.SerializeAsString());

  EXPECT_EQ(serve.ReadLine(),
            R"({"callId":"12","browserId":{"value":"1"},"call":{}})");
  const StreamMessage answer = widget_.Next();
  EXPECT_EQ(answer.kind(), StreamMessage::KIND_NEXT);
  EXPECT_EQ(answer.call_id(), 12);
  ASSERT_TRUE(message.ParseFromString(answer.payload()));
  EXPECT_EQ(message.browser_id().value(), 1u);
  EXPECT_TRUE(message.response().taken());
}

TEST_F(WidgetctlFramesTest, ServeSendsTheTextOfTheFailure) {
  ChildProcess serve =
      Start({"serve", "OnTakeFocus", "1", "--fail", "not now "});
  const std::uint64_t stream = widget_.AcceptStream();
  rpc::TakeFocus message;
  *message.mutable_browser_id() = Browser(1);
  message.mutable_call();
  widget_.Send(StreamMessage::KIND_NEXT, stream, message.SerializeAsString());

  const StreamMessage answer = widget_.Next();
  EXPECT_EQ(answer.kind(), StreamMessage::KIND_ERROR);
  EXPECT_EQ(answer.call_id(), 12);
  EXPECT_EQ(answer.error_text(), "not now ");
  ASSERT_TRUE(message.ParseFromString(answer.payload()));
  EXPECT_EQ(message.browser_id().value(), 1u);
}

TEST_F(WidgetctlFramesTest, ServeFailsACallWhoseResponseIsTooLong) {
  ChildProcess serve =
      Start({"serve", "OnCreateWebDialog", "1", "--count", "1", "--command",
             R"(printf '{"text":"'; head -c 9000000 /dev/zero | tr '\0' x; )"
             R"(echo '"}')"});
  const std::uint64_t stream = widget_.AcceptStream();
  rpc::CreateWebDialog message;
  *message.mutable_browser_id() = Browser(1);
  message.mutable_call();
  widget_.Send(StreamMessage::KIND_NEXT, stream, message.SerializeAsString());

  const StreamMessage answer = widget_.Next();
  EXPECT_EQ(answer.kind(), StreamMessage::KIND_ERROR);
  EXPECT_THAT(answer.error_text(), HasSubstr("the limit is "));
  const ChildProcess::Result result = serve.Wait();
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(
      result.errors,
      absl::StrCat("widgetctl: call 12 failed: ", answer.error_text(), "\n"));
}

}  // namespace
}  // namespace widgetctl
