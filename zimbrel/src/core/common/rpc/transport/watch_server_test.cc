// A client finds out that its server hangs.

#include <cstddef>
#include <optional>
#include <string>
#include <utility>

#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/testing/client_stream_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/frames.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"
#include "zimbrel/src/core/common/rpc/testing/run_for.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr absl::Duration kPatience = absl::Milliseconds(3);

class WatchedServerTest : public ClientStreamFixture {
 protected:
  void Watch() {
    client->WatchServer(kPatience, [this](const Responsiveness& found) {
      told.push_back(found.responds ? "responds" : "hangs");
      if (found.oldest_call != nullptr)
        told.back() += " in " + std::string(found.oldest_call->name());
    });
  }
  // To a server with that hello.
  void Reconnect(const std::optional<rpc::transport::Hello>& hello) {
    auto pair = ConnectedPair();
    server.emplace(std::move(pair->first), hello);
    client = *SocketClient::Adopt(&loop, pair->second.Release());
  }
  void AwaitTold(std::size_t count) {
    ASSERT_TRUE(loop.RunUntil([&] { return told.size() >= count; }));
  }
};

TEST_F(WatchedServerTest, IsToldWithTheCallThatWaitsLongest) {
  rpc::BrowserWidgetRpcClient widget(client.get());
  widget.Show(Browser(7), [](const auto&) {});
  widget.Hide(Browser(7), [](const auto&) {});
  Watch();
  AwaitTold(1);
  EXPECT_THAT(told, ElementsAre("hangs in Show"));
}

TEST_F(WatchedServerTest, HangsIfItDoesNotAnswerTheHello) {
  Reconnect(std::nullopt);
  Open();
  Watch();
  AwaitTold(1);
  EXPECT_THAT(told, ElementsAre("hangs"));
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1"));
}

TEST_F(WatchedServerTest, IsNotAskedIfItSpeaksTheFirstProtocolOnly) {
  Reconnect(HelloOfProtocol1());
  Open();
  loop.RunUntilIdle();
  Watch();
  RunFor(loop, 4 * kPatience);
  EXPECT_THAT(told, IsEmpty());
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1"));
}

TEST_F(WatchedServerTest, RespondsWithWhateverItSays) {
  Open();
  Watch();
  AwaitTold(1);
  Say(Event("here"));
  AwaitTold(3);
  EXPECT_THAT(told, ElementsAre("hangs", "next here", "responds"));
}

TEST_F(WatchedServerTest, IsNotAskedBeforeItIsUsed) {
  Watch();
  RunFor(loop, 4 * kPatience);
  EXPECT_THAT(Settle(), IsEmpty());
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(WatchedServerTest, MayBeLeftWhenItHangs) {
  Open();
  client->WatchServer(kPatience,
                      [this](const Responsiveness&) { client.reset(); });
  EXPECT_TRUE(loop.RunUntil([this] { return client == nullptr; }));
}

TEST_F(WatchedServerTest, MayBeWatchedOtherwiseWhenItHangs) {
  Open();
  client->WatchServer(kPatience, [this](const Responsiveness&) { Watch(); });
  AwaitTold(1);
  EXPECT_THAT(told, ElementsAre("hangs"));
}

TEST_F(WatchedServerTest, IsNotToldAfterTheConnectionsEnd) {
  Open();
  Watch();
  ASSERT_TRUE(loop.RunUntil([this] {
    server->Receive();
    return !server->frames.empty() &&
           InWords(server->frames.back()) == "PING 0";
  }));
  server.reset();
  ASSERT_TRUE(loop.RunUntil([this] { return !client->status().ok(); }));
  told.clear();
  RunFor(loop, 4 * kPatience);
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(WatchedServerTest, IsNotWatchedAnyMoreWithoutAnEndToPatience) {
  Open();
  Watch();
  client->WatchServer(absl::InfiniteDuration(), nullptr);
  RunFor(loop, 4 * kPatience);
  EXPECT_THAT(told, IsEmpty());
}

}  // namespace
}  // namespace orvane::testing
