#include "zimbrel/src/core/common/rpc/current_loop.h"

#include <latch>
#include <thread>

#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"

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
      "EventLoop::Post and Mailbox::Post lead there");
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

}  // namespace
}  // namespace orvane
