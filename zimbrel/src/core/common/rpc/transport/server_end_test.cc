// The end of a connection at the server, whoever ends it: what was in progress
// there has ended, and what is still held elsewhere does no harm.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "google/protobuf/empty.pb.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/testing/then.h"
#include "zimbrel/src/core/common/rpc/transport/in_process.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

enum class Ending {
  kServerIsDestroyed,
  kServerIsShutDown,
  kLoopIsDestroyed,  // And with it, what a queued task owns: server and client.
  kHostLeaves,
};

std::string Name(const ::testing::TestParamInfo<Ending>& info) {
  switch (info.param) {
    case Ending::kServerIsDestroyed:
      return "ServerIsDestroyed";
    case Ending::kServerIsShutDown:
      return "ServerIsShutDown";
    case Ending::kLoopIsDestroyed:
      return "LoopIsDestroyed";
    case Ending::kHostLeaves:
      return "HostLeaves";
  }
  return "";
}

// A host that has two calls in progress, watches a browser and serves it; a
// call of the widget waits for it.
class WithAllInProgress : public ::testing::Test {
 protected:
  WithAllInProgress() {
    server_ = std::make_unique<SocketServer>(loop_.get(), &widget_);
    client_ = *ConnectInProcess(loop_.get(), server_.get());
    rpc::BrowserWidgetRpcClient host(client_.get());
    for (int i = 0; i < 2; ++i) {
      host.Hide(Browser(7), [this](const auto& answer) {
        answers_.push_back(answer.status());
      });
    }
    events_ = host.WhenCursorChanged(Browser(7), nullptr, StreamEnds());
    focus_ = host.OnTakeFocus(
        Browser(7),
        [this](const rpc::TakeFocusCall&, Responder<rpc::TakeFocus> responder) {
          responder_.emplace(std::move(responder));
        },
        StreamEnds());
    EXPECT_TRUE(host.Show(Browser(7)).ok());
    Call<rpc::TakeFocus>(
        Browser(7), {},
        [this](const absl::StatusOr<rpc::TakeFocusResponse>& answer) {
          focus_ends_.push_back(answer.status().code());
        });
    loop_->RunUntilIdle();
    EXPECT_THAT(widget_.held, SizeIs(2));
    EXPECT_TRUE(responder_.has_value());
    EXPECT_THAT(answers_, IsEmpty());
  }
  ~WithAllInProgress() override { AnswerHeld(); }

  OnEnd StreamEnds() {
    return [this](const absl::Status&) { ++streams_ended_; };
  }

  void AnswerHeld() {
    for (const auto& call : std::exchange(widget_.held, {})) call.done->Run();
  }

  void End(Ending how) {
    switch (how) {
      case Ending::kServerIsDestroyed:
        server_.reset();
        break;
      case Ending::kServerIsShutDown: {
        bool is_over = false;
        server_->Shutdown(absl::ZeroDuration(), [&] { is_over = true; });
        EXPECT_TRUE(loop_->RunUntil([&is_over] { return is_over; }));
        break;
      }
      case Ending::kLoopIsDestroyed:
        loop_->Post([server = std::move(server_), client = std::move(client_)] {
          FAIL();
        });
        loop_.reset();
        break;
      case Ending::kHostLeaves:
        client_.reset();
        break;
    }
    if (loop_ != nullptr) loop_->RunUntilIdle();
  }

  std::unique_ptr<EventLoop> loop_ = std::make_unique<EventLoop>();
  StreamingWidget widget_;
  std::unique_ptr<SocketServer> server_;
  std::unique_ptr<SocketClient> client_;
  // The host's.
  std::unique_ptr<ClientStream> events_;
  std::unique_ptr<ClientStream> focus_;
  std::optional<Responder<rpc::TakeFocus>> responder_;
  std::vector<absl::Status> answers_;
  int streams_ended_ = 0;
  // The widget's.
  std::vector<absl::StatusCode> focus_ends_;
};

class ServerEndTest : public WithAllInProgress,
                      public ::testing::WithParamInterface<Ending> {
 protected:
  void End() { WithAllInProgress::End(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(Each, ServerEndTest,
                         ::testing::Values(Ending::kServerIsDestroyed,
                                           Ending::kServerIsShutDown,
                                           Ending::kLoopIsDestroyed,
                                           Ending::kHostLeaves),
                         Name);

TEST_P(ServerEndTest, EndsWhatTheHostHasInProgressOnce) {
  End();
  ASSERT_THAT(answers_, SizeIs(2));
  for (const absl::Status& answer : answers_) EXPECT_FALSE(answer.ok());
  EXPECT_EQ(streams_ended_, 2);
}

TEST_P(ServerEndTest, TellsHandlersThatAskedOnce) {
  int told = 0;
  for (const auto& call : widget_.held)
    call.controller->NotifyOnCancel(new Then([&told] { ++told; }));
  End();
  EXPECT_EQ(told, 2);
  for (const auto& call : widget_.held)
    EXPECT_TRUE(call.controller->IsCanceled());
  AnswerHeld();
  EXPECT_EQ(told, 2);
}

TEST_P(ServerEndTest, LetsHandlersAnswerLaterOnAnyThread) {
  End();
  widget_.held[0].done->Run();
  std::thread([this] { widget_.held[1].done->Run(); }).join();
  widget_.held.clear();
  if (loop_ != nullptr) loop_->RunUntilIdle();
  EXPECT_THAT(answers_, SizeIs(2));
}

TEST_P(ServerEndTest, LeavesNoStream) {
  EXPECT_EQ(RegisteredKeys(), 2u);
  End();
  EXPECT_EQ(RegisteredKeys(), 0u);
  EXPECT_EQ(Publish<rpc::CursorChanged>(Browser(7), {}), 0u);
}

// Its continuation is a task of the loop, and goes with it.
TEST_P(ServerEndTest, EndsACallOfTheWidgetOnce) {
  End();
  if (loop_ == nullptr) {
    EXPECT_THAT(focus_ends_, IsEmpty());
  } else {
    EXPECT_THAT(focus_ends_, ElementsAre(absl::StatusCode::kCancelled));
  }
}

TEST_P(ServerEndTest, LeavesTheHostItsResponder) {
  End();
  EXPECT_EQ(std::move(*responder_).Respond({}).code(),
            absl::StatusCode::kUnavailable);
}

TEST_P(ServerEndTest, MayMakeAHandlerAnswerAll) {
  for (const auto& call : widget_.held)
    call.controller->NotifyOnCancel(new Then([this] { AnswerHeld(); }));
  End();
  EXPECT_THAT(widget_.held, IsEmpty());
}

// A handler that is told of the end and runs the loop
// --------------------------

class NestedServerEndTest : public ServerEndTest {};

INSTANTIATE_TEST_SUITE_P(Each, NestedServerEndTest,
                         ::testing::Values(Ending::kServerIsDestroyed,
                                           Ending::kServerIsShutDown,
                                           Ending::kHostLeaves),
                         Name);

TEST_P(NestedServerEndTest, MayMakeAHandlerCallAnotherServer) {
  StreamingWidget other_widget;
  SocketServer other_server(loop_.get(), &other_widget);
  const auto connection = *ConnectInProcess(loop_.get(), &other_server);
  rpc::BrowserWidgetRpcClient other(connection.get());
  std::vector<absl::Status> shown;
  for (const auto& call : widget_.held) {
    call.controller->NotifyOnCancel(
        new Then([&] { shown.push_back(other.Show(Browser(7)).status()); }));
  }
  End();
  EXPECT_THAT(shown, ElementsAre(absl::OkStatus(), absl::OkStatus()));
  EXPECT_THAT(answers_, SizeIs(2));
}

// The server used to let hosts in while it was being destroyed.
TEST_F(WithAllInProgress, AServerLetsNoHostInWhileItIsDestroyed) {
  const TemporaryFolder folder;
  ASSERT_TRUE(server_->Listen(folder.path() + "/s").ok());
  loop_->RunUntilIdle();
  widget_.held[0].controller->NotifyOnCancel(
      new Then([this] { loop_->RunUntilIdle(); }));
  const auto host = *SocketClient::Connect(loop_.get(), folder.path() + "/s");
  rpc::BrowserWidgetRpcClient late(host.get());
  absl::Status shown = absl::UnknownError("it has not ended");
  late.Show(Browser(7),
            [&shown](const auto& answer) { shown = answer.status(); });
  server_.reset();
  loop_->RunUntilIdle();
  EXPECT_EQ(shown.code(), absl::StatusCode::kUnavailable);
}

}  // namespace
}  // namespace orvane::testing
