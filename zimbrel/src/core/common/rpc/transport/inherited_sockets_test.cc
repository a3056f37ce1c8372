// Servers whose clients come over sockets that the process was given.

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/testing/open_descriptors.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace orvane::testing {
namespace {

using ::testing::IsEmpty;

class InheritedSocketsTest : public StreamFixture {
 protected:
  // Whether a client of that connection is served.
  bool IsServed(absl::StatusOr<OwnedDescriptor> connection) {
    EXPECT_TRUE(connection.ok()) << connection.status();
    auto client = SocketClient::Adopt(&loop, connection->Release());
    EXPECT_TRUE(client.ok()) << client.status();
    rpc::BrowserWidgetRpcClient caller(client->get());
    return caller.Show(Browser(1)).ok();
  }

  // Lets the server adopt one end of a channel; returns the other.
  std::optional<OwnedDescriptor> OpenChannel() {
    auto channel = ChannelPair();
    EXPECT_TRUE(channel.ok()) << channel.status();
    EXPECT_EQ(server->Adopt(channel->first.Release(), [this] { ++ends_; }),
              absl::OkStatus());
    std::optional<OwnedDescriptor> ours;
    ours.emplace(std::move(channel->second));
    return ours;
  }

  std::string AdoptionError(int descriptor) {
    return std::string(server->Adopt(descriptor).message());
  }

  int ends_ = 0;
  const TemporaryFolder folder_;
};

TEST_F(InheritedSocketsTest, AListeningSocketIsServed) {
  const std::string path = folder_.path() + "/s";
  auto listening = ListeningSocket::Open(path);
  ASSERT_TRUE(listening.ok()) << listening.status();
  ASSERT_EQ(server->Adopt(listening->ReleaseDescriptor()), absl::OkStatus());
  EXPECT_TRUE(IsServed(ConnectTo(path)));
  EXPECT_TRUE(IsServed(ConnectTo(path)));
  server.reset();
  EXPECT_EQ(::access(path.c_str(), F_OK), 0);
}

TEST_F(InheritedSocketsTest, AServerListensWhereItIsToldToo) {
  const auto channel = OpenChannel();
  const std::string path = folder_.path() + "/s";
  ASSERT_EQ(server->Listen(path), absl::OkStatus());
  EXPECT_TRUE(IsServed(ConnectTo(path)));
  EXPECT_TRUE(IsServed(ConnectThrough(channel->get())));
}

TEST_F(InheritedSocketsTest, ManyClientsComeOverAChannel) {
  const auto channel = OpenChannel();
  EXPECT_TRUE(IsServed(ConnectThrough(channel->get())));
  EXPECT_TRUE(IsServed(ConnectThrough(channel->get())));
}

TEST_F(InheritedSocketsTest, ConnectionsWaitInAChannelForTheServer) {
  auto channel = ChannelPair();
  ASSERT_TRUE(channel.ok()) << channel.status();
  auto early = ConnectThrough(channel->second.get());
  ASSERT_EQ(server->Adopt(channel->first.Release()), absl::OkStatus());
  EXPECT_TRUE(IsServed(std::move(early)));
}

TEST_F(InheritedSocketsTest, AChannelThatNobodyReadsIsFullAtSomeTime) {
  const auto channel = ChannelPair();
  ASSERT_TRUE(channel.ok()) << channel.status();
  std::vector<OwnedDescriptor> waiting;
  absl::Status refusal;
  while (refusal.ok()) {
    auto connection = ConnectThrough(channel->second.get());
    refusal = connection.status();
    if (connection.ok()) waiting.push_back(*std::move(connection));
  }
  EXPECT_EQ(refusal,
            absl::UnavailableError(
                "the server does not take the connections that wait for it"));
}

TEST_F(InheritedSocketsTest, AChannelWhoseServerIsGoneRefusesConnections) {
  auto channel = OpenChannel();
  server.reset();
  EXPECT_EQ(ConnectThrough(channel->get()).status(),
            absl::UnavailableError("no server takes connections: Broken pipe"));
  server.emplace(&loop, &widget);
}

TEST_F(InheritedSocketsTest, AMessageWithoutAConnectionDoesNoHarm) {
  auto channel = OpenChannel();
  ASSERT_EQ(::send(channel->get(), "text", 4, 0), 4);
  const std::array<int, 2> numbers = {channel->get(), channel->get()};
  iovec text = {const_cast<char*>("x"), 1};
  alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof numbers)> control = {};
  msghdr message = {};
  message.msg_iov = &text;
  message.msg_iovlen = 1;
  message.msg_control = control.data();
  message.msg_controllen = control.size();
  cmsghdr* const part = CMSG_FIRSTHDR(&message);
  part->cmsg_level = SOL_SOCKET;
  part->cmsg_type = SCM_RIGHTS;
  part->cmsg_len = CMSG_LEN(sizeof numbers);
  std::memcpy(CMSG_DATA(part), numbers.data(), sizeof numbers);
  ASSERT_EQ(::sendmsg(channel->get(), &message, 0), 1);  // Not of clients.
  EXPECT_TRUE(IsServed(ConnectThrough(channel->get())));
  // The server has kept none of them.
  channel.reset();
  loop.RunUntilIdle();
  EXPECT_EQ(ends_, 1);
}

TEST_F(InheritedSocketsTest, TheEndOfAChannelIsTold) {
  auto channel = OpenChannel();
  auto connection = ConnectThrough(channel->get());
  loop.RunUntilIdle();
  EXPECT_EQ(ends_, 0);
  channel.reset();
  loop.RunUntilIdle();
  EXPECT_EQ(ends_, 1);
  EXPECT_TRUE(IsServed(std::move(connection)));  // Goes on.
}

TEST_F(InheritedSocketsTest, AChannelThatHasEndedIsClosed) {
  const std::ptrdiff_t before = OpenDescriptors();
  auto channel = OpenChannel();
  channel.reset();
  loop.RunUntilIdle();
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(InheritedSocketsTest, TheEndOfAnAdoptedClientIsTold) {
  auto pair = ConnectedPair();
  ASSERT_TRUE(pair.ok()) << pair.status();
  ASSERT_EQ(server->Adopt(pair->first.Release(), [this] { ++ends_; }),
            absl::OkStatus());
  EXPECT_TRUE(IsServed(std::move(pair->second)));
  loop.RunUntilIdle();
  EXPECT_EQ(ends_, 1);
}

TEST_F(InheritedSocketsTest, AnEndMayShutTheServerDown) {
  bool is_down = false;
  auto channel = ChannelPair();
  ASSERT_TRUE(channel.ok()) << channel.status();
  ASSERT_EQ(
      server->Adopt(
          channel->first.Release(),
          [&] { server->Shutdown(absl::Seconds(1), [&] { is_down = true; }); }),
      absl::OkStatus());
  { const auto closed = std::move(channel->second); }
  EXPECT_TRUE(loop.RunUntil([&] { return is_down; }));
}

TEST_F(InheritedSocketsTest, AnEndMayDestroyTheServer) {
  auto channel = ChannelPair();
  ASSERT_TRUE(channel.ok()) << channel.status();
  ASSERT_EQ(server->Adopt(channel->first.Release(), [this] { server.reset(); }),
            absl::OkStatus());
  { const auto closed = std::move(channel->second); }
  EXPECT_TRUE(loop.RunUntil([this] { return !server.has_value(); }));
}

TEST_F(InheritedSocketsTest, EndsAreNotToldAfterShutdown) {
  auto channel = OpenChannel();
  server->Shutdown(absl::Seconds(1), [] {});
  channel.reset();
  loop.RunUntilIdle();
  EXPECT_EQ(ends_, 0);
}

TEST_F(InheritedSocketsTest, WhatCannotBeServedIsRefusedInWords) {
  EXPECT_EQ(AdoptionError(::socket(AF_UNIX, SOCK_DGRAM, 0)).substr(0, 11),
            "descriptor ");
  EXPECT_EQ(AdoptionError(987'654), "descriptor 987654: Bad file descriptor");
  EXPECT_THAT(AdoptionError(::socket(AF_UNIX, SOCK_STREAM, 0)),
              ::testing::EndsWith("endpoint is not connected"));
  std::array<int, 2> pipe{};
  ASSERT_EQ(::pipe(pipe.data()), 0);
  EXPECT_THAT(AdoptionError(pipe[0]),
              ::testing::EndsWith("Socket operation on non-socket"));
  ::close(pipe[1]);
  EXPECT_THAT(AdoptionError(::socket(AF_INET, SOCK_STREAM, 0)),
              ::testing::EndsWith(
                  "is not a Unix-domain socket of a kind that can be served"));
}

// The service manager's, with the numbers that it would have.
class ActivationTest : public ::testing::Test {
 protected:
  static void Announce(const std::string& pid, const std::string& count) {
    ::setenv("LISTEN_PID", pid.c_str(), 1);
    ::setenv("LISTEN_FDS", count.c_str(), 1);
    ::setenv("LISTEN_FDNAMES", "widget", 1);
  }
};

TEST_F(ActivationTest, WithoutAnnouncementThereAreNone) {
  EXPECT_THAT(TakeInheritedSockets(), IsEmpty());
}

TEST_F(ActivationTest, SocketsForAnotherProcessAreLeft) {
  Announce("1", "1");
  EXPECT_THAT(TakeInheritedSockets(), IsEmpty());
}

TEST_F(ActivationTest, NonsenseIsNoSocket) {
  Announce(std::to_string(::getpid()), "many");
  EXPECT_THAT(TakeInheritedSockets(), IsEmpty());
  Announce(std::to_string(::getpid()), "-1");
  EXPECT_THAT(TakeInheritedSockets(), IsEmpty());
}

TEST_F(ActivationTest, TheEnvironmentIsTakenToo) {
  Announce("1", "1");
  EXPECT_THAT(TakeInheritedSockets(), IsEmpty());
  for (const char* const name : {"LISTEN_PID", "LISTEN_FDS", "LISTEN_FDNAMES"})
    EXPECT_EQ(std::getenv(name), nullptr) << name;
}

}  // namespace
}  // namespace orvane::testing
