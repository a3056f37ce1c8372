// Callback streams of a real server, as a client sees them frame by frame.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
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

  // A client whose stream 1 serves the dialogs of browser 7.
  RawPeer ServingClient() {
    RawPeer client = ConnectRaw(*server);
    client.Send(OpenFrame(1, kOnCreateWebDialog));
    client.Send(NextFrame(1, Serve(7)));
    EXPECT_THAT(Settle(&client), IsEmpty());
    return client;
  }

  // Makes a call and returns the id with which it arrives.
  std::int64_t AskAndArrive(RawPeer* client, const std::string& question) {
    Ask(7, question);
    EXPECT_THAT(Settle(client), ElementsAre("NEXT 1"));
    return client->frames.empty() ? 0 : client->frames[0].call_id();
  }
};

TEST_F(ServerCallbackStreamTest, EveryCallbackStreamOpensAndServes) {
  RawPeer client = ConnectRaw(*server);
  for (std::uint32_t method = kFirstCallbackStream; method < kMethods;
       ++method) {
    client.Send(OpenFrame(method, method));
  }
  // `subscribe` is field 2 of the first three and field 3 of the others. The
  // browser is the one without a number.
  for (std::uint32_t method = kFirstCallbackStream; method < kMethods;
       ++method) {
    StreamMessage frame = Frame(StreamMessage::KIND_NEXT, method);
    frame.set_payload(method < 49 ? "\x10\x01" : "\x18\x01");
    client.Send(frame);
  }
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_EQ(RegisteredKeys(), 6u);
}

TEST_F(ServerCallbackStreamTest, ACallReachesTheClientThatServesTheBrowser) {
  RawPeer client = ServingClient();
  Ask(7, "name?");
  EXPECT_THAT(Settle(&client), ElementsAre("NEXT 1"));
  rpc::CreateWebDialog call;
  ASSERT_TRUE(call.ParseFromString(client.frames[0].payload()));
  EXPECT_EQ(call.browser_id().value(), 7u);
  EXPECT_EQ(call.call().prompt().message(), "name?");
  EXPECT_NE(client.frames[0].call_id(), 0);
  EXPECT_THAT(ends, IsEmpty());
}

TEST_F(ServerCallbackStreamTest, AnAnswerEndsItsCall) {
  RawPeer client = ServingClient();
  const std::int64_t id = AskAndArrive(&client, "name?");
  client.Send(NextFrame(1, Answer(7, "Ada"), id));
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_THAT(ends, ElementsAre("name? Ada"));
}

TEST_F(ServerCallbackStreamTest, AnswersMayComeInAnyOrder) {
  RawPeer client = ServingClient();
  const std::int64_t first = AskAndArrive(&client, "first");
  const std::int64_t second = AskAndArrive(&client, "second");
  client.Send(NextFrame(1, Answer(7, "b"), second));
  client.Send(NextFrame(1, Answer(7, "a"), first));
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("second b", "first a"));
}

TEST_F(ServerCallbackStreamTest, AnAnswerIsThereBeforeWhatTheClientSendsNext) {
  RawPeer client = ServingClient();
  const std::int64_t first = AskAndArrive(&client, "first");
  const std::int64_t second = AskAndArrive(&client, "second");
  std::vector<std::vector<std::string>> ends_at_shows;
  widget.on_show = [&](std::uint64_t) { ends_at_shows.push_back(ends); };
  StreamMessage error =
      Frame(StreamMessage::KIND_ERROR, 1, About(7).SerializeAsString());
  error.set_call_id(second);
  client.SendBytes(RawPeer::Bytes(NextFrame(1, Answer(7, "a"), first)) +
                   RawPeer::Bytes(CallFrame(2, kShow, 7)) +
                   RawPeer::Bytes(error) +
                   RawPeer::Bytes(CallFrame(3, kShow, 7)));
  EXPECT_THAT(Settle(&client), ElementsAre("REPLY 2", "REPLY 3"));
  EXPECT_THAT(ends_at_shows,
              ElementsAre(ElementsAre("first a"),
                          ElementsAre("first a", "second UNKNOWN")));
}

TEST_F(ServerCallbackStreamTest, ASecondAnswerToOneCallIsIgnored) {
  RawPeer client = ServingClient();
  const std::int64_t id = AskAndArrive(&client, "name?");
  client.Send(NextFrame(1, Answer(7, "Ada"), id));
  client.Send(NextFrame(1, Answer(7, "Bob"), id));
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_THAT(ends, ElementsAre("name? Ada"));
}

TEST_F(ServerCallbackStreamTest, AnAnswerThatNobodyAskedForIsIgnored) {
  RawPeer client = ServingClient();
  const std::int64_t id = AskAndArrive(&client, "name?");
  client.Send(NextFrame(1, Answer(7, "Ada"), id + 1));
  client.Send(NextFrame(1, Answer(8, "Ada"), id));
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_THAT(ends, IsEmpty());
}

TEST_F(ServerCallbackStreamTest, AClientIsToldWhichCallIsGivenUp) {
  RawPeer client = ServingClient();
  CallHandle call = Call<rpc::CreateWebDialog>(About(7).browser_id(), {});
  EXPECT_THAT(Settle(&client), ElementsAre("NEXT 1"));
  const std::int64_t id = client.frames[0].call_id();
  call.Cancel();
  EXPECT_THAT(Settle(&client), ElementsAre("CANCEL 1"));
  EXPECT_EQ(client.frames[0].call_id(), id);
}

TEST_F(ServerCallbackStreamTest, AClientOfTheFirstProtocolIsNotTold) {
  RawPeer client = ConnectRaw(*server, HelloOfProtocol1());
  client.Send(OpenFrame(1, kOnCreateWebDialog));
  client.Send(NextFrame(1, Serve(7)));
  EXPECT_THAT(Settle(&client), IsEmpty());
  CallHandle call = Call<rpc::CreateWebDialog>(About(7).browser_id(), {});
  EXPECT_THAT(Settle(&client), ElementsAre("NEXT 1"));
  call.Cancel();
  EXPECT_THAT(Settle(&client), IsEmpty());
}

TEST_F(ServerCallbackStreamTest, AnErrorFailsItsCallAndTheStreamGoesOn) {
  RawPeer client = ServingClient();
  const std::int64_t id = AskAndArrive(&client, "name?");
  client.Send(ErrorFrame(1, About(7), id));
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_THAT(ends, ElementsAre("name? UNKNOWN"));
  client.Send(NextFrame(1, Answer(7, "Ada"), AskAndArrive(&client, "again?")));
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("name? UNKNOWN", "again? Ada"));
}

TEST_F(ServerCallbackStreamTest, AnErrorThatConcernsNoCallIsIgnored) {
  RawPeer client = ServingClient();
  const std::int64_t id = AskAndArrive(&client, "name?");
  client.Send(Frame(StreamMessage::KIND_ERROR, 1));
  client.Send(ErrorFrame(1, About(7), id + 1));
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_THAT(ends, IsEmpty());
}

TEST_F(ServerCallbackStreamTest, UnsubscribingCancelsTheCallsOfTheBrowser) {
  RawPeer client = ServingClient();
  AskAndArrive(&client, "name?");
  client.Send(NextFrame(1, Serve(7, false)));
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_THAT(ends, ElementsAre("name? CANCELLED"));
  EXPECT_FALSE(IsServed<rpc::CreateWebDialog>(Browser(7)));
}

TEST_F(ServerCallbackStreamTest, CallsAndStreamsAreHandledInTheOrderOfArrival) {
  int calls = 0;
  widget.on_show = [&](std::uint64_t browser) {
    Ask(browser, std::to_string(++calls));
  };
  RawPeer client = ConnectRaw(*server);
  std::string bytes;
  for (const StreamMessage& frame :
       {OpenFrame(1, kOnCreateWebDialog), CallFrame(2, kShow, 7),
        NextFrame(1, Serve(7)), CallFrame(3, kShow, 7),
        NextFrame(1, Serve(7, false)), CallFrame(4, kShow, 7)}) {
    bytes += RawPeer::Bytes(frame);
  }
  client.SendBytes(bytes);
  EXPECT_THAT(Settle(&client),
              ElementsAre("REPLY 2", "NEXT 1", "REPLY 3", "REPLY 4"));
  EXPECT_THAT(
      ends, UnorderedElementsAre("1 NOT_FOUND", "2 CANCELLED", "3 NOT_FOUND"));
}

// The end.

TEST_F(ServerCallbackStreamTest, CompletingIsAnsweredAndLeavesNothingBehind) {
  RawPeer client = ServingClient();
  AskAndArrive(&client, "first");
  AskAndArrive(&client, "second");
  client.Send(CompleteFrame(1));
  EXPECT_THAT(Settle(&client), ElementsAre("COMPLETE 1"));
  EXPECT_THAT(ends, ElementsAre("first CANCELLED", "second CANCELLED"));
  EXPECT_EQ(RegisteredKeys(), 0u);
}

TEST_F(ServerCallbackStreamTest,
       AClientThatVanishesFailsItsCallsAndServesNoMore) {
  std::optional<RawPeer> client = ServingClient();
  AskAndArrive(&*client, "first");
  AskAndArrive(&*client, "second");
  client.reset();
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("first CANCELLED", "second CANCELLED"));
  EXPECT_EQ(RegisteredKeys(), 0u);
  EXPECT_FALSE(IsServed<rpc::CreateWebDialog>(Browser(7)));
}

TEST_F(ServerCallbackStreamTest, ACallToAClientThatHasJustVanishedIsCancelled) {
  std::optional<RawPeer> client = ServingClient();
  client.reset();
  ASSERT_TRUE(IsServed<rpc::CreateWebDialog>(Browser(7)))
      << "its end has been noticed";
  Ask(7, "name?");
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("name? CANCELLED"));
}

TEST_F(ServerCallbackStreamTest, WhatAClientSaidBeforeItVanishedCounts) {
  std::optional<RawPeer> client = ServingClient();
  const std::int64_t id = AskAndArrive(&*client, "name?");
  client->Send(NextFrame(1, Answer(7, "Ada"), id));
  client.reset();
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("name? Ada"));
}

TEST_F(ServerCallbackStreamTest, TheLatestClientToSubscribeServesTheBrowser) {
  RawPeer older = ServingClient();
  RawPeer newer = ServingClient();
  Ask(7, "name?");
  EXPECT_THAT(Settle(&older), IsEmpty());
  EXPECT_THAT(Settle(&newer), ElementsAre("NEXT 1"));
}

TEST_F(ServerCallbackStreamTest,
       AClientThatWasTakenOverFromVanishesWithItsOwnCallsAlone) {
  std::optional<RawPeer> older = ServingClient();
  AskAndArrive(&*older, "older");
  RawPeer newer = ServingClient();
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
  RawPeer client = ServingClient();
  AskAndArrive(&client, "name?");
  server.reset();
  EXPECT_THAT(Settle(&client), ElementsAre("COMPLETE 1"));
  EXPECT_TRUE(client.closed);
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
  RawPeer client = ServingClient();
  Ask(7, std::string(kMinMaxFrameBytes, 'x'));
  AskAndArrive(&client, "name?");
  EXPECT_THAT(ends, ElementsAre(EndsWith(" RESOURCE_EXHAUSTED")));
}

}  // namespace
}  // namespace orvane::testing
