#include "zimbrel/src/core/common/rpc/transport/client_stream.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "gmock/gmock.h"
#include "google/protobuf/empty.pb.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/testing/client_stream_fixture.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using ClientStreamTest = ClientStreamFixture;

TEST_F(ClientStreamTest, OpeningTellsTheServerTheMethod) {
  Open();
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1"));
  EXPECT_EQ(server->frames[0].method(), kWhenTooltipChanged);
}

TEST_F(ClientStreamTest, CallsAndStreamsShareTheirNumbers) {
  Open();
  const auto second = client->OpenStream(Method(kOnCreateWebDialog), {});
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1", "OPEN 2"));
}

TEST_F(ClientStreamTest, WhatIsSentCarriesTheMessageAndTheCallsId) {
  Open();
  EXPECT_TRUE(stream->sender()->Next(Answer(7, "Ada"), 99).ok());
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1", "NEXT 1"));
  EXPECT_EQ(server->frames[1].payload(), Answer(7, "Ada").SerializeAsString());
  EXPECT_EQ(server->frames[1].call_id(), 99);
}

TEST_F(ClientStreamTest, AFailedCallCarriesTheMessageTheIdAndWords) {
  Open();
  EXPECT_TRUE(stream->sender()->Error(About(7), 99, "no dialogs here").ok());
  EXPECT_THAT(Settle(),
              ElementsAre("OPEN 1", "ERROR 1 UNKNOWN: no dialogs here"));
  EXPECT_EQ(server->frames[1].payload(), About(7).SerializeAsString());
  EXPECT_EQ(server->frames[1].call_id(), 99);
}

TEST_F(ClientStreamTest, WhatFitsNoFrameIsRefusedAndTheStreamGoesOn) {
  Open();
  EXPECT_TRUE(absl::IsResourceExhausted(stream->sender()->Next(
      Answer(7, std::string(kDefaultMaxFrameBytes, 'x')), 1)));
  EXPECT_TRUE(stream->sender()->Next(Answer(7, "Ada"), 1).ok());
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1", "NEXT 1"));
}

TEST_F(ClientStreamTest, EventsArriveInOrder) {
  Open();
  SayAtOnce({Event("a"), Event("b"), Event("c")});
  loop.RunUntilIdle();
  EXPECT_THAT(told, ElementsAre("next a", "next b", "next c"));
}

TEST_F(ClientStreamTest, EachStreamGetsItsOwnEvents) {
  Open();
  std::vector<std::string> others;
  const auto other =
      client->OpenStream(Method(kWhenTooltipChanged),
                         {[&](std::string_view payload, std::int64_t) {
                            others.emplace_back(payload);
                            return absl::OkStatus();
                          },
                          nullptr});
  SayAtOnce({Event("for the second", 2), Event("for the first", 1)});
  loop.RunUntilIdle();
  EXPECT_THAT(told, ElementsAre("next for the first"));
  EXPECT_THAT(others, ElementsAre("for the second"));
}

TEST_F(ClientStreamTest, AnEventOnAStreamThatIsNotThereIsIgnored) {
  Open();
  SayAtOnce({Event("a", 12), CompleteFrame(12), Event("b")});
  loop.RunUntilIdle();
  EXPECT_THAT(told, ElementsAre("next b"));
  EXPECT_TRUE(client->status().ok());
}

// The end, as on_end reports it.

TEST_F(ClientStreamTest, TheServerCompletes) {
  Open();
  SayAtOnce({Event("a"), CompleteFrame(1)});
  loop.RunUntilIdle();
  EXPECT_THAT(told, ElementsAre("next a", "end OK"));
}

TEST_F(ClientStreamTest, TheServerRefuses) {
  Open();
  Say(Refusal(absl::StatusCode::kUnimplemented, "no such method"));
  loop.RunUntilIdle();
  EXPECT_THAT(told, ElementsAre("end UNIMPLEMENTED: no such method"));
}

TEST_F(ClientStreamTest, AnErrorEndsTheStreamAndItsCompletionIsNoSecondEnd) {
  Open();
  SayAtOnce({Refusal(absl::StatusCode::kInvalidArgument, "nonsense"),
             CompleteFrame(1), Event("late")});
  loop.RunUntilIdle();
  EXPECT_THAT(told, ElementsAre("end INVALID_ARGUMENT: nonsense"));
}

TEST_F(ClientStreamTest, TheConnectionIsLost) {
  Open();
  server.reset();
  loop.RunUntilIdle();
  EXPECT_THAT(told,
              ElementsAre("end UNAVAILABLE: the server closed the connection"));
}

TEST_F(ClientStreamTest, TheConnectionIsLostInTheMiddleOfAnEvent) {
  Open();
  const std::string bytes = RawPeer::Bytes(Event("a"));
  server->SendBytes(bytes + bytes.substr(0, bytes.size() - 1));
  server.reset();
  loop.RunUntilIdle();
  // The system's text differs if the server had not read everything.
  ASSERT_THAT(told, SizeIs(2));
  EXPECT_EQ(told[0], "next a");
  EXPECT_THAT(told[1], ::testing::StartsWith("end UNAVAILABLE: "));
}

TEST_F(ClientStreamTest, TheServerThrowsTheClientOut) {
  Open();
  Say(Refusal(absl::StatusCode::kInvalidArgument, "nonsense", 0));
  loop.RunUntilIdle();
  EXPECT_THAT(told, ElementsAre("end UNAVAILABLE: the server ended the "
                                "connection: nonsense"));
}

TEST_F(ClientStreamTest, TheClientIsDestroyed) {
  Open();
  client.reset();
  EXPECT_THAT(told, ElementsAre("end CANCELLED: the client was destroyed"));
  stream.reset();
  loop.RunUntilIdle();
  EXPECT_THAT(told, SizeIs(1));
}

TEST_F(ClientStreamTest, OpenedAfterTheConnectionsEndItEndsButNotInsideOpen) {
  server.reset();
  loop.RunUntilIdle();
  Open();
  EXPECT_THAT(told, IsEmpty());
  EXPECT_TRUE(absl::IsUnavailable(stream->sender()->Next(Subscribe(7), 0)));
  loop.RunUntilIdle();
  EXPECT_THAT(told,
              ElementsAre("end UNAVAILABLE: the server closed the connection"));
}

TEST_F(ClientStreamTest, OpenedAfterTheConnectionsEndAndClosedItTellsNothing) {
  server.reset();
  loop.RunUntilIdle();
  Open();
  stream.reset();
  loop.RunUntilIdle();
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(ClientStreamTest, AnErrorOfOnNextEndsTheStreamAndTheServerIsTold) {
  Open();
  on_next = [] { return absl::InternalError("unreadable"); };
  SayAtOnce({Event("a"), Event("b")});
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1", "COMPLETE 1"));
  EXPECT_THAT(told, ElementsAre("next a", "end INTERNAL: unreadable"));
  EXPECT_TRUE(absl::IsUnavailable(stream->sender()->Next(Subscribe(7), 0)));
  stream.reset();
  EXPECT_THAT(Settle(), IsEmpty()) << "its end was told before";
}

TEST_F(ClientStreamTest, OnEndMayBeEmpty) {
  ClientStreamHandlers handlers = Handlers();
  handlers.on_end = nullptr;
  stream = client->OpenStream(Method(kWhenTooltipChanged), std::move(handlers));
  SayAtOnce({Event("a"), CompleteFrame(1), Event("b")});
  loop.RunUntilIdle();
  EXPECT_THAT(told, ElementsAre("next a"));
}

TEST_F(ClientStreamTest, CallsEndBeforeStreamsWhenTheConnectionDoes) {
  Open();
  client->Call(Method(kHide), BrowserId(),
               [this](const auto&) { told.emplace_back("call"); });
  server.reset();
  loop.RunUntilIdle();
  EXPECT_THAT(
      told,
      ElementsAre("call", "end UNAVAILABLE: the server closed the connection"));
}

// Sending after the end.

class ClientStreamAfterItsEndTest : public ClientStreamTest {
 protected:
  ClientStreamAfterItsEndTest() {
    Open();
    sender = stream->sender();
    Settle();
  }

  void ExpectThatNothingCanBeSent() {
    EXPECT_EQ(sender->Next(Subscribe(7), 0),
              absl::UnavailableError("the stream has ended"));
    EXPECT_EQ(sender->Error(About(7), 1, "words"),
              absl::UnavailableError("the stream has ended"));
  }

  std::shared_ptr<ClientStreamSender> sender;
};

TEST_F(ClientStreamAfterItsEndTest, TheServerHasCompleted) {
  Say(CompleteFrame(1));
  loop.RunUntilIdle();
  ExpectThatNothingCanBeSent();
  EXPECT_THAT(Settle(), IsEmpty());
}

TEST_F(ClientStreamAfterItsEndTest, TheServerHasRefused) {
  Say(Refusal(absl::StatusCode::kNotFound, "words"));
  loop.RunUntilIdle();
  ExpectThatNothingCanBeSent();
  EXPECT_THAT(Settle(), IsEmpty());
}

TEST_F(ClientStreamAfterItsEndTest, TheHandleIsGone) {
  stream.reset();
  ExpectThatNothingCanBeSent();
  EXPECT_THAT(Settle(), ElementsAre("COMPLETE 1"));
}

TEST_F(ClientStreamAfterItsEndTest, TheConnectionIsLost) {
  server.reset();
  loop.RunUntilIdle();
  ExpectThatNothingCanBeSent();
}

TEST_F(ClientStreamAfterItsEndTest, TheClientIsGone) {
  client.reset();
  ExpectThatNothingCanBeSent();
}

TEST_F(ClientStreamAfterItsEndTest, InsideOnEnd) {
  on_end = [this] { ExpectThatNothingCanBeSent(); };
  Say(CompleteFrame(1));
  loop.RunUntilIdle();
  EXPECT_THAT(told, ElementsAre("end OK"));
}

}  // namespace
}  // namespace orvane::testing
