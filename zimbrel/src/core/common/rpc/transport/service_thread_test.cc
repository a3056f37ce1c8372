// What belongs to the service thread ends the process on any other one.

#include <functional>
#include <latch>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"
#include "zimbrel/src/core/common/rpc/transport/client_watch.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace orvane::testing {
namespace {

using TakeFocus = rpc::TakeFocus;
using Tooltip = rpc::TooltipChanged;

void OnAnotherThread(std::function<void()> operation) {
  std::thread(std::move(operation)).join();
}

std::string Refused(const std::string& operation) {
  return operation +
         " on a thread that is not the service thread; use EventLoop::Post or "
         "Mailbox::Post";
}

class ServiceThreadDeathTest : public StreamFixture {
 protected:
  ServiceThreadDeathTest()
      : connection(Connect(&loop, *server)), client(connection.get()) {}

  std::unique_ptr<ClientStream> WatchTooltips() {
    auto stream = client.WhenTooltipChanged(
        Browser(1),
        [this](const Tooltip& event) { tooltips.push_back(event.text()); });
    loop.RunUntilIdle();
    return stream;
  }

  std::unique_ptr<ClientStream> ServeFocus() {
    auto stream = client.OnTakeFocus(
        Browser(1),
        [this](const rpc::TakeFocusCall&, Responder<TakeFocus> received) {
          responder.emplace(std::move(received));
        });
    loop.RunUntilIdle();
    return stream;
  }

  std::unique_ptr<SocketClient> connection;
  rpc::BrowserWidgetRpcClient client;
  std::vector<std::string> tooltips;
  std::optional<Responder<TakeFocus>> responder;
};

TEST_F(ServiceThreadDeathTest, PublishingElsewhereIsFatal) {
  EXPECT_DEATH(OnAnotherThread([] { Publish<Tooltip>(Browser(1), Tooltip()); }),
               Refused("orvane::Publish"));
}

TEST_F(ServiceThreadDeathTest, PublishingOnTheThreadOfAnotherLoopIsFatal) {
  const auto stream = WatchTooltips();
  EXPECT_DEATH(OnAnotherThread([] {
                 EventLoop other;
                 other.Post([] { Publish<Tooltip>(Browser(1), Tooltip()); });
                 other.RunUntilIdle();
               }),
               Refused("orvane::Publish"));
}

TEST_F(ServiceThreadDeathTest,
       PublishingAndCallingThereIsFatalThoughNobodyHasSubscribed) {
  EXPECT_DEATH(OnAnotherThread([] {
                 EventLoop other;
                 Publish<Tooltip>(Browser(1), Tooltip());
               }),
               Refused("orvane::Publish"));
  EXPECT_DEATH(OnAnotherThread([] {
                 EventLoop other;
                 IsServed<TakeFocus>(Browser(1));
               }),
               Refused("orvane::IsServed"));
  EXPECT_DEATH(OnAnotherThread([] {
                 EventLoop other;
                 Call<TakeFocus>(Browser(1), {});
               }),
               Refused("orvane::Call"));
}

TEST_F(ServiceThreadDeathTest, PublishingThroughTheLoopArrives) {
  const auto stream = WatchTooltips();
  OnAnotherThread([this] {
    loop.Post([] {
      Tooltip event;
      event.set_text("posted");
      Publish<Tooltip>(Browser(1), event);
    });
  });
  loop.RunUntilIdle();
  EXPECT_THAT(tooltips, ::testing::ElementsAre("posted"));
}

TEST_F(ServiceThreadDeathTest, CallingElsewhereIsFatal) {
  EXPECT_DEATH(OnAnotherThread([] { Call<TakeFocus>(Browser(1), {}); }),
               Refused("orvane::Call"));
}

TEST_F(ServiceThreadDeathTest, CallingOnTheThreadOfAnotherLoopIsFatal) {
  const auto stream = ServeFocus();
  EXPECT_DEATH(OnAnotherThread([] {
                 EventLoop other;
                 Call<TakeFocus>(Browser(1), {});
               }),
               Refused("orvane::Call"));
}

TEST_F(ServiceThreadDeathTest, AskingWhetherAKeyIsServedElsewhereIsFatal) {
  EXPECT_DEATH(OnAnotherThread([] { IsServed<TakeFocus>(Browser(1)); }),
               Refused("orvane::IsServed"));
}

TEST_F(ServiceThreadDeathTest, CancellingACallToTheClientElsewhereIsFatal) {
  const auto stream = ServeFocus();
  CallHandle call = Call<TakeFocus>(Browser(1), {});
  EXPECT_DEATH(OnAnotherThread([&] { call.Cancel(); }),
               Refused("CallHandle::Cancel"));
}

TEST_F(ServiceThreadDeathTest, CancellingACallToTheServerElsewhereIsFatal) {
  CallHandle call = client.Show(Browser(1), nullptr);
  EXPECT_DEATH(OnAnotherThread([&] { call.Cancel(); }),
               Refused("CallHandle::Cancel"));
}

TEST_F(ServiceThreadDeathTest, CallingTheServerElsewhereIsFatal) {
  EXPECT_DEATH(OnAnotherThread([this] { client.Show(Browser(1), nullptr); }),
               Refused("rpc.BrowserWidgetRpc.Show"));
}

TEST_F(ServiceThreadDeathTest, CallingTheServerAndWaitingElsewhereIsFatal) {
  EXPECT_DEATH(OnAnotherThread(
                   [this] { client.Show(Browser(1)).status().IgnoreError(); }),
               Refused("rpc.BrowserWidgetRpc.Show"));
}

TEST_F(ServiceThreadDeathTest, OpeningAStreamElsewhereIsFatal) {
  EXPECT_DEATH(OnAnotherThread([this] { WatchTooltips(); }),
               Refused("rpc.BrowserWidgetRpc.WhenTooltipChanged"));
}

TEST_F(ServiceThreadDeathTest, EndingAStreamElsewhereIsFatal) {
  auto stream = WatchTooltips();
  EXPECT_DEATH(OnAnotherThread([&] { stream.reset(); }),
               Refused("~ClientStream"));
}

TEST_F(ServiceThreadDeathTest, AnsweringACallElsewhereIsFatal) {
  const auto stream = ServeFocus();
  Call<TakeFocus>(Browser(1), {});
  loop.RunUntilIdle();
  EXPECT_DEATH(OnAnotherThread(
                   [this] { std::move(*responder).Respond({}).IgnoreError(); }),
               Refused("Responder::Respond"));
}

TEST_F(ServiceThreadDeathTest, DroppingACallThatWasGivenUpElsewhereIsFatal) {
  const auto stream = ServeFocus();
  CallHandle call = Call<TakeFocus>(Browser(1), {});
  loop.RunUntilIdle();
  call.Cancel();
  loop.RunUntilIdle();
  EXPECT_DEATH(OnAnotherThread([this] { responder.reset(); }), Refused(".*"));
}

TEST_F(ServiceThreadDeathTest, AskingWhetherACallIsGivenUpElsewhereIsFatal) {
  const auto stream = ServeFocus();
  Call<TakeFocus>(Browser(1), {});
  loop.RunUntilIdle();
  EXPECT_DEATH(
      OnAnotherThread([this] { std::ignore = responder->is_given_up(); }),
      Refused(".*"));
  EXPECT_DEATH(OnAnotherThread([this] { responder->OnGivenUp(nullptr); }),
               Refused(".*OnGivenUp"));
}

TEST_F(ServiceThreadDeathTest, WatchingAClientElsewhereIsFatal) {
  client.Hide(Browser(1), nullptr);
  loop.RunUntilIdle();
  google::protobuf::RpcController* const controller =
      widget.held.front().controller;
  EXPECT_DEATH(OnAnotherThread([&] { ClientWatch::Make(controller, nullptr); }),
               Refused("ClientWatch::Make"));
  auto watch = ClientWatch::Make(controller, [] {});
  EXPECT_DEATH(OnAnotherThread([&] { watch.reset(); }),
               Refused("~ClientWatch"));
  widget.held.front().done->Run();
}

TEST_F(ServiceThreadDeathTest, WatchingAClientThatHasGoneElsewhereIsFatal) {
  client.Hide(Browser(1), nullptr);
  loop.RunUntilIdle();
  google::protobuf::RpcController* const controller =
      widget.held.front().controller;
  connection.reset();
  loop.RunUntilIdle();
  EXPECT_DEATH(OnAnotherThread([&] { ClientWatch::Make(controller, nullptr); }),
               Refused("ClientWatch::Make"));
  widget.held.front().done->Run();
}

TEST_F(ServiceThreadDeathTest, EndingAStreamWhoseEndWaitsElsewhereIsFatal) {
  // The server is gone, so the stream does not open, and a task will tell so.
  server.reset();
  loop.RunUntilIdle();
  auto stream = client.WhenTooltipChanged(Browser(1), nullptr, nullptr);
  EXPECT_DEATH(OnAnotherThread([&] { stream.reset(); }),
               Refused("~ClientStream"));
}

TEST_F(ServiceThreadDeathTest, DestroyingAClientElsewhereIsFatal) {
  EXPECT_DEATH(OnAnotherThread([this] { connection.reset(); }),
               Refused("~SocketClient"));
}

TEST_F(ServiceThreadDeathTest, ConnectingElsewhereIsFatal) {
  EXPECT_DEATH(OnAnotherThread([this] { Connect(&loop, *server); }),
               Refused("SocketServer::Adopt"));
  auto pair = ConnectedPair();
  EXPECT_DEATH(OnAnotherThread([&] {
                 SocketClient::Adopt(&loop, pair->second.Release())
                     .status()
                     .IgnoreError();
               }),
               Refused("SocketClient::Adopt"));
}

TEST_F(ServiceThreadDeathTest, ConnectingElsewhereIsFatalThoughNobodyListens) {
  EXPECT_DEATH(
      OnAnotherThread([this] {
        SocketClient::Connect(&loop, "/nowhere").status().IgnoreError();
      }),
      Refused("SocketClient::Connect"));
}

TEST_F(ServiceThreadDeathTest, AskingForTheServersLimitsElsewhereIsFatal) {
  EXPECT_DEATH(OnAnotherThread([this] { connection->server_limits(); }),
               Refused("SocketClient::server_limits"));
}

TEST_F(ServiceThreadDeathTest, MakingAServerElsewhereIsFatal) {
  EXPECT_DEATH(
      OnAnotherThread([this] { const SocketServer other(&loop, &widget); }),
      Refused("SocketServer"));
}

TEST_F(ServiceThreadDeathTest, EndingAServerElsewhereIsFatal) {
  EXPECT_DEATH(OnAnotherThread([this] { server.reset(); }),
               Refused("~SocketServer"));
}

TEST_F(ServiceThreadDeathTest, ServingOnAThreadBesideThisOneIsFatal) {
  const auto stream = WatchTooltips();
  EXPECT_DEATH(OnAnotherThread([] {
                 EventLoop other;
                 StreamingWidget service;
                 SocketServer second(&other, &service);
                 const auto host = Connect(&other, second);
                 const auto events =
                     rpc::BrowserWidgetRpcClient(host.get())
                         .WhenTooltipChanged(Browser(2), nullptr);
                 other.RunUntilIdle();
                 Publish<Tooltip>(Browser(2), Tooltip());
               }),
               "service thread");
}

TEST_F(ServiceThreadDeathTest, PublishingWhileAnotherThreadRunsTheLoopIsFatal) {
  EXPECT_DEATH(
      {
        std::latch is_running(1);
        std::thread runner([&] {
          loop.Post([&] { is_running.count_down(); });
          loop.Run();
        });
        is_running.wait();
        Publish<Tooltip>(Browser(1), Tooltip());
      },
      Refused("orvane::Publish"));
}

TEST_F(ServiceThreadDeathTest, TheMakerTakesDownWhatAnotherThreadHasRun) {
  OnAnotherThread([this] { loop.RunUntilIdle(); });
  EXPECT_EQ(server->connections(), 1u);
  connection.reset();
  server.reset();
}

TEST_F(ServiceThreadDeathTest, AHandlerMayAnswerOnAThreadThatRanTheLoopBefore) {
  bool is_answered = false;
  client.Hide(Browser(1), [&](const auto&) { is_answered = true; });
  loop.RunUntilIdle();
  std::latch is_running(1);
  std::thread runner([&] {
    loop.Post([&] { is_running.count_down(); });
    loop.RunUntil([&] { return is_answered; });
  });
  is_running.wait();
  widget.held.front().done->Run();
  runner.join();
}

}  // namespace
}  // namespace orvane::testing
