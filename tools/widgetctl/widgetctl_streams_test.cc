// The program's watch and serve, run against a widget in this process.

#include <sys/stat.h>

#include <csignal>
#include <cstdint>
#include <fstream>
#include <future>
#include <iterator>
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

#include "rpc/browser/browser_widget.rpc.h"
#include "tools/widgetctl/program_test.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"

namespace widgetctl {
namespace {

using ::orvane::testing::Browser;
using orvane::testing::ChildProcess;
using ::testing::HasSubstr;
using ::testing::StartsWith;

struct SilentWidget final : rpc::BrowserWidgetRpc {
  std::optional<orvane::SocketServer> server;
};

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

  // Publishes the first event as soon as there is a subscriber, then the
  // others.
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

  // Makes the calls one right after the other, as soon as somebody serves them.
  std::vector<std::future<Answer>> Call(int number) {
    std::vector<std::future<Answer>> answers;
    OnServiceThread([this, number, &answers] {
      for (int i = 0; i < number; ++i) {
        const auto answer = std::make_shared<std::promise<Answer>>();
        answers.push_back(answer->get_future());
        AwaitServer();
        Ask(answer);
      }
    });
    return answers;
  }

  void AwaitServer() {
    loop().RunUntil(
        [] { return orvane::IsServed<rpc::TakeFocus>(Browser(1)); });
  }

  Answer CallOne() { return Call(1).front().get(); }

  void EndTheWidget() {
    OnServiceThread([this] { widget().server.reset(); });
  }

 private:
  static void Ask(const std::shared_ptr<std::promise<Answer>>& answer) {
    rpc::TakeFocusCall call;
    call.set_direction(rpc::FOCUS_DIRECTION_FORWARD);
    orvane::Call<rpc::TakeFocus>(Browser(1), call, [answer](Answer received) {
      answer->set_value(std::move(received));
    });
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
  EXPECT_THAT(
      result.errors,
      HasSubstr(" failed: the response of OnTakeFocus is not valid JSON for "
                "rpc.TakeFocusResponse: "));
}

TEST_F(WidgetctlStreamsTest, ServeTakesCallsWhileACommandRuns) {
  const std::string fifo = Path("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  // The first command prints what the second one writes to the fifo, so both
  // have to run at the same time.
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
  // Either command may end first.
  EXPECT_THAT(taken, testing::UnorderedElementsAre(true, false));
  EXPECT_EQ(serve.Wait().exit_code, 0);
}

TEST_F(WidgetctlStreamsTest, ServeRunsSomeCommandsAtOnceAndTheOthersLater) {
  const std::string gate = Path("gate");
  ASSERT_EQ(::mkfifo(gate.c_str(), 0600), 0);
  std::fstream both_ends(gate);
  ChildProcess serve =
      Start({"serve", "OnTakeFocus", "1", "--count", "40", "--command",
             absl::StrCat("read line <", gate, R"(; echo '{"taken": true}')")});
  std::vector<std::future<Answer>> answers = Call(40);
  // A line is printed before its command begins, so all but one have begun if
  // they are ever to begin before others have ended.
  for (int i = 0; i < 40; ++i) serve.ReadLine();
  EXPECT_EQ(serve.Children().size(), 16u);
  both_ends << std::string(40, '\n') << std::flush;  // A line for each.
  for (std::future<Answer>& answer : answers) EXPECT_TRUE(answer.get().ok());
  EXPECT_THAT(serve.Wait(), Succeeds(""));
}

TEST_F(WidgetctlStreamsTest, ServeFailsACallIfTooManyWait) {
  ChildProcess serve =
      Start({"serve", "OnTakeFocus", "1", "--command", "exec sleep 1000"});
  std::vector<std::future<Answer>> answers = Call(117);
  EXPECT_EQ(answers.back().get().status().code(), absl::StatusCode::kUnknown);
  for (int i = 0; i < 117; ++i) serve.ReadLine();
  serve.Signal(SIGTERM);
  EXPECT_THAT(serve.Wait().errors,
              HasSubstr(" failed: 16 commands run and 100 calls wait"));
}

TEST_F(WidgetctlStreamsTest, ACommandInheritsNoDescriptors) {
  const auto content = [](const std::string& path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  const std::string list = "ls /proc/self/fd >";
  ChildProcess({"/bin/sh", "-c", list + Path("here")}).Wait();
  ChildProcess serve =
      Start({"serve", "OnTakeFocus", "1", "--count", "1", "--command",
             list + Path("there") + "; echo '{}'"});
  EXPECT_TRUE(CallOne().ok());
  serve.ReadLine();
  EXPECT_THAT(serve.Wait(), Succeeds(""));
  EXPECT_EQ(content(Path("there")), content(Path("here")));
}

TEST_F(WidgetctlStreamsTest, ServeEndsTheCommandOfACallThatIsGivenUp) {
  ChildProcess serve = Start({"serve", "OnTakeFocus", "1", "--count", "1",
                              "--command", "sleep 1000; true"});
  orvane::CallHandle call;
  OnServiceThread([&] {
    AwaitServer();
    call = orvane::Call<rpc::TakeFocus>(Browser(1), {}, nullptr);
  });
  serve.ReadLine();
  OnServiceThread([&call] { call.Cancel(); });
  // The command would keep stderr open.
  const ChildProcess::Result result = serve.Wait();
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_THAT(result.errors,
              testing::MatchesRegex("widgetctl: call [0-9]+ was given up\n"));
}

TEST_F(WidgetctlStreamsTest, ServeTakesItsCommandsAlongWhenItIsInterrupted) {
  ChildProcess serve =
      Start({"serve", "OnTakeFocus", "1", "--command", "sleep 1000; true"});
  std::future<Answer> answer = std::move(Call(1).front());
  EXPECT_THAT(serve.ReadLine(), StartsWith("{\"callId\":"));
  serve.Signal(SIGTERM);
  // The command would keep stderr open.
  EXPECT_THAT(serve.Wait(), Succeeds(""));
  EXPECT_EQ(answer.get().status().code(), absl::StatusCode::kCancelled);
}

}  // namespace
}  // namespace widgetctl
