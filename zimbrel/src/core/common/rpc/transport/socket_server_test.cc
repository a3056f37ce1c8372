#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/testing/server_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class SocketServerTest : public ServerFixture {
 protected:
  ~SocketServerTest() override { server.reset(); }

  const TemporaryFolder folder;
  const std::string path = folder.path() + "/s";
};

TEST_F(SocketServerTest, ServesSeveralClientsAtItsPath) {
  ASSERT_TRUE(server->Listen(path).ok());
  const auto first = SocketClient::Connect(&loop, path);
  const auto second = SocketClient::Connect(&loop, path);
  ASSERT_TRUE(first.ok() && second.ok());
  for (const auto& client : {first->get(), second->get()}) {
    const auto answer =
        client->CallAndWait(widget.GetDescriptor()->method(kShow), Browser(3));
    EXPECT_TRUE(answer.ok()) << answer.status();
  }
  EXPECT_THAT(widget.shown, ElementsAre(3, 3));
  EXPECT_EQ(server->connections(), 2u);
}

TEST_F(SocketServerTest, RemovesItsSocketWhenItIsDestroyed) {
  ASSERT_TRUE(server->Listen(path).ok());
  EXPECT_TRUE(std::filesystem::exists(path));
  server.reset();
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(SocketServerTest, ListensOnceOnly) {
  ASSERT_TRUE(server->Listen(path).ok());
  EXPECT_TRUE(absl::IsFailedPrecondition(server->Listen(path)));
}

TEST_F(SocketServerTest, TheSecondServerAtAPathIsRefused) {
  ASSERT_TRUE(server->Listen(path).ok());
  SocketServer second(&loop, &widget);
  EXPECT_THAT(second.Listen(path).message(), HasSubstr("already"));
}

TEST_F(SocketServerTest, AdoptRefusesWhatIsNoSocketAndClosesIt) {
  const int descriptor = ::dup(STDIN_FILENO);
  ASSERT_GE(descriptor, 0);
  EXPECT_FALSE(server->Adopt(descriptor).ok());
  EXPECT_LT(::fcntl(descriptor, F_GETFD), 0);
}

}  // namespace
}  // namespace orvane::testing
