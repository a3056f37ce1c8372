// Event streams of a real server, as a host sees them frame by frame.

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

  // A host whose stream 1 is subscribed to tooltips of browser 7.
  RawPeer WatchingHost() {
    RawPeer host = ConnectRaw(*server);
    host.Send(OpenFrame(1, kWhenTooltipChanged));
    host.Send(NextFrame(1, Subscribe(7)));
    EXPECT_THAT(Settle(&host), IsEmpty());
    return host;
  }

  static std::size_t PublishTo(std::uint64_t browser, const std::string& text) {
    return Publish(Browser(browser), Tooltip(text));
  }
};

TEST_F(ServerEventStreamTest, OpeningIsNotAnsweredAndSubscribesToNothing) {
  RawPeer host = ConnectRaw(*server);
  host.Send(OpenFrame(1, kWhenTooltipChanged));
  EXPECT_THAT(Settle(&host), IsEmpty());
  EXPECT_FALSE(host.closed);
  EXPECT_EQ(RegisteredKeys(), 0u);
}

TEST_F(ServerEventStreamTest, EveryEventStreamOpensAndSubscribes) {
  RawPeer host = ConnectRaw(*server);
  for (std::uint32_t method = kFirstStream; method < kFirstCallbackStream;
       ++method) {
    host.Send(OpenFrame(method, method));
    host.Send(NextFrame(method, Subscribe(7)));
  }
  EXPECT_THAT(Settle(&host), IsEmpty());
  EXPECT_EQ(RegisteredKeys(), 6u);
}

TEST_F(ServerEventStreamTest, AnEventReachesTheHostThatSubscribed) {
  RawPeer host = WatchingHost();
  EXPECT_EQ(PublishTo(7, "tip"), 1u);
  EXPECT_THAT(Settle(&host), ElementsAre("NEXT 1"));
  EXPECT_EQ(host.frames[0].payload(), Tooltip("tip").SerializeAsString());
  EXPECT_EQ(host.frames[0].call_id(), 0);
}

TEST_F(ServerEventStreamTest, AnotherBrowsersEventReachesNobody) {
  RawPeer host = WatchingHost();
  EXPECT_EQ(PublishTo(8, "tip"), 0u);
  EXPECT_THAT(Settle(&host), IsEmpty());
}

TEST_F(ServerEventStreamTest, AfterUnsubscribingNothingComes) {
  RawPeer host = WatchingHost();
  host.Send(NextFrame(1, Unsubscribe(7)));
  loop.RunUntilIdle();
  EXPECT_EQ(PublishTo(7, "tip"), 0u);
  EXPECT_THAT(Settle(&host), IsEmpty());
  EXPECT_EQ(RegisteredKeys(), 0u);
}

TEST_F(ServerEventStreamTest, TwoStreamsOfOneHostBothHear) {
  RawPeer host = WatchingHost();
  host.Send(OpenFrame(2, kWhenTooltipChanged));
  host.Send(NextFrame(2, Subscribe(7)));
  loop.RunUntilIdle();
  EXPECT_EQ(PublishTo(7, "tip"), 2u);
  EXPECT_THAT(Settle(&host),
              ::testing::UnorderedElementsAre("NEXT 1", "NEXT 2"));
}

TEST_F(ServerEventStreamTest, EventsArriveInTheOrderOfPublishing) {
  RawPeer host = WatchingHost();
  std::vector<std::string> sent;
  for (int i = 0; i < 300; ++i) {
    sent.push_back(Tooltip(std::to_string(i)).SerializeAsString());
    PublishTo(7, std::to_string(i));
  }
  Settle(&host);
  std::vector<std::string> received;
  for (const StreamMessage& frame : host.frames)
    received.push_back(frame.payload());
  EXPECT_EQ(received, sent);
}

TEST_F(ServerEventStreamTest, CallsAndStreamsAreHandledInTheOrderOfArrival) {
  std::vector<std::size_t> reached;
  widget.on_show = [&](std::uint64_t browser) {
    reached.push_back(PublishTo(browser, "shown"));
  };
  RawPeer host = ConnectRaw(*server);
  std::string bytes;
  for (const StreamMessage& frame :
       {CallFrame(1, kShow, 7), OpenFrame(2, kWhenTooltipChanged),
        CallFrame(3, kShow, 7), NextFrame(2, Subscribe(7)),
        CallFrame(4, kShow, 7), NextFrame(2, Unsubscribe(7)),
        CallFrame(5, kShow, 7), NextFrame(2, Subscribe(7)),
        CallFrame(6, kShow, 7), CompleteFrame(2), CallFrame(7, kShow, 7)}) {
    bytes += RawPeer::Bytes(frame);
  }
  host.SendBytes(bytes);
  EXPECT_THAT(Settle(&host),
              ElementsAre("REPLY 1", "REPLY 3", "NEXT 2", "REPLY 4", "REPLY 5",
                          "NEXT 2", "REPLY 6", "COMPLETE 2", "REPLY 7"));
  EXPECT_THAT(reached, ElementsAre(0, 0, 1, 0, 1, 0));
}

// The end, by the host.

TEST_F(ServerEventStreamTest, CompletingIsAnsweredAndLeavesNothingBehind) {
  RawPeer host = WatchingHost();
  host.Send(NextFrame(1, Subscribe(8)));
  host.Send(CompleteFrame(1));
  EXPECT_THAT(Settle(&host), ElementsAre("COMPLETE 1"));
  EXPECT_EQ(RegisteredKeys(), 0u);
  EXPECT_EQ(PublishTo(7, "tip"), 0u);
}

TEST_F(ServerEventStreamTest, AfterAStreamTheConnectionGoesOn) {
  RawPeer host = WatchingHost();
  host.Send(CompleteFrame(1));
  host.Send(OpenFrame(2, kWhenTooltipChanged));
  host.Send(NextFrame(2, Subscribe(7)));
  EXPECT_THAT(Settle(&host), ElementsAre("COMPLETE 1"));
  PublishTo(7, "tip");
  EXPECT_THAT(Settle(&host), ElementsAre("NEXT 2"));
}

TEST_F(ServerEventStreamTest, AStreamThatSharedItsKeyLeavesItWhenItCompletes) {
  RawPeer stays = WatchingHost();
  RawPeer leaves = WatchingHost();
  leaves.Send(CompleteFrame(1));
  EXPECT_THAT(Settle(&leaves), ElementsAre("COMPLETE 1"));
  EXPECT_EQ(ListedForTooltips(7), 1u);
  EXPECT_EQ(PublishTo(7, "tip"), 1u);
  EXPECT_THAT(Settle(&stays), ElementsAre("NEXT 1"));
  EXPECT_THAT(Settle(&leaves), IsEmpty());
}

TEST_F(ServerEventStreamTest, AHostThatVanishesLeavesNothingBehind) {
  std::optional<RawPeer> host = WatchingHost();
  host->Send(NextFrame(1, Subscribe(8)));
  host->Send(OpenFrame(2, kFirstStream));
  host->Send(NextFrame(2, Subscribe(7)));
  loop.RunUntilIdle();
  EXPECT_EQ(RegisteredKeys(), 3u);
  host.reset();
  loop.RunUntilIdle();
  EXPECT_EQ(RegisteredKeys(), 0u);
  EXPECT_EQ(server->connections(), 0u);
}

TEST_F(ServerEventStreamTest, AHostThatVanishesLeavesTheKeysThatItShared) {
  RawPeer stays = WatchingHost();
  std::optional<RawPeer> vanishes = WatchingHost();
  EXPECT_EQ(ListedForTooltips(7), 2u);
  vanishes.reset();
  loop.RunUntilIdle();
  EXPECT_EQ(ListedForTooltips(7), 1u);
  EXPECT_EQ(PublishTo(7, "tip"), 1u);
  EXPECT_THAT(Settle(&stays), ElementsAre("NEXT 1"));
}

TEST_F(ServerEventStreamTest,
       AStreamLeavesTheKeysThatItSharesWithAnotherOfTheSameHost) {
  RawPeer host = WatchingHost();
  host.Send(OpenFrame(2, kWhenTooltipChanged));
  host.Send(NextFrame(2, Subscribe(7)));
  host.Send(CompleteFrame(1));
  EXPECT_THAT(Settle(&host), ElementsAre("COMPLETE 1"));
  EXPECT_EQ(ListedForTooltips(7), 1u);
}

TEST_F(ServerEventStreamTest, WhatWasPublishedToAHostThatVanishedIsNoError) {
  RawPeer stays = WatchingHost();
  std::optional<RawPeer> vanishes = WatchingHost();
  vanishes.reset();
  // Its end has not been noticed, so both are told.
  EXPECT_EQ(PublishTo(7, "tip"), 2u);
  EXPECT_THAT(Settle(&stays), ElementsAre("NEXT 1"));
  EXPECT_EQ(server->connections(), 1u);
}

// The end, by the widget.

TEST_F(ServerEventStreamTest, TheServersEndCompletesStreamsInOrderOfOpening) {
  RawPeer host = ConnectRaw(*server);
  for (const std::uint64_t id : {3, 14, 15, 92, 653})
    host.Send(OpenFrame(id, kWhenTooltipChanged));
  host.Send(NextFrame(92, Subscribe(7)));
  loop.RunUntilIdle();
  server.reset();
  EXPECT_EQ(RegisteredKeys(), 0u);
  EXPECT_THAT(Settle(&host),
              ElementsAre("COMPLETE 3", "COMPLETE 14", "COMPLETE 15",
                          "COMPLETE 92", "COMPLETE 653"));
  EXPECT_TRUE(host.closed);
}

TEST_F(ServerEventStreamTest, WhatWasPublishedBeforeTheServersEndStillArrives) {
  RawPeer host = WatchingHost();
  PublishTo(7, "last words");
  server.reset();
  EXPECT_THAT(Settle(&host), ElementsAre("NEXT 1", "COMPLETE 1"));
}

TEST_F(ServerEventStreamTest, AHandlerMayDestroyTheServerWhileStreamsAreOpen) {
  RawPeer bystander = WatchingHost();
  RawPeer host = WatchingHost();
  widget.on_show = [this](std::uint64_t) { server.reset(); };
  host.Send(CallFrame(2, kShow));
  host.Send(NextFrame(1, Subscribe(8)));
  EXPECT_THAT(Settle(&host), ElementsAre("COMPLETE 1"));
  EXPECT_THAT(Settle(&bystander), ElementsAre("COMPLETE 1"));
  EXPECT_TRUE(host.closed);
  EXPECT_TRUE(bystander.closed);
  EXPECT_EQ(RegisteredKeys(), 0u);
}

// A host that does not read.

class StalledHostTest : public ServerEventStreamTest {
 protected:
  StalledHostTest() {
    // More than a socket takes.
    for (int i = 0; i < 16; ++i) PublishTo(7, std::string(1 << 20, 'x'));
    loop.RunUntilIdle();
  }

  std::optional<RawPeer> stalled = WatchingHost();
};

TEST_F(StalledHostTest, HoldsUpNobodyElse) {
  RawPeer host = WatchingHost();
  PublishTo(7, "tip");
  EXPECT_THAT(Settle(&host), ElementsAre("NEXT 1"));
}

TEST_F(StalledHostTest, VanishesLikeAnyOther) {
  stalled.reset();
  loop.RunUntilIdle();
  EXPECT_EQ(server->connections(), 0u);
  EXPECT_EQ(RegisteredKeys(), 0u);
}

TEST_F(StalledHostTest, DoesNotKeepTheServer) {
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
  RawPeer host = WatchingHost();
  EXPECT_EQ(PublishTo(7, std::string(kMinMaxFrameBytes, 'x')), 0u);
  EXPECT_EQ(PublishTo(7, "tip"), 1u);
  EXPECT_THAT(Settle(&host), ElementsAre("NEXT 1"));
}

}  // namespace
}  // namespace orvane::testing
