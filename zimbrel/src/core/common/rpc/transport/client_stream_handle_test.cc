// After a stream's handle is gone its handlers never run again, and what
// handlers may destroy.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/testing/client_stream_fixture.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using ClientStreamHandleTest = ClientStreamFixture;

TEST_F(ClientStreamHandleTest, DestroyingItTellsTheServerAndNobodyElse) {
  Open();
  stream.reset();
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1", "COMPLETE 1"));
  Say(CompleteFrame(1));
  EXPECT_THAT(Settle(), IsEmpty());
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(ClientStreamHandleTest, WhatWasOnItsWayIsDropped) {
  Open();
  SayAtOnce({Event("a"), Event("b"), CompleteFrame(1)});
  stream.reset();
  loop.RunUntilIdle();
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(ClientStreamHandleTest, AnErrorThatWasOnItsWayIsDropped) {
  Open();
  Say(Refusal(absl::StatusCode::kNotFound, "words"));
  stream.reset();
  loop.RunUntilIdle();
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(ClientStreamHandleTest, OnNextMayDestroyItAndTheRestIsDropped) {
  Open();
  on_next = [this] {
    stream.reset();
    return absl::OkStatus();
  };
  SayAtOnce({Event("a"), Event("b"), CompleteFrame(1)});
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1", "COMPLETE 1"));
  EXPECT_THAT(told, ElementsAre("next a"));
}

TEST_F(ClientStreamHandleTest, OnNextMayDestroyItAndFail) {
  Open();
  on_next = [this] {
    stream.reset();
    return absl::InternalError("too late");
  };
  Say(Event("a"));
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1", "COMPLETE 1"));
  EXPECT_THAT(told, ElementsAre("next a"));
}

TEST_F(ClientStreamHandleTest, OnEndMayDestroyIt) {
  Open();
  on_end = [this] { stream.reset(); };
  Say(CompleteFrame(1));
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1"));
  EXPECT_THAT(told, ElementsAre("end OK"));
}

TEST_F(ClientStreamHandleTest, OnEndMayDestroyItWhenTheConnectionIsLost) {
  Open();
  on_end = [this] { stream.reset(); };
  server.reset();
  loop.RunUntilIdle();
  EXPECT_THAT(told,
              ElementsAre("end UNAVAILABLE: the server closed the connection"));
}

TEST_F(ClientStreamHandleTest, OneStreamsHandlerMayDestroyAnothersHandle) {
  Open();
  std::unique_ptr<ClientStream> other =
      client->OpenStream(Method(kWhenTooltipChanged), Handlers());
  on_next = [&other] {
    other.reset();
    return absl::OkStatus();
  };
  SayAtOnce({Event("a", 1), Event("b", 2), Event("c", 1)});
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1", "OPEN 2", "COMPLETE 2"));
  EXPECT_THAT(told, ElementsAre("next a", "next c"));
}

TEST_F(ClientStreamHandleTest, OneStreamsEndMayDestroyAnothersHandle) {
  Open();
  std::unique_ptr<ClientStream> other =
      client->OpenStream(Method(kWhenTooltipChanged), Handlers());
  on_end = [&other] { other.reset(); };
  server.reset();
  loop.RunUntilIdle();
  EXPECT_THAT(told,
              ElementsAre("end UNAVAILABLE: the server closed the connection"));
}

// A client that answers later keeps the sender, which must not keep the
// handlers' captures alive.
TEST_F(ClientStreamHandleTest, TheHandlersAreDestroyedWithIt) {
  const auto held = std::make_shared<int>();
  stream = client->OpenStream(
      Method(kWhenTooltipChanged),
      {[held](std::string_view, std::int64_t) { return absl::OkStatus(); },
       [held](const absl::Status&) {}});
  const std::shared_ptr<ClientStreamSender> sender = stream->sender();
  EXPECT_EQ(held.use_count(), 3);
  stream.reset();
  EXPECT_EQ(held.use_count(), 1);
}

TEST_F(ClientStreamHandleTest, TheHandlersAreDestroyedAfterTheStreamsEnd) {
  const auto held = std::make_shared<int>();
  stream = client->OpenStream(
      Method(kWhenTooltipChanged),
      {[held](std::string_view, std::int64_t) { return absl::OkStatus(); },
       [held](const absl::Status&) {}});
  Say(CompleteFrame(1));
  loop.RunUntilIdle();
  EXPECT_EQ(held.use_count(), 1);
}

TEST_F(ClientStreamHandleTest, WhatAHandlerHoldsLivesWhileItRuns) {
  const auto held = std::make_shared<int>(3);
  int seen = 0;
  stream =
      client->OpenStream(Method(kWhenTooltipChanged),
                         {[this, held, &seen](std::string_view, std::int64_t) {
                            stream.reset();
                            seen = *held;
                            return absl::OkStatus();
                          },
                          nullptr});
  Say(Event("a"));
  loop.RunUntilIdle();
  EXPECT_EQ(seen, 3);
  EXPECT_EQ(held.use_count(), 1);
}

TEST_F(ClientStreamHandleTest, AHandlerMayHoldTheClient) {
  std::shared_ptr<SocketClient> shared = std::move(client);
  stream = shared->OpenStream(
      Method(kWhenTooltipChanged),
      {[shared](std::string_view, std::int64_t) { return absl::OkStatus(); },
       nullptr});
  shared.reset();
  stream.reset();
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1", "COMPLETE 1"));
  EXPECT_TRUE(server->closed);
}

// The client.

TEST_F(ClientStreamHandleTest, OnNextMayDestroyTheClient) {
  Open();
  on_next = [this] {
    client.reset();
    return absl::OkStatus();
  };
  SayAtOnce({Event("a"), Event("b")});
  loop.RunUntilIdle();
  EXPECT_THAT(told,
              ElementsAre("next a", "end CANCELLED: the client was destroyed"));
}

TEST_F(ClientStreamHandleTest, OnNextMayDestroyTheClientAndFail) {
  Open();
  on_next = [this] {
    client.reset();
    return absl::InternalError("too late");
  };
  Say(Event("a"));
  loop.RunUntilIdle();
  EXPECT_THAT(told,
              ElementsAre("next a", "end CANCELLED: the client was destroyed"));
}

TEST_F(ClientStreamHandleTest, OnNextMayDestroyBothHandleFirst) {
  Open();
  on_next = [this] {
    stream.reset();
    client.reset();
    return absl::OkStatus();
  };
  SayAtOnce({Event("a"), Event("b")});
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1", "COMPLETE 1"));
  EXPECT_THAT(told, ElementsAre("next a"));
}

TEST_F(ClientStreamHandleTest, OnNextMayDestroyBothClientFirst) {
  Open();
  on_next = [this] {
    client.reset();
    stream.reset();
    return absl::OkStatus();
  };
  SayAtOnce({Event("a"), Event("b")});
  loop.RunUntilIdle();
  EXPECT_THAT(told,
              ElementsAre("next a", "end CANCELLED: the client was destroyed"));
}

TEST_F(ClientStreamHandleTest, OnEndMayDestroyTheClient) {
  Open();
  const auto other =
      client->OpenStream(Method(kWhenTooltipChanged), Handlers());
  on_end = [this] { client.reset(); };
  Say(CompleteFrame(1));
  loop.RunUntilIdle();
  EXPECT_THAT(told,
              ElementsAre("end OK", "end CANCELLED: the client was destroyed"));
}

TEST_F(ClientStreamHandleTest, OnEndMayDestroyTheClientWhenTheConnectionEnds) {
  Open();
  const auto other =
      client->OpenStream(Method(kWhenTooltipChanged), Handlers());
  on_end = [this] { client.reset(); };
  server.reset();
  loop.RunUntilIdle();
  EXPECT_THAT(told,
              ElementsAre("end UNAVAILABLE: the server closed the connection",
                          "end UNAVAILABLE: the server closed the connection"));
}

TEST_F(ClientStreamHandleTest, TheHandleMayOutliveTheClient) {
  Open();
  client.reset();
  told.clear();
  stream.reset();
  EXPECT_THAT(told, IsEmpty());
}

// Other things that handlers may do.

TEST_F(ClientStreamHandleTest, OnNextMaySend) {
  Open();
  on_next = [this] { return stream->sender()->Next(Answer(7, "Ada"), 5); };
  Say(Event("a"));
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1", "NEXT 1"));
}

TEST_F(ClientStreamHandleTest, OnEndMayOpenTheNextStream) {
  Open();
  std::unique_ptr<ClientStream> next;
  on_end = [&] {
    next = client->OpenStream(Method(kWhenTooltipChanged), Handlers());
  };
  SayAtOnce({CompleteFrame(1), Event("a", 2)});
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1", "OPEN 2"));
  EXPECT_THAT(told, ElementsAre("end OK", "next a"));
}

TEST_F(ClientStreamHandleTest, ABlockingCallInsideOnNextIsRefused) {
  Open();
  absl::Status refused;
  on_next = [&] {
    refused = client->CallAndWait(Method(kShow), BrowserId()).status();
    return absl::OkStatus();
  };
  Say(Event("a"));
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1"));
  EXPECT_TRUE(absl::IsFailedPrecondition(refused));
}

}  // namespace
}  // namespace orvane::testing
