// Event streams of a real server, as a client sees them frame by frame.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"

namespace orvane::testing {
namespace {

using ::rpc::transport::StreamMessage;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ServerEventStreamTest : public StreamFixture {
 protected:
  using StreamFixture::StreamFixture;

  // A client whose stream 1 is subscribed to tooltips of browser 7.
  RawPeer WatchingClient() {
    RawPeer client = ConnectRaw(*server);
    client.Send(OpenFrame(1, kWhenTooltipChanged));
    client.Send(NextFrame(1, Subscribe(7)));
    EXPECT_THAT(Settle(&client), IsEmpty());
    return client;
  }

  static std::size_t PublishTo(std::uint64_t browser, const std::string& text) {
    return Publish(Browser(browser), Tooltip(text));
  }
};

TEST_F(ServerEventStreamTest, OpeningIsNotAnsweredAndSubscribesToNothing) {
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kWhenTooltipChanged));
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_FALSE(client.closed);
  EXPECT_EQ(RegisteredKeys(), 0u);
}

TEST_F(ServerEventStreamTest, EveryEventStreamOpensAndSubscribes) {
  RawPeer client = ConnectRaw(*server);
  for (std::uint32_t method = kFirstStream; method < kFirstCallbackStream;
       ++method) {
    client.Send(OpenFrame(method, method));
    client.Send(NextFrame(method, Subscribe(7)));
  }
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_EQ(RegisteredKeys(), 6u);
}

TEST_F(ServerEventStreamTest, AnEventReachesTheClientThatSubscribed) {
  RawPeer client = WatchingClient();
  EXPECT_EQ(PublishTo(7, "tip"), 1u);
  EXPECT_THAT(Settle(&client), ElementsAre("NEXT 1"));
  EXPECT_EQ(client.frames[0].payload(), Tooltip("tip").SerializeAsString());
  EXPECT_EQ(client.frames[0].call_id(), 0);
}

TEST_F(ServerEventStreamTest, AnotherBrowsersEventReachesNobody) {
  RawPeer client = WatchingClient();
  EXPECT_EQ(PublishTo(8, "tip"), 0u);
  EXPECT_THAT(Settle(&client), IsEmpty());
}

TEST_F(ServerEventStreamTest, AfterUnsubscribingNothingComes) {
  RawPeer client = WatchingClient();
  client.Send(NextFrame(1, Unsubscribe(7)));
  loop.RunUntilIdle();
  EXPECT_EQ(PublishTo(7, "tip"), 0u);
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_EQ(RegisteredKeys(), 0u);
}

TEST_F(ServerEventStreamTest, TwoStreamsOfOneClientBothHear) {
  RawPeer client = WatchingClient();
  client.Send(OpenFrame(2, kWhenTooltipChanged));
  client.Send(NextFrame(2, Subscribe(7)));
  loop.RunUntilIdle();
  EXPECT_EQ(PublishTo(7, "tip"), 2u);
  EXPECT_THAT(Settle(&client),
              ::testing::UnorderedElementsAre("NEXT 1", "NEXT 2"));
}

TEST_F(ServerEventStreamTest, EventsArriveInTheOrderOfPublishing) {
  RawPeer client = WatchingClient();
  std::vector<std::string> sent;
  for (int i = 0; i < 300; ++i) {
    sent.push_back(Tooltip(std::to_string(i)).SerializeAsString());
    PublishTo(7, std::to_string(i));
  }
  Settle(&client);
  std::vector<std::string> received;
  for (const StreamMessage& frame : client.frames)
    received.push_back(frame.payload());
  EXPECT_EQ(received, sent);
}

TEST_F(ServerEventStreamTest, CallsAndStreamsAreHandledInTheOrderOfArrival) {
  std::vector<std::size_t> reached;
  widget.on_show = [&](std::uint64_t browser) {
    reached.push_back(PublishTo(browser, "shown"));
  };
  RawPeer client = ConnectRaw(*server);
  std::string bytes;
  for (const StreamMessage& frame :
       {CallFrame(1, kShow, 7), OpenFrame(2, kWhenTooltipChanged),
        CallFrame(3, kShow, 7), NextFrame(2, Subscribe(7)),
        CallFrame(4, kShow, 7), NextFrame(2, Unsubscribe(7)),
        CallFrame(5, kShow, 7), NextFrame(2, Subscribe(7)),
        CallFrame(6, kShow, 7), CompleteFrame(2), CallFrame(7, kShow, 7)}) {
    bytes += RawPeer::Bytes(frame);
  }
  client.SendBytes(bytes);
  EXPECT_THAT(Settle(&client),
              ElementsAre("REPLY 1", "REPLY 3", "NEXT 2", "REPLY 4", "REPLY 5",
                          "NEXT 2", "REPLY 6", "COMPLETE 2", "REPLY 7"));
  EXPECT_THAT(reached, ElementsAre(0, 0, 1, 0, 1, 0));
}

// The end, by the client.

TEST_F(ServerEventStreamTest, CompletingIsAnsweredAndLeavesNothingBehind) {
  RawPeer client = WatchingClient();
  client.Send(NextFrame(1, Subscribe(8)));
  client.Send(CompleteFrame(1));
  EXPECT_THAT(Settle(&client), ElementsAre("COMPLETE 1"));
  EXPECT_EQ(RegisteredKeys(), 0u);
  EXPECT_EQ(PublishTo(7, "tip"), 0u);
}

TEST_F(ServerEventStreamTest, AfterAStreamTheConnectionGoesOn) {
  RawPeer client = WatchingClient();
  client.Send(CompleteFrame(1));
  client.Send(OpenFrame(2, kWhenTooltipChanged));
  client.Send(NextFrame(2, Subscribe(7)));
  EXPECT_THAT(Settle(&client), ElementsAre("COMPLETE 1"));
  PublishTo(7, "tip");
  EXPECT_THAT(Settle(&client), ElementsAre("NEXT 2"));
}

TEST_F(ServerEventStreamTest, AStreamThatSharedItsKeyLeavesItWhenItCompletes) {
  RawPeer stays = WatchingClient();
  RawPeer leaves = WatchingClient();
  leaves.Send(CompleteFrame(1));
  EXPECT_THAT(Settle(&leaves), ElementsAre("COMPLETE 1"));
  EXPECT_EQ(ListedForTooltips(7), 1u);
  EXPECT_EQ(PublishTo(7, "tip"), 1u);
  EXPECT_THAT(Settle(&stays), ElementsAre("NEXT 1"));
  EXPECT_THAT(Settle(&leaves), IsEmpty());
}

TEST_F(ServerEventStreamTest, AClientThatVanishesLeavesNothingBehind) {
  std::optional<RawPeer> client = WatchingClient();
  client->Send(NextFrame(1, Subscribe(8)));
  client->Send(OpenFrame(2, kFirstStream));
  client->Send(NextFrame(2, Subscribe(7)));
  loop.RunUntilIdle();
  EXPECT_EQ(RegisteredKeys(), 3u);
  client.reset();
  loop.RunUntilIdle();
  EXPECT_EQ(RegisteredKeys(), 0u);
  EXPECT_EQ(server->connections(), 0u);
}

TEST_F(ServerEventStreamTest, AClientThatVanishesLeavesTheKeysThatItShared) {
  RawPeer stays = WatchingClient();
  std::optional<RawPeer> vanishes = WatchingClient();
  EXPECT_EQ(ListedForTooltips(7), 2u);
  vanishes.reset();
  loop.RunUntilIdle();
  EXPECT_EQ(ListedForTooltips(7), 1u);
  EXPECT_EQ(PublishTo(7, "tip"), 1u);
  EXPECT_THAT(Settle(&stays), ElementsAre("NEXT 1"));
}

TEST_F(ServerEventStreamTest,
       AStreamLeavesTheKeysThatItSharesWithAnotherOfTheSameClient) {
  RawPeer client = WatchingClient();
  client.Send(OpenFrame(2, kWhenTooltipChanged));
  client.Send(NextFrame(2, Subscribe(7)));
  client.Send(CompleteFrame(1));
  EXPECT_THAT(Settle(&client), ElementsAre("COMPLETE 1"));
  EXPECT_EQ(ListedForTooltips(7), 1u);
}

TEST_F(ServerEventStreamTest, WhatWasPublishedToAClientThatVanishedIsNoError) {
  RawPeer stays = WatchingClient();
  std::optional<RawPeer> vanishes = WatchingClient();
  vanishes.reset();
  // The server has not noticed that it is gone, so both count as told.
  EXPECT_EQ(PublishTo(7, "tip"), 2u);
  EXPECT_THAT(Settle(&stays), ElementsAre("NEXT 1"));
  EXPECT_EQ(server->connections(), 1u);
}

// The end, by the server.

TEST_F(ServerEventStreamTest, TheServersEndCompletesStreamsInOrderOfOpening) {
  RawPeer client = ConnectRaw(*server);
  for (const std::uint64_t id : {3, 14, 15, 92, 653})
    client.Send(OpenFrame(id, kWhenTooltipChanged));
  client.Send(NextFrame(92, Subscribe(7)));
  loop.RunUntilIdle();
  server.reset();
  EXPECT_EQ(RegisteredKeys(), 0u);
  EXPECT_THAT(Settle(&client),
              ElementsAre("COMPLETE 3", "COMPLETE 14", "COMPLETE 15",
                          "COMPLETE 92", "COMPLETE 653"));
  EXPECT_TRUE(client.closed);
}

TEST_F(ServerEventStreamTest, WhatWasPublishedBeforeTheServersEndStillArrives) {
  RawPeer client = WatchingClient();
  PublishTo(7, "last words");
  server.reset();
  EXPECT_THAT(Settle(&client), ElementsAre("NEXT 1", "COMPLETE 1"));
}

TEST_F(ServerEventStreamTest, AHandlerMayDestroyTheServerWhileStreamsAreOpen) {
  RawPeer bystander = WatchingClient();
  RawPeer client = WatchingClient();
  widget.on_show = [this](std::uint64_t) { server.reset(); };
  client.Send(CallFrame(2, kShow));
  client.Send(NextFrame(1, Subscribe(8)));
  EXPECT_THAT(Settle(&client), ElementsAre("COMPLETE 1"));
  EXPECT_THAT(Settle(&bystander), ElementsAre("COMPLETE 1"));
  EXPECT_TRUE(client.closed);
  EXPECT_TRUE(bystander.closed);
  EXPECT_EQ(RegisteredKeys(), 0u);
}

// A client that does not read.

class StalledClientTest : public ServerEventStreamTest {
 protected:
  StalledClientTest() {
    // More than a socket takes.
    for (int i = 0; i < 16; ++i) PublishTo(7, std::string(1 << 20, 'x'));
    loop.RunUntilIdle();
  }

  std::optional<RawPeer> stalled = WatchingClient();
};

TEST_F(StalledClientTest, HoldsUpNobodyElse) {
  RawPeer client = WatchingClient();
  PublishTo(7, "tip");
  EXPECT_THAT(Settle(&client), ElementsAre("NEXT 1"));
}

TEST_F(StalledClientTest, VanishesLikeAnyOther) {
  stalled.reset();
  loop.RunUntilIdle();
  EXPECT_EQ(server->connections(), 0u);
  EXPECT_EQ(RegisteredKeys(), 0u);
}

TEST_F(StalledClientTest, DoesNotKeepTheServer) {
  server.reset();
  loop.RunUntilIdle();
  EXPECT_EQ(RegisteredKeys(), 0u);
  stalled->Receive();
  EXPECT_TRUE(stalled->closed);
}

// Large events.

class SmallFramesEventStreamTest : public ServerEventStreamTest {
 protected:
  SmallFramesEventStreamTest()
      : ServerEventStreamTest(
            ServerLimits{.max_frame_bytes = kMinMaxFrameBytes}) {}
};

TEST_F(SmallFramesEventStreamTest,
       AnEventThatFitsNoFrameReachesNobodyAndTheStreamGoesOn) {
  RawPeer client = WatchingClient();
  EXPECT_EQ(PublishTo(7, std::string(kMinMaxFrameBytes, 'x')), 0u);
  EXPECT_EQ(PublishTo(7, "tip"), 1u);
  EXPECT_THAT(Settle(&client), ElementsAre("NEXT 1"));
}

}  // namespace
}  // namespace orvane::testing
