#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "rpc/browser/browsers.client.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/call_by_name.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"
#include "zimbrel/src/core/common/rpc/version.h"

namespace {

using ::orvane::testing::CallByName;
using ::orvane::testing::ChildProcess;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

// Runs the program itself, whose path is WIDGET_SERVER.
class WidgetServerTest : public ::testing::Test {
 protected:
  static std::unique_ptr<ChildProcess> Start(
      const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {WIDGET_SERVER};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<ChildProcess>(std::move(command));
  }

  static ChildProcess::Result Run(const std::vector<std::string>& arguments) {
    return Start(arguments)->Wait();
  }

  // Starts a server and waits until it listens.
  std::unique_ptr<ChildProcess> Serve(std::vector<std::string> arguments = {}) {
    arguments.push_back("--socket=" + socket_);
    auto server = Start(arguments);
    EXPECT_EQ(server->ReadLine(), "widget_server listens at " + socket_);
    return server;
  }

  std::unique_ptr<orvane::SocketClient> Connect() {
    auto client = orvane::SocketClient::Connect(&loop_, socket_);
    EXPECT_TRUE(client.ok()) << client.status();
    return *std::move(client);
  }

  orvane::EventLoop loop_;
  const orvane::testing::TemporaryFolder folder_;
  const std::string socket_ = folder_.path() + "/widget.sock";
};

// A shell whose descriptor 3 is `socket` becomes the program.
std::unique_ptr<ChildProcess> StartWith(int socket,
                                        const std::string& arguments,
                                        const std::string& variables = "") {
  return std::make_unique<ChildProcess>(std::vector<std::string>{
      "/bin/bash", "-c",
      "exec 3<&" + std::to_string(::dup(socket)) + "; " + variables +
          " exec '" WIDGET_SERVER "' " + arguments});
}

TEST_F(WidgetServerTest, ServesCalls) {
  const auto server = Serve();
  const auto client = Connect();
  EXPECT_EQ(CallByName(client.get(), "Show", "value: 3").message(),
            "browser 3 is not attached; Attach comes first");
  EXPECT_EQ(CallByName(client.get(), "Unfocus", "value: 3"), absl::OkStatus());
}

TEST_F(WidgetServerTest, ServesTheSameWidgetsToEveryHost) {
  const auto server = Serve();
  const auto first = Connect();
  const auto second = Connect();
  ASSERT_EQ(CallByName(first.get(), "Attach", "browser_id { value: 1 }"),
            absl::OkStatus());
  EXPECT_EQ(CallByName(second.get(), "Show", "value: 1"), absl::OkStatus());
}

TEST_F(WidgetServerTest, AHostThatGoesLeavesItsBrowsersToTheNext) {
  const auto server = Serve();
  auto first = Connect();
  const auto second = Connect();
  ASSERT_EQ(CallByName(first.get(), "Attach", "browser_id { value: 1 }"),
            absl::OkStatus());
  EXPECT_EQ(
      CallByName(second.get(), "Attach", "browser_id { value: 1 }").message(),
      "browser 1 is attached already; Detach comes first");
  first.reset();
  // The server learns of that in its own time.
  while (CallByName(second.get(), "Show", "value: 1").ok()) continue;
  EXPECT_EQ(CallByName(second.get(), "Attach", "browser_id { value: 1 }"),
            absl::OkStatus());
}

TEST_F(WidgetServerTest, AHostThatHasDetachedTakesNothingWithIt) {
  const auto server = Serve();
  auto first = Connect();
  const auto second = Connect();
  for (const char* const method : {"Attach", "Detach"}) {
    ASSERT_EQ(
        CallByName(first.get(), method,
                   method[0] == 'A' ? "browser_id { value: 1 }" : "value: 1"),
        absl::OkStatus());
  }
  ASSERT_EQ(CallByName(second.get(), "Attach", "browser_id { value: 1 }"),
            absl::OkStatus());
  ASSERT_EQ(CallByName(first.get(), "Attach", "browser_id { value: 2 }"),
            absl::OkStatus());
  first.reset();
  while (CallByName(second.get(), "Show", "value: 2").ok()) continue;
  EXPECT_EQ(CallByName(second.get(), "Show", "value: 1"), absl::OkStatus());
}

TEST_F(WidgetServerTest, ListsItsBrowsers) {
  const auto server = Serve({"--browsers", "2"});
  const auto host = Connect();
  const auto other = Connect();
  ASSERT_EQ(CallByName(host.get(), "Attach", "browser_id { value: 2 }"),
            absl::OkStatus());
  const auto list = rpc::BrowsersRpcClient(other.get()).ListBrowsers({});
  ASSERT_TRUE(list.ok()) << list.status();
  ASSERT_EQ(list->browsers_size(), 2);
  EXPECT_EQ(list->browsers(0).browser_id().value(), 1u);
  EXPECT_FALSE(list->browsers(0).attached());
  EXPECT_EQ(list->browsers(1).browser_id().value(), 2u);
  EXPECT_TRUE(list->browsers(1).attached());
}

TEST_F(WidgetServerTest, ServesAsManyBrowsersAsItIsTold) {
  const auto server = Serve({"--browsers", "2"});
  const auto client = Connect();
  EXPECT_EQ(CallByName(client.get(), "Unfocus", "value: 2"), absl::OkStatus());
  EXPECT_EQ(CallByName(client.get(), "Unfocus", "value: 3").message(),
            "browser 3 does not exist; there are 1 and 2");
}

TEST_F(WidgetServerTest, EndsInOrderAtASignal) {
  for (const int signal : {SIGTERM, SIGINT}) {
    const auto server = Serve();
    const auto client = Connect();
    ASSERT_EQ(CallByName(client.get(), "Unfocus", "value: 1"),
              absl::OkStatus());
    EXPECT_TRUE(std::filesystem::exists(socket_));
    server->Signal(signal);
    const ChildProcess::Result result = server->Wait();
    EXPECT_EQ(result.exit_code, 0);
    EXPECT_THAT(result.output, IsEmpty());
    EXPECT_THAT(result.errors, IsEmpty());
    EXPECT_FALSE(std::filesystem::exists(socket_));
    EXPECT_EQ(CallByName(client.get(), "Unfocus", "value: 1").code(),
              absl::StatusCode::kUnavailable);
  }
}

TEST_F(WidgetServerTest, WhileItIsStoppedCallsEndAtTheirDeadline) {
  const auto server = Serve();
  const auto client = Connect();
  rpc::BrowserWidgetRpcClient widget(client.get());
  BrowserId browser;
  browser.set_value(1);
  ASSERT_TRUE(widget.Unfocus(browser).ok());
  server->Signal(SIGSTOP);
  EXPECT_EQ(widget.Unfocus(browser, {.timeout = absl::Milliseconds(10)})
                .status()
                .code(),
            absl::StatusCode::kDeadlineExceeded);
  server->Signal(SIGCONT);
  EXPECT_TRUE(widget.Unfocus(browser).ok());
}

TEST_F(WidgetServerTest, ASocketFileThatAKilledOneLeftIsReplaced) {
  const auto client = [this] {
    const auto server = Serve();
    auto connected = Connect();
    server->Signal(SIGKILL);
    EXPECT_EQ(server->Wait().exit_code, 128 + SIGKILL);
    return connected;
  }();
  EXPECT_EQ(CallByName(client.get(), "Unfocus", "value: 1").code(),
            absl::StatusCode::kUnavailable);
  EXPECT_TRUE(std::filesystem::exists(socket_));
  const auto server = Serve();
  EXPECT_EQ(CallByName(Connect().get(), "Unfocus", "value: 1"),
            absl::OkStatus());
}

TEST_F(WidgetServerTest, LeavesASocketAloneThatAnotherServerListensAt) {
  const auto server = Serve();
  const ChildProcess::Result second = Run({"--socket", socket_});
  EXPECT_EQ(second.exit_code, 1);
  EXPECT_EQ(second.errors,
            "widget_server: a server listens at " + socket_ + " already\n");
  EXPECT_EQ(CallByName(Connect().get(), "Unfocus", "value: 1"),
            absl::OkStatus());
}

TEST_F(WidgetServerTest, ListensInTheUsersRuntimeFolderByDefault) {
  ASSERT_EQ(::setenv("XDG_RUNTIME_DIR", folder_.path().c_str(), 1), 0);
  const auto server = Start({});
  EXPECT_EQ(server->ReadLine(), "widget_server listens at " + folder_.path() +
                                    "/orvane/widget.sock");
}

TEST_F(WidgetServerTest, HelpTellsTheOptions) {
  const ChildProcess::Result result = Run({"--help"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_THAT(result.output, StartsWith("Usage: widget_server "));
  EXPECT_THAT(result.output, HasSubstr("--socket PATH"));
  EXPECT_THAT(result.output, HasSubstr("--browsers N"));
  EXPECT_THAT(result.errors, IsEmpty());
}

TEST_F(WidgetServerTest, TellsItsVersion) {
  const ChildProcess::Result result = Run({"--version"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.output,
            "widget_server " + std::string(orvane::kVersion) + "\n");
}

TEST_F(WidgetServerTest, RefusesAnOptionThatThereIsNot) {
  const ChildProcess::Result result = Run({"--colour"});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_THAT(result.errors, HasSubstr("unrecognized option '--colour'"));
  EXPECT_THAT(result.errors, EndsWith("See widget_server --help.\n"));
  EXPECT_THAT(result.output, IsEmpty());
}

TEST_F(WidgetServerTest, RefusesAnOptionWithoutItsValue) {
  const ChildProcess::Result result = Run({"--socket"});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_THAT(result.errors, HasSubstr("'--socket' requires an argument"));
}

TEST_F(WidgetServerTest, RefusesANumberOfBrowsersOutOfRange) {
  for (const std::string number : {"0", "101", "-1", "two", "", "3x"}) {
    const ChildProcess::Result result = Run({"--browsers", number});
    EXPECT_EQ(result.exit_code, 2) << number;
    EXPECT_EQ(result.errors,
              "widget_server: --browsers takes a number from 1 to 100, not '" +
                  number + "'\nSee widget_server --help.\n");
  }
}

TEST_F(WidgetServerTest, RefusesWhatIsNoOption) {
  const ChildProcess::Result result = Run({"widget.sock"});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_EQ(result.errors,
            "widget_server: unexpected argument 'widget.sock'\n"
            "See widget_server --help.\n");
}

TEST_F(WidgetServerTest, IsFoundOutWhileItIsStoppedAndLosesNothing) {
  const auto server = Serve();
  const auto client = Connect();
  rpc::BrowserWidgetRpcClient widget(client.get());
  BrowserId browser;
  browser.set_value(1);
  ASSERT_TRUE(widget.Unfocus(browser).ok());
  std::vector<std::string> told;
  client->WatchServer(
      absl::Milliseconds(50), [&](const orvane::Responsiveness& found) {
        told.emplace_back(found.responds ? "responds" : "hangs");
      });
  server->Signal(SIGSTOP);
  int answers = 0;
  for (int calls = 0; calls < 10; ++calls)
    widget.Unfocus(browser,
                   [&](const auto& answer) { answers += answer.ok(); });
  ASSERT_TRUE(loop_.RunUntil([&] { return !told.empty(); }));
  EXPECT_EQ(answers, 0);
  server->Signal(SIGCONT);
  ASSERT_TRUE(
      loop_.RunUntil([&] { return answers == 10 && told.size() == 2; }));
  EXPECT_THAT(told, ElementsAre("hangs", "responds"));
}

TEST_F(WidgetServerTest, LogsWhichHostHangs) {
  ChildProcess server({"/bin/bash", "-c",
                       "exec '" WIDGET_SERVER "' --patience 0.05 --socket " +
                           socket_ + " 2>&1"});
  server.ReadLine();
  const auto host = Connect();
  ASSERT_EQ(CallByName(host.get(), "Unfocus", "value: 3"), absl::OkStatus());
  // Now nobody runs the host's loop.
  const std::string who = absl::StrCat("the host in process ", ::getpid(),
                                       " (rpc.BrowserWidgetRpc)");
  EXPECT_THAT(server.ReadLine(),
              EndsWith(who + " hangs: it neither answers nor reads"));
  ASSERT_EQ(CallByName(host.get(), "Unfocus", "value: 3"), absl::OkStatus());
  EXPECT_THAT(server.ReadLine(), EndsWith(who + " goes on"));
}

TEST_F(WidgetServerTest, RefusesAPatienceThatIsNoTime) {
  for (const std::string patience : {"0", "-1", "soon", "inf", "nan"}) {
    const ChildProcess::Result result = Run({"--patience=" + patience});
    EXPECT_EQ(result.exit_code, 2);
    EXPECT_EQ(result.errors, "widget_server: --patience takes seconds, not '" +
                                 patience + "'\nSee widget_server --help.\n");
  }
}

// Inherited sockets

TEST_F(WidgetServerTest, ServesTheClientOfAnInheritedSocketUntilItLeaves) {
  auto pair = orvane::ConnectedPair();
  ASSERT_TRUE(pair.ok()) << pair.status();
  const auto server = StartWith(pair->first.get(), "--descriptor 3");
  EXPECT_EQ(server->ReadLine(), "widget_server serves 1 inherited socket");
  auto client = orvane::SocketClient::Adopt(&loop_, pair->second.Release());
  ASSERT_TRUE(client.ok()) << client.status();
  EXPECT_EQ(CallByName(client->get(), "Unfocus", "value: 3"), absl::OkStatus());
  client->reset();
  EXPECT_EQ(server->Wait().exit_code, EXIT_SUCCESS);
}

TEST_F(WidgetServerTest, EndsWhenNobodyCanConnectAnyMore) {
  std::optional<orvane::DescriptorPair> channel;
  {
    auto pair = orvane::ChannelPair();
    ASSERT_TRUE(pair.ok()) << pair.status();
    channel.emplace(*std::move(pair));
  }
  const auto server = StartWith(channel->first.get(), "--descriptor 3");
  server->ReadLine();
  channel.reset();
  EXPECT_EQ(server->Wait().exit_code, EXIT_SUCCESS);
}

TEST_F(WidgetServerTest, ListensOnForOthersWhenAnInheritedSocketEnds) {
  auto pair = orvane::ConnectedPair();
  ASSERT_TRUE(pair.ok()) << pair.status();
  const auto server =
      StartWith(pair->first.get(), "--descriptor 3 --socket " + socket_);
  EXPECT_EQ(server->ReadLine(), "widget_server listens at " + socket_);
  pair = absl::CancelledError();
  EXPECT_EQ(CallByName(Connect().get(), "Unfocus", "value: 3"),
            absl::OkStatus());
}

TEST_F(WidgetServerTest, ServesTheListeningSocketOfAServiceManager) {
  auto listening = orvane::ListeningSocket::Open(socket_);
  ASSERT_TRUE(listening.ok()) << listening.status();
  const orvane::OwnedDescriptor socket(listening->ReleaseDescriptor());
  const auto server = StartWith(socket.get(), "", "LISTEN_PID=$$ LISTEN_FDS=1");
  EXPECT_EQ(CallByName(Connect().get(), "Unfocus", "value: 3"),
            absl::OkStatus());
  server->Signal(SIGTERM);
  EXPECT_EQ(server->Wait().exit_code, EXIT_SUCCESS);
}

// The real thing, which starts the program when the first client connects.
TEST_F(WidgetServerTest, IsStartedByTheServiceManagersOwnProgram) {
  const std::string activate = "/usr/bin/systemd-socket-activate";
  if (!std::filesystem::exists(activate)) GTEST_SKIP() << "no " << activate;
  ChildProcess server({activate, "--listen=" + socket_, WIDGET_SERVER});
  std::unique_ptr<orvane::SocketClient> client;
  while (client == nullptr) {
    auto connected = orvane::SocketClient::Connect(&loop_, socket_);
    if (connected.ok()) client = *std::move(connected);
  }
  EXPECT_EQ(CallByName(client.get(), "Unfocus", "value: 3"), absl::OkStatus());
  server.Signal(SIGTERM);
  EXPECT_EQ(server.Wait().exit_code, EXIT_SUCCESS);
}

TEST_F(WidgetServerTest, RefusesADescriptorThatIsNoSocket) {
  const ChildProcess::Result result = Run({"--descriptor", "0"});
  EXPECT_EQ(result.exit_code, EXIT_FAILURE);
  EXPECT_THAT(result.errors, StartsWith("widget_server: descriptor 0"));
}

TEST_F(WidgetServerTest, RefusesADescriptorThatIsNoNumber) {
  const ChildProcess::Result result = Run({"--descriptor", "three"});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_THAT(result.errors,
              StartsWith("widget_server: --descriptor takes the number of an "
                         "inherited socket, not 'three'"));
}

}  // namespace
