#include "zimbrel/src/core/common/rpc/stream/publish.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "keys.pb.h"
#include "proto2_keys.pb.h"
#include "zimbrel/src/core/common/rpc/testing/event_host.h"
#include "zimbrel/src/core/common/rpc/testing/heap_probe.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::uint64_t kBrowser = 7;

rpc::TooltipChanged Tooltip(const std::string& text) {
  rpc::TooltipChanged event;
  *event.mutable_browser_id() = Browser(kBrowser);
  event.set_text(text);
  return event;
}

class PublishTest : public EventStreamFixture {
 protected:
  using Host = EventHost<rpc::TooltipChanged>;

  PublishTest() {
    for (Host* const host : {&first, &second, &third}) {
      host->on_event = [this, host](const std::string&) {
        reached.push_back(host);
      };
    }
  }

  std::size_t PublishTo(std::uint64_t browser) {
    reached.clear();
    return Publish(Browser(browser), Tooltip("text"));
  }

  // Takes the address of `host` out of the entry of kBrowser, whoever left it.
  static void Unlist(Host& host) {
    host.Vanish();
    host.Open();
    host.Unsubscribe(kBrowser);
  }

  // In the order of their addresses.
  Host first{&loop, &service};
  Host second{&loop, &service};
  Host third{&loop, &service};
  std::vector<Host*> reached;  // By the latest event, in order.
};

TEST_F(PublishTest, ReachesEachSubscriberOnceInTheRegistrysOrder) {
  third.Subscribe(kBrowser);
  first.Subscribe(kBrowser);
  second.Subscribe(kBrowser);
  second.Subscribe(kBrowser);
  EXPECT_EQ(PublishTo(kBrowser), 3u);
  EXPECT_THAT(reached, ElementsAre(&first, &second, &third));
  for (Host* const host : {&first, &second, &third}) Unlist(*host);
}

TEST_F(PublishTest, ReachesNobodyIfNobodyAsked) {
  EXPECT_EQ(PublishTo(kBrowser), 0u);
  EXPECT_THAT(reached, IsEmpty());
}

TEST_F(PublishTest, ReachesSubscribersOfAnEqualKeyOnly) {
  first.Subscribe(kBrowser);
  second.Subscribe(8);
  EXPECT_EQ(PublishTo(kBrowser), 1u);
  EXPECT_THAT(reached, ElementsAre(&first));
  first.Leave();
  second.Leave();
}

TEST_F(PublishTest, ReachesSubscribersOfThatEventOnly) {
  EventHost<rpc::CursorChanged> other(&loop, &service);
  other.Subscribe(kBrowser);
  EXPECT_EQ(PublishTo(kBrowser), 0u);
  EXPECT_EQ(Publish(Browser(kBrowser), rpc::CursorChanged()), 1u);
  EXPECT_EQ(other.received.size(), 1u);
  other.Leave();
}

TEST_F(PublishTest, TakesKeysOfAnyMessageTypeAndTellsTheTypesApart) {
  testdata::Small small;
  small.set_value(1);
  testdata::Twin twin;
  twin.set_value(1);
  first.stream()->Subscribe(small);
  second.stream()->Subscribe(twin);
  EXPECT_EQ(Publish(twin, Tooltip("text")), 1u);
  EXPECT_THAT(reached, ElementsAre(&second));
  first.Leave();
  second.Leave();
}

TEST_F(PublishTest, NoLongerReachesAStreamThatUnsubscribed) {
  first.Subscribe(kBrowser);
  second.Subscribe(kBrowser);
  first.Unsubscribe(kBrowser);
  EXPECT_EQ(PublishTo(kBrowser), 1u);
  EXPECT_THAT(reached, ElementsAre(&second));
  second.Leave();
}

TEST_F(PublishTest, SendsTheEventAsItIs) {
  first.Subscribe(kBrowser);
  const rpc::TooltipChanged event = Tooltip("words");
  Publish(Browser(kBrowser), event);
  EXPECT_THAT(first.received, ElementsAre(event.SerializeAsString()));
  first.Leave();
}

TEST_F(PublishTest, SendsEventsInTheOrderOfTheCalls) {
  first.Subscribe(kBrowser);
  Publish(Browser(kBrowser), Tooltip("a longer one"));
  Publish(Browser(kBrowser), Tooltip("one"));
  Publish(Browser(kBrowser), rpc::TooltipChanged());
  EXPECT_THAT(first.received,
              ElementsAre(Tooltip("a longer one").SerializeAsString(),
                          Tooltip("one").SerializeAsString(), ""));
  first.Leave();
}

TEST_F(PublishTest, SerialisesOnceForAll) {
  std::vector<const void*> bytes;
  for (Host* const host : {&first, &second}) {
    host->Subscribe(kBrowser);
    host->on_event = [&](const std::string& payload) {
      bytes.push_back(payload.data());
    };
  }
  Publish(Browser(kBrowser), Tooltip("too long to lie inside a std::string"));
  ASSERT_EQ(bytes.size(), 2u);
  EXPECT_EQ(bytes[0], bytes[1]);
  Unlist(first);
  Unlist(second);
}

TEST_F(PublishTest, SendsAnEventWhoseRequiredFieldsAreMissing) {
  EventHost<testdata::Strict> host(&loop, &service);
  host.stream()->Subscribe(Browser(kBrowser));
  EXPECT_EQ(Publish(Browser(kBrowser), testdata::Strict()), 1u);
  EXPECT_THAT(host.received, ElementsAre(""));
  host.Leave();
}

TEST_F(PublishTest, AllocatesNothingOnceItsBufferHasGrown) {
  first.Subscribe(kBrowser);
  first.send_result = absl::UnavailableError("");
  const BrowserId key = Browser(kBrowser);
  const rpc::TooltipChanged event = Tooltip("too long to lie in a std::string");
  Publish(key, event);
  const std::size_t before = heap_probe::Allocations();
  Publish(key, event);
  const std::size_t after = heap_probe::Allocations();
  EXPECT_EQ(after, before);
  first.Leave();
}

TEST_F(PublishTest, KeepsItsBufferUnlessTheEventWasUnusuallyLarge) {
  first.Subscribe(kBrowser);
  first.on_event = [](const std::string& payload) {
    heap_probe::Watch(payload.data());
  };
  Publish(Browser(kBrowser), Tooltip(std::string(10'000, 'x')));
  EXPECT_THAT(heap_probe::TakeFreed(), IsEmpty());
  Publish(Browser(kBrowser), Tooltip(std::string(10'000'000, 'x')));
  EXPECT_THAT(heap_probe::TakeFreed(), SizeIs(2)) << "the smaller one grew";
  first.Leave();
}

// ---------------------------------------------------------------------------
// Subscribers that cannot be reached.

TEST_F(PublishTest, PassesOverASubscriberWhoseTransportRefuses) {
  first.Subscribe(kBrowser);
  second.Subscribe(kBrowser);
  third.Subscribe(kBrowser);
  second.send_result = absl::ResourceExhaustedError("a slow host");
  EXPECT_EQ(PublishTo(kBrowser), 2u);
  EXPECT_THAT(reached, ElementsAre(&first, &third));
  for (Host* const host : {&first, &second, &third}) Unlist(*host);
}

TEST_F(PublishTest, ReachesASubscriberAgainWhenItsTransportAccepts) {
  first.Subscribe(kBrowser);
  first.send_result = absl::ResourceExhaustedError("a slow host");
  EXPECT_EQ(PublishTo(kBrowser), 0u);
  first.send_result = absl::OkStatus();
  EXPECT_EQ(PublishTo(kBrowser), 1u);
  first.Leave();
}

// ---------------------------------------------------------------------------
// Streams that are listed and should not be.

TEST_F(PublishTest, PassesOverAStreamThatCompletedAndIsStillListed) {
  first.Subscribe(kBrowser);
  second.Subscribe(kBrowser);
  first.Complete();
  EXPECT_EQ(PublishTo(kBrowser), 1u);
  EXPECT_THAT(reached, ElementsAre(&second));
  Unlist(first);
  second.Leave();
}

TEST_F(PublishTest, NeverTouchesACompletedStreamThatWasDestroyed) {
  first.Subscribe(kBrowser);
  second.Subscribe(kBrowser);
  first.Leave();
  EXPECT_EQ(PublishTo(kBrowser), 1u);
  EXPECT_THAT(reached, ElementsAre(&second));
  Unlist(first);
  second.Leave();
}

TEST_F(PublishTest, NeverTouchesAStreamThatWasDestroyedWithoutCompletion) {
  first.Subscribe(kBrowser);
  first.Vanish();
  EXPECT_EQ(PublishTo(kBrowser), 0u);
  Unlist(first);
}

TEST_F(PublishTest, ANewStreamAtAListedAddressReceivesNothingUntilItAsks) {
  first.Subscribe(kBrowser);
  second.Subscribe(kBrowser);
  first.Leave();
  first.Open();
  EXPECT_EQ(PublishTo(kBrowser), 1u);
  EXPECT_THAT(reached, ElementsAre(&second));

  first.Subscribe(kBrowser);
  EXPECT_EQ(PublishTo(kBrowser), 2u);
  EXPECT_THAT(reached, ElementsAre(&first, &second));
  Unlist(first);
  second.Leave();
}

TEST_F(PublishTest, ANewStreamAtAListedAddressIsReachedUnderItsOwnKeysOnly) {
  first.Subscribe(kBrowser);
  second.Subscribe(kBrowser);
  first.Leave();
  first.Open();
  first.Subscribe(8);
  EXPECT_EQ(PublishTo(8), 1u);
  EXPECT_EQ(PublishTo(kBrowser), 1u);
  EXPECT_THAT(reached, ElementsAre(&second));
  Unlist(first);
  first.Leave();
  second.Leave();
}

TEST_F(PublishTest, AStreamThatUnsubscribedAtAListedAddressIsNotReached) {
  first.Subscribe(kBrowser);
  second.Subscribe(kBrowser);
  first.Vanish();
  first.Open();
  first.Subscribe(kBrowser);
  first.Unsubscribe(kBrowser);
  EXPECT_EQ(PublishTo(kBrowser), 1u);
  EXPECT_THAT(reached, ElementsAre(&second));
  second.Leave();
}

TEST_F(PublishTest, AnEntryThatListsOnlyTheGoneReachesNobody) {
  first.Subscribe(kBrowser);
  second.Subscribe(kBrowser);
  first.Leave();
  second.Vanish();
  EXPECT_EQ(PublishTo(kBrowser), 0u);
  Unlist(first);
  Unlist(second);
}

}  // namespace
}  // namespace orvane::testing
