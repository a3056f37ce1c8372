#include "zimbrel/src/core/common/rpc/transport/client_watch.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "google/protobuf/empty.pb.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"
#include "zimbrel/src/core/common/rpc/transport/in_process.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

namespace orvane {
namespace {

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;
using ::orvane::testing::Browser;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::NotNull;

// Show watches the client that calls it; Hide keeps its call.
class Widget final : public rpc::BrowserWidgetRpc {
 public:
  ~Widget() override {
    if (held_ != nullptr) held_->Run();
  }
  void Show(RpcController* controller, const BrowserId* request, Empty*,
            Closure* done) override {
    watches.push_back(Watch(controller, request->value()));
    done->Run();
  }
  void Hide(RpcController* controller, const BrowserId*, Empty*,
            Closure* done) override {
    held_controller = controller;
    held_ = done;
  }

  std::unique_ptr<ClientWatch> Watch(RpcController* controller,
                                     std::uint64_t browser) {
    return ClientWatch::Make(controller,
                             [this, browser] { gone.push_back(browser); });
  }

  RpcController* held_controller = nullptr;
  std::vector<std::unique_ptr<ClientWatch>> watches;
  std::vector<std::uint64_t> gone;

 private:
  Closure* held_ = nullptr;
};

class ClientWatchTest : public ::testing::Test {
 protected:
  std::unique_ptr<SocketClient> Connect() {
    return *ConnectInProcess(&loop_, server_.get());
  }
  void Show(SocketClient& client, std::uint64_t browser) {
    EXPECT_TRUE(
        rpc::BrowserWidgetRpcClient(&client).Show(Browser(browser)).ok());
  }

  EventLoop loop_;
  Widget widget_;
  std::unique_ptr<SocketServer> server_ =
      std::make_unique<SocketServer>(&loop_, &widget_);
};

TEST_F(ClientWatchTest, TellsThatTheClientHasGoneAndOnlyThat) {
  auto first = Connect();
  const auto second = Connect();
  Show(*first, 1);
  Show(*second, 2);
  EXPECT_THAT(widget_.gone, IsEmpty());
  first.reset();
  loop_.RunUntilIdle();
  EXPECT_THAT(widget_.gone, ElementsAre(1));
}

TEST_F(ClientWatchTest, TellsInTheOrderInWhichItWasAsked) {
  auto client = Connect();
  for (const std::uint64_t browser : {3, 1, 2}) Show(*client, browser);
  client.reset();
  loop_.RunUntilIdle();
  EXPECT_THAT(widget_.gone, ElementsAre(3, 1, 2));
}

TEST_F(ClientWatchTest, ADestroyedOneTellsNothing) {
  auto client = Connect();
  Show(*client, 1);
  Show(*client, 2);
  widget_.watches.erase(widget_.watches.begin());
  client.reset();
  loop_.RunUntilIdle();
  EXPECT_THAT(widget_.gone, ElementsAre(2));
}

TEST_F(ClientWatchTest, OneThatIsDestroyedAfterTheEndTellsNothing) {
  auto client = Connect();
  Show(*client, 1);
  Show(*client, 2);
  client.reset();
  // The second task waits.
  EXPECT_TRUE(loop_.RunUntil([this] { return !widget_.gone.empty(); }));
  widget_.watches.clear();
  loop_.RunUntilIdle();
  EXPECT_THAT(widget_.gone, ElementsAre(1));
}

TEST_F(ClientWatchTest, TheEndOfTheServerIsOne) {
  const auto client = Connect();
  Show(*client, 1);
  server_.reset();
  EXPECT_THAT(widget_.gone, IsEmpty());
  loop_.RunUntilIdle();
  EXPECT_THAT(widget_.gone, ElementsAre(1));
}

TEST_F(ClientWatchTest, ACallThatWasGivenUpCountsAsGone) {
  const auto client = Connect();
  CallHandle call =
      rpc::BrowserWidgetRpcClient(client.get()).Hide(Browser(1), nullptr);
  loop_.RunUntilIdle();
  ASSERT_THAT(widget_.held_controller, NotNull());
  call.Cancel();
  loop_.RunUntilIdle();
  const auto watch = widget_.Watch(widget_.held_controller, 1);
  EXPECT_THAT(widget_.gone, IsEmpty());
  loop_.RunUntilIdle();
  EXPECT_THAT(widget_.gone, ElementsAre(1));
}

TEST_F(ClientWatchTest, ACallOfTheSameProcessIsNotWatched) {
  EXPECT_EQ(ClientWatch::Make(nullptr, [] {}), nullptr);
}

TEST_F(ClientWatchTest, TheTaskMayBeEmpty) {
  auto client = Connect();
  rpc::BrowserWidgetRpcClient(client.get()).Hide(Browser(1), nullptr);
  loop_.RunUntilIdle();
  ASSERT_THAT(widget_.held_controller, NotNull());
  const auto watch = ClientWatch::Make(widget_.held_controller, nullptr);
  client.reset();
  loop_.RunUntilIdle();
  EXPECT_EQ(server_->connections(), 0u);
}

}  // namespace
}  // namespace orvane
