// Tests of an event loop inside any toolkit's main loop. The test of each
// toolkit instantiates MainLoopTest with a class like
//
//   class Toolkit {
//    public:
//     explicit Toolkit(EventLoop* loop);
//     // Sleeps in the toolkit's main loop until `done` holds.
//     void RunUntil(const std::function<bool()>& done);
//     // Runs `tick` every `milliseconds`, by a timer of the toolkit.
//     void Every(int milliseconds, std::function<void()> tick);
//   };

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_MAIN_LOOPS_MAIN_LOOP_TEST_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_MAIN_LOOPS_MAIN_LOOP_TEST_H_

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "absl/time/time.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/transport/in_process.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

namespace orvane {

template <typename Toolkit>
class MainLoopTest : public ::testing::Test {
 protected:
  EventLoop loop;
  Toolkit toolkit{&loop};
};
TYPED_TEST_SUITE_P(MainLoopTest);

TYPED_TEST_P(MainLoopTest, RunsWhatItsOwnThreadPosts) {
  bool ran = false;
  this->loop.Post([&ran] { ran = true; });
  this->toolkit.RunUntil([&ran] { return ran; });
}

TYPED_TEST_P(MainLoopTest, RunsTimers) {
  bool ran = false;
  const auto timer =
      this->loop.RunAfter(absl::Milliseconds(5), [&ran] { ran = true; });
  this->toolkit.RunUntil([&ran] { return ran; });
}

TYPED_TEST_P(MainLoopTest, RunsAllThatFourThreadsPostInTheOrderOfEach) {
  constexpr int kThreads = 4;
  constexpr int kPosts = 25'000;
  std::array<int, kThreads> ran{};
  int all_ran = 0;
  std::vector<std::thread> threads;
  for (int& of_thread : ran) {
    threads.emplace_back([this, &of_thread, &all_ran] {
      for (int i = 0; i < kPosts; ++i) {
        this->loop.Post([&of_thread, &all_ran, i] {
          EXPECT_EQ(of_thread++, i);
          ++all_ran;
        });
      }
    });
  }
  this->toolkit.RunUntil([&all_ran] { return all_ran == kThreads * kPosts; });
  for (std::thread& thread : threads) thread.join();
}

TYPED_TEST_P(MainLoopTest, LeavesTheToolkitItsTurnsInAFlood) {
  std::function<void()> flood = [this, &flood] {
    this->loop.Post([&flood] { flood(); });
  };
  flood();
  int ticks = 0;
  this->toolkit.Every(1, [&ticks] { ++ticks; });
  this->toolkit.RunUntil([&ticks] { return ticks >= 3; });
}

TYPED_TEST_P(MainLoopTest, CarriesCallsAndEvents) {
  class Widget final : public rpc::BrowserWidgetRpc {
   public:
    void Show(google::protobuf::RpcController*, const BrowserId* browser,
              google::protobuf::Empty*,
              google::protobuf::Closure* done) override {
      Publish<rpc::CursorChanged>(*browser, {});
      done->Run();
    }
  };
  Widget service;
  SocketServer server(&this->loop, &service);
  const auto connection = ConnectInProcess(&this->loop, &server);
  ASSERT_TRUE(connection.ok());
  rpc::BrowserWidgetRpcClient widget(connection->get());
  BrowserId browser;
  browser.set_value(7);
  bool is_answered = false;
  bool is_told = false;
  const auto cursors = widget.WhenCursorChanged(
      browser, [&is_told](const rpc::CursorChanged&) { is_told = true; });
  widget.Show(browser, [&is_answered](const auto& answer) {
    EXPECT_TRUE(answer.ok());
    is_answered = true;
  });
  this->toolkit.RunUntil([&] { return is_answered && is_told; });
}

TYPED_TEST_P(MainLoopTest, AllowsABlockingCallInTheToolkitsOwnHandlers) {
  rpc::BrowserWidgetRpc service;
  SocketServer server(&this->loop, &service);
  const auto connection = ConnectInProcess(&this->loop, &server);
  ASSERT_TRUE(connection.ok());
  rpc::BrowserWidgetRpcClient widget(connection->get());
  absl::Status answer;
  this->toolkit.Every(1, [&] {
    if (answer.ok()) answer = widget.Show(BrowserId()).status();
  });
  this->toolkit.RunUntil([&answer] { return !answer.ok(); });
  EXPECT_EQ(answer.message(), "Method Show() not implemented.");
}

REGISTER_TYPED_TEST_SUITE_P(MainLoopTest, RunsWhatItsOwnThreadPosts, RunsTimers,
                            RunsAllThatFourThreadsPostInTheOrderOfEach,
                            LeavesTheToolkitItsTurnsInAFlood,
                            CarriesCallsAndEvents,
                            AllowsABlockingCallInTheToolkitsOwnHandlers);

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_MAIN_LOOPS_MAIN_LOOP_TEST_H_
