// A server finds out that a client hangs.

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/testing/frames.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"
#include "zimbrel/src/core/common/rpc/testing/link.h"
#include "zimbrel/src/core/common/rpc/testing/run_for.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace orvane::testing {
namespace {

using rpc::transport::ConnectionStatus;
using rpc::transport::StreamMessage;
using ::testing::AllOf;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr absl::Duration kPatience = absl::Milliseconds(3);

class WatchedClientsTest : public StreamFixture {
 protected:
  void Watch() {
    server->WatchClients(kPatience,
                         [this](const ConnectionStatus& client, bool responds) {
                           told.emplace_back(responds ? "responds" : "hangs");
                           latest = client;
                         });
  }
  void AwaitTold(std::size_t count) {
    ASSERT_TRUE(loop.RunUntil([&] { return told.size() >= count; }));
  }

  // Publishes more than fits into the socket of a client that does not read.
  void FillUp(RawPeer* client) {
    client->Send(OpenFrame(1, kWhenTooltipChanged));
    client->Send(NextFrame(1, Subscribe(1)));
    loop.RunUntilIdle();
    Publish<rpc::TooltipChanged>(Browser(1),
                                 Tooltip(std::string(1 << 20, 'x')));
    loop.RunUntilIdle();
  }

  std::vector<std::string> told;
  ConnectionStatus latest;
  std::unique_ptr<EventLoop::Timer> next;
};

TEST_F(WatchedClientsTest, OneThatIsAskedAndDoesNotAnswerHangs) {
  Watch();
  RawPeer client = ConnectRaw(*server);
  AwaitTold(1);
  EXPECT_THAT(told, ElementsAre("hangs"));
  EXPECT_EQ(latest.service(), "rpc.BrowserWidgetRpc");
  EXPECT_EQ(latest.process_id(), static_cast<std::uint32_t>(::getpid()));
  EXPECT_THAT(Settle(&client), AllOf(Not(IsEmpty()), Each("PING 0")));
}

TEST_F(WatchedClientsTest, OneThatHasNothingToSayAnswers) {
  Watch();
  const std::unique_ptr<SocketClient> client = Connect(&loop, *server);
  rpc::BrowserWidgetRpcClient(client.get()).Show(Browser(1), nullptr);
  RunFor(loop, 4 * kPatience);
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(WatchedClientsTest, OneThatComesBackIsTold) {
  RawPeer client = ConnectRaw(*server);
  loop.RunUntilIdle();
  Watch();
  AwaitTold(1);
  client.Send(Frame(StreamMessage::KIND_PONG, 0));
  AwaitTold(2);
  EXPECT_THAT(told, ElementsAre("hangs", "responds"));
  EXPECT_EQ(server->connections(), 1u);
}

TEST_F(WatchedClientsTest, OneThatCannotBeAskedDoesNotHang) {
  Watch();
  RawPeer client = ConnectRaw(*server, HelloOfProtocol1());
  RunFor(loop, 4 * kPatience);
  EXPECT_THAT(told, IsEmpty());
  EXPECT_THAT(Settle(&client), IsEmpty());
}

TEST_F(WatchedClientsTest, OneThatCannotBeAskedHangsIfItDoesNotRead) {
  Watch();
  RawPeer client = ConnectRaw(*server, HelloOfProtocol1());
  FillUp(&client);
  AwaitTold(1);
  EXPECT_THAT(told, ElementsAre("hangs"));
  EXPECT_GT(latest.queued_bytes(), 0u);
  while (told.size() < 2) Settle(&client);
  EXPECT_THAT(told, ElementsAre("hangs", "responds"));
}

// A question would be one more frame for which there is no room.
TEST_F(WatchedClientsTest, OneThatHasMuchToReadIsNotAsked) {
  RawPeer client = ConnectRaw(*server);
  FillUp(&client);
  Watch();
  AwaitTold(1);
  server->WatchClients(absl::InfiniteDuration(), nullptr);
  std::vector<std::string> words;
  while (words.empty()) words = Settle(&client);
  EXPECT_THAT(words, ElementsAre("NEXT 1"));
}

// It cannot answer inside of a frame.
TEST_F(WatchedClientsTest, OneThatIsSendingALongFrameDoesNotHang) {
  RawPeer client = ConnectRaw(*server);
  loop.RunUntilIdle();
  Watch();
  std::string frame =
      RawPeer::Bytes(Frame(StreamMessage::KIND_PONG, 0, std::string(30, 'x')));
  std::function<void()> send_byte = [&] {
    client.SendBytes(frame.substr(0, 1));
    frame.erase(0, 1);
    if (!frame.empty()) next = loop.RunAfter(kPatience / 6, send_byte);
  };
  send_byte();
  ASSERT_TRUE(loop.RunUntil([&] { return frame.empty(); }));
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(WatchedClientsTest, OneThatHasSaidNothingIsNotAsked) {
  Watch();
  RawPeer client = ConnectRaw(*server, std::nullopt);
  RunFor(loop, 4 * kPatience);
  EXPECT_THAT(told, IsEmpty());
  EXPECT_THAT(Settle(&client), IsEmpty());
}

TEST_F(WatchedClientsTest, EachIsWatched) {
  RawPeer first = ConnectRaw(*server);
  loop.RunUntilIdle();
  Watch();
  RawPeer second = ConnectRaw(*server);
  AwaitTold(2);
  EXPECT_THAT(told, ElementsAre("hangs", "hangs"));
}

TEST_F(WatchedClientsTest, TheServerMayEndWhenOneHangs) {
  RawPeer client = ConnectRaw(*server);
  server->WatchClients(
      kPatience, [this](const ConnectionStatus&, bool) { server.reset(); });
  EXPECT_TRUE(loop.RunUntil([this] { return !server.has_value(); }));
}

TEST_F(WatchedClientsTest, TheyMayBeWatchedOtherwiseWhenOneHangs) {
  RawPeer client = ConnectRaw(*server);
  server->WatchClients(kPatience,
                       [this](const ConnectionStatus&, bool) { Watch(); });
  AwaitTold(1);
  EXPECT_THAT(told, ElementsAre("hangs"));
}

TEST_F(WatchedClientsTest, NobodyLooksAnyMoreWithoutAnEndToPatience) {
  RawPeer client = ConnectRaw(*server);
  Watch();
  server->WatchClients(absl::InfiniteDuration(), nullptr);
  RunFor(loop, 4 * kPatience);
  EXPECT_THAT(told, IsEmpty());
}

// Questions ------------------------------------------------------------------

TEST_F(StreamFixture, AServerAnswersTheQuestionWhetherItIsThere) {
  RawPeer client = ConnectRaw(*server);
  client.Send(Frame(StreamMessage::KIND_PING, 0));
  client.Send(Frame(StreamMessage::KIND_PING, 0));
  EXPECT_THAT(Settle(&client), ElementsAre("PONG 0", "PONG 0"));
}

TEST_F(StreamFixture, AServerIgnoresAnswersToWhatItHasNotAsked) {
  RawPeer client = ConnectRaw(*server);
  client.Send(Frame(StreamMessage::KIND_PONG, 0));
  client.Send(CallFrame(1, kShow));
  EXPECT_THAT(Settle(&client), ElementsAre("REPLY 1"));
}

}  // namespace
}  // namespace orvane::testing
