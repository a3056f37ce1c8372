// What `widgetctl status` tells of a widget.

#include <unistd.h>

#include <csignal>
#include <optional>
#include <string>
#include <utility>

#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/transport/status.pb.h"
#include "tools/widgetctl/program_test.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace widgetctl {
namespace {

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;
using orvane::testing::ChildProcess;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;

// Never answers Show.
struct SlowWidget final : rpc::BrowserWidgetRpc {
  ~SlowWidget() override {
    if (waiting != nullptr) waiting->Run();
  }
  void Show(RpcController*, const BrowserId*, Empty*, Closure* done) override {
    waiting = done;
  }

  std::optional<orvane::SocketServer> server;
  Closure* waiting = nullptr;
};

class WidgetctlStatusTest : public ProgramTest<SlowWidget> {};

TEST_F(WidgetctlStatusTest, TellsTheServerItsClientsAndLimits) {
  EXPECT_THAT(Widgetctl({"status"}),
              Succeeds(AllOf(
                  HasSubstr(absl::StrCat("process ", ::getpid(), ", version ")),
                  HasSubstr("services: rpc.BrowserWidgetRpc\n"),
                  ContainsRegex("[0-9]+ +rpc.transport.StatusRpc"),
                  ContainsRegex("max_connections +1 +64\n"),
                  HasSubstr("0 events replaced"))));
}

TEST_F(WidgetctlStatusTest, NamesTheCallThatWaitsLongest) {
  orvane::EventLoop loop;
  const auto host = orvane::SocketClient::Connect(&loop, Path("widget.sock"));
  ASSERT_TRUE(host.ok()) << host.status();
  rpc::BrowserWidgetRpcClient widget(host->get());
  widget.Show(orvane::testing::Browser(1), [](const auto&) {});
  // Answered, so the one before has arrived.
  EXPECT_FALSE(widget.Hide(orvane::testing::Browser(1)).ok());
  EXPECT_THAT(Widgetctl({"status"}),
              Succeeds(ContainsRegex(absl::StrCat(
                  ::getpid(),
                  " +rpc.BrowserWidgetRpc +[0-9.msh]+ +1 +Show [0-9.msh]+"))));
}

TEST_F(WidgetctlStatusTest, IsJsonForPrograms) {
  EXPECT_THAT(Widgetctl({"status", "--json"}),
              Succeeds(AllOf(HasSubstr("\"version\":\""),
                             HasSubstr("\"limit\":\"max_total_calls\""))));
}

TEST_F(WidgetctlStatusTest, IsPrintedAgainWhileItIsWatched) {
  ChildProcess status(Command({"status", "--watch", "--json"}));
  EXPECT_THAT(status.ReadLine(), HasSubstr("processId"));
  EXPECT_THAT(status.ReadLine(), HasSubstr("processId"));
  status.Signal(SIGINT);
  EXPECT_EQ(status.Wait().exit_code, 0);
}

TEST_F(WidgetctlStatusTest, WatchesAWidgetThatHangsUntilItComesBack) {
  const std::string socket = Path("hangs.sock");
  ChildProcess server({WIDGET_SERVER, "--socket", socket});
  ASSERT_EQ(server.ReadLine(), "widget_server listens at " + socket);
  server.Signal(SIGSTOP);
  ChildProcess status({"/bin/bash", "-c", "exec \"$@\" 2>&1", "bash", WIDGETCTL,
                       "--socket", socket, "--timeout", "0.1", "--json",
                       "status", "--watch"});
  EXPECT_THAT(status.ReadLine(), HasSubstr("has not answered"));
  server.Signal(SIGCONT);
  std::string line;
  do line = status.ReadLine();
  while (line.find("has not answered") != std::string::npos);
  EXPECT_THAT(line, HasSubstr("processId"));
  status.Signal(SIGINT);
  EXPECT_EQ(status.Wait().exit_code, 0);
}

TEST_F(WidgetctlStatusTest, TellsThatItCannotBeWritten) {
  std::vector<std::string> command = {"/bin/bash", "-c",
                                      "exec \"$@\" > /dev/full", "bash"};
  for (std::string& word : Command({"status"}))
    command.push_back(std::move(word));
  const ChildProcess::Result result = ChildProcess(std::move(command)).Wait();
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_EQ(result.errors, "widgetctl: cannot write the output\n");
}

TEST_F(WidgetctlStatusTest, TellsInWhichStateAWidgetIsThatDoesNotAnswer) {
  const std::string socket = Path("stopped.sock");
  ChildProcess server({WIDGET_SERVER, "--socket", socket});
  ASSERT_EQ(server.ReadLine(), "widget_server listens at " + socket);
  server.Signal(SIGSTOP);
  const ChildProcess::Result result =
      ChildProcess(
          {WIDGETCTL, "--socket", socket, "--timeout", "0.2", "status"})
          .Wait();
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors,
              ContainsRegex("the widget has not answered within 200ms. Process "
                            "[0-9]+, widget_server: T \\(stopped\\)\\."));
}

TEST_F(WidgetctlStatusTest, NeedsAWidget) {
  const ChildProcess::Result result =
      ChildProcess({WIDGETCTL, "--socket", Path("nobody.sock"), "status"})
          .Wait();
  EXPECT_EQ(result.exit_code, 3);
}

}  // namespace
}  // namespace widgetctl
