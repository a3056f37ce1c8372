#include "zimbrel/src/core/common/rpc/event_loop.h"

#include <csignal>
#include <functional>
#include <memory>
#include <numeric>
#include <thread>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace orvane {
namespace {

using ::testing::ElementsAre;

TEST(EventLoop, RunsTasksInOrderAndNotInsidePost) {
  EventLoop loop;
  std::vector<int> ran;
  loop.Post([&] { ran.push_back(1); });
  loop.Post([&] { ran.push_back(2); });
  EXPECT_TRUE(ran.empty());
  loop.RunUntilIdle();
  EXPECT_THAT(ran, ElementsAre(1, 2));
}

// Those of a run used to overtake them.
TEST(EventLoop, RunsManyTasksInOrderWhileTheyPostOthers) {
  EventLoop loop;
  std::vector<int> ran;
  int posted = 0;
  std::function<void()> post = [&] {
    if (posted == 1000) return;
    loop.Post([&, number = posted++] {
      ran.push_back(number);
      post();
    });
  };
  for (int i = 0; i < 300; ++i) post();
  EXPECT_EQ(loop.RunUntilIdle(), 1000u);
  std::vector<int> in_order(1000);
  std::iota(in_order.begin(), in_order.end(), 0);
  EXPECT_EQ(ran, in_order);
}

TEST(EventLoop, RunsWhatWasPostedBetweenTwoRunsBeforeWhatTheSecondPosts) {
  EventLoop loop;
  std::vector<int> ran;
  loop.Post([&ran] { ran.push_back(1); });
  loop.Post([&] {
    ran.push_back(2);
    loop.Post([&ran] { ran.push_back(4); });
  });
  loop.RunUntil([&ran] { return ran.size() == 1; });
  loop.Post([&ran] { ran.push_back(3); });
  loop.RunUntil([&ran] { return ran.size() == 4; });
  EXPECT_THAT(ran, ElementsAre(1, 2, 3, 4));
}

TEST(EventLoop, StopEndsRunAndALaterRunWorksAgain) {
  EventLoop loop;
  int runs = 0;
  for (int i = 0; i < 2; ++i) {
    loop.Post([&] {
      ++runs;
      loop.Stop();
    });
    loop.Run();
  }
  EXPECT_EQ(runs, 2);
}

TEST(EventLoop, TasksFromOtherThreadsRunOnTheLoopsThread) {
  EventLoop loop;
  std::thread::id ran_on;
  std::thread other([&] {
    loop.Post([&] {
      ran_on = std::this_thread::get_id();
      loop.Stop();
    });
  });
  loop.Run();
  other.join();
  EXPECT_EQ(ran_on, std::this_thread::get_id());
}

TEST(EventLoop, RunUntilReturnsWhenTheConditionHolds) {
  EventLoop loop;
  int count = 0;
  for (int i = 0; i < 5; ++i) loop.Post([&] { ++count; });
  EXPECT_TRUE(loop.RunUntil([&] { return count == 3; }));
  EXPECT_EQ(count, 3);
}

TEST(EventLoop, RunUntilInsideATaskRunsTheOthers) {
  EventLoop loop;
  bool inner = false;
  bool outer = false;
  loop.Post([&] {
    EXPECT_TRUE(loop.RunUntil([&] { return inner; }));
    outer = true;
  });
  loop.Post([&] { inner = true; });
  EXPECT_TRUE(loop.RunUntil([&] { return outer; }));
}

TEST(EventLoop, RunUntilWithoutAConditionRunsUntilTheLoopIsStopped) {
  EventLoop loop;
  bool ran = false;
  loop.Post([&loop, &ran] {
    ran = true;
    loop.Stop();
  });
  EXPECT_FALSE(loop.RunUntil(nullptr));
  EXPECT_TRUE(ran);
}

TEST(EventLoop, RunUntilGivesUpWhenTheLoopIsStopped) {
  EventLoop loop;
  loop.Post([&] { loop.Stop(); });
  EXPECT_FALSE(loop.RunUntil([] { return false; }));
}

TEST(EventLoop, TimersRunInOrderOfTheirTimes) {
  EventLoop loop;
  std::vector<int> ran;
  const auto late =
      loop.RunAfter(absl::Milliseconds(2), [&] { ran.push_back(2); });
  const auto soon =
      loop.RunAfter(absl::ZeroDuration(), [&] { ran.push_back(1); });
  EXPECT_TRUE(loop.RunUntil([&] { return ran.size() == 2; }));
  EXPECT_THAT(ran, ElementsAre(1, 2));
}

TEST(EventLoop, ADroppedTimerNeverRunsAndReleasesItsTask) {
  EventLoop loop;
  bool ran = false;
  const auto held = std::make_shared<int>(0);
  auto timer =
      loop.RunAfter(absl::ZeroDuration(), [&ran, held] { ran = true; });
  timer.reset();
  EXPECT_EQ(held.use_count(), 1);
  loop.RunUntilIdle();
  EXPECT_FALSE(ran);
}

TEST(EventLoop, ATimerMayBeDroppedInsideItsOwnTask) {
  EventLoop loop;
  bool ran = false;
  std::unique_ptr<EventLoop::Timer> timer;
  timer = loop.RunAfter(absl::ZeroDuration(), [&] {
    timer.reset();
    ran = true;
  });
  EXPECT_TRUE(loop.RunUntil([&] { return ran; }));
}

TEST(EventLoop, AnEndlessDelayIsNoTime) {
  EventLoop loop;
  const auto never = loop.RunAfter(absl::InfiniteDuration(), [] { FAIL(); });
  loop.RunUntilIdle();
}

TEST(EventLoop, TheMailboxOutlivesTheLoopAndThenDropsTasks) {
  auto loop = std::make_unique<EventLoop>();
  const std::shared_ptr<Mailbox> mailbox = loop->mailbox();
  bool ran = false;
  EXPECT_TRUE(mailbox->Post([&] { ran = true; }));
  loop->RunUntilIdle();
  EXPECT_TRUE(ran);
  loop.reset();
  const auto held = std::make_shared<int>(0);
  EXPECT_FALSE(mailbox->Post([held] { FAIL(); }));
  EXPECT_EQ(held.use_count(), 1);
}

TEST(EventLoop, TasksStillQueuedAtTheEndAreDestroyedUnrun) {
  auto loop = std::make_unique<EventLoop>();
  const auto held = std::make_shared<int>(0);
  loop->Post([held] { FAIL(); });
  loop.reset();
  EXPECT_EQ(held.use_count(), 1);
}

TEST(EventLoop, KnowsWhetherItRunsOnThisThread) {
  EventLoop loop;
  EXPECT_FALSE(loop.IsRunningHere());
  bool inside = false;
  loop.Post([&] { inside = loop.IsRunningHere(); });
  loop.RunUntilIdle();
  EXPECT_TRUE(inside);
}

TEST(EventLoop, ASignalBecomesATask) {
  EventLoop loop;
  bool told = false;
  loop.OnSignal({SIGUSR1}, [&] { told = true; });
  std::raise(SIGUSR1);
  EXPECT_TRUE(loop.RunUntil([&] { return told; }));
}

TEST(EventLoop, ASecondSignalIsIgnored) {
  EventLoop loop;
  int told = 0;
  loop.OnSignal({SIGUSR1, SIGUSR2}, [&told] { ++told; });
  std::raise(SIGUSR1);
  loop.RunUntilIdle();
  std::raise(SIGUSR1);
  std::raise(SIGUSR2);
  loop.RunUntilIdle();
  EXPECT_EQ(told, 1);
}

TEST(EventLoop, ASignalReachesEveryLoopThatAskedForIt) {
  EventLoop first;
  auto second = std::make_unique<EventLoop>();
  int told = 0;
  first.OnSignal({SIGUSR1}, [&told] { ++told; });
  second->OnSignal({SIGUSR1}, [&told] { ++told; });
  std::raise(SIGUSR1);
  first.RunUntilIdle();
  second->RunUntilIdle();
  EXPECT_EQ(told, 2);
}

TEST(EventLoop, ASignalOfALoopThatIsGoneReachesNoLaterOne) {
  {
    EventLoop loop;
    loop.OnSignal({SIGUSR1}, [] {});
    std::raise(SIGUSR1);
  }
  EventLoop loop;
  loop.OnSignal({SIGUSR1}, [] { FAIL(); });
  loop.RunUntilIdle();
}

TEST(EventLoop, ASignalDoesAgainWhatItDidOnceTheLoopIsGone) {
  static int handled;
  handled = 0;
  const auto before = std::signal(SIGUSR1, [](int) { ++handled; });
  {
    EventLoop loop;
    loop.OnSignal({SIGUSR1}, [] {});
    std::raise(SIGUSR1);
    EXPECT_EQ(handled, 0);
  }
  std::raise(SIGUSR1);
  EXPECT_EQ(handled, 1);
  std::signal(SIGUSR1, before);
}

TEST(EventLoop, ANumberThatIsNoSignalIsNotWaitedFor) {
  EventLoop loop;
  loop.OnSignal({-1, 0, 1000, SIGKILL, SIGUSR1}, [] {});
  loop.RunUntilIdle();
}

TEST(EventLoop, AnEmptyTaskDoesNothingWhereverItIsPassed) {
  EventLoop loop;
  loop.Post(nullptr);
  loop.RunBeforeWaiting(nullptr);
  loop.mailbox()->Post(nullptr);
  loop.OnSignal({SIGUSR1}, nullptr);
  const auto timer = loop.RunAfter(absl::ZeroDuration(), nullptr);
  std::raise(SIGUSR1);
  loop.RunUntilIdle();
}

TEST(EventLoop, WhatIsToRunBeforeWaitingRunsAfterTheTasksThatAreReady) {
  EventLoop loop;
  std::vector<int> ran;
  loop.Post([&] {
    loop.RunBeforeWaiting([&ran] { ran.push_back(3); });
    ran.push_back(1);
  });
  loop.Post([&ran] { ran.push_back(2); });
  EXPECT_TRUE(loop.RunUntil([&ran] { return ran.size() == 3; }));
  EXPECT_THAT(ran, ElementsAre(1, 2, 3));
}

TEST(EventLoop, WhatAsksAgainToRunBeforeWaitingLetsOtherTasksRun) {
  EventLoop loop;
  std::function<void()> ask_again = [&] { loop.RunBeforeWaiting(ask_again); };
  ask_again();
  bool ran = false;
  loop.Post([&ran] { ran = true; });
  loop.RunReady();
  EXPECT_TRUE(ran);
  std::jthread other([&loop] { loop.Post([&loop] { loop.Stop(); }); });
  loop.Run();
}

TEST(EventLoop, WhatIsToRunBeforeWaitingRunsBeforeANestedRunWaits) {
  EventLoop loop;
  bool seen = false;
  loop.Post([&] {
    bool ran = false;
    loop.RunBeforeWaiting([&ran] { ran = true; });
    seen = loop.RunUntil([&ran] { return ran; });
  });
  loop.RunUntilIdle();
  EXPECT_TRUE(seen);
}

TEST(EventLoop, WhatIsToRunBeforeWaitingRunsBeforeARunReturns) {
  EventLoop loop;
  bool ran = false;
  loop.Post([&] {
    loop.RunBeforeWaiting([&ran] { ran = true; });
    loop.Stop();
  });
  loop.Run();
  EXPECT_TRUE(ran);
}

// A loop that spins does what another does ------------------------------------

constexpr EventLoopOptions kSpinning{.spin = absl::Milliseconds(1)};
constexpr EventLoopOptions kSpinningForever{.spin = absl::InfiniteDuration()};

TEST(SpinningEventLoop, RunsTasksInOrderAndEndsWhenStopped) {
  EventLoop loop(kSpinning);
  std::vector<int> ran;
  loop.Post([&] { ran.push_back(1); });
  loop.Post([&] {
    ran.push_back(2);
    loop.Stop();
  });
  loop.Post([&] { ran.push_back(3); });
  loop.Run();
  EXPECT_THAT(ran, ElementsAre(1, 2));
  loop.Post([&] { loop.Stop(); });
  loop.Run();
  EXPECT_THAT(ran, ElementsAre(1, 2, 3));
}

TEST(SpinningEventLoop, RunsATimerThatIsDueLongAfterItHasGoneToSleep) {
  EventLoop loop({.spin = absl::Microseconds(1)});
  bool ran = false;
  const auto timer = loop.RunAfter(absl::Milliseconds(2), [&] { ran = true; });
  EXPECT_TRUE(loop.RunUntil([&] { return ran; }));
}

TEST(SpinningEventLoop, SeesATimerWhileItSpins) {
  EventLoop loop(kSpinningForever);
  bool ran = false;
  const auto timer = loop.RunAfter(absl::Milliseconds(1), [&] { ran = true; });
  EXPECT_TRUE(loop.RunUntil([&] { return ran; }));
}

TEST(SpinningEventLoop, SeesTasksOfOtherThreadsWhileItSpins) {
  EventLoop loop(kSpinningForever);
  std::thread other([&] { loop.Post([&] { loop.Stop(); }); });
  loop.Run();
  other.join();
}

TEST(SpinningEventLoop, IsStoppedByAnotherThreadWhileItSpins) {
  EventLoop loop(kSpinningForever);
  std::thread other([&] { loop.Stop(); });
  loop.Run();
  other.join();
}

TEST(SpinningEventLoop, RunUntilIdleDoesNotSpin) {
  EventLoop loop(kSpinningForever);
  EXPECT_EQ(loop.RunUntilIdle(), 0u);
}

}  // namespace
}  // namespace orvane
