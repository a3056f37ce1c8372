// A view whose widget sends what it likes.

#include <sys/socket.h>

#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "host/pixels.h"
#include "host/view.h"
#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"
#include "zimbrel/src/core/common/rpc/testing/raw_peer.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace orvane::host {
namespace {

using ::orvane::testing::RawPeer;
using rpc::transport::StreamMessage;
using ::testing::ElementsAre;

class HostileWidgetTest : public ::testing::Test {
 protected:
  HostileWidgetTest() {
    rpc::RectDip bounds;
    bounds.set_width(320);
    bounds.set_height(200);
    view_.SetBounds(bounds, std::nullopt);
    Accept();
  }

  // The view has connected, and asked for all that it wants.
  void Accept() {
    loop_.RunUntil([this] { return view_.state() == ViewState::kConnected; });
    widget_.emplace(OwnedDescriptor(
        ::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC)));
    loop_.RunUntilIdle();
    widget_->Receive();
  }

  // The widget sends a frame of the call or stream that the view has begun.
  void Send(const std::string& method, StreamMessage::Kind kind,
            const std::string& payload = "", std::int64_t call_id = 0,
            absl::StatusCode error = absl::StatusCode::kOk) {
    const auto index = static_cast<std::uint32_t>(
        rpc::BrowserWidgetRpc::descriptor()->FindMethodByName(method)->index());
    for (const StreamMessage& begun : widget_->frames) {
      const bool begins = begun.kind() == StreamMessage::KIND_CALL ||
                          begun.kind() == StreamMessage::KIND_OPEN;
      if (!begins || begun.method() != index) continue;
      StreamMessage frame;
      frame.set_kind(kind);
      frame.set_stream_id(begun.stream_id());
      frame.set_call_id(call_id);
      frame.set_error_code(static_cast<int>(error));
      frame.set_payload(payload);
      widget_->Send(frame);
      loop_.RunUntilIdle();
      return;
    }
    ADD_FAILURE() << "the view has not begun " << method;
  }
  void AnswerAttach(bool is_attached) {
    rpc::AttachResult result;
    result.set_attached(is_attached);
    result.mutable_size()->set_width(320);
    result.mutable_size()->set_height(200);
    result.set_scale_factor(1);
    Send("Attach", StreamMessage::KIND_REPLY, result.SerializeAsString());
  }

  const orvane::testing::TemporaryFolder folder_;
  const std::string socket_ = folder_.path() + "/widget.sock";
  absl::StatusOr<ListeningSocket> files_ = ListeningSocket::Open(socket_);
  const OwnedDescriptor listening_{files_->ReleaseDescriptor()};
  EventLoop loop_;
  std::optional<RawPeer> widget_;
  std::vector<rpc::FrameOutcome> outcomes_;
  Picture picture_;
  std::unique_ptr<ClientStream> surfaces_;
  View view_{&loop_,
             {.connect = ConnectorTo(&loop_, socket_),
              .browser = testing::Browser(7),
              .first_retry = absl::Milliseconds(1)},
             {.on_connected = [this](rpc::BrowserWidgetRpcClient& widget) {
               surfaces_ = widget.OnUpdateSurface(
                   testing::Browser(7),
                   [this](const rpc::UpdateSurfaceCall& call,
                          Responder<rpc::UpdateSurface> responder) {
                     rpc::UpdateSurfaceResponse answer;
                     *answer.mutable_receipt() = ReceiptFor(
                         call.frame(), picture_.Update(call.frame()));
                     outcomes_.push_back(answer.receipt().outcome());
                     std::move(responder).Respond(answer).IgnoreError();
                   });
             }}};
};

TEST_F(HostileWidgetTest, OneThatLacksAStreamOfTheViewsIsIncompatible) {
  Send("WhenTooltipChanged", StreamMessage::KIND_ERROR, "", 0,
       absl::StatusCode::kUnimplemented);
  EXPECT_EQ(view_.state(), ViewState::kIncompatible);
  EXPECT_TRUE(absl::IsUnimplemented(view_.status())) << view_.status();
}

TEST_F(HostileWidgetTest, OneThatCompletesStreamsIsLeftForTheNext) {
  AnswerAttach(true);
  Send("WhenDragCursorUpdated", StreamMessage::KIND_COMPLETE);
  EXPECT_EQ(view_.state(), ViewState::kAttached);
  Send("WhenTooltipChanged", StreamMessage::KIND_COMPLETE);
  EXPECT_EQ(view_.state(), ViewState::kWaiting);
  Accept();
  AnswerAttach(true);
  EXPECT_EQ(view_.state(), ViewState::kAttached);
}

TEST_F(HostileWidgetTest, OnlyTheFirstAnswerCounts) {
  AnswerAttach(true);
  AnswerAttach(false);
  Send("Attach", StreamMessage::KIND_ERROR, "", 0, absl::StatusCode::kInternal);
  EXPECT_EQ(view_.state(), ViewState::kAttached);
}

TEST_F(HostileWidgetTest, FramesOfNonsenseAreDiscardedOneByOne) {
  AnswerAttach(true);
  rpc::UpdateSurface message;
  *message.mutable_browser_id() = testing::Browser(4711);
  rpc::UpdateSurfaceCall& call = *message.mutable_call();
  rpc::PixelFrame& frame = *call.mutable_frame();
  const auto send = [&] {
    Send("OnUpdateSurface", StreamMessage::KIND_NEXT,
         message.SerializeAsString(), 5);
  };
  send();
  frame.mutable_size()->set_width(1);
  frame.mutable_size()->set_height(1);
  frame.set_stride_bytes(4);
  frame.set_format(rpc::PIXEL_FORMAT_BGRA_8888_PREMULTIPLIED);
  frame.set_inline_pixels("abc");
  send();
  frame.set_inline_pixels("abcd");
  frame.set_scale_factor(std::numeric_limits<double>::infinity());
  frame.add_damage()->set_x(std::numeric_limits<std::int32_t>::min());
  call.mutable_popup()->mutable_bounds()->set_x(
      std::numeric_limits<double>::quiet_NaN());
  send();
  frame.mutable_shared_memory()->set_name("/no such memory");
  frame.mutable_shared_memory()->set_length_bytes(4);
  send();
  EXPECT_THAT(
      outcomes_,
      ElementsAre(rpc::FRAME_OUTCOME_DISCARDED, rpc::FRAME_OUTCOME_DISCARDED,
                  rpc::FRAME_OUTCOME_PRESENTED, rpc::FRAME_OUTCOME_DISCARDED));
  EXPECT_EQ(view_.state(), ViewState::kAttached);
}

TEST_F(HostileWidgetTest, MessagesThatCannotBeReadEndTheirStreamAlone) {
  Send("WhenDragCursorUpdated", StreamMessage::KIND_NEXT, "\xff");
  Send("OnUpdateSurface", StreamMessage::KIND_NEXT, "\xff", 5);
  Send("OnUpdateSurface", StreamMessage::KIND_NEXT, "", 5);
  AnswerAttach(true);
  EXPECT_EQ(view_.state(), ViewState::kAttached);
}

}  // namespace
}  // namespace orvane::host
