// Blocking calls, wherever they are made: none outlives its timeout or its
// connection, and none reports a success that did not happen.

#include <sys/socket.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
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
#include "zimbrel/src/core/common/rpc/testing/keys.h"
#include "zimbrel/src/core/common/rpc/transport/in_process.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"
#include "zimbrel/src/core/common/rpc/transport/subscriptions.h"

namespace orvane {
namespace {

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;
using ::orvane::testing::Browser;
using ::testing::HasSubstr;

constexpr std::size_t kMaxFrameBytes = 8192;

// Answers Show at once, Minimize in a later task, and Hide never.
class Widget final : public rpc::BrowserWidgetRpc {
 public:
  explicit Widget(EventLoop* loop) : loop_(loop) {}
  ~Widget() override { AnswerHeld(); }

  void AnswerHeld() {
    for (Closure* const done : std::exchange(held_, {})) done->Run();
  }

  void Show(RpcController*, const BrowserId*, Empty*, Closure* done) override {
    done->Run();
  }
  void Minimize(RpcController*, const BrowserId*, Empty*,
                Closure* done) override {
    loop_->Post([done] { done->Run(); });
  }
  void Hide(RpcController*, const BrowserId*, Empty*, Closure* done) override {
    held_.push_back(done);
  }

 private:
  EventLoop* const loop_;
  std::vector<Closure*> held_;
};

// Both ends run in one loop.
class BlockingCallTest : public ::testing::Test {
 protected:
  BlockingCallTest() {
    server_.emplace(&loop_, &service_);
    client_ = *ConnectInProcess(&loop_, &*server_,
                                {.max_frame_bytes = kMaxFrameBytes});
    widget_.emplace(client_.get());
  }

  // Runs the blocking call in a task and returns its result.
  absl::Status InATask(std::function<absl::Status()> call) {
    absl::Status status = absl::UnknownError("it has not returned");
    bool has_returned = false;
    loop_.Post([&] {
      status = call();
      has_returned = true;
    });
    while (!has_returned) loop_.RunUntilIdle();
    return status;
  }

  absl::Status Show() { return widget_->Show(Browser(7)).status(); }

  // In the loop.
  void EndTheConnection() {
    server_.reset();
    loop_.RunUntilIdle();
    ASSERT_FALSE(client_->status().ok());
  }

  EventLoop loop_;
  Widget service_{&loop_};
  std::optional<SocketServer> server_;
  std::unique_ptr<SocketClient> client_;
  std::optional<rpc::BrowserWidgetRpcClient> widget_;
};

TEST_F(BlockingCallTest, ReturnsInsideATask) {
  EXPECT_EQ(InATask([this] { return Show(); }), absl::OkStatus());
}

TEST_F(BlockingCallTest, ReturnsInsideATimer) {
  absl::Status status = absl::UnknownError("it has not returned");
  const auto timer =
      loop_.RunAfter(absl::ZeroDuration(), [&] { status = Show(); });
  loop_.RunUntilIdle();
  EXPECT_EQ(status, absl::OkStatus());
}

TEST_F(BlockingCallTest, ReturnsInsideATaskWhenTheHandlerAnswersByAnother) {
  EXPECT_EQ(InATask([this] { return widget_->Minimize(Browser(7)).status(); }),
            absl::OkStatus());
}

TEST_F(BlockingCallTest, ReturnsInsideAnotherBlockingCall) {
  absl::Status inner = absl::UnknownError("it has not returned");
  EXPECT_EQ(InATask([&] {
              loop_.Post([&] { inner = Show(); });
              return widget_->Minimize(Browser(7)).status();
            }),
            absl::OkStatus());
  loop_.RunUntilIdle();
  EXPECT_EQ(inner, absl::OkStatus());
}

TEST_F(BlockingCallTest, EndsInsideATaskWithItsTimeout) {
  EXPECT_EQ(InATask([this] {
              return widget_
                  ->Hide(Browser(7), {.timeout = absl::Milliseconds(1)})
                  .status();
            }).code(),
            absl::StatusCode::kDeadlineExceeded);
}

TEST_F(BlockingCallTest, EndsInsideATaskWithItsConnection) {
  EXPECT_EQ(InATask([this] {
              loop_.Post([this] { server_.reset(); });
              return widget_->Hide(Browser(7)).status();
            }).code(),
            absl::StatusCode::kUnavailable);
}

TEST_F(BlockingCallTest, FailsInsideATaskOnceTheConnectionHasEnded) {
  EndTheConnection();
  EXPECT_EQ(InATask([this] { return Show(); }).code(),
            absl::StatusCode::kUnavailable);
}

TEST_F(BlockingCallTest, FailsInsideATaskWithARequestBeyondTheLimit) {
  rpc::KeyTypeRequest request;
  request.set_text(std::string(kMaxFrameBytes, 'x'));
  EXPECT_EQ(InATask([&] {
              return widget_
                  ->ForwardKeyType(request, {.timeout = absl::Seconds(1)})
                  .status();
            }).code(),
            absl::StatusCode::kResourceExhausted);
}

TEST_F(BlockingCallTest, EndsWhenItsClientIsDestroyedMeanwhile) {
  EXPECT_EQ(InATask([this] {
              loop_.Post([this] { client_.reset(); });
              return widget_->Hide(Browser(7)).status();
            }).code(),
            absl::StatusCode::kCancelled);
}

// Refused ---------------------------------------------------------------------

TEST_F(BlockingCallTest, IsRefusedInTheContinuationOfAnAnswer) {
  absl::Status status;
  widget_->Show(Browser(7), [&](const auto&) { status = Show(); });
  loop_.RunUntilIdle();
  EXPECT_EQ(status.code(), absl::StatusCode::kFailedPrecondition);
  EXPECT_THAT(status.message(), HasSubstr("blocking call"));
}

TEST_F(BlockingCallTest, IsRefusedInTheContinuationOfACallThatTookTooLong) {
  absl::Status status;
  widget_->Hide(Browser(7), [&](const auto&) { status = Show(); },
                {.timeout = absl::Milliseconds(1)});
  EXPECT_TRUE(loop_.RunUntil([&status] { return !status.ok(); }));
  EXPECT_EQ(status.code(), absl::StatusCode::kFailedPrecondition);
}

TEST_F(BlockingCallTest, IsRefusedInTheContinuationOfACallThatWasNotSent) {
  absl::Status status;
  rpc::KeyTypeRequest request;
  request.set_text(std::string(kMaxFrameBytes, 'x'));
  widget_->ForwardKeyType(request, [&](const auto&) { status = Show(); });
  loop_.RunUntilIdle();
  EXPECT_EQ(status.code(), absl::StatusCode::kFailedPrecondition);
}

TEST_F(BlockingCallTest, IsRefusedInTheContinuationOfACallThatWasCancelled) {
  absl::Status status;
  auto call = widget_->Hide(Browser(7), [&](const auto&) { status = Show(); });
  call.Cancel();
  loop_.RunUntilIdle();
  EXPECT_EQ(status.code(), absl::StatusCode::kFailedPrecondition);
}

TEST_F(BlockingCallTest, IsRefusedInTheHandlerOfAnEvent) {
  absl::Status status;
  const auto stream = widget_->WhenCursorChanged(
      Browser(7), [&](const rpc::CursorChanged&) { status = Show(); });
  loop_.RunUntilIdle();
  EXPECT_EQ(Publish<rpc::CursorChanged>(Browser(7), {}), 1u);
  loop_.RunUntilIdle();
  EXPECT_EQ(status.code(), absl::StatusCode::kFailedPrecondition);
}

TEST_F(BlockingCallTest, IsRefusedInTheHandlerOfACall) {
  absl::Status status;
  const auto stream = widget_->OnTakeFocus(
      Browser(7), [&](const rpc::TakeFocusCall&, Responder<rpc::TakeFocus>) {
        status = Show();
      });
  ASSERT_TRUE(Show().ok());
  Call<rpc::TakeFocus>(Browser(7), {}, nullptr);
  loop_.RunUntilIdle();
  EXPECT_EQ(status.code(), absl::StatusCode::kFailedPrecondition);
}

TEST_F(BlockingCallTest, IsRefusedInTheEndOfAStream) {
  absl::Status status;
  const auto stream = widget_->WhenCursorChanged(
      Browser(7), nullptr, [&](const absl::Status&) { status = Show(); });
  loop_.RunUntilIdle();
  server_->Shutdown(absl::Seconds(1), nullptr);
  loop_.RunUntilIdle();
  EXPECT_EQ(status.code(), absl::StatusCode::kFailedPrecondition);
}

TEST_F(BlockingCallTest, IsRefusedInTheEndOfAStreamWhoseConnectionHasEnded) {
  absl::Status status;
  const auto stream = widget_->WhenCursorChanged(
      Browser(7), nullptr, [&](const absl::Status&) { status = Show(); });
  loop_.RunUntilIdle();
  server_.reset();
  loop_.RunUntilIdle();
  EXPECT_EQ(status.code(), absl::StatusCode::kFailedPrecondition);
}

TEST_F(BlockingCallTest, IsRefusedInTheEndOfAStreamThatCouldNotBeOpened) {
  EndTheConnection();
  absl::Status status;
  const auto stream = widget_->WhenCursorChanged(
      Browser(7), nullptr, [&](const absl::Status&) { status = Show(); });
  loop_.RunUntilIdle();
  EXPECT_EQ(status.code(), absl::StatusCode::kFailedPrecondition);
}

// Callbacks and calls whose types are known at run time only.
class UntypedBlockingCallTest : public BlockingCallTest {
 protected:
  static const google::protobuf::MethodDescriptor* Method(const char* name) {
    return rpc::BrowserWidgetRpc::descriptor()->FindMethodByName(name);
  }

  // What each callback does.
  void Show() {
    shown_ = client_->CallAndWait(Method("Show"), Browser(7)).status();
  }
  void ExpectRefused() {
    loop_.RunUntilIdle();
    EXPECT_EQ(shown_.code(), absl::StatusCode::kFailedPrecondition);
    EXPECT_THAT(shown_.message(), HasSubstr("blocking call"));
  }

  absl::Status shown_;
};

TEST_F(UntypedBlockingCallTest, IsRefusedInTheContinuationOfAnAnswer) {
  client_->Call(Method("Show"), Browser(7), [this](const auto&) { Show(); });
  ExpectRefused();
}

TEST_F(UntypedBlockingCallTest, IsRefusedInTheHandlerOfAnEvent) {
  const auto stream =
      WatchEvents(&*client_, Method("WhenCursorChanged"), Browser(7),
                  std::make_unique<rpc::CursorChanged>(),
                  [this](const google::protobuf::Message&) { Show(); });
  loop_.RunUntilIdle();
  EXPECT_EQ(Publish<rpc::CursorChanged>(Browser(7), {}), 1u);
  ExpectRefused();
}

TEST_F(UntypedBlockingCallTest, IsRefusedInTheHandlerOfACall) {
  const auto stream = ServeCalls(&*client_, Method("OnTakeFocus"), Browser(7),
                                 std::make_unique<rpc::TakeFocus>(),
                                 [this](const google::protobuf::Message&,
                                        const PendingAnswer&) { Show(); });
  loop_.RunUntilIdle();
  Call<rpc::TakeFocus>(Browser(7), {}, nullptr);
  ExpectRefused();
}

TEST_F(UntypedBlockingCallTest, IsRefusedInTheEndOfAStream) {
  const auto stream =
      WatchEvents(&*client_, Method("WhenCursorChanged"), Browser(7),
                  std::make_unique<rpc::CursorChanged>(), nullptr,
                  [this](const absl::Status&) { Show(); });
  loop_.RunUntilIdle();
  server_->Shutdown(absl::Seconds(1), nullptr);
  ExpectRefused();
}

TEST_F(BlockingCallTest, IsServedInACallbackOfAnotherClient) {
  const auto other = *ConnectInProcess(&loop_, &*server_);
  rpc::BrowserWidgetRpcClient other_widget(other.get());
  absl::Status status = absl::UnknownError("it has not returned");
  other_widget.Show(Browser(7), [&](const auto&) { status = Show(); });
  loop_.RunUntilIdle();
  EXPECT_EQ(status, absl::OkStatus());
}

// Stopped ---------------------------------------------------------------------

TEST_F(BlockingCallTest, FailsAtOnceOnceTheLoopIsStopped) {
  loop_.Stop();
  EXPECT_EQ(Show().code(), absl::StatusCode::kCancelled);
  EXPECT_EQ(Show().code(), absl::StatusCode::kCancelled);
}

// It used to return OK, and the end of the call was later written to a stack
// frame that no longer existed.
TEST_F(BlockingCallTest, NeverReturnsOkOnADeadConnectionOnceTheLoopIsStopped) {
  EndTheConnection();
  loop_.Stop();
  EXPECT_EQ(Show().code(), absl::StatusCode::kUnavailable);
  loop_.Run();  // Returns at once.
  loop_.RunUntilIdle();
}

// One loop for both ends ------------------------------------------------------

TEST_F(BlockingCallTest, ANestedRunSeesTheAnswerThatItsOwnTaskHasGiven) {
  bool is_answered = false;
  widget_->Hide(Browser(7), [&](const auto&) { is_answered = true; });
  loop_.RunUntilIdle();
  bool seen = false;
  loop_.Post([&] {
    service_.AnswerHeld();
    seen = loop_.RunUntil([&is_answered] { return is_answered; });
  });
  loop_.RunUntilIdle();
  EXPECT_TRUE(seen);
}

TEST_F(BlockingCallTest, ANestedRunInAHandlerSeesWhatTheHandlerHasSent) {
  bool is_told = false;
  const auto stream = widget_->WhenCursorChanged(
      Browser(7), [&](const rpc::CursorChanged&) { is_told = true; });
  ASSERT_TRUE(Show().ok());
  class Waiting final : public rpc::BrowserWidgetRpc {
   public:
    explicit Waiting(std::function<void()> wait) : wait_(std::move(wait)) {}
    void Show(RpcController*, const BrowserId*, Empty*,
              Closure* done) override {
      Publish<rpc::CursorChanged>(Browser(7), {});
      wait_();
      done->Run();
    }

   private:
    const std::function<void()> wait_;
  };
  bool seen = false;
  Waiting waiting(
      [&] { seen = loop_.RunUntil([&is_told] { return is_told; }); });
  SocketServer other_server(&loop_, &waiting);
  const auto other = *ConnectInProcess(&loop_, &other_server);
  rpc::BrowserWidgetRpcClient other_widget(other.get());
  EXPECT_EQ(other_widget.Show(Browser(7)).status(), absl::OkStatus());
  EXPECT_TRUE(seen);
}

}  // namespace
}  // namespace orvane
