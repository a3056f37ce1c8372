// How calls end when their host does not answer them, and what callables may do
// meanwhile.

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/stream/callback_stream.h"
#include "zimbrel/src/core/common/rpc/testing/call_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/scripted_host.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

using CallbackStreamEndTest = CallFixture;

// Cancelling and completing -------------------------------------------------

TEST_F(CallbackStreamEndTest, CallsAreCancelledInTheOrderOfTheirSignedIds) {
  for (const std::int64_t id :
       std::initializer_list<std::int64_t>{5, 0, -1, INT64_MAX, INT64_MIN})
    List(host, kBrowser, id);
  host.stream().CancelPendingRequests(kBrowser);
  EXPECT_THAT(ends, ElementsAre("-9223372036854775808 cancelled",
                                "-1 cancelled", "0 cancelled", "5 cancelled",
                                "9223372036854775807 cancelled"));
  EXPECT_THAT(host.stream().pending_calls_, IsEmpty());
}

TEST_F(CallbackStreamEndTest, CancellingAnUnknownKeyDoesNothing) {
  List(host, kBrowser, 1);
  host.stream().CancelPendingRequests(kOther);
  EXPECT_THAT(Pending(host, kBrowser), ElementsAre(1));
}

TEST_F(CallbackStreamEndTest, CancellingErasesAnEntryWithoutCalls) {
  host.stream().CallsOf(kBrowser);
  host.stream().CancelPendingRequests(kBrowser);
  EXPECT_THAT(host.stream().pending_calls_, IsEmpty());
}

TEST_F(CallbackStreamEndTest, CancellingTakesTheTablesOwnKey) {
  List(host, kBrowser, 1);
  host.stream().CancelPendingRequests(
      *host.stream().pending_calls_.begin()->first);
  EXPECT_THAT(ends, ElementsAre("1 cancelled"));
}

TEST_F(CallbackStreamEndTest, CancellingRunsACopyWhileTheCallIsListed) {
  std::vector<std::int64_t> inside;
  const auto held = std::make_shared<int>(0);
  long copies = 0;
  List(host, kBrowser, 1, [&inside, &copies, this, held] {
    inside = Pending(host, kBrowser);
    copies = held.use_count();
  });
  EXPECT_EQ(held.use_count(), 3);
  host.stream().CancelPendingRequests(kBrowser);
  EXPECT_THAT(inside, ElementsAre(1));
  EXPECT_EQ(copies, 5);
  EXPECT_EQ(held.use_count(), 1);
}

TEST_F(CallbackStreamEndTest, CompletionCancelsCallsInTheOrderOfTheirIds) {
  List(host, kBrowser, 7);
  List(host, kBrowser, 3);
  host.End();
  EXPECT_THAT(ends, ElementsAre("3 cancelled", "7 cancelled"));
}

TEST_F(CallbackStreamEndTest, CompletionCancelsThenUnregistersThenCompletes) {
  host.Subscribe(kBrowser);
  host.Subscribe(kOther);
  List(host, kBrowser, 1, [&] { EXPECT_EQ(Stream::stream_map_.size(), 2u); });
  List(host, kOther, 1, [&] { EXPECT_EQ(Stream::stream_map_.size(), 2u); });
  host.on_complete = [&] {
    EXPECT_THAT(Stream::stream_map_, IsEmpty());
    EXPECT_THAT(host.stream().pending_calls_, IsEmpty());
    ends.emplace_back("completed");
  };
  host.End();
  EXPECT_THAT(ends, ElementsAre("1 cancelled", "1 cancelled", "completed"));
}

TEST_F(CallbackStreamEndTest, CompletionOfAnIdleStreamOnlyCompletes) {
  Host second(&loop, &service);
  second.Subscribe(kBrowser);
  List(second, kBrowser, 1);
  host.on_complete = [&] { ends.emplace_back("completed"); };
  host.End();
  EXPECT_THAT(ends, ElementsAre("completed"));
  EXPECT_EQ(Serving(kBrowser), &second.stream());
}

TEST_F(CallbackStreamEndTest, CompletionLeavesTheEntriesOfOtherStreams) {
  Host second(&loop, &service);
  host.Subscribe(kBrowser);
  host.Subscribe(kOther);
  second.Subscribe(kOther);
  host.End();
  EXPECT_EQ(Serving(kBrowser), nullptr);
  EXPECT_EQ(Serving(kOther), &second.stream());
}

TEST_F(CallbackStreamEndTest,
       DestructionLeavesRegistrationsAndKeysBehindAndRunsNothing) {
  host.Subscribe(kBrowser);
  List(host, kBrowser, 1);
  List(host, kBrowser, 2);
  List(host, kOther, 3);
  const Stream* const stream = &host.stream();
  EXPECT_EQ(host.Vanish(), 2u);
  EXPECT_THAT(ends, IsEmpty());
  EXPECT_TRUE(Serving(kBrowser) == stream);
  RemoveRegistration<rpc::CreateWebDialog>(kBrowser);
}

// Callables that add calls --------------------------------------------------

TEST_F(CallbackStreamEndTest, AnAnswerMayAddCallsUnderItsOwnKey) {
  List(host, kBrowser, 0, [&] {
    for (int id = -500; id < 500; ++id) List(host, kBrowser, id);
  });
  host.Answer(kBrowser, 0);
  EXPECT_EQ(Pending(host, kBrowser).size(), 999u)
      << "-500 to 499, except the one answered";
}

TEST_F(CallbackStreamEndTest, AnAnswerMayAddCallsUnderManyNewKeys) {
  List(host, kBrowser, 1, [&] {
    for (int key = 100; key < 1100; ++key) List(host, Browser(key), 1);
  });
  host.Answer(kBrowser, 1);
  EXPECT_EQ(host.stream().pending_calls_.size(), 1000u);
  EXPECT_THAT(Pending(host, kBrowser), IsEmpty());
}

TEST_F(CallbackStreamEndTest, AnErrorMayAddCallsUnderItsOwnKeyAndNewOnes) {
  List(host, kBrowser, 1, [&] {
    List(host, kBrowser, 2);
    for (int key = 100; key < 1100; ++key) List(host, Browser(key), 1);
  });
  host.Fail(kBrowser, 1);
  EXPECT_EQ(host.stream().pending_calls_.size(), 1001u);
  EXPECT_THAT(Pending(host, kBrowser), ElementsAre(2));
}

TEST_F(CallbackStreamEndTest,
       CancellingMeetsTheCallsThatItAddsBeyondTheWalkAndDropsTheOthers) {
  List(host, kBrowser, 5, [&] {
    List(host, kBrowser, 4);
    List(host, kBrowser, 6);
  });
  host.stream().CancelPendingRequests(kBrowser);
  EXPECT_THAT(ends, ElementsAre("5 cancelled", "6 cancelled"));
  EXPECT_THAT(host.stream().pending_calls_, IsEmpty());
}

TEST_F(CallbackStreamEndTest, CancellingMayAddCallsUnderManyNewKeys) {
  List(host, kBrowser, 1, [&] {
    for (int key = 100; key < 1100; ++key) List(host, Browser(key), 1);
  });
  List(host, kBrowser, 2);
  host.stream().CancelPendingRequests(kBrowser);
  EXPECT_THAT(ends, ElementsAre("1 cancelled", "2 cancelled"));
  EXPECT_EQ(host.stream().pending_calls_.size(), 1000u);
}

TEST_F(CallbackStreamEndTest,
       CompletionCancelsTheKeysThatItFoundAndNoLaterOnes) {
  List(host, kBrowser, 1, [&] { List(host, kOther, 2); });
  std::size_t left = 0;
  host.on_complete = [&] { left = host.Vanish(); };
  host.End();
  EXPECT_THAT(ends, ElementsAre("1 cancelled"));
  EXPECT_EQ(left, 1u);
}

}  // namespace
}  // namespace orvane::testing
