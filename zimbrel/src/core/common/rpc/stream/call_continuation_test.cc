// What a continuation may do: anything.

#include <functional>
#include <memory>
#include <utility>

#include "absl/strings/match.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/call_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/event_host.h"
#include "zimbrel/src/core/common/rpc/testing/scripted_host.h"
#include "zimbrel/src/core/common/rpc/testing/when_destroyed.h"

namespace orvane::testing {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using testing::WhenDestroyed;

using CallContinuationTest = CallFixture;

TEST_F(CallContinuationTest, AContinuationMayCallAgain) {
  host.Subscribe(kBrowser);
  Ask(kBrowser, "a", [&] { Ask(kBrowser, "b"); });
  host.Answer(kBrowser, host.last_id(), Text("1"));
  loop.RunUntilIdle();
  host.Answer(kBrowser, host.last_id(), Text("2"));
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("a 1", "b 2"));
}

TEST_F(CallContinuationTest,
       CallingAgainOnEveryFailureIsOverWhenNobodyServesAnyLonger) {
  std::function<void()> again = [&] {
    if (ends.empty() || !absl::StrContains(ends.back(), "NOT_FOUND"))
      Ask(kBrowser, "again", again);
  };
  host.Subscribe(kBrowser);
  again();
  for (int i = 0; i < 3; ++i) {
    host.Fail(kBrowser, host.last_id());
    loop.RunUntilIdle();
  }
  EXPECT_EQ(ends.size(), 3u);
  host.End();
  loop.RunUntilIdle();
  EXPECT_EQ(ends.size(), 5u);
  EXPECT_THAT(ends.back(), StartsWith("again NOT_FOUND"));
  EXPECT_EQ(host.received().size(), 4u);
}

TEST_F(CallContinuationTest,
       CallingAgainOnEveryFailureLeavesOtherTasksTheirTurn) {
  std::function<void()> again = [&] {
    Ask(kBrowser, "again", again, {.timeout = absl::ZeroDuration()});
  };
  host.Subscribe(kBrowser);
  again();
  RunUntilEnds(100);
  EXPECT_THAT(ends, Each(StartsWith("again DEADLINE_EXCEEDED")));
  bool other = false;
  loop.Post([&other] { other = true; });
  EXPECT_TRUE(loop.RunUntil([&other] { return other; }));
}

TEST_F(CallContinuationTest, AContinuationMayPublish) {
  EventHost<rpc::TooltipChanged> watcher(&loop, &service);
  watcher.Subscribe(7);
  host.Subscribe(kBrowser);
  Ask(kBrowser, "a", [&] { Publish(kBrowser, rpc::TooltipChanged()); });
  host.Answer(kBrowser, host.last_id(), Text("1"));
  loop.RunUntilIdle();
  EXPECT_EQ(watcher.received.size(), 1u);
  watcher.Leave();
}

TEST_F(CallContinuationTest, AContinuationMayUnsubscribeItsKey) {
  host.Subscribe(kBrowser);
  Ask(kBrowser, "a", [&] { host.Unsubscribe(kBrowser); });
  Ask(kBrowser, "b");
  host.Answer(kBrowser, host.received()[0].id, Text("1"));
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("a 1", StartsWith("b CANCELLED")));
}

TEST_F(CallContinuationTest, AContinuationMayCancelOtherCalls) {
  host.Subscribe(kBrowser);
  auto other = Ask(kBrowser, "b");
  Ask(kBrowser, "a", [&] { other.Cancel(); });
  host.Answer(kBrowser, host.last_id(), Text("1"));
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("a 1", StartsWith("b CANCELLED")));
}

TEST_F(CallContinuationTest, AContinuationMayEndItsStream) {
  host.Subscribe(kBrowser);
  Ask(kBrowser, "a", [&] { host.End(); });
  Ask(kBrowser, "b");
  host.Answer(kBrowser, host.received()[0].id, Text("1"));
  loop.RunUntilIdle();
  EXPECT_FALSE(host.is_open());
  EXPECT_THAT(ends, ElementsAre("a 1", StartsWith("b CANCELLED")));
}

TEST_F(CallContinuationTest,
       AContinuationMayDestroyTheServiceAndEveryStreamOfIt) {
  struct Server {
    explicit Server(EventLoop* loop)
        : first(loop, &service), second(loop, &service) {}
    rpc::BrowserWidgetRpc service;
    Host first;
    ScriptedHost<rpc::TakeFocus> second;
  };
  auto server = std::make_unique<Server>(&loop);
  server->first.Subscribe(kBrowser);
  server->second.Subscribe(kBrowser);
  Ask(kBrowser, "a", [&] { server.reset(); });
  Ask(kBrowser, "b");
  server->first.Fail(kBrowser, server->first.received()[0].id);
  loop.RunUntilIdle();
  EXPECT_THAT(ends,
              ElementsAre(StartsWith("a UNKNOWN"), StartsWith("b CANCELLED")));
}

TEST_F(CallContinuationTest,
       WhatAContinuationHoldsMayEndTheStreamWhenItIsDestroyed) {
  auto ender = WhenDestroyed([&] {
    ends.emplace_back("released");
    host.End();
  });
  host.Subscribe(kBrowser);
  // In the end only the continuation holds it.
  Ask(kBrowser, "a", [ender] {});
  ender.reset();
  host.Fail(kBrowser, host.last_id());
  EXPECT_THAT(ends, IsEmpty());
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre(StartsWith("a UNKNOWN"), "released"));
  EXPECT_FALSE(host.is_open());
}

}  // namespace
}  // namespace orvane::testing
