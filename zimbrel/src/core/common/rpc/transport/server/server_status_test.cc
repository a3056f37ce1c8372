// What a server tells of itself to whoever asks.

#include <unistd.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "gmock/gmock.h"
#include "google/protobuf/empty.pb.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "rpc/transport/status.pb.h"
#include "zimbrel/src/core/common/rpc/testing/link.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/version.h"

namespace orvane::testing {
namespace {

using rpc::transport::ConnectionStatus;
using rpc::transport::ServerStatus;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;

class ServerStatusTest : public StreamFixture {
 protected:
  ServerStatus AskServer() {
    const auto answer = asking_->CallAndWait(
        ServerStatus::descriptor()->file()->service(0)->method(0),
        google::protobuf::Empty());
    EXPECT_TRUE(answer.ok()) << answer.status();
    return answer.ok() ? static_cast<const ServerStatus&>(**answer)
                       : ServerStatus();
  }

  // Of the client that came after the one that asks.
  ConnectionStatus AskAboutTheOther() {
    const ServerStatus status = AskServer();
    EXPECT_THAT(status.connections(), SizeIs(2));
    return status.connections(status.connections_size() - 1);
  }

 private:
  const std::unique_ptr<SocketClient> asking_ = Connect(&loop, *server);
};

TEST_F(ServerStatusTest, TellsWhatItIs) {
  const ServerStatus status = AskServer();
  EXPECT_EQ(status.version(), kVersion);
  EXPECT_EQ(status.process_id(), static_cast<std::uint32_t>(::getpid()));
  EXPECT_THAT(status.services(), ElementsAre("rpc.BrowserWidgetRpc"));
  ASSERT_THAT(status.connections(), SizeIs(1));
  EXPECT_EQ(status.connections(0).service(), "rpc.transport.StatusRpc");
  EXPECT_EQ(status.connections(0).process_id(),
            static_cast<std::uint32_t>(::getpid()));
}

TEST_F(ServerStatusTest, AClientThatHasSaidNothingHasNoService) {
  const RawPeer silent = ConnectRaw(*server, std::nullopt);
  EXPECT_EQ(AskAboutTheOther().service(), "");
}

TEST_F(ServerStatusTest, TellsTheCallThatWaitsLongest) {
  const auto client = Connect(&loop, *server);
  rpc::BrowserWidgetRpcClient caller(client.get());
  caller.Hide(Browser(1), [](const auto&) {});
  caller.Hide(Browser(2), [](const auto&) {});
  ASSERT_TRUE(loop.RunUntil([this] { return widget.held.size() == 2; }));
  ConnectionStatus status = AskAboutTheOther();
  EXPECT_EQ(status.calls(), 2u);
  EXPECT_EQ(status.oldest_call().method(), "Hide");
  for (const auto& call : widget.held) call.done->Run();
  loop.RunUntilIdle();
  status = AskAboutTheOther();
  EXPECT_EQ(status.calls(), 0u);
  EXPECT_FALSE(status.has_oldest_call());
}

TEST_F(ServerStatusTest, CountsStreamsAndTheirKeys) {
  const auto client = Connect(&loop, *server);
  rpc::BrowserWidgetRpcClient caller(client.get());
  const auto tooltips =
      caller.WhenTooltipChanged(Browser(1), [](const rpc::TooltipChanged&) {});
  const auto dialogs =
      caller.OnCreateWebDialog(Browser(1), [](const auto&, auto) {});
  ASSERT_TRUE(caller.Show(Browser(1)).ok());
  const ConnectionStatus status = AskAboutTheOther();
  EXPECT_EQ(status.streams(), 2u);
  EXPECT_EQ(status.subscriptions(), 2u);
}

TEST_F(ServerStatusTest, TellsWhatAClientDoesNotRead) {
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kOnCreateWebDialog));
  client.Send(NextFrame(1, Serve(7)));
  loop.RunUntilIdle();
  EXPECT_FALSE(AskAboutTheOther().has_unread_ms());
  const std::string question(100'000, 'x');
  for (int calls = 0; calls < 10; ++calls) Ask(7, question);
  loop.RunUntilIdle();
  const ConnectionStatus status = AskAboutTheOther();
  EXPECT_GT(status.queued_bytes(), 0u);
  EXPECT_TRUE(status.has_unread_ms());
}

TEST_F(ServerStatusTest, TellsHowMuchOfALimitIsUsed) {
  const ServerStatus status = AskServer();
  std::string words;
  for (const auto& budget : status.budgets()) {
    if (budget.limit() == "max_connections" ||
        budget.limit() == "max_total_calls") {
      words += budget.limit() + " " + std::to_string(budget.used()) + " of " +
               std::to_string(budget.available()) + "; ";
    }
  }
  EXPECT_EQ(words, "max_connections 1 of 64; max_total_calls 1 of 4096; ");
}

TEST_F(ServerStatusTest, TellsWhomItHasRefusedAndWhy) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CompleteFrame(0));
  loop.RunUntilIdle();
  const ServerStatus status = AskServer();
  ASSERT_THAT(status.refusals(), SizeIs(1));
  EXPECT_EQ(status.refusals(0).code(), "INVALID_ARGUMENT");
  EXPECT_EQ(status.refusals(0).count(), 1u);
  EXPECT_THAT(std::string(status.refusals(0).latest_reason()),
              HasSubstr("stream 0"));
}

}  // namespace
}  // namespace orvane::testing
