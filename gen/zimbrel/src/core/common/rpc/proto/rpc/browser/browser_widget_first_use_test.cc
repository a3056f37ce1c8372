// The first calls of descriptor(), from several threads at once. A process has
// only one first time, so this is a program of its own.

#include <latch>
#include <thread>
#include <vector>

#include "gmock/gmock.h"
#include "google/protobuf/descriptor.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"

namespace rpc {
namespace {

TEST(BrowserWidgetFirstUse, ThreadsThatRaceGetTheSameDescriptor) {
  constexpr std::size_t kThreads = 8;
  std::latch start(kThreads);
  BrowserWidgetRpc service;
  std::vector<const google::protobuf::ServiceDescriptor*> seen(kThreads);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      seen[i] =
          i % 2 == 0 ? BrowserWidgetRpc::descriptor() : service.GetDescriptor();
    });
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_NE(seen[0], nullptr);
  EXPECT_EQ(seen[0]->method_count(), 52);
  EXPECT_THAT(seen, ::testing::Each(seen[0]));
}

}  // namespace
}  // namespace rpc
