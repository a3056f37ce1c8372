// What an observer is told at both ends of a connection.

#include "zimbrel/src/core/common/rpc/operation_observer.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/link.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Keeps what it is told in words, each operation under a number.
class Diary final : public OperationObserver {
 public:
  std::shared_ptr<void> OnBegin(const Operation& operation) override {
    const auto number = std::make_shared<int>(++count_);
    words.push_back(absl::StrCat(*number, " begins: ", NameOf(operation)));
    return number;
  }
  void OnEnd(const Operation& operation, const std::shared_ptr<void>& begun,
             const OperationEnd& end) override {
    EXPECT_GE(end.duration, absl::ZeroDuration());
    words.push_back(absl::StrCat(
        *std::static_pointer_cast<int>(begun), " ends: ", NameOf(operation),
        " ", absl::StatusCodeToString(end.code), ", ", end.request_bytes,
        " and ", end.response_bytes, " bytes"));
  }

  std::vector<std::string> words;

 private:
  static std::string NameOf(const Operation& operation) {
    return std::string(operation.method->name());
  }

  int count_ = 0;
};

class OperationObserverTest : public StreamFixture {
 protected:
  OperationObserverTest() {
    server->SetObserver(&at_server_);
    auto pair = ConnectedPair();
    EXPECT_TRUE(server->Adopt(pair->first.Release()).ok());
    client_ = *SocketClient::Adopt(&loop, pair->second.Release(),
                                   {.observer = &at_client_});
    caller_.emplace(client_.get());
  }
  ~OperationObserverTest() override {
    caller_.reset();
    client_.reset();
    server.reset();  // Before its observer.
  }

  Diary at_server_;
  Diary at_client_;
  std::unique_ptr<SocketClient> client_;
  std::optional<rpc::BrowserWidgetRpcClient> caller_;
};

TEST_F(OperationObserverTest, ACallBeginsAndEndsAtBothEnds) {
  ASSERT_TRUE(caller_->Show(Browser(7)).ok());
  const auto told =
      ElementsAre("1 begins: Show", "1 ends: Show OK, 2 and 0 bytes");
  EXPECT_THAT(at_server_.words, told);
  EXPECT_THAT(at_client_.words, told);
}

TEST_F(OperationObserverTest, AFailedCallEndsWithItsCode) {
  caller_->Hide(Browser(7), [](const auto&) {});
  loop.RunUntilIdle();
  ASSERT_EQ(widget.held.size(), 1u);
  widget.held[0].controller->SetFailed("no");
  widget.held[0].done->Run();
  loop.RunUntilIdle();
  const auto told =
      ElementsAre("1 begins: Hide", "1 ends: Hide UNKNOWN, 2 and 0 bytes");
  EXPECT_THAT(at_server_.words, told);
  EXPECT_THAT(at_client_.words, told);
}

TEST_F(OperationObserverTest, ACallThatIsGivenUpIsCancelled) {
  CallHandle call = caller_->Hide(Browser(7), [](const auto&) {});
  loop.RunUntilIdle();
  call.Cancel();
  loop.RunUntilIdle();
  const auto told =
      ElementsAre("1 begins: Hide", "1 ends: Hide CANCELLED, 2 and 0 bytes");
  EXPECT_THAT(at_server_.words, told);
  EXPECT_THAT(at_client_.words, told);
  widget.held[0].done->Run();
  EXPECT_THAT(at_server_.words, told);
}

TEST_F(OperationObserverTest, AnEventIsToldOnceForEachClient) {
  const auto tooltips = caller_->WhenTooltipChanged(
      Browser(7), [](const rpc::TooltipChanged&) {});
  loop.RunUntilIdle();
  rpc::TooltipChanged event;
  *event.mutable_browser_id() = Browser(7);
  Publish<rpc::TooltipChanged>(Browser(7), event);
  loop.RunUntilIdle();
  const auto told = ElementsAre("1 begins: WhenTooltipChanged",
                                "1 ends: WhenTooltipChanged OK, 4 and 0 bytes");
  EXPECT_THAT(at_server_.words, told);
  EXPECT_THAT(at_client_.words, told);
}

TEST_F(OperationObserverTest, ACallbackLastsUntilItsAnswer) {
  std::vector<Responder<rpc::CreateWebDialog>> asked;
  const auto dialogs = caller_->OnCreateWebDialog(
      Browser(7), [&](const rpc::CreateWebDialogCall&,
                      Responder<rpc::CreateWebDialog> responder) {
        asked.push_back(std::move(responder));
      });
  loop.RunUntilIdle();
  Ask(7, "?");
  loop.RunUntilIdle();
  ASSERT_EQ(asked.size(), 1u);
  EXPECT_THAT(at_server_.words, ElementsAre("1 begins: OnCreateWebDialog"));
  EXPECT_THAT(at_client_.words, ElementsAre("1 begins: OnCreateWebDialog"));
  std::move(asked[0]).Respond({}).IgnoreError();
  loop.RunUntilIdle();
  ASSERT_EQ(at_server_.words.size(), 2u);
  EXPECT_THAT(at_server_.words[1],
              ::testing::StartsWith("1 ends: OnCreateWebDialog OK, "));
  EXPECT_EQ(at_server_.words, at_client_.words);
}

TEST_F(OperationObserverTest, ACallbackThatTheClientFailsIsToldSo) {
  const auto dialogs = caller_->OnCreateWebDialog(
      Browser(7), [](const rpc::CreateWebDialogCall&,
                     Responder<rpc::CreateWebDialog> responder) {
        std::move(responder).Fail("no");
      });
  loop.RunUntilIdle();
  Ask(7, "?");
  loop.RunUntilIdle();
  ASSERT_EQ(at_server_.words.size(), 2u);
  EXPECT_THAT(at_server_.words[1],
              ::testing::StartsWith("1 ends: OnCreateWebDialog UNKNOWN, "));
  EXPECT_EQ(at_server_.words, at_client_.words);
}

TEST_F(OperationObserverTest, ACallbackThatIsGivenUpIsCancelled) {
  std::vector<Responder<rpc::CreateWebDialog>> asked;
  const auto dialogs = caller_->OnCreateWebDialog(
      Browser(7), [&](const rpc::CreateWebDialogCall&,
                      Responder<rpc::CreateWebDialog> responder) {
        asked.push_back(std::move(responder));
      });
  loop.RunUntilIdle();
  CallHandle call = Ask(7, "?");
  loop.RunUntilIdle();
  call.Cancel();
  loop.RunUntilIdle();
  ASSERT_EQ(at_server_.words.size(), 2u);
  EXPECT_THAT(at_server_.words[1],
              ::testing::StartsWith("1 ends: OnCreateWebDialog CANCELLED, "));
  EXPECT_EQ(at_server_.words, at_client_.words);
}

TEST_F(OperationObserverTest, TheEndOfAConnectionCancelsWhatIsInProgress) {
  caller_->Hide(Browser(7), [](const auto&) {});
  loop.RunUntilIdle();
  caller_.reset();
  client_.reset();
  loop.RunUntilIdle();
  EXPECT_THAT(
      at_server_.words,
      ElementsAre("1 begins: Hide", "1 ends: Hide CANCELLED, 2 and 0 bytes"));
  widget.held[0].done->Run();
}

TEST_F(OperationObserverTest, OneThatIsTakenAwayIsToldOfNoNewClient) {
  server->SetObserver(nullptr);
  const auto other = Connect(&loop, *server);
  ASSERT_TRUE(rpc::BrowserWidgetRpcClient(other.get()).Show(Browser(7)).ok());
  EXPECT_THAT(at_server_.words, IsEmpty());
}

}  // namespace
}  // namespace orvane::testing
