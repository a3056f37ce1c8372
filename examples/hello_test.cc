#include <csignal>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/call_by_name.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace {

using ::orvane::testing::CallByName;

// Runs the programs themselves, whose paths are HELLO_SERVER and HELLO_HOST.
TEST(HelloServer, ServesShowAndNothingElse) {
  const orvane::testing::TemporaryFolder folder;
  const std::string socket = folder.path() + "/hello.sock";
  orvane::testing::ChildProcess server({HELLO_SERVER, socket});
  ASSERT_EQ(server.ReadLine(), "hello_server listens at " + socket);

  orvane::EventLoop loop;
  const auto client = orvane::SocketClient::Connect(&loop, socket);
  ASSERT_TRUE(client.ok()) << client.status();
  EXPECT_EQ(CallByName(client->get(), "Show", "value: 7"), absl::OkStatus());
  EXPECT_EQ(server.ReadLine(), "Hello from browser 7");
  EXPECT_EQ(CallByName(client->get(), "Hide", "value: 7").message(),
            "Method Hide() not implemented.");

  server.Signal(SIGTERM);
  EXPECT_EQ(server.Wait().exit_code, 0);
}

TEST(HelloHost, ShowsABrowserAndStaysUntilTheWidgetGoes) {
  const orvane::testing::TemporaryFolder folder;
  const std::string socket = folder.path() + "/hello.sock";
  orvane::testing::ChildProcess server({HELLO_SERVER, socket});
  ASSERT_EQ(server.ReadLine(), "hello_server listens at " + socket);

  orvane::testing::ChildProcess host({HELLO_HOST, socket});
  EXPECT_EQ(server.ReadLine(), "Hello from browser 7");
  EXPECT_EQ(host.ReadLine(), "browser 7 is shown");
  server.Signal(SIGTERM);
  EXPECT_EQ(host.ReadLine(), "the widget has gone: in order");
  EXPECT_EQ(host.Wait().exit_code, 0);
}

TEST(HelloHost, SaysThatNobodyListens) {
  const orvane::testing::TemporaryFolder folder;
  const orvane::testing::ChildProcess::Result host =
      orvane::testing::ChildProcess({HELLO_HOST, folder.path() + "/none"})
          .Wait();
  EXPECT_EQ(host.exit_code, 1);
  EXPECT_THAT(host.errors, testing::HasSubstr("no server listens at"));
}

}  // namespace
