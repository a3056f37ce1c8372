// The end of a client: everything in progress has ended when its destructor
// returns.

#include <unistd.h>

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
#include "zimbrel/src/core/common/rpc/testing/forked_process.h"
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

constexpr std::size_t kMaxFrameBytes = 8192;

// Answers Show, but never Hide.
class Widget final : public rpc::BrowserWidgetRpc {
 public:
  ~Widget() override {
    for (Closure* const done : std::exchange(held_, {})) done->Run();
  }
  void Show(RpcController*, const BrowserId*, Empty*, Closure* done) override {
    done->Run();
  }
  void Hide(RpcController*, const BrowserId*, Empty*, Closure* done) override {
    held_.push_back(done);
  }

 private:
  std::vector<Closure*> held_;
};

class ClientEndTest : public ::testing::Test {
 protected:
  ClientEndTest() {
    server_.emplace(&loop_, &service_);
    client_ = *ConnectInProcess(&loop_, &*server_,
                                {.max_frame_bytes = kMaxFrameBytes});
    widget_.emplace(client_.get());
  }

  auto Ends() {
    return [this](const absl::StatusOr<Empty>& answer) {
      ends_.push_back(answer.status().code());
    };
  }
  auto StreamEnds() {
    return [this](const absl::Status& why) { ends_.push_back(why.code()); };
  }

  static rpc::KeyTypeRequest TooLong() {
    rpc::KeyTypeRequest request;
    request.set_text(std::string(kMaxFrameBytes, 'x'));
    return request;
  }

  // Makes a call from the server and records why it failed.
  static void AskForFocus(absl::Status* failed) {
    Call<rpc::TakeFocus>(
        Browser(7), {},
        [failed](const absl::StatusOr<rpc::TakeFocusResponse>& answer) {
          *failed = answer.status();
        });
  }

  // What has ended when the destructor returns; nothing ends later.
  std::vector<absl::StatusCode> EndsInTheDestructor() {
    client_.reset();
    std::vector<absl::StatusCode> ends = std::exchange(ends_, {});
    loop_.RunUntilIdle();
    EXPECT_THAT(ends_, IsEmpty());
    return ends;
  }

  EventLoop loop_;
  Widget service_;
  std::optional<SocketServer> server_;
  std::unique_ptr<SocketClient> client_;
  std::optional<rpc::BrowserWidgetRpcClient> widget_;
  std::vector<absl::StatusCode> ends_;
};

TEST_F(ClientEndTest, EndsCallsInFlight) {
  widget_->Hide(Browser(7), Ends());
  loop_.RunUntilIdle();
  EXPECT_THAT(EndsInTheDestructor(), ElementsAre(absl::StatusCode::kCancelled));
}

TEST_F(ClientEndTest, EndsCallsThatWereCancelled) {
  widget_->Hide(Browser(7), Ends()).Cancel();
  EXPECT_THAT(EndsInTheDestructor(), ElementsAre(absl::StatusCode::kCancelled));
}

TEST_F(ClientEndTest, EndsCallsThatCouldNotBeSent) {
  widget_->ForwardKeyType(TooLong(), Ends());
  EXPECT_THAT(EndsInTheDestructor(),
              ElementsAre(absl::StatusCode::kResourceExhausted));
}

TEST_F(ClientEndTest, EndsCallsOnAConnectionThatHasGone) {
  server_.reset();
  loop_.RunUntilIdle();
  widget_->Show(Browser(7), Ends());
  EXPECT_THAT(EndsInTheDestructor(),
              ElementsAre(absl::StatusCode::kUnavailable));
}

TEST_F(ClientEndTest, EndsStreams) {
  const auto stream =
      widget_->WhenCursorChanged(Browser(7), nullptr, StreamEnds());
  loop_.RunUntilIdle();
  EXPECT_THAT(EndsInTheDestructor(), ElementsAre(absl::StatusCode::kCancelled));
}

TEST_F(ClientEndTest, EndsStreamsThatCouldNotBeOpened) {
  server_.reset();
  loop_.RunUntilIdle();
  const auto stream =
      widget_->WhenCursorChanged(Browser(7), nullptr, StreamEnds());
  EXPECT_THAT(EndsInTheDestructor(),
              ElementsAre(absl::StatusCode::kUnavailable));
}

TEST_F(ClientEndTest, EndsEachOnceThoughOneOfThemDestroysTheClient) {
  server_.reset();
  loop_.RunUntilIdle();
  widget_->Show(Browser(7), [this](const auto& answer) {
    ends_.push_back(answer.status().code());
    client_.reset();
  });
  widget_->Show(Browser(7), Ends());
  loop_.RunUntilIdle();
  EXPECT_THAT(ends_, ElementsAre(absl::StatusCode::kUnavailable,
                                 absl::StatusCode::kUnavailable));
}

TEST_F(ClientEndTest, RefusesABlockingCallOfWhomItTells) {
  absl::Status status;
  widget_->Hide(Browser(7), [&](const auto&) {
    status = widget_->Show(Browser(7)).status();
  });
  client_.reset();
  EXPECT_EQ(status.code(), absl::StatusCode::kFailedPrecondition);
}

// Where the connection has gone, a call used to begin and fail for the same
// reason again and again, and the destructor never returned.
TEST_F(ClientEndTest, EndsACallOfWhomItTellsOnceAndForAll) {
  server_.reset();
  loop_.RunUntilIdle();
  std::function<void(const absl::StatusOr<Empty>&)> try_again =
      [&](const absl::StatusOr<Empty>& answer) {
        ends_.push_back(answer.status().code());
        ASSERT_LE(ends_.size(), 2u);
        if (absl::IsUnavailable(answer.status()))
          widget_->Show(Browser(7), try_again);
      };
  widget_->Show(Browser(7), try_again);
  EXPECT_THAT(EndsInTheDestructor(), ElementsAre(absl::StatusCode::kUnavailable,
                                                 absl::StatusCode::kCancelled));
}

TEST_F(ClientEndTest, LetsWhomItTellsRunTheLoop) {
  for (int i = 0; i < 3; ++i) {
    widget_->Hide(Browser(7), [this](const auto& answer) {
      loop_.RunUntilIdle();
      ends_.push_back(answer.status().code());
    });
  }
  EXPECT_THAT(EndsInTheDestructor(), ElementsAre(absl::StatusCode::kCancelled,
                                                 absl::StatusCode::kCancelled,
                                                 absl::StatusCode::kCancelled));
}

// Both ends used to stay connected as long as such a process lived.
TEST_F(ClientEndTest, IsSeenByTheServerThoughAChildProcessHasACopyOfTheSocket) {
  ASSERT_TRUE(widget_->Show(Browser(7)).ok());
  const testing::ForkedProcess child([] { ::pause(); });
  client_.reset();
  loop_.RunUntilIdle();
  EXPECT_EQ(server_->connections(), 0u);
}

TEST_F(ClientEndTest, OfTheServerIsSeenThoughAChildProcessHasACopyOfTheSocket) {
  ASSERT_TRUE(widget_->Show(Browser(7)).ok());
  const testing::ForkedProcess child([] { ::pause(); });
  server_.reset();
  loop_.RunUntilIdle();
  EXPECT_EQ(client_->status().code(), absl::StatusCode::kUnavailable);
}

TEST_F(ClientEndTest, AStreamThatIsClosedBeforeItEndedIsNotToldOfIt) {
  server_.reset();
  loop_.RunUntilIdle();
  auto stream = widget_->WhenCursorChanged(Browser(7), nullptr, StreamEnds());
  stream.reset();
  loop_.RunUntilIdle();
  EXPECT_THAT(ends_, IsEmpty());
}

TEST_F(ClientEndTest, AResponderMayBeUsedAfterwards) {
  std::optional<Responder<rpc::TakeFocus>> kept;
  const auto stream = widget_->OnTakeFocus(
      Browser(7),
      [&kept](const rpc::TakeFocusCall&, Responder<rpc::TakeFocus> responder) {
        kept.emplace(std::move(responder));
      });
  ASSERT_TRUE(widget_->Show(Browser(7)).ok());
  absl::Status failed;
  AskForFocus(&failed);
  loop_.RunUntilIdle();
  ASSERT_TRUE(kept.has_value());
  client_.reset();
  EXPECT_EQ(std::move(*kept).Respond({}).code(),
            absl::StatusCode::kUnavailable);
  loop_.RunUntilIdle();
  EXPECT_FALSE(failed.ok());
}

// Absent continuations --------------------------------------------------------

TEST_F(ClientEndTest, NobodyNeedsToWaitForAnAnswer) {
  widget_->Show(Browser(7), nullptr);
  widget_->ForwardKeyType(TooLong(), nullptr);
  widget_->Hide(Browser(7), nullptr).Cancel();
  loop_.RunUntilIdle();
  widget_->Hide(Browser(7), nullptr);
  EXPECT_THAT(EndsInTheDestructor(), IsEmpty());
}

TEST_F(ClientEndTest, NobodyNeedsToTakeEvents) {
  const auto stream = widget_->WhenCursorChanged(Browser(7), nullptr, nullptr);
  ASSERT_TRUE(widget_->Show(Browser(7)).ok());
  EXPECT_EQ(Publish<rpc::CursorChanged>(Browser(7), {}), 1u);
  loop_.RunUntilIdle();
  EXPECT_TRUE(client_->status().ok());
  EXPECT_THAT(EndsInTheDestructor(), IsEmpty());
}

TEST_F(ClientEndTest, ACallThatNobodyTakesFails) {
  const auto stream = widget_->OnTakeFocus(Browser(7), nullptr, nullptr);
  ASSERT_TRUE(widget_->Show(Browser(7)).ok());
  absl::Status failed;
  AskForFocus(&failed);
  loop_.RunUntilIdle();
  EXPECT_FALSE(failed.ok());
  EXPECT_TRUE(client_->status().ok());
}

TEST_F(ClientEndTest, ACancelledCallMayOwnTheClient) {
  std::shared_ptr<SocketClient> owner = std::move(client_);
  CallHandle first = widget_->Hide(
      Browser(7), [owner, end = Ends()](const absl::StatusOr<Empty>& answer) {
        end(answer);
      });
  CallHandle second = widget_->Hide(Browser(7), Ends());
  owner.reset();
  first.Cancel();
  second.Cancel();
  // What the first continuation holds is destroyed with it, while the second
  // still waits to run.
  loop_.RunUntilIdle();
  EXPECT_THAT(ends_, ElementsAre(absl::StatusCode::kCancelled,
                                 absl::StatusCode::kCancelled));
}

TEST_F(ClientEndTest, ACallThatTheServersEndEndsMayOwnTheClient) {
  std::shared_ptr<SocketClient> owner = std::move(client_);
  widget_->Hide(Browser(7),
                [owner, end = Ends()](const absl::StatusOr<Empty>& answer) {
                  end(answer);
                });
  widget_->Hide(Browser(7), Ends());
  owner.reset();
  loop_.RunUntilIdle();
  server_.reset();
  loop_.RunUntilIdle();
  EXPECT_THAT(ends_, ElementsAre(absl::StatusCode::kUnavailable,
                                 absl::StatusCode::kUnavailable));
}

}  // namespace
}  // namespace orvane
