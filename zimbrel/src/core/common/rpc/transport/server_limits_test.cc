// Each limit on what a client may use: one below it, at it, and one above it.

#include "zimbrel/src/core/common/rpc/transport/server_limits.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/testing/frames.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"

namespace orvane::testing {
namespace {

using rpc::transport::StreamMessage;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class ServerLimitsTest : public StreamFixture {
 protected:
  ServerLimitsTest() = default;
  explicit ServerLimitsTest(const ServerLimits& limits)
      : StreamFixture(limits) {}

  // A client on another connection is served as before.
  void ExpectOthersAreServed() {
    RawPeer other = ConnectRaw(*server);
    other.Send(CallFrame(1, kShow));
    EXPECT_THAT(Settle(&other), ElementsAre("REPLY 1"));
  }
};

// Calls ----------------------------------------------------------------------

class CallLimit : public ServerLimitsTest {
 protected:
  CallLimit() : ServerLimitsTest(ServerLimits{.max_calls = 2}) {}
  ~CallLimit() override {
    for (const auto& call : std::exchange(widget.held, {})) call.done->Run();
  }
};

TEST_F(CallLimit, AsManyAsItMayWait) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, kHide));
  client.Send(CallFrame(2, kHide));
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_EQ(widget.held.size(), 2u);
}

TEST_F(CallLimit, OneMoreFailsAlone) {
  RawPeer client = ConnectRaw(*server);
  for (const std::uint64_t id : {1, 2, 3}) client.Send(CallFrame(id, kHide));
  EXPECT_THAT(
      Settle(&client),
      ElementsAre("ERROR 3 RESOURCE_EXHAUSTED: 2 calls in progress; the "
                  "limit is 2"));
  EXPECT_EQ(widget.held.size(), 2u);
  ExpectOthersAreServed();
}

TEST_F(CallLimit, AnAnswerMakesRoom) {
  RawPeer client = ConnectRaw(*server);
  for (const std::uint64_t id : {1, 2}) client.Send(CallFrame(id, kHide));
  Settle(&client);
  widget.held.back().done->Run();
  widget.held.pop_back();
  client.Send(CallFrame(3, kHide));
  EXPECT_THAT(Settle(&client), ElementsAre("REPLY 2"));
  EXPECT_EQ(widget.held.size(), 2u);
}

// Streams --------------------------------------------------------------------

class StreamLimit : public ServerLimitsTest {
 protected:
  StreamLimit() : ServerLimitsTest(ServerLimits{.max_streams = 2}) {}
};

TEST_F(StreamLimit, AsManyAsItMayBeOpen) {
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kWhenTooltipChanged));
  client.Send(OpenFrame(2, kOnCreateWebDialog));
  EXPECT_THAT(Settle(&client), IsEmpty());
}

TEST_F(StreamLimit, OneMoreIsRefusedAlone) {
  RawPeer client = ConnectRaw(*server);
  for (const std::uint64_t id : {1, 2, 3})
    client.Send(OpenFrame(id, kWhenTooltipChanged));
  client.Send(NextFrame(1, Subscribe(7)));
  EXPECT_THAT(
      Settle(&client),
      ElementsAre(
          "ERROR 3 RESOURCE_EXHAUSTED: 2 streams open; the limit is 2"));
  EXPECT_EQ(ListedForTooltips(7), 1u);
  ExpectOthersAreServed();
}

TEST_F(StreamLimit, AnEndMakesRoom) {
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kWhenTooltipChanged));
  client.Send(OpenFrame(2, kWhenTooltipChanged));
  client.Send(CompleteFrame(1));
  client.Send(OpenFrame(3, kWhenTooltipChanged));
  EXPECT_THAT(Settle(&client), ElementsAre("COMPLETE 1"));
}

// Subscriptions --------------------------------------------------------------

class SubscriptionLimit : public ServerLimitsTest {
 protected:
  SubscriptionLimit()
      : ServerLimitsTest(ServerLimits{.max_subscriptions = 3}) {}
};

TEST_F(SubscriptionLimit, AsManyAsItMayStandOnAllStreamsTogether) {
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kWhenTooltipChanged));
  client.Send(OpenFrame(2, kWhenTooltipChanged));
  client.Send(NextFrame(1, Subscribe(1)));
  client.Send(NextFrame(1, Subscribe(2)));
  client.Send(NextFrame(2, Subscribe(1)));
  // Subscribing to the same key again does not count.
  client.Send(NextFrame(2, Subscribe(1)));
  EXPECT_THAT(Settle(&client), IsEmpty());
}

TEST_F(SubscriptionLimit, OneMoreEndsItsStreamAlone) {
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kWhenTooltipChanged));
  client.Send(OpenFrame(2, kWhenTooltipChanged));
  for (const std::uint64_t browser : {1, 2, 3})
    client.Send(NextFrame(1, Subscribe(browser)));
  client.Send(NextFrame(2, Subscribe(4)));
  EXPECT_THAT(
      Settle(&client),
      ElementsAre("ERROR 2 RESOURCE_EXHAUSTED: 3 subscriptions; the limit "
                  "is 3",
                  "COMPLETE 2"));
  EXPECT_EQ(ListedForTooltips(3), 1u);
  EXPECT_EQ(ListedForTooltips(4), 0u);
  ExpectOthersAreServed();
}

TEST_F(SubscriptionLimit, UnsubscribingAndEndingMakeRoom) {
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kWhenTooltipChanged));
  client.Send(OpenFrame(2, kWhenTooltipChanged));
  client.Send(NextFrame(1, Subscribe(1)));
  client.Send(NextFrame(2, Subscribe(2)));
  client.Send(NextFrame(2, Subscribe(3)));
  client.Send(NextFrame(1, Unsubscribe(1)));
  client.Send(NextFrame(1, Subscribe(4)));
  client.Send(CompleteFrame(2));
  client.Send(NextFrame(1, Subscribe(5)));
  client.Send(NextFrame(1, Subscribe(6)));
  EXPECT_THAT(Settle(&client), ElementsAre("COMPLETE 2"));
}

// Connections ----------------------------------------------------------------

class ConnectionLimit : public ServerLimitsTest {
 protected:
  ConnectionLimit() : ServerLimitsTest(ServerLimits{.max_connections = 2}) {}
};

TEST_F(ConnectionLimit, AsManyAsItAreServed) {
  RawPeer first = ConnectRaw(*server);
  RawPeer second = ConnectRaw(*server);
  second.Send(CallFrame(1, kShow));
  EXPECT_THAT(Settle(&second), ElementsAre("REPLY 1"));
}

TEST_F(ConnectionLimit, OneMoreIsToldAndClosed) {
  RawPeer first = ConnectRaw(*server);
  RawPeer second = ConnectRaw(*server);
  auto pair = ConnectedPair();
  ASSERT_TRUE(pair.ok()) << pair.status();
  EXPECT_TRUE(absl::IsResourceExhausted(server->Adopt(pair->first.Release())));
  RawPeer third(std::move(pair->second));
  EXPECT_THAT(
      Settle(&third),
      ElementsAre("ERROR 0 RESOURCE_EXHAUSTED: 2 clients are connected; "
                  "the limit is 2"));
  EXPECT_TRUE(third.closed);
  first.Send(CallFrame(1, kShow));
  EXPECT_THAT(Settle(&first), ElementsAre("REPLY 1"));
}

TEST_F(ConnectionLimit, AClientThatLeavesMakesRoom) {
  RawPeer first = ConnectRaw(*server);
  { RawPeer second = ConnectRaw(*server); }
  loop.RunUntilIdle();
  RawPeer third = ConnectRaw(*server);
  third.Send(CallFrame(1, kShow));
  EXPECT_THAT(Settle(&third), ElementsAre("REPLY 1"));
}

// Nesting --------------------------------------------------------------------

// A BrowserId with unknown groups in it, nested `depth` levels deep.
std::string Nested(int depth) {
  // The tags of field 15: a group starts, and ends.
  return std::string(depth, '\x7b') + std::string(depth, '\x7c');
}

StreamMessage NestedCall(std::uint64_t id, int depth) {
  StreamMessage frame = CallFrame(id, kShow);
  frame.set_payload(Nested(depth));
  return frame;
}

class DepthLimit : public ServerLimitsTest {
 protected:
  DepthLimit() : ServerLimitsTest(ServerLimits{.max_message_depth = 10}) {}
};

TEST_F(DepthLimit, MessagesMayBeNestedAsDeepAsItAndNotDeeper) {
  RawPeer client = ConnectRaw(*server);
  for (const int depth : {9, 10, 11})
    client.Send(NestedCall(static_cast<std::uint64_t>(depth), depth));
  EXPECT_THAT(Settle(&client),
              ElementsAre("REPLY 9", "REPLY 10",
                          "ERROR 11 INVALID_ARGUMENT: the request cannot be "
                          "parsed as BrowserId (malformed, or nested deeper "
                          "than 10 levels)"));
  ExpectOthersAreServed();
}

TEST_F(DepthLimit, HoldsOnStreamsToo) {
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kWhenTooltipChanged));
  client.Send(Frame(StreamMessage::KIND_NEXT, 1, Nested(11)));
  client.Send(OpenFrame(2, kOnCreateWebDialog));
  client.Send(Frame(StreamMessage::KIND_NEXT, 2, Nested(11)));
  EXPECT_THAT(
      Settle(&client),
      ElementsAre(
          "ERROR 1 INVALID_ARGUMENT: the payload cannot be "
          "parsed as rpc.EventSubscription (malformed, or nested deeper "
          "than 10 levels)",
          "COMPLETE 1",
          "ERROR 2 INVALID_ARGUMENT: the payload cannot be "
          "parsed as rpc.CreateWebDialog (malformed, or nested deeper "
          "than 10 levels)",
          "COMPLETE 2"));
}

class BoundlessDepth : public ServerLimitsTest {
 protected:
  BoundlessDepth()
      : ServerLimitsTest(ServerLimits{.max_message_depth = 1000000}) {}
};

TEST_F(BoundlessDepth, StaysWithinWhatStreamsCanRead) {
  RawPeer client = ConnectRaw(*server);
  for (const int depth : {99, 100, 101})
    client.Send(NestedCall(static_cast<std::uint64_t>(depth), depth));
  EXPECT_THAT(Settle(&client),
              ElementsAre("REPLY 99", "REPLY 100",
                          StartsWith("ERROR 101 INVALID_ARGUMENT")));
}

// Time -----------------------------------------------------------------------

class FrameTimeLimit : public ServerLimitsTest {
 protected:
  FrameTimeLimit()
      : ServerLimitsTest(
            ServerLimits{.max_frame_time = absl::Milliseconds(20)}) {}
};

TEST_F(FrameTimeLimit, AFrameThatIsNotFinishedInTimeEndsTheConnection) {
  RawPeer client = ConnectRaw(*server);
  client.SendBytes(RawPeer::Bytes(CallFrame(1, kShow)).substr(0, 5));
  loop.RunUntil([&] { return server->connections() == 0; });
  EXPECT_THAT(
      Settle(&client),
      ElementsAre("ERROR 0 DEADLINE_EXCEEDED: frame not finished within "
                  "20ms; 5 bytes of it have arrived"));
  EXPECT_TRUE(client.closed);
  EXPECT_EQ(server->counters().refused, 1u);
  ExpectOthersAreServed();
}

TEST_F(FrameTimeLimit, TheTimeBetweenFramesDoesNotCount) {
  RawPeer client = ConnectRaw(*server);
  bool passed = false;
  // The first frame's time would be up shortly after the second has begun.
  const std::string bytes = RawPeer::Bytes(CallFrame(1, kShow));
  client.SendBytes(bytes.substr(0, 5));
  loop.RunUntilIdle();
  client.SendBytes(bytes.substr(5));
  const auto later = loop.RunAfter(absl::Milliseconds(30), [&] {
    client.SendBytes(RawPeer::Bytes(CallFrame(2, kShow)).substr(0, 5));
    passed = true;
  });
  loop.RunUntil([&] { return passed; });
  client.SendBytes(RawPeer::Bytes(CallFrame(2, kShow)).substr(5));
  EXPECT_THAT(Settle(&client), ElementsAre("REPLY 1", "REPLY 2"));
}

}  // namespace
}  // namespace orvane::testing
