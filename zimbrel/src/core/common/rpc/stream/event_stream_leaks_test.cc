// What event streams leave allocated on purpose, counted. cmake/leaks.supp
// names the same two things.

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>

#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/stream/event_stream.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/event_host.h"
#include "zimbrel/src/core/common/rpc/testing/heap_probe.h"

namespace orvane::testing {
namespace {

class EventStreamLeaksTest : public EventStreamFixture {
 protected:
  static constexpr std::size_t kTimes = 100;

  // How many blocks `kTimes` runs of `action` leave behind, the first run of
  // all, which may fill caches and grow tables, aside.
  static std::size_t LeftBy(const std::function<void()>& action) {
    action();
    const std::size_t before = heap_probe::LiveBlocks();
    for (std::size_t i = 0; i < kTimes; ++i) action();
    return heap_probe::LiveBlocks() - before;
  }

  EventHost<rpc::CursorChanged> host{&loop, &service};
};

TEST_F(EventStreamLeaksTest, AFrameLeavesItsRequest) {
  EXPECT_EQ(LeftBy([&] { host.SendPayload(""); }), kTimes);
}

TEST_F(EventStreamLeaksTest, ASubscriptionLeavesItsRequestWithTheKeyInside) {
  host.Subscribe(7);
  EXPECT_EQ(LeftBy([&] { host.Subscribe(7); }), 2 * kTimes);
  host.Leave();
}

TEST_F(EventStreamLeaksTest, SubscribingAndUnsubscribingLeaveTwoRequests) {
  EXPECT_EQ(LeftBy([&] {
              host.Subscribe(7);
              host.Unsubscribe(7);
            }),
            4 * kTimes);
}

TEST_F(EventStreamLeaksTest, AnUnknownKeyIsDestroyedInsideTheRequestItCameIn) {
  EXPECT_EQ(LeftBy([&] { host.Unsubscribe(7); }), kTimes);
}

TEST_F(EventStreamLeaksTest, StreamsAndTheirKeysLeaveNothing) {
  host.Vanish();
  EXPECT_EQ(LeftBy([&] {
              host.Open();
              host.stream()->Subscribe(Browser(7));
              host.stream()->Subscribe(Browser(8));
              Publish(Browser(7), rpc::CursorChanged());
              host.received.clear();
              host.Leave();
            }),
            0u);
}

// Runs when all static objects are gone.
bool keys_are_watched = false;
[[gnu::destructor]] void ReportKeys() {
  if (!keys_are_watched) return;
  std::fprintf(stderr, "%zu of 2 keys destroyed\n",
               heap_probe::TakeFreed().size());
}

void ExitWithTwoKeysInTheRegistry() {
  EventLoop loop;
  rpc::BrowserWidgetRpc service;
  EventHost<rpc::CursorChanged> host(&loop, &service);
  host.Subscribe(7);
  host.Subscribe(8);
  for (const auto& [key, streams] :
       EventStream<rpc::CursorChanged>::stream_map_) {
    heap_probe::Watch(key);
  }
  keys_are_watched = true;
  std::exit(0);
}

TEST(EventStreamLeaksDeathTest, KeysThatAreStillInARegistryAtExitAreLeft) {
  EXPECT_EXIT(ExitWithTwoKeysInTheRegistry(), ::testing::ExitedWithCode(0),
              "0 of 2 keys destroyed");
}

}  // namespace
}  // namespace orvane::testing
