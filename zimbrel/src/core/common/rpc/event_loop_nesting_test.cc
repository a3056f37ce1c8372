// Runs inside tasks of other runs: by hand, and at random beside a model.

#include "zimbrel/src/core/common/rpc/event_loop.h"

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <iterator>
#include <latch>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace orvane {
namespace {

using ::testing::ElementsAre;

TEST(NestedRun, SeesATaskThatItsOwnTaskHasPosted) {
  EventLoop loop;
  bool seen = false;
  loop.Post([&] {
    bool ran = false;
    loop.Post([&ran] { ran = true; });
    seen = loop.RunUntil([&ran] { return ran; });
  });
  loop.RunUntilIdle();
  EXPECT_TRUE(seen);
}

TEST(NestedRun, SeesWhatWasPostedBetweenItsTaskAndItself) {
  EventLoop loop;
  std::vector<int> ran;
  loop.Post([&] {
    ran.push_back(1);
    loop.Post([&ran] { ran.push_back(3); });
    loop.RunUntil([&ran] { return ran.size() == 3; });
  });
  loop.Post([&ran] { ran.push_back(2); });
  loop.RunUntilIdle();
  EXPECT_THAT(ran, ElementsAre(1, 2, 3));
}

TEST(NestedRun, SeesATimerInsideATimer) {
  EventLoop loop;
  bool outer = false;
  std::unique_ptr<EventLoop::Timer> second;
  const auto first = loop.RunAfter(absl::ZeroDuration(), [&] {
    bool inner = false;
    second = loop.RunAfter(absl::ZeroDuration(), [&inner] { inner = true; });
    outer = loop.RunUntil([&inner] { return inner; });
  });
  EXPECT_TRUE(loop.RunUntil([&outer] { return outer; }));
}

TEST(NestedRun, ReturnsAtOnceAfterStopAndSoDoAllAroundIt) {
  EventLoop loop;
  bool inner = true;
  bool outer = true;
  loop.Post([&] {
    loop.Post([&] {
      loop.Stop();
      inner = loop.RunUntil([] { return false; });
    });
    outer = loop.RunUntil([] { return false; });
  });
  loop.Run();
  EXPECT_FALSE(inner);
  EXPECT_FALSE(outer);
}

TEST(NestedRun, OfRunLeavesTheStopToTheOutermost) {
  EventLoop loop;
  bool later = false;
  loop.Post([&] {
    loop.Post([&loop] { loop.Stop(); });
    loop.Post([&later] { later = true; });
    loop.Run();
  });
  loop.Run();
  EXPECT_FALSE(later);
}

TEST(NestedRun, IsStillInsideTheLoopAfterwards) {
  EventLoop loop;
  bool inside = false;
  loop.Post([&] {
    loop.RunUntil([] { return true; });
    inside = loop.IsRunningHere();
  });
  loop.RunUntilIdle();
  EXPECT_TRUE(inside);
  EXPECT_FALSE(loop.IsRunningHere());
}

TEST(NestedRun, ThreeDeepEachTaskGoesOnAfterAStopInTheMiddle) {
  EventLoop loop;
  std::vector<int> returned;
  const auto wait = [&](int depth) {
    EXPECT_FALSE(loop.RunUntil([] { return false; }));
    returned.push_back(depth);
  };
  loop.Post([&] {
    loop.Post([&] {
      loop.Post([&] {
        loop.Stop();
        wait(3);
      });
      wait(2);
      wait(2);  // Still stopped.
    });
    wait(1);
  });
  loop.Run();
  EXPECT_THAT(returned, ElementsAre(3, 2, 2, 1));
  bool ran = false;
  loop.Post([&ran] { ran = true; });
  EXPECT_TRUE(loop.RunUntil([&ran] { return ran; }));
}

TEST(NestedRun, SeesASignalAndIsNotEndedByIt) {
  EventLoop loop;
  bool told = false;
  loop.OnSignal({SIGUSR1}, [&told] { told = true; });
  bool seen = false;
  // Each interrupts a wait, wherever the run is.
  std::atomic<bool> is_over = false;
  const pthread_t runner = ::pthread_self();
  std::latch inside(1);
  std::thread other([&] {
    inside.wait();
    while (!is_over) ::pthread_kill(runner, SIGUSR1);
  });
  std::unique_ptr<EventLoop::Timer> later;
  loop.Post([&] {
    bool is_late = false;
    later =
        loop.RunAfter(absl::Milliseconds(5), [&is_late] { is_late = true; });
    inside.count_down();
    seen = loop.RunUntil([&] { return told && is_late; });
  });
  loop.RunUntilIdle();
  is_over = true;
  other.join();
  EXPECT_TRUE(seen);
}

// At random ------------------------------------------------------------------

// Tasks and timers that do random things: add others, drop timers, run the loop
// nested until a certain one has run. The model knows in which order they have
// to begin.
class RandomWork {
 public:
  RandomWork(EventLoop* loop, unsigned seed) : loop_(loop), random_(seed) {}

  void Run() {
    for (int i = 0; i < 5; ++i) AddTask();
    while (!tasks_.empty() || !timers_.empty()) {
      loop_->RunUntil([this, left = left_] { return left_ != left; });
    }
  }

 private:
  static constexpr int kMaxAdded = 300;
  static constexpr int kMaxDepth = 20;

  int Upto(int limit) {
    return std::uniform_int_distribution<int>(0, limit - 1)(random_);
  }

  void AddTask() {
    if (added_ == kMaxAdded) return;
    const int id = added_++;
    tasks_.insert(id);
    ++left_;
    loop_->Post([this, id] {
      // In the order in which they were posted, wherever from.
      EXPECT_EQ(*tasks_.begin(), id);
      tasks_.erase(id);
      Ran();
    });
  }

  void AddTimer() {
    if (added_ == kMaxAdded) return;
    const int id = added_++;
    ++left_;
    timers_.emplace(id, loop_->RunAfter(absl::ZeroDuration(), [this, id] {
      EXPECT_EQ(timers_.begin()->first, id);
      timers_.erase(id);  // From inside itself.
      Ran();
    }));
  }

  void DropTimer() {
    if (timers_.empty()) return;
    timers_.erase(
        std::next(timers_.begin(), Upto(static_cast<int>(timers_.size()))));
    --left_;
  }

  // Whatever has begun has been removed from its table.
  void WaitForOne() {
    if (depth_ == kMaxDepth) return;
    ++depth_;
    if (!tasks_.empty() && Upto(2) == 0) {
      const int id =
          *std::next(tasks_.begin(), Upto(static_cast<int>(tasks_.size())));
      EXPECT_TRUE(loop_->RunUntil([&] { return !tasks_.contains(id); }));
    } else if (!timers_.empty()) {
      const int id = timers_.begin()->first;
      EXPECT_TRUE(loop_->RunUntil([&] { return !timers_.contains(id); }));
    }
    --depth_;
  }

  void Ran() {
    --left_;
    const int actions = Upto(4);
    for (int i = 0; i < actions; ++i) {
      switch (Upto(6)) {
        case 0:
        case 1:
          AddTask();
          break;
        case 2:
          AddTimer();
          break;
        case 3:
          DropTimer();
          break;
        case 4:
          WaitForOne();
          break;
        case 5:
          loop_->RunReady();
          break;
      }
    }
  }

  EventLoop* const loop_;
  std::mt19937 random_;
  int added_ = 0;
  int depth_ = 0;
  int left_ = 0;
  std::set<int> tasks_;
  std::map<int, std::unique_ptr<EventLoop::Timer>> timers_;
};

TEST(NestedRun, RandomWorkRunsInTheOrderOfTheModel) {
  for (unsigned seed = 0; seed < 300; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    EventLoop loop;
    RandomWork(&loop, seed).Run();
    if (::testing::Test::HasFailure()) return;
  }
}

}  // namespace
}  // namespace orvane
