// Callback streams of a real server, as a host sees them frame by frame.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"

namespace orvane::testing {
namespace {

using ::rpc::transport::StreamMessage;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class ServerCallbackStreamTest : public StreamFixture {
 protected:
  using StreamFixture::StreamFixture;

  // A host whose stream 1 serves the dialogs of browser 7.
  RawPeer ServingHost() {
    RawPeer host = ConnectRaw(*server);
    host.Send(OpenFrame(1, kOnCreateWebDialog));
    host.Send(NextFrame(1, Serve(7)));
    EXPECT_THAT(Settle(&host), IsEmpty());
    return host;
  }

  // Calls, and returns the id with which the call has arrived.
  std::int64_t AskAndArrive(RawPeer* host, const std::string& question) {
    Ask(7, question);
    EXPECT_THAT(Settle(host), ElementsAre("NEXT 1"));
    return host->frames.empty() ? 0 : host->frames[0].call_id();
  }
};

TEST_F(ServerCallbackStreamTest, EveryCallbackStreamOpensAndServes) {
  RawPeer host = ConnectRaw(*server);
  for (std::uint32_t method = kFirstCallbackStream; method < kMethods;
       ++method) {
    host.Send(OpenFrame(method, method));
  }
  // `subscribe` is field 2 of the first three and field 3 of the others. The
  // browser is the one without a number.
  for (std::uint32_t method = kFirstCallbackStream; method < kMethods;
       ++method) {
    StreamMessage frame = Frame(StreamMessage::KIND_NEXT, method);
    frame.set_payload(method < 49 ? "\x10\x01" : "\x18\x01");
    host.Send(frame);
  }
  EXPECT_THAT(Settle(&host), IsEmpty());
  EXPECT_EQ(RegisteredKeys(), 6u);
}

TEST_F(ServerCallbackStreamTest, ACallReachesTheHostThatServesTheBrowser) {
  RawPeer host = ServingHost();
  Ask(7, "name?");
  EXPECT_THAT(Settle(&host), ElementsAre("NEXT 1"));
  rpc::CreateWebDialog call;
  ASSERT_TRUE(call.ParseFromString(host.frames[0].payload()));
  EXPECT_EQ(call.browser_id().value(), 7u);
  EXPECT_EQ(call.call().prompt().message(), "name?");
  EXPECT_NE(host.frames[0].call_id(), 0);
  EXPECT_THAT(ends, IsEmpty());
}

TEST_F(ServerCallbackStreamTest, AnAnswerEndsItsCall) {
  RawPeer host = ServingHost();
  const std::int64_t id = AskAndArrive(&host, "name?");
  host.Send(NextFrame(1, Answer(7, "Ada"), id));
  EXPECT_THAT(Settle(&host), IsEmpty());
  EXPECT_THAT(ends, ElementsAre("name? Ada"));
}

TEST_F(ServerCallbackStreamTest, AnswersMayComeInAnyOrder) {
  RawPeer host = ServingHost();
  const std::int64_t first = AskAndArrive(&host, "first");
  const std::int64_t second = AskAndArrive(&host, "second");
  host.Send(NextFrame(1, Answer(7, "b"), second));
  host.Send(NextFrame(1, Answer(7, "a"), first));
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("second b", "first a"));
}

TEST_F(ServerCallbackStreamTest, ASecondAnswerToOneCallIsIgnored) {
  RawPeer host = ServingHost();
  const std::int64_t id = AskAndArrive(&host, "name?");
  host.Send(NextFrame(1, Answer(7, "Ada"), id));
  host.Send(NextFrame(1, Answer(7, "Bob"), id));
  EXPECT_THAT(Settle(&host), IsEmpty());
  EXPECT_THAT(ends, ElementsAre("name? Ada"));
}

TEST_F(ServerCallbackStreamTest, AnAnswerThatNobodyAskedForIsIgnored) {
  RawPeer host = ServingHost();
  const std::int64_t id = AskAndArrive(&host, "name?");
  host.Send(NextFrame(1, Answer(7, "Ada"), id + 1));
  host.Send(NextFrame(1, Answer(8, "Ada"), id));
  EXPECT_THAT(Settle(&host), IsEmpty());
  EXPECT_THAT(ends, IsEmpty());
}

TEST_F(ServerCallbackStreamTest, AnErrorFailsItsCallAndTheStreamGoesOn) {
  RawPeer host = ServingHost();
  const std::int64_t id = AskAndArrive(&host, "name?");
  host.Send(ErrorFrame(1, About(7), id));
  EXPECT_THAT(Settle(&host), IsEmpty());
  EXPECT_THAT(ends, ElementsAre("name? UNKNOWN"));
  host.Send(NextFrame(1, Answer(7, "Ada"), AskAndArrive(&host, "again?")));
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("name? UNKNOWN", "again? Ada"));
}

TEST_F(ServerCallbackStreamTest, AnErrorThatConcernsNoCallIsIgnored) {
  RawPeer host = ServingHost();
  const std::int64_t id = AskAndArrive(&host, "name?");
  host.Send(Frame(StreamMessage::KIND_ERROR, 1));
  host.Send(ErrorFrame(1, About(7), id + 1));
  EXPECT_THAT(Settle(&host), IsEmpty());
  EXPECT_THAT(ends, IsEmpty());
}

TEST_F(ServerCallbackStreamTest, UnsubscribingCancelsTheCallsOfTheBrowser) {
  RawPeer host = ServingHost();
  AskAndArrive(&host, "name?");
  host.Send(NextFrame(1, Serve(7, false)));
  EXPECT_THAT(Settle(&host), IsEmpty());
  EXPECT_THAT(ends, ElementsAre("name? CANCELLED"));
  EXPECT_FALSE(IsServed<rpc::CreateWebDialog>(Browser(7)));
}

TEST_F(ServerCallbackStreamTest, CallsAndStreamsAreHandledInTheOrderOfArrival) {
  int calls = 0;
  widget.on_show = [&](std::uint64_t browser) {
    Ask(browser, std::to_string(++calls));
  };
  RawPeer host = ConnectRaw(*server);
  std::string bytes;
  for (const StreamMessage& frame :
       {OpenFrame(1, kOnCreateWebDialog), CallFrame(2, kShow, 7),
        NextFrame(1, Serve(7)), CallFrame(3, kShow, 7),
        NextFrame(1, Serve(7, false)), CallFrame(4, kShow, 7)}) {
    bytes += RawPeer::Bytes(frame);
  }
  host.SendBytes(bytes);
  EXPECT_THAT(Settle(&host),
              ElementsAre("REPLY 2", "NEXT 1", "REPLY 3", "REPLY 4"));
  EXPECT_THAT(
      ends, UnorderedElementsAre("1 NOT_FOUND", "2 CANCELLED", "3 NOT_FOUND"));
}

// The end.

TEST_F(ServerCallbackStreamTest, CompletingIsAnsweredAndLeavesNothingBehind) {
  RawPeer host = ServingHost();
  AskAndArrive(&host, "first");
  AskAndArrive(&host, "second");
  host.Send(CompleteFrame(1));
  EXPECT_THAT(Settle(&host), ElementsAre("COMPLETE 1"));
  EXPECT_THAT(ends, ElementsAre("first CANCELLED", "second CANCELLED"));
  EXPECT_EQ(RegisteredKeys(), 0u);
}

TEST_F(ServerCallbackStreamTest,
       AHostThatVanishesFailsItsCallsAndServesNoMore) {
  std::optional<RawPeer> host = ServingHost();
  AskAndArrive(&*host, "first");
  AskAndArrive(&*host, "second");
  host.reset();
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("first CANCELLED", "second CANCELLED"));
  EXPECT_EQ(RegisteredKeys(), 0u);
  EXPECT_FALSE(IsServed<rpc::CreateWebDialog>(Browser(7)));
}

TEST_F(ServerCallbackStreamTest, ACallToAHostThatHasJustVanishedIsCancelled) {
  std::optional<RawPeer> host = ServingHost();
  host.reset();
  ASSERT_TRUE(IsServed<rpc::CreateWebDialog>(Browser(7)))
      << "its end has been noticed";
  Ask(7, "name?");
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("name? CANCELLED"));
}

TEST_F(ServerCallbackStreamTest, WhatAHostSaidBeforeItVanishedCounts) {
  std::optional<RawPeer> host = ServingHost();
  const std::int64_t id = AskAndArrive(&*host, "name?");
  host->Send(NextFrame(1, Answer(7, "Ada"), id));
  host.reset();
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("name? Ada"));
}

TEST_F(ServerCallbackStreamTest, TheLatestHostToSubscribeServesTheBrowser) {
  RawPeer older = ServingHost();
  RawPeer newer = ServingHost();
  Ask(7, "name?");
  EXPECT_THAT(Settle(&older), IsEmpty());
  EXPECT_THAT(Settle(&newer), ElementsAre("NEXT 1"));
}

TEST_F(ServerCallbackStreamTest,
       AHostThatWasTakenOverFromVanishesWithItsOwnCallsAlone) {
  std::optional<RawPeer> older = ServingHost();
  AskAndArrive(&*older, "older");
  RawPeer newer = ServingHost();
  const std::int64_t id = AskAndArrive(&newer, "newer");
  older.reset();
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("older CANCELLED"));
  newer.Send(NextFrame(1, Answer(7, "Ada"), id));
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("older CANCELLED", "newer Ada"));
  AskAndArrive(&newer, "still there?");
}

TEST_F(ServerCallbackStreamTest, TheServersEndCancelsWhatWaits) {
  RawPeer host = ServingHost();
  AskAndArrive(&host, "name?");
  server.reset();
  EXPECT_THAT(Settle(&host), ElementsAre("COMPLETE 1"));
  EXPECT_TRUE(host.closed);
  EXPECT_THAT(ends, ElementsAre("name? CANCELLED"));
  EXPECT_EQ(RegisteredKeys(), 0u);
}

class SmallFramesCallbackStreamTest : public ServerCallbackStreamTest {
 protected:
  SmallFramesCallbackStreamTest()
      : ServerCallbackStreamTest(
            ServerLimits{.max_frame_bytes = kMinMaxFrameBytes}) {}
};

TEST_F(SmallFramesCallbackStreamTest,
       ACallThatFitsNoFrameFailsAndTheStreamGoesOn) {
  RawPeer host = ServingHost();
  Ask(7, std::string(kMinMaxFrameBytes, 'x'));
  AskAndArrive(&host, "name?");
  EXPECT_THAT(ends, ElementsAre(EndsWith(" RESOURCE_EXHAUSTED")));
}

}  // namespace
}  // namespace orvane::testing
