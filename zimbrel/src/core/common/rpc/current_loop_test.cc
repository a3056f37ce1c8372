#include "zimbrel/src/core/common/rpc/current_loop.h"

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

}  // namespace
}  // namespace orvane
