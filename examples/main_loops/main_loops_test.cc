#include <csignal>
#include <string>

#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"

namespace {

// Runs the program HOST beside the program HELLO_SERVER.
TEST(MainLoopHost, ShowsABrowserAndStaysUntilTheWidgetGoes) {
  const orvane::testing::TemporaryFolder folder;
  const std::string socket = folder.path() + "/hello.sock";
  orvane::testing::ChildProcess server({HELLO_SERVER, socket});
  ASSERT_EQ(server.ReadLine(), "hello_server listens at " + socket);

  orvane::testing::ChildProcess host({HOST, socket});
  EXPECT_EQ(server.ReadLine(), "Hello from browser 7");
  EXPECT_EQ(host.ReadLine(), "browser 7 is shown: OK");
  server.Signal(SIGTERM);
  EXPECT_EQ(host.ReadLine(), "the widget has gone: in order");
  EXPECT_EQ(host.Wait().exit_code, 0);
}

}  // namespace
