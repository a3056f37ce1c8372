#include "zimbrel/src/core/common/rpc/current_loop.h"

#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <latch>
#include <memory>
#include <thread>

#include "absl/base/config.h"
#include "absl/strings/str_cat.h"
#include "absl/time/time.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace orvane {
namespace {

TEST(CurrentLoopTest, IsNullOnAThreadWithoutLoops) {
  EXPECT_EQ(CurrentLoop(), nullptr);
}

TEST(CurrentLoopTest, IsTheLatestThatTheThreadMade) {
  EventLoop first;
  EXPECT_EQ(CurrentLoop(), &first);
  {
    EventLoop second;
    EXPECT_EQ(CurrentLoop(), &second);
  }
  EXPECT_EQ(CurrentLoop(), &first);
}

TEST(CurrentLoopTest, IsTheOneThatRuns) {
  EventLoop first;
  EventLoop second;
  EventLoop* current = nullptr;
  first.Post([&current] { current = CurrentLoop(); });
  first.RunUntilIdle();
  EXPECT_EQ(current, &first);
}

TEST(CurrentLoopTest, IsTheOneThatRunsAlsoIfAnotherThreadMadeIt) {
  EventLoop loop;
  EventLoop* current = nullptr;
  EventLoop* before = &loop;
  loop.Post([&current] { current = CurrentLoop(); });
  std::thread([&loop, &before] {
    before = CurrentLoop();
    loop.RunUntilIdle();
  }).join();
  EXPECT_EQ(before, nullptr);
  EXPECT_EQ(current, &loop);
}

TEST(CurrentLoopTest, IsTheInnermostOfThoseThatRun) {
  EventLoop outer;
  EventLoop inner;
  EventLoop* inside = nullptr;
  EventLoop* behind = nullptr;
  inner.Post([&inside] { inside = CurrentLoop(); });
  outer.Post([&] {
    inner.RunUntilIdle();
    behind = CurrentLoop();
  });
  outer.RunUntilIdle();
  EXPECT_EQ(inside, &inner);
  EXPECT_EQ(behind, &outer);
}

TEST(CurrentLoopTest, BetweenRunsIsThatOfTheThreadThatRanItLast) {
  EventLoop loop;
  EventLoop* between = nullptr;
  std::thread([&loop, &between] {
    loop.RunUntilIdle();
    between = CurrentLoop();
  }).join();
  EXPECT_EQ(between, &loop);
}

TEST(CurrentLoopTest, IsThatOfItsMakerAgainOnceAnotherThreadHasRunIt) {
  EventLoop loop;
  std::thread([&loop] { loop.RunUntilIdle(); }).join();
  EXPECT_EQ(CurrentLoop(), &loop);
}

TEST(CurrentLoopTest, IsNotThatOfItsMakerWhileAnotherThreadRunsIt) {
  EventLoop loop;
  std::latch is_running(1);
  std::thread other([&] {
    loop.Post([&] { is_running.count_down(); });
    loop.Run();
  });
  is_running.wait();
  EXPECT_EQ(CurrentLoop(), nullptr);
  loop.Stop();
  other.join();
}

TEST(ServiceThreadCheckTest, ForgivesWithoutALoop) {
  internal::CheckServiceThread("anything");
}

TEST(ServiceThreadCheckTest, ForgivesTheThreadThatMadeALoop) {
  EventLoop loop;
  internal::CheckServiceThread("anything");
  loop.CheckServiceThread("anything");
}

TEST(ServiceThreadCheckDeathTest, NamesTheOperationAndTheWayToTheLoop) {
  EventLoop loop;
  EXPECT_DEATH(
      std::thread([] { internal::CheckServiceThread("Ringing"); }).join(),
      "Ringing on a thread that is not the service thread; "
      "use EventLoop::Post or Mailbox::Post");
}

TEST(ServiceThreadCheckDeathTest, TellsTheLoopsOfOneThreadFromThoseOfAnother) {
  EventLoop loop;
  EXPECT_DEATH(std::thread([&loop] {
                 EventLoop own;
                 internal::CheckServiceThread("Knocking");
                 loop.CheckServiceThread("Ringing");
               }).join(),
               "Ringing on a thread that is not the service thread");
}

// The loop's own operations ---------------------------------------------------

class LoopOperationDeathTest : public ::testing::Test {
 protected:
  // Whether `operation` ends the process, by that name, on another thread.
  template <typename Operation>
  void ExpectRefused(const char* name, Operation operation) {
    EXPECT_DEATH(std::thread(operation).join(),
                 absl::StrCat(name, " on a thread that is not the service"));
  }

  std::unique_ptr<EventLoop::Watch> Watch() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::pipe(ends.data()), 0);
    const OwnedDescriptor closed(ends[1]);
    return *loop_.WatchDescriptor(OwnedDescriptor(ends[0]));
  }

  EventLoop loop_;
};

TEST_F(LoopOperationDeathTest, SettingATimerElsewhereIsFatal) {
  ExpectRefused("EventLoop::RunAfter", [this] {
    const auto timer = loop_.RunAfter(absl::Hours(1), [] {});
  });
}

TEST_F(LoopOperationDeathTest, DroppingATimerElsewhereIsFatal) {
  auto timer = loop_.RunAfter(absl::Hours(1), [] {});
  ExpectRefused("EventLoop::Timer::~Timer", [&timer] { timer.reset(); });
}

TEST_F(LoopOperationDeathTest, ATimerThatHasRunMayBeDroppedAnywhere) {
  auto timer = loop_.RunAfter(absl::ZeroDuration(), [] {});
  EXPECT_EQ(loop_.RunUntilIdle(), 1u);
  std::thread([&timer] { timer.reset(); }).join();
}

TEST_F(LoopOperationDeathTest, WatchingADescriptorElsewhereIsFatal) {
  ExpectRefused("EventLoop::WatchDescriptor", [this] { Watch(); });
}

TEST_F(LoopOperationDeathTest, UsingAWatchElsewhereIsFatal) {
  auto watch = Watch();
  ExpectRefused("EventLoop::Watch::WhenReadable",
                [&watch] { watch->WhenReadable([] {}); });
  ExpectRefused("EventLoop::Watch::WhenWritable",
                [&watch] { watch->WhenWritable([] {}); });
  ExpectRefused("EventLoop::Watch::~Watch", [&watch] { watch.reset(); });
}

TEST_F(LoopOperationDeathTest, WhoeverAsksForItsDescriptorMayRunIt) {
  bool ran = false;
  std::thread([this, &ran] {
    loop_.descriptor();
    const auto timer =
        loop_.RunAfter(absl::ZeroDuration(), [&ran] { ran = true; });
    EXPECT_EQ(loop_.RunReady(), 1u);
  }).join();
  EXPECT_TRUE(ran);
}

// The system may give it the same id.
TEST_F(LoopOperationDeathTest, AThreadIsNotTakenForOneThatHasEnded) {
  std::thread([this] { loop_.RunUntilIdle(); }).join();
  ExpectRefused("EventLoop::RunAfter", [this] {
    const auto timer = loop_.RunAfter(absl::Hours(1), [] {});
  });
}

TEST_F(LoopOperationDeathTest, AskingToRunBeforeWaitingElsewhereIsFatal) {
  ExpectRefused("EventLoop::RunBeforeWaiting",
                [this] { loop_.RunBeforeWaiting([] {}); });
}

TEST_F(LoopOperationDeathTest, TakingASignalElsewhereIsFatal) {
  ExpectRefused("EventLoop::OnSignal",
                [this] { loop_.OnSignal({SIGUSR1}, [] {}); });
}

// The sanitizers need descriptors too, so the test does not exist there.
#if !defined(ABSL_HAVE_ADDRESS_SANITIZER) && \
    !defined(ABSL_HAVE_THREAD_SANITIZER)
TEST_F(LoopOperationDeathTest, TakingASignalWithoutADescriptorIsFatal) {
  loop_.OnSignal({SIGUSR1}, [] {});
  EXPECT_DEATH(
      {
        EventLoop other;
        const rlimit none{};
        ::setrlimit(RLIMIT_NOFILE, &none);
        other.OnSignal({SIGUSR1}, [] {});
      },
      "event loop: cannot create a descriptor for signals");
}
#endif

// Runs a loop on a thread of its own until the process ends.
std::thread RunElsewhere(EventLoop& loop) {
  std::latch is_running(1);
  std::thread runner([&] {
    loop.Post([&] { is_running.count_down(); });
    loop.Run();
  });
  is_running.wait();
  return runner;
}

TEST_F(LoopOperationDeathTest, RunningItOnTwoThreadsIsFatal) {
  EXPECT_DEATH(
      {
        const std::thread runner = RunElsewhere(loop_);
        loop_.RunUntilIdle();
      },
      "an EventLoop is run while another thread is running it");
}

TEST_F(LoopOperationDeathTest, DestroyingItWhileAnotherThreadRunsItIsFatal) {
  EXPECT_DEATH(
      {
        auto loop = std::make_unique<EventLoop>();
        const std::thread runner = RunElsewhere(*loop);
        loop.reset();
      },
      "~EventLoop on a thread that is not the service thread");
}

TEST_F(LoopOperationDeathTest, DestroyingItInsideItsTaskIsFatal) {
  EXPECT_DEATH(
      {
        auto loop = std::make_unique<EventLoop>();
        loop->Post([&loop] { loop.reset(); });
        loop->RunUntilIdle();
      },
      "~EventLoop inside a task of the loop");
}

}  // namespace
}  // namespace orvane
