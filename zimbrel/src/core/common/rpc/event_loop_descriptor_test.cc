// A loop that is driven by somebody else's, who waits for its descriptor.

#include "zimbrel/src/core/common/rpc/event_loop.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <semaphore>
#include <thread>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace orvane {
namespace {

using ::testing::ElementsAre;

bool WaitsNoLongerThan(EventLoop& loop, int milliseconds) {
  pollfd wanted{.fd = loop.descriptor(), .events = POLLIN, .revents = 0};
  return ::poll(&wanted, 1, milliseconds) == 1;
}

bool IsReadable(EventLoop& loop) { return WaitsNoLongerThan(loop, 0); }

// As a foreign main loop does, until `done` holds.
template <typename Done>
void DriveUntil(EventLoop& loop, Done done) {
  while (!done()) {
    WaitsNoLongerThan(loop, -1);
    loop.RunReady();
  }
}

// Being readable for nothing is allowed, but ends with the next run.
void RunUntilQuiet(EventLoop& loop) {
  while (IsReadable(loop)) loop.RunReady();
}

std::pair<OwnedDescriptor, OwnedDescriptor> Pair() {
  std::array<int, 2> ends{};
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()),
            0);
  return {OwnedDescriptor(ends[0]), OwnedDescriptor(ends[1])};
}

TEST(EventLoopDescriptor, IsAlwaysTheSame) {
  EventLoop loop;
  const int descriptor = loop.descriptor();
  loop.Post([] {});
  loop.RunReady();
  EXPECT_EQ(loop.descriptor(), descriptor);
}

TEST(EventLoopDescriptor, IsQuietWithoutWork) {
  EventLoop loop;
  EXPECT_FALSE(IsReadable(loop));
  EXPECT_EQ(loop.RunReady(), 0u);
  EXPECT_FALSE(IsReadable(loop));
}

TEST(EventLoopDescriptor, IsReadableForATaskUntilItHasRun) {
  EventLoop loop;
  EXPECT_FALSE(IsReadable(loop));
  bool ran = false;
  loop.Post([&ran] { ran = true; });
  EXPECT_TRUE(IsReadable(loop));
  loop.RunReady();
  EXPECT_TRUE(ran);
  EXPECT_FALSE(IsReadable(loop));
}

TEST(EventLoopDescriptor, IsReadableForWhatIsToRunBeforeWaiting) {
  EventLoop loop;
  EXPECT_FALSE(IsReadable(loop));
  bool ran = false;
  loop.RunBeforeWaiting([&ran] { ran = true; });
  EXPECT_TRUE(IsReadable(loop));
  RunUntilQuiet(loop);
  EXPECT_TRUE(ran);
}

TEST(EventLoopDescriptor, IsReadableForATaskThatCameBeforeItWasAskedFor) {
  EventLoop loop;
  loop.Post([] {});
  EXPECT_TRUE(IsReadable(loop));
}

TEST(EventLoopDescriptor, IsReadableForATaskOfAnotherThread) {
  EventLoop loop;
  bool ran = false;
  loop.descriptor();
  std::thread other([&] { loop.Post([&ran] { ran = true; }); });
  DriveUntil(loop, [&ran] { return ran; });
  other.join();
}

TEST(EventLoopDescriptor, IsReadableForATimerThatIsDueAndNotBefore) {
  EventLoop loop;
  loop.descriptor();
  const auto begun = std::chrono::steady_clock::now();
  bool ran = false;
  const auto timer = loop.RunAfter(absl::Milliseconds(20), [&] { ran = true; });
  EXPECT_TRUE(WaitsNoLongerThan(loop, -1));
  EXPECT_GE(std::chrono::steady_clock::now() - begun,
            std::chrono::milliseconds(20));
  loop.RunReady();
  EXPECT_TRUE(ran);
  EXPECT_FALSE(IsReadable(loop));
}

TEST(EventLoopDescriptor, IsReadableForATimerThatATaskHasSet) {
  EventLoop loop;
  loop.descriptor();
  bool ran = false;
  std::unique_ptr<EventLoop::Timer> timer;
  loop.Post([&] {
    timer = loop.RunAfter(absl::Milliseconds(1), [&ran] { ran = true; });
  });
  DriveUntil(loop, [&ran] { return ran; });
}

TEST(EventLoopDescriptor, IsReadableForAnEarlierTimerThanTheFirst) {
  EventLoop loop;
  loop.descriptor();
  bool ran = false;
  const auto late = loop.RunAfter(absl::Hours(1), [] { FAIL(); });
  const auto soon = loop.RunAfter(absl::Milliseconds(1), [&] { ran = true; });
  DriveUntil(loop, [&ran] { return ran; });
  EXPECT_FALSE(IsReadable(loop));
}

TEST(EventLoopDescriptor, IsReadableForALaterTimerOnceAnEarlierOneWasDropped) {
  EventLoop loop;
  loop.descriptor();
  bool ran = false;
  auto soon = loop.RunAfter(absl::Milliseconds(1), [] { FAIL(); });
  const auto late = loop.RunAfter(absl::Milliseconds(5), [&] { ran = true; });
  soon.reset();
  DriveUntil(loop, [&ran] { return ran; });
}

TEST(EventLoopDescriptor, IsReadableForASocketAndForItsEnd) {
  EventLoop loop;
  auto [ours, theirs] = Pair();
  const auto watch = *loop.WatchDescriptor(std::move(ours));
  int told = 0;
  watch->WhenReadable([&told] { ++told; });
  RunUntilQuiet(loop);
  ASSERT_EQ(::send(theirs.get(), "x", 1, 0), 1);
  EXPECT_TRUE(IsReadable(loop));
  loop.RunReady();
  EXPECT_EQ(told, 1);
  EXPECT_FALSE(IsReadable(loop));

  watch->WhenReadable([&told] { ++told; });
  ASSERT_EQ(::shutdown(theirs.get(), SHUT_RDWR), 0);
  EXPECT_TRUE(IsReadable(loop));
  loop.RunReady();
  EXPECT_EQ(told, 2);
}

TEST(EventLoopDescriptor, StaysReadableForWhatASpentBudgetHasLeft) {
  EventLoop loop;
  int ran = 0;
  for (int i = 0; i < 3; ++i) loop.Post([&ran] { ++ran; });
  EXPECT_EQ(loop.RunReady(absl::ZeroDuration()), 1u);
  EXPECT_EQ(ran, 1);
  EXPECT_TRUE(IsReadable(loop));
  RunUntilQuiet(loop);
  EXPECT_EQ(ran, 3);
}

TEST(EventLoopDescriptor, StaysReadableForWhatRunUntilHasLeft) {
  EventLoop loop;
  loop.descriptor();
  int ran = 0;
  for (int i = 0; i < 3; ++i) loop.Post([&ran] { ++ran; });
  EXPECT_TRUE(loop.RunUntil([&ran] { return ran == 1; }));
  EXPECT_TRUE(IsReadable(loop));
  RunUntilQuiet(loop);
  EXPECT_EQ(ran, 3);
}

TEST(EventLoopDescriptor, StaysReadableForWhatANestedRunHasLeft) {
  EventLoop loop;
  bool inner = false;
  bool later = false;
  loop.Post([&] {
    loop.Post([&inner] { inner = true; });
    loop.Post([&later] { later = true; });
    EXPECT_TRUE(loop.RunUntil([&inner] { return inner; }));
  });
  loop.RunReady();
  EXPECT_FALSE(later);
  EXPECT_TRUE(IsReadable(loop));
  RunUntilQuiet(loop);
  EXPECT_TRUE(later);
}

TEST(EventLoopDescriptor, StaysReadableForWhatStopHasLeft) {
  EventLoop loop;
  bool later = false;
  loop.Post([&loop] { loop.Stop(); });
  loop.Post([&later] { later = true; });
  EXPECT_EQ(loop.RunReady(), 1u);
  EXPECT_TRUE(IsReadable(loop));
  RunUntilQuiet(loop);
  EXPECT_TRUE(later);
}

TEST(RunReady, RunsTheTasksOfAllSocketsThatAreReady) {
  constexpr int kSockets = 200;
  EventLoop loop;
  std::vector<OwnedDescriptor> peers;
  std::vector<std::unique_ptr<EventLoop::Watch>> watches;
  int told = 0;
  for (int i = 0; i < kSockets; ++i) {
    auto [ours, theirs] = Pair();
    watches.push_back(*loop.WatchDescriptor(std::move(ours)));
    watches.back()->WhenReadable([&told] { ++told; });
    ASSERT_EQ(::send(theirs.get(), "x", 1, 0), 1);
    peers.push_back(std::move(theirs));
  }
  EXPECT_EQ(loop.RunReady(), static_cast<std::size_t>(kSockets));
  EXPECT_EQ(told, kSockets);
}

TEST(EventLoopDescriptor, IsReadableForTenThousandTimersOfOneMoment) {
  constexpr int kTimers = 10'000;
  EventLoop loop;
  loop.descriptor();
  std::vector<std::unique_ptr<EventLoop::Timer>> timers;
  int ran = 0;
  for (int i = 0; i < kTimers; ++i) {
    timers.push_back(loop.RunAfter(absl::Milliseconds(1), [&] {
      ++ran;
      timers[static_cast<std::size_t>(kTimers - ran)].reset();
    }));
  }
  // The second half is dropped by the first.
  DriveUntil(loop, [&ran] { return ran == kTimers / 2; });
  RunUntilQuiet(loop);
  EXPECT_EQ(ran, kTimers / 2);
}

// A run that ends ------------------------------------------------------------

// A task that never ends: it posts itself.
class Flood {
 public:
  explicit Flood(EventLoop* loop) : loop_(loop) { Post(); }
  int waves() const { return waves_; }

 private:
  void Post() {
    loop_->Post([this] {
      ++waves_;
      Post();
    });
  }

  EventLoop* const loop_;
  int waves_ = 0;
};

TEST(RunReady, RunsWhatWasReadyWhenItBegan) {
  EventLoop loop;
  std::vector<int> ran;
  loop.Post([&] {
    ran.push_back(1);
    loop.Post([&ran] { ran.push_back(3); });
  });
  loop.Post([&ran] { ran.push_back(2); });
  EXPECT_EQ(loop.RunReady(), 2u);
  EXPECT_THAT(ran, ElementsAre(1, 2));
  EXPECT_EQ(loop.RunReady(), 1u);
  EXPECT_THAT(ran, ElementsAre(1, 2, 3));
}

TEST(RunReady, ReturnsThoughATaskPostsItself) {
  EventLoop loop;
  const Flood flood(&loop);
  EXPECT_EQ(loop.RunReady(), 1u);
  EXPECT_EQ(flood.waves(), 1);
}

TEST(RunUntilIdle, ReturnsThoughATaskPostsItself) {
  EventLoop loop;
  const Flood flood(&loop);
  EXPECT_GT(loop.RunUntilIdle(absl::Milliseconds(1)), 0u);
  EXPECT_TRUE(IsReadable(loop));
}

TEST(EventLoop, TimersRunBesideATaskThatPostsItself) {
  EventLoop loop;
  const Flood flood(&loop);
  bool ran = false;
  const auto timer = loop.RunAfter(absl::Milliseconds(1), [&] { ran = true; });
  EXPECT_TRUE(loop.RunUntil([&ran] { return ran; }));
}

TEST(EventLoop, SocketsAreSeenBesideATaskThatPostsItself) {
  EventLoop loop;
  const Flood flood(&loop);
  auto [ours, theirs] = Pair();
  const auto watch = *loop.WatchDescriptor(std::move(ours));
  bool told = false;
  watch->WhenReadable([&told] { told = true; });
  ASSERT_EQ(::send(theirs.get(), "x", 1, 0), 1);
  EXPECT_TRUE(loop.RunUntil([&told] { return told; }));
}

TEST(EventLoop, ManyTimersOfOneTimeRunInOrderEachAsAStepOfItsOwn) {
  constexpr int kTimers = 1000;
  EventLoop loop;
  std::vector<int> ran;
  std::vector<std::unique_ptr<EventLoop::Timer>> timers;
  for (int i = 0; i < kTimers; ++i) {
    timers.push_back(
        loop.RunAfter(absl::ZeroDuration(), [&ran, i] { ran.push_back(i); }));
  }
  EXPECT_EQ(loop.RunReady(absl::ZeroDuration()), 1u);
  EXPECT_THAT(ran, ElementsAre(0));
  EXPECT_EQ(loop.RunReady(), static_cast<std::size_t>(kTimers - 1));
  EXPECT_EQ(ran.size(), static_cast<std::size_t>(kTimers));
  EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
}

TEST(RunReady, RunsTimersThatCameDueWhileOthersWereLeft) {
  EventLoop loop;
  std::vector<std::unique_ptr<EventLoop::Timer>> timers;
  const auto set_two = [&] {
    for (int i = 0; i < 2; ++i)
      timers.push_back(loop.RunAfter(absl::ZeroDuration(), [] {}));
  };
  set_two();
  EXPECT_EQ(loop.RunReady(absl::ZeroDuration()), 1u);
  set_two();
  EXPECT_EQ(loop.RunReady(), 3u);
}

TEST(RunReady, LeavesATimerThatATimerHasSet) {
  EventLoop loop;
  int ran = 0;
  std::unique_ptr<EventLoop::Timer> timer;
  std::function<void()> again = [&] {
    ++ran;
    timer = loop.RunAfter(absl::ZeroDuration(), [&again] { again(); });
  };
  timer = loop.RunAfter(absl::ZeroDuration(), [&again] { again(); });
  EXPECT_EQ(loop.RunReady(), 1u);
  EXPECT_EQ(ran, 1);
  EXPECT_TRUE(IsReadable(loop));
}

// Threads --------------------------------------------------------------------

TEST(EventLoopDescriptor, NoneOfManyPostsOfFourThreadsIsLost) {
  constexpr int kThreads = 4;
  constexpr int kPosts = 25'000;
  EventLoop loop;
  loop.descriptor();
  std::array<int, kThreads> seen{};
  int total = 0;
  std::vector<std::thread> threads;
  for (std::size_t thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kPosts; ++i) {
        loop.Post([&seen, &total, thread, i] {
          EXPECT_EQ(seen[thread], i);  // In order.
          ++seen[thread];
          ++total;
        });
      }
    });
  }
  DriveUntil(loop, [&total] { return total == kThreads * kPosts; });
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(seen, ElementsAre(kPosts, kPosts, kPosts, kPosts));
  EXPECT_FALSE(IsReadable(loop));
}

// As where a toolkit cannot wait for descriptors.
TEST(EventLoopDescriptor, MayBeWaitedForByAnotherThread) {
  constexpr int kTasks = 1000;
  EventLoop loop;
  const int descriptor = loop.descriptor();
  std::atomic<bool> is_over = false;
  std::counting_semaphore<> seen{0};
  std::counting_semaphore<> handled{0};
  std::thread waiter([&] {
    do {
      pollfd wanted{.fd = descriptor, .events = POLLIN, .revents = 0};
      EXPECT_EQ(::poll(&wanted, 1, -1), 1);
      seen.release();
      handled.acquire();
    } while (!is_over);
  });
  const auto run_when_told = [&] {
    seen.acquire();
    RunUntilQuiet(loop);
    handled.release();
  };
  int ran = 0;
  std::unique_ptr<EventLoop::Timer> timer;
  for (int i = 0; i < kTasks; ++i) {
    if (i % 2 == 0) {
      loop.Post([&ran] { ++ran; });
    } else {
      timer = loop.RunAfter(absl::Microseconds(10), [&ran] { ++ran; });
    }
    while (ran == i) run_when_told();
  }
  loop.Post([] {});
  seen.acquire();
  RunUntilQuiet(loop);
  is_over = true;
  handled.release();
  waiter.join();
}

// Every post here finds the loop asleep, so each has to wake it.
TEST(EventLoopDescriptor, EveryPostWakesALoopThatHasGoneToSleep) {
  constexpr int kPosts = 1000;
  EventLoop loop;
  EventLoop other;
  loop.descriptor();
  other.descriptor();
  int passed = 0;
  absl::AnyInvocable<void()> ping;
  absl::AnyInvocable<void()> pong = [&] { loop.Post([&ping] { ping(); }); };
  ping = [&] {
    ++passed;
    other.Post([&pong] { pong(); });
  };
  std::thread thread([&other] {
    // Its own way of waiting, so that both are seen.
    other.Run();
  });
  loop.Post([&ping] { ping(); });
  DriveUntil(loop, [&passed] { return passed == kPosts; });
  other.Stop();
  thread.join();
}

}  // namespace
}  // namespace orvane
