// Calls of a server that it gives up before the client has answered.

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"
#include "zimbrel/src/core/common/rpc/testing/when_destroyed.h"
#include "zimbrel/src/core/common/rpc/transport/in_process.h"
#include "zimbrel/src/core/common/rpc/transport/responder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

namespace orvane {
namespace {

using ::orvane::testing::Browser;
using ::orvane::testing::WhenDestroyed;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class GivenUpCallTest : public ::testing::Test {
 protected:
  GivenUpCallTest() {
    server_.emplace(&loop_, &service_);
    client_ = *ConnectInProcess(&loop_, &*server_);
    widget_.emplace(client_.get());
    stream_ = widget_->OnTakeFocus(
        Browser(7),
        [this](const rpc::TakeFocusCall&, Responder<rpc::TakeFocus> responder) {
          responder_.emplace(std::move(responder));
        },
        [this](const absl::Status&) { events_.emplace_back("stream ended"); });
    loop_.RunUntilIdle();
  }

  // A call of the server whose responder the client keeps.
  CallHandle Ask(CallOptions options = {}) {
    CallHandle call = Call<rpc::TakeFocus>(
        Browser(7), {},
        [this](const absl::StatusOr<rpc::TakeFocusResponse>& answer) {
          answered_.push_back(answer.status().code());
        },
        options);
    EXPECT_TRUE(loop_.RunUntil([this] { return responder_.has_value(); }));
    return call;
  }

  Task Note(const std::string& event) {
    return [this, event] { events_.push_back(event); };
  }

  EventLoop loop_;
  rpc::BrowserWidgetRpc service_;
  std::optional<SocketServer> server_;
  std::unique_ptr<SocketClient> client_;
  std::optional<rpc::BrowserWidgetRpcClient> widget_;
  std::unique_ptr<ClientStream> stream_;
  std::optional<Responder<rpc::TakeFocus>> responder_;
  std::vector<absl::StatusCode> answered_;
  std::vector<std::string> events_;
};

TEST_F(GivenUpCallTest, TheClientIsToldThatACallIsCancelled) {
  CallHandle call = Ask();
  responder_->OnGivenUp(Note("given up"));
  loop_.RunUntilIdle();
  EXPECT_FALSE(responder_->is_given_up());
  EXPECT_THAT(events_, IsEmpty());
  call.Cancel();
  loop_.RunUntilIdle();
  EXPECT_TRUE(responder_->is_given_up());
  EXPECT_THAT(events_, ElementsAre("given up"));
}

TEST_F(GivenUpCallTest, TheClientIsToldThatItTookTooLong) {
  Ask({.timeout = absl::Milliseconds(1)});
  responder_->OnGivenUp(Note("given up"));
  EXPECT_TRUE(loop_.RunUntil([this] { return !events_.empty(); }));
  EXPECT_THAT(answered_, ElementsAre(absl::StatusCode::kDeadlineExceeded));
}

TEST_F(GivenUpCallTest, AnAnswerAfterThatIsRefused) {
  Ask().Cancel();
  loop_.RunUntilIdle();
  EXPECT_EQ(std::move(*responder_).Respond({}).code(),
            absl::StatusCode::kCancelled);
  loop_.RunUntilIdle();
  EXPECT_THAT(answered_, ElementsAre(absl::StatusCode::kCancelled));
}

TEST_F(GivenUpCallTest, WhoAsksLaterIsToldAtOnce) {
  Ask().Cancel();
  loop_.RunUntilIdle();
  responder_->OnGivenUp(Note("given up"));
  EXPECT_THAT(events_, ElementsAre("given up"));
}

TEST_F(GivenUpCallTest, WhoAsksTwiceIsToldTheSecondWay) {
  CallHandle call = Ask();
  responder_->OnGivenUp(Note("first"));
  responder_->OnGivenUp(Note("second"));
  call.Cancel();
  loop_.RunUntilIdle();
  EXPECT_THAT(events_, ElementsAre("second"));
}

TEST_F(GivenUpCallTest, AnAnsweredCallIsNotGivenUp) {
  CallHandle call = Ask();
  responder_->OnGivenUp(Note("given up"));
  EXPECT_TRUE(std::move(*responder_).Respond({}).ok());
  responder_.reset();
  loop_.RunUntilIdle();
  call.Cancel();
  client_.reset();
  loop_.RunUntilIdle();
  EXPECT_THAT(answered_, ElementsAre(absl::StatusCode::kOk));
  EXPECT_THAT(events_, ElementsAre("stream ended"));
}

TEST_F(GivenUpCallTest, TheResponderMayBeDroppedInside) {
  CallHandle call = Ask();
  responder_->OnGivenUp([this] {
    responder_.reset();
    events_.emplace_back("given up");
  });
  call.Cancel();
  loop_.RunUntilIdle();
  EXPECT_THAT(events_, ElementsAre("given up"));
}

TEST_F(GivenUpCallTest, TheStreamsEndGivesItsCallsUpFirst) {
  Ask();
  responder_->OnGivenUp(Note("given up"));
  server_.reset();
  loop_.RunUntilIdle();
  EXPECT_THAT(events_, ElementsAre("given up", "stream ended"));
  EXPECT_TRUE(responder_->is_given_up());
}

TEST_F(GivenUpCallTest, NothingRunsOnceTheHandleOfTheStreamIsGone) {
  Ask();
  responder_->OnGivenUp(Note("given up"));
  stream_.reset();
  loop_.RunUntilIdle();
  EXPECT_THAT(events_, IsEmpty());
  EXPECT_TRUE(responder_->is_given_up());
}

TEST_F(GivenUpCallTest, TheHandleMayGoInsideAndThenNothingElseRuns) {
  Ask();
  responder_->OnGivenUp([this] { stream_.reset(); });
  std::optional<Responder<rpc::TakeFocus>> first = std::move(responder_);
  responder_.reset();
  Ask();
  responder_->OnGivenUp(Note("the second call is given up"));
  server_.reset();
  loop_.RunUntilIdle();
  EXPECT_THAT(events_, IsEmpty());
}

TEST_F(GivenUpCallTest, AClientMayGoInside) {
  CallHandle call = Ask();
  responder_->OnGivenUp([this] {
    stream_.reset();
    client_.reset();
    events_.emplace_back("given up");
  });
  call.Cancel();
  loop_.RunUntilIdle();
  EXPECT_THAT(events_, ElementsAre("given up"));
}

TEST_F(GivenUpCallTest, WhatATaskHeldMayLetACallArriveWhenItIsDestroyed) {
  std::optional<CallHandle> second;
  auto asker = WhenDestroyed([&] { second = Ask(); });
  Ask();
  responder_->OnGivenUp([asker] {});
  asker.reset();
  Responder<rpc::TakeFocus> first = *std::move(responder_);
  responder_.reset();
  // The task is destroyed with the answer, and the second call arrives there.
  EXPECT_TRUE(std::move(first).Respond({}).ok());
  ASSERT_TRUE(second.has_value());
  responder_->OnGivenUp(Note("the second call is given up"));
  second->Cancel();
  loop_.RunUntilIdle();
  EXPECT_THAT(events_, ElementsAre("the second call is given up"));
}

TEST_F(GivenUpCallTest, ATaskThatIsReplacedMayOwnTheResponder) {
  Ask();
  auto owner =
      std::make_shared<Responder<rpc::TakeFocus>>(*std::move(responder_));
  responder_.reset();
  Responder<rpc::TakeFocus>& responder = *owner;
  responder.OnGivenUp([owner] {});
  owner.reset();
  responder.OnGivenUp(nullptr);
  loop_.RunUntilIdle();
  EXPECT_THAT(answered_, ElementsAre(absl::StatusCode::kUnknown));
}

}  // namespace
}  // namespace orvane
