// The orderly end of a server, within a bounded time.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/testing/frames.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr absl::Duration kLong = absl::Hours(1);

class ShutdownTest : public StreamFixture {
 protected:
  ~ShutdownTest() override {
    for (const auto& call : std::exchange(widget.held, {})) call.done->Run();
  }

  void Shutdown(absl::Duration within = kLong) {
    server->Shutdown(within, [this] { ++ended; });
  }

  int ended = 0;
};

TEST_F(ShutdownTest, WithoutClientsItEndsAtOnceButNotInsideTheCall) {
  Shutdown();
  EXPECT_EQ(ended, 0);
  loop.RunUntilIdle();
  EXPECT_EQ(ended, 1);
}

TEST_F(ShutdownTest, RemovesTheSocketFileAndListensNoMore) {
  const TemporaryFolder folder;
  const std::string path = folder.path() + "/s";
  ASSERT_TRUE(server->Listen(path).ok());
  const auto client = SocketClient::Connect(&loop, path);
  ASSERT_TRUE(client.ok());
  Shutdown();
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(SocketClient::Connect(&loop, path).status().code(),
            absl::StatusCode::kUnavailable);
  loop.RunUntilIdle();
  EXPECT_EQ(ended, 1);
}

TEST_F(ShutdownTest, TakesNoFurtherClients) {
  Shutdown();
  auto pair = ConnectedPair();
  EXPECT_EQ(server->Adopt(pair->first.Release()),
            absl::UnavailableError("the server has been shut down"));
  const TemporaryFolder folder;
  const std::string path = folder.path() + "/s";
  EXPECT_EQ(server->Listen(path),
            absl::UnavailableError("the server has been shut down"));
}

TEST_F(ShutdownTest, CompletesStreamsAndTellsTheirClients) {
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kWhenTooltipChanged));
  client.Send(NextFrame(1, Subscribe(7)));
  client.Send(OpenFrame(2, kOnCreateWebDialog));
  client.Send(NextFrame(2, Serve(7)));
  Settle(&client);
  Shutdown();
  EXPECT_EQ(RegisteredKeys(), 0u);
  EXPECT_THAT(Settle(&client), ElementsAre("COMPLETE 1", "COMPLETE 2"));
  EXPECT_TRUE(client.closed);
  EXPECT_EQ(ended, 1);
}

TEST_F(ShutdownTest, FailsTheCallsOfTheServer) {
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kOnCreateWebDialog));
  client.Send(NextFrame(1, Serve(7)));
  Settle(&client);
  const auto call = Ask(7, "?");
  Shutdown();
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("? CANCELLED"));
}

TEST_F(ShutdownTest, WaitsForAHandlerThatAnswers) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, kHide));
  Settle(&client);
  Shutdown();
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_EQ(ended, 0);
  widget.held[0].done->Run();
  widget.held.clear();
  EXPECT_THAT(Settle(&client), ElementsAre("REPLY 1"));
  EXPECT_TRUE(client.closed);
  EXPECT_EQ(ended, 1);
}

TEST_F(ShutdownTest, DoesNotWaitForACallThatItsClientCancels) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, kHide));
  Settle(&client);
  Shutdown();
  client.Send(Frame(rpc::transport::StreamMessage::KIND_CANCEL, 1));
  Settle(&client);
  EXPECT_EQ(ended, 1);
}

TEST_F(ShutdownTest, DoesNotWaitForAClientThatLeaves) {
  std::optional<RawPeer> client = ConnectRaw(*server);
  client->Send(CallFrame(1, kHide));
  Settle(&*client);
  Shutdown();
  client.reset();
  loop.RunUntilIdle();
  EXPECT_EQ(ended, 1);
}

TEST_F(ShutdownTest, FailsACallThatIsNotAnsweredInTime) {
  const auto client = Connect(&loop, *server);
  std::optional<absl::Status> answered;
  client->Call(rpc::BrowserWidgetRpc::descriptor()->method(kHide), BrowserId(),
               [&answered](const auto& answer) { answered = answer.status(); });
  loop.RunUntilIdle();
  ASSERT_EQ(widget.held.size(), 1u);
  Shutdown(absl::ZeroDuration());
  ASSERT_TRUE(
      loop.RunUntil([&] { return ended == 1 && answered.has_value(); }));
  EXPECT_EQ(answered->code(), absl::StatusCode::kUnavailable);
  EXPECT_TRUE(widget.held[0].controller->IsCanceled());
}

TEST_F(ShutdownTest, LetsNothingBeginMeanwhile) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, kHide));
  Settle(&client);
  Shutdown();
  client.Send(CallFrame(2, kShow));
  client.Send(OpenFrame(3, kWhenTooltipChanged));
  EXPECT_THAT(Settle(&client),
              ElementsAre("ERROR 2 UNAVAILABLE: the server is shutting down",
                          "ERROR 3 UNAVAILABLE: the server is shutting down"));
}

// More than a socket takes at once.
class WithALongQueue : public ShutdownTest {
 protected:
  WithALongQueue() : client(ConnectRaw(*server)) {
    client.Send(OpenFrame(1, kWhenLiveRegionChanged));
    client.Send(NextFrame(1, Subscribe(7)));
    Settle(&client);
    rpc::AriaLiveRegionChanged event;
    event.set_text(std::string(kEventBytes, 'x'));
    for (std::size_t i = 0; i < kEvents; ++i)
      EXPECT_EQ(Publish(Browser(7), event), 1u);
  }

  static constexpr std::size_t kEvents = 20;
  static constexpr std::size_t kEventBytes = std::size_t{256} << 10;
  RawPeer client;
};

TEST_F(WithALongQueue, LetsAllLeaveThatWasSent) {
  Shutdown();
  loop.RunUntilIdle();
  EXPECT_EQ(ended, 0);
  client.frames.clear();
  while (!client.closed) {
    loop.RunUntilIdle();
    client.Receive();
  }
  ASSERT_EQ(client.frames.size(), kEvents + 1);
  EXPECT_EQ(InWords(client.frames.back()), "COMPLETE 1");
  loop.RunUntilIdle();
  EXPECT_EQ(ended, 1);
}

TEST_F(WithALongQueue, CutsOffAClientThatDoesNotReadInTime) {
  RawPeer reads = ConnectRaw(*server);
  Shutdown(absl::Milliseconds(1));
  ASSERT_TRUE(loop.RunUntil([this] { return ended == 1; }));
  EXPECT_EQ(server->connections(), 0u);
}

TEST_F(ShutdownTest, MayBeAskedForByAHandler) {
  RawPeer client = ConnectRaw(*server);
  widget.on_show = [this](std::uint64_t) { Shutdown(); };
  client.Send(CallFrame(1, kShow));
  EXPECT_THAT(Settle(&client), ElementsAre("REPLY 1"));
  EXPECT_EQ(ended, 1);
}

TEST_F(ShutdownTest, TheServerMayBeDestroyedAtItsEnd) {
  RawPeer client = ConnectRaw(*server);
  Settle(&client);
  server->Shutdown(kLong, [this] {
    server.reset();
    ++ended;
  });
  loop.RunUntilIdle();
  EXPECT_EQ(ended, 1);
}

TEST_F(ShutdownTest, TheServerMayBeDestroyedMeanwhile) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, kHide));
  Settle(&client);
  Shutdown();
  server.reset();
  loop.RunUntilIdle();
  EXPECT_EQ(ended, 0);
}

TEST_F(ShutdownTest, ASecondOneDoesNothing) {
  Shutdown();
  Shutdown();
  loop.RunUntilIdle();
  EXPECT_EQ(ended, 1);
}

}  // namespace
}  // namespace orvane::testing
