// The frames that the program's watch and serve send and receive.

#include <poll.h>
#include <sys/socket.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/event_subscription.pb.h"
#include "rpc/transport/stream_message.pb.h"
#include "tools/widgetctl/program_test.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/testing/raw_peer.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace widgetctl {
namespace {

using orvane::testing::ChildProcess;
using rpc::transport::StreamMessage;
using ::testing::HasSubstr;

// A widget that sends what a test tells it to send.
class RawWidget {
 public:
  explicit RawWidget(const std::string& path)
      : listening_(*orvane::ListeningSocket::Open(path)),
        listener_(listening_.ReleaseDescriptor()) {}

  void Accept() {
    descriptor_ = ::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(descriptor_, 0);
    host_.emplace(orvane::OwnedDescriptor(descriptor_));
  }

  // Waits for the next frame. At the end of the connection, returns a frame
  // without a kind.
  StreamMessage Next() {
    while (host_->frames.size() == taken_ && !host_->closed) {
      pollfd readable{descriptor_, POLLIN, 0};
      ::poll(&readable, 1, -1);
      host_->Receive();
    }
    if (host_->frames.size() == taken_) return {};
    return host_->frames[taken_++];
  }

  // Receives the frames that open a stream and subscribe it; returns its id.
  std::uint64_t AcceptStream() {
    Accept();
    const std::uint64_t id = Next().stream_id();
    Next();
    return id;
  }

  void Send(StreamMessage::Kind kind, std::uint64_t stream,
            const std::string& payload, const std::string& error = "") {
    StreamMessage frame;
    frame.set_kind(kind);
    frame.set_stream_id(stream);
    frame.set_call_id(12);
    frame.set_payload(payload);
    if (!error.empty()) {
      frame.set_error_code(static_cast<int>(absl::StatusCode::kUnimplemented));
      frame.set_error_text(error);
    }
    host_->Send(frame);
  }

  void HangUp() { host_.reset(); }

 private:
  orvane::ListeningSocket listening_;
  const orvane::OwnedDescriptor listener_;
  int descriptor_ = -1;  // host_'s.
  std::optional<orvane::testing::RawPeer> host_;
  std::size_t taken_ = 0;
};

template <typename T>
T CallOfBrowser1() {
  T message;
  message.mutable_browser_id()->set_value(1);
  message.mutable_call();
  return message;
}

class WidgetctlFramesTest : public testing::Test {
 protected:
  ChildProcess Start(std::vector<std::string> arguments) {
    std::vector<std::string> command = {WIDGETCTL, "--socket", socket_};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return ChildProcess(command);
  }

 private:
  const orvane::testing::TemporaryFolder folder_;
  const std::string socket_ = folder_.path() + "/widget.sock";

 protected:
  RawWidget widget_{socket_};
};

TEST_F(WidgetctlFramesTest, WatchOpensAndSubscribesAndCompletes) {
  ChildProcess watch = Start({"watch", "WhenTooltipChanged", "1"});
  widget_.Accept();
  const StreamMessage open = widget_.Next();
  EXPECT_EQ(open.kind(), StreamMessage::KIND_OPEN);
  EXPECT_EQ(open.method(), static_cast<std::uint32_t>(
                               rpc::BrowserWidgetRpc::descriptor()
                                   ->FindMethodByName("WhenTooltipChanged")
                                   ->index()));
  const StreamMessage subscribe = widget_.Next();
  EXPECT_EQ(subscribe.kind(), StreamMessage::KIND_NEXT);
  rpc::EventSubscription subscription;
  ASSERT_TRUE(subscription.ParseFromString(subscribe.payload()));
  EXPECT_EQ(subscription.subscribe().value(), 1u);

  watch.Signal(SIGINT);
  const StreamMessage complete = widget_.Next();
  EXPECT_EQ(complete.kind(), StreamMessage::KIND_COMPLETE);
  EXPECT_EQ(complete.stream_id(), open.stream_id());
  EXPECT_EQ(watch.Wait().exit_code, 0);
}

TEST_F(WidgetctlFramesTest, WatchTellsThatTheConnectionIsGone) {
  ChildProcess watch = Start({"watch", "WhenCursorChanged", "1"});
  widget_.AcceptStream();
  widget_.HangUp();
  EXPECT_THAT(watch.Wait(), Fails(3,
                                  "widgetctl: WhenCursorChanged failed: the "
                                  "server closed the connection\n"));
}

TEST_F(WidgetctlFramesTest, WatchTellsWhyTheWidgetRefusesIt) {
  ChildProcess watch = Start({"watch", "WhenCursorChanged", "1"});
  const std::uint64_t stream = widget_.AcceptStream();
  widget_.Send(StreamMessage::KIND_ERROR, stream, "", "no cursors here");
  EXPECT_THAT(
      watch.Wait(),
      Fails(1, "widgetctl: WhenCursorChanged failed: no cursors here\n"));
}

TEST_F(WidgetctlFramesTest, WatchEndsAtAnEventThatItCannotRead) {
  ChildProcess watch = Start({"watch", "WhenCursorChanged", "1"});
  const std::uint64_t stream = widget_.AcceptStream();
  widget_.Send(StreamMessage::KIND_NEXT, stream, "\xff");
  EXPECT_THAT(watch.Wait(),
              Fails(1,
                    "widgetctl: WhenCursorChanged failed: the "
                    "server sent a message that cannot be parsed as "
                    "rpc.CursorChanged\n"));
}

TEST_F(WidgetctlFramesTest, ServeEndsAtAMessageThatIsNoCall) {
  ChildProcess serve = Start({"serve", "OnTakeFocus", "1", "--reply", "{}"});
  const std::uint64_t stream = widget_.AcceptStream();
  widget_.Send(StreamMessage::KIND_NEXT, stream, "");
  EXPECT_THAT(serve.Wait(), Fails(1,
                                  "widgetctl: OnTakeFocus failed: the server "
                                  "sent a rpc.TakeFocus without a call\n"));
}

TEST_F(WidgetctlFramesTest, ServeAnswersUnderTheIdAndTheBrowserOfTheCall) {
  ChildProcess serve =
      Start({"serve", "OnTakeFocus", "1", "--reply", R"({"taken": true})"});
  const std::uint64_t stream = widget_.AcceptStream();
  auto message = CallOfBrowser1<rpc::TakeFocus>();
  widget_.Send(StreamMessage::KIND_NEXT, stream, message.SerializeAsString());

  EXPECT_EQ(serve.ReadLine(),
            R"({"callId":"12","browserId":{"value":"1"},"call":{}})");
  const StreamMessage answer = widget_.Next();
  EXPECT_EQ(answer.kind(), StreamMessage::KIND_NEXT);
  EXPECT_EQ(answer.call_id(), 12);
  ASSERT_TRUE(message.ParseFromString(answer.payload()));
  EXPECT_EQ(message.browser_id().value(), 1u);
  EXPECT_TRUE(message.response().taken());
}

TEST_F(WidgetctlFramesTest, ServeSendsTheTextOfTheFailure) {
  ChildProcess serve =
      Start({"serve", "OnTakeFocus", "1", "--fail", "not now "});
  const std::uint64_t stream = widget_.AcceptStream();
  auto message = CallOfBrowser1<rpc::TakeFocus>();
  widget_.Send(StreamMessage::KIND_NEXT, stream, message.SerializeAsString());

  const StreamMessage answer = widget_.Next();
  EXPECT_EQ(answer.kind(), StreamMessage::KIND_ERROR);
  EXPECT_EQ(answer.call_id(), 12);
  EXPECT_EQ(answer.error_text(), "not now ");
  ASSERT_TRUE(message.ParseFromString(answer.payload()));
  EXPECT_EQ(message.browser_id().value(), 1u);
}

TEST_F(WidgetctlFramesTest, ServeFailsACallWhoseResponseIsTooLong) {
  const std::string too_long =
      R"(printf '{"text":"'; head -c 9000000 /dev/zero | tr '\0' x; echo '"}')";
  ChildProcess serve = Start({"serve", "OnCreateWebDialog", "1", "--count", "1",
                              "--command", too_long});
  const std::uint64_t stream = widget_.AcceptStream();
  auto message = CallOfBrowser1<rpc::CreateWebDialog>();
  widget_.Send(StreamMessage::KIND_NEXT, stream, message.SerializeAsString());

  const StreamMessage answer = widget_.Next();
  EXPECT_EQ(answer.kind(), StreamMessage::KIND_ERROR);
  EXPECT_THAT(answer.error_text(), HasSubstr("the limit is "));
  const ChildProcess::Result result = serve.Wait();
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(
      result.errors,
      absl::StrCat("widgetctl: call 12 failed: ", answer.error_text(), "\n"));
}

}  // namespace
}  // namespace widgetctl
