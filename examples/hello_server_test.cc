#include <csignal>
#include <string>

#include "gtest/gtest.h"

#include "examples/testing/call.h"
#include "examples/testing/child_process.h"
#include "examples/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace {

using ::example_testing::Call;

// Runs the program itself, whose path is HELLO_SERVER.
TEST(HelloServer, ServesShowAndNothingElse) {
  const example_testing::TemporaryFolder folder;
  const std::string socket = folder.path() + "/hello.sock";
  example_testing::ChildProcess server({HELLO_SERVER, socket});
  ASSERT_EQ(server.ReadLine(), "hello_server listens at " + socket);

  orvane::EventLoop loop;
  const auto client = orvane::SocketClient::Connect(&loop, socket);
  ASSERT_TRUE(client.ok()) << client.status();
  EXPECT_EQ(Call(client->get(), "Show", "value: 7"), absl::OkStatus());
  EXPECT_EQ(server.ReadLine(), "Hello from browser 7");
  EXPECT_EQ(Call(client->get(), "Hide", "value: 7").message(),
            "Method Hide() not implemented.");

  server.Signal(SIGTERM);
  EXPECT_EQ(server.Wait().exit_code, 0);
}

}  // namespace
