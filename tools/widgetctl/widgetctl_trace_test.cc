// What `widgetctl trace` prints of a host and a widget.

#include <csignal>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "tools/widgetctl/program_test.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"

namespace widgetctl {
namespace {

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;
using orvane::testing::ChildProcess;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;

struct ShyWidget final : rpc::BrowserWidgetRpc {
  void Show(RpcController*, const BrowserId*, Empty*, Closure* done) override {
    done->Run();
  }
  void Hide(RpcController* controller, const BrowserId*, Empty*,
            Closure* done) override {
    controller->SetFailed("not \x1b[2Jnow");
    done->Run();
  }

  std::optional<orvane::SocketServer> server;
};

class WidgetctlTraceTest : public ProgramTest<ShyWidget> {
 protected:
  // Waits until hosts can connect.
  ChildProcess& Trace(std::vector<std::string> options = {}) {
    options.insert(options.begin(), {"trace", traced_});
    trace_.emplace(Command(std::move(options)));
    first_line_ = trace_->ReadLine();
    return *trace_;
  }

  ChildProcess::Result Call(const std::string& method,
                            const std::string& browser) const {
    return ChildProcess({WIDGETCTL, "--socket", traced_, "call", method,
                         absl::StrCat("{\"value\":", browser, "}")})
        .Wait();
  }

  const std::string traced_ = Path("traced.sock");
  std::optional<ChildProcess> trace_;
  std::string first_line_;
};

TEST_F(WidgetctlTraceTest, ACallIsPassedOnAndPrinted) {
  ChildProcess& trace = Trace();
  EXPECT_EQ(first_line_, "hosts connect to " + traced_);
  EXPECT_THAT(Call("Show", "7"), Succeeds("{}\n"));
  EXPECT_THAT(trace.ReadLine(), MatchesRegex(" +[0-9.]+  1   connected"));
  EXPECT_THAT(trace.ReadLine(), MatchesRegex(" +[0-9.]+  1 > hello .*"));
  EXPECT_THAT(trace.ReadLine(),
              HasSubstr(R"(  1 > call Show 1 {"value":"7"})"));
  EXPECT_THAT(trace.ReadLine(), HasSubstr(R"(  1 < hello {)"));
  EXPECT_THAT(trace.ReadLine(),
              MatchesRegex(" +[0-9.]+  1 < reply Show 1 [0-9.]+ ms \\{\\}"));
  EXPECT_THAT(trace.ReadLine(), MatchesRegex(" +[0-9.]+  1   ended"));
}

TEST_F(WidgetctlTraceTest, JsonLinesAreForPrograms) {
  ChildProcess& trace = Trace({"--json", "--method", "Hide"});
  EXPECT_EQ(first_line_,
            absl::StrCat(R"({"what":"listening","path":")", traced_, R"("})"));
  EXPECT_EQ(Call("Hide", "7").exit_code, 1);
  EXPECT_THAT(trace.ReadLine(), HasSubstr(R"("what":"connected")"));
  EXPECT_THAT(
      trace.ReadLine(),
      MatchesRegex(
          R"re(\{"seconds":[0-9.]+,"connection":1,"from":"host",)re"
          R"re("what":"call","method":"Hide","stream":"1","browser":"7",)re"
          R"re("payload":\{"value":"7"\}\})re"));
  EXPECT_THAT(
      trace.ReadLine(),
      MatchesRegex(R"re(\{"seconds":[0-9.]+,"connection":1,"from":"widget",)re"
                   R"re("what":"error","method":"Hide","stream":"1",)re"
                   R"re("browser":"7","milliseconds":[0-9.]+,"code":2,)re"
                   R"re("error":"not \\u001b\[2Jnow"\})re"));
}

TEST_F(WidgetctlTraceTest, ATerminalDoesNotObeyWhatIsPrinted) {
  ChildProcess& trace = Trace({"--method", "Hide"});
  EXPECT_EQ(Call("Hide", "7").exit_code, 1);
  trace.ReadLine();
  trace.ReadLine();
  EXPECT_THAT(trace.ReadLine(), HasSubstr(R"( 2: not \033[2Jnow)"));
}

TEST_F(WidgetctlTraceTest, OnlyWhatIsAskedForIsPrinted) {
  ChildProcess& trace =
      Trace({"--method", "Show", "--browser", "8", "--no-payloads"});
  EXPECT_EQ(Call("Show", "7").exit_code, 0);
  EXPECT_EQ(Call("Hide", "8").exit_code, 1);
  EXPECT_EQ(Call("Show", "8").exit_code, 0);
  trace.Signal(SIGTERM);
  const ChildProcess::Result result = trace.Wait();
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_THAT(result.output,
              MatchesRegex("[^>]*connected[^>]*ended[^>]*connected[^>]*ended"
                           "[^>]*connected\n"
                           " +[0-9.]+  3 > call Show 1\n"
                           " +[0-9.]+  3 < reply Show 1 [0-9.]+ ms\n"
                           "([^>]*ended\n)?"));
}

TEST_F(WidgetctlTraceTest, AHostIsToldThatThereIsNoWidget) {
  ChildProcess trace({WIDGETCTL, "--socket", Path("none"), "trace", traced_});
  trace.ReadLine();
  EXPECT_EQ(Call("Show", "7").exit_code, 3);
  EXPECT_THAT(trace.ReadLine(),
              HasSubstr("  1   refused: no server listens at "));
}

TEST_F(WidgetctlTraceTest, HostsAndWidgetHavePathsOfTheirOwn) {
  EXPECT_THAT(
      ChildProcess({WIDGETCTL, "--socket", traced_, "trace", traced_}).Wait(),
      Fails(2, absl::StrCat("widgetctl: hosts connect to ", traced_,
                            ", so the widget must listen elsewhere: tell where "
                            "with --socket\n")));
}

// It connected to itself, and that connection to itself, and so on.
TEST_F(WidgetctlTraceTest, APathIsTheSameHoweverItIsWritten) {
  EXPECT_THAT(ChildProcess({WIDGETCTL, "--socket", Path("./traced.sock"),
                            "trace", traced_})
                  .Wait(),
              Fails(2, HasSubstr("so the widget must listen elsewhere")));
}

TEST_F(WidgetctlTraceTest, EndsInOrderWithTheReaderOfItsOutput) {
  std::vector<std::string> command = {"/bin/bash", "-c", "\"$@\" | head -n 1",
                                      "bash"};
  for (std::string& word : Command({"trace", traced_}))
    command.push_back(std::move(word));
  ChildProcess trace(std::move(command));
  ASSERT_EQ(trace.ReadLine(), "hosts connect to " + traced_);
  while (Call("Show", "1").exit_code == 0) continue;
  EXPECT_THAT(trace.Wait().errors, HasSubstr("cannot write what is traced"));
  EXPECT_FALSE(std::filesystem::exists(traced_));
}

TEST_F(WidgetctlTraceTest, AMethodMustExist) {
  EXPECT_THAT(Widgetctl({"trace", traced_, "--method", "Shwo"}),
              Fails(2, HasSubstr("did you mean Show")));
}

TEST_F(WidgetctlTraceTest, ABrowserIsANumber) {
  EXPECT_THAT(Widgetctl({"trace", traced_, "--browser", "x"}),
              Fails(2, HasSubstr("--browser takes a browser's number")));
}

}  // namespace
}  // namespace widgetctl
