#include "examples/widget_server/frame_sender.h"

#include <chrono>
#include <utility>

#include "absl/log/log.h"
#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"

#include "examples/widget_server/shared_pixels.h"

namespace widget_server {
namespace {

// A host that takes longer has probably stopped drawing.
constexpr absl::Duration kTimeout = absl::Seconds(5);

std::int64_t MonotonicNow() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// Null if the picture cannot be sent as a frame.
std::shared_ptr<SharedPixels> PaintFrame(const Picture& picture,
                                         rpc::PixelFrame* frame) {
  const std::optional<rpc::SizePx> size = SizeInPixels(picture);
  // Not an error: a view may be empty, and one that exceeds the limits of a
  // frame may be attached, as it could be in a window.
  if (!size.has_value()) return nullptr;
  const std::int64_t stride = size->width() * kBytesPerPixel;
  const std::int64_t length = stride * size->height();
  absl::StatusOr<std::unique_ptr<SharedPixels>> pixels =
      SharedPixels::Create(static_cast<std::size_t>(length));
  if (!pixels.ok()) {
    LOG(WARNING) << "cannot draw a frame: " << pixels.status().message();
    return nullptr;
  }
  Paint(picture, (*pixels)->bytes());

  *frame->mutable_size() = *size;
  frame->set_stride_bytes(static_cast<std::uint32_t>(stride));
  frame->set_format(rpc::PIXEL_FORMAT_BGRA_8888_PREMULTIPLIED);
  frame->set_color_space(rpc::COLOR_SPACE_SRGB);
  frame->set_scale_factor(picture.scale_factor);
  frame->set_produced_time_ns(MonotonicNow());
  frame->mutable_shared_memory()->set_name((*pixels)->name());
  frame->mutable_shared_memory()->set_length_bytes(
      static_cast<std::uint64_t>(length));
  return *std::move(pixels);
}

}  // namespace

FrameSender::FrameSender(BrowserId browser, rpc::BrowserWidgetRpc* service)
    : browser_(std::move(browser)), service_(service) {}

void FrameSender::Show(Scene scene) {
  wanted_ = std::move(scene);
  SendNext();
}

void FrameSender::SendNext() {
  if (is_call_waiting_) return;
  is_call_waiting_ = SendView() || SendPopup() || SendCaret();
}

bool FrameSender::SendView() {
  if (wanted_.view == shown_.view) return false;
  shown_.view.reset();
  if (!wanted_.view.has_value()) return false;  // The host has hidden the view.
  if (!SendSurface(*wanted_.view, {})) return false;
  shown_.view = wanted_.view;
  return true;
}

bool FrameSender::SendPopup() {
  if (wanted_.popup == shown_.popup) return false;
  shown_.popup.reset();
  if (!wanted_.popup.has_value())
    return false;  // The host got DropDownDeleted.
  rpc::UpdateSurfaceCall call;
  call.mutable_popup()->set_popup_id(wanted_.popup->id);
  *call.mutable_popup()->mutable_bounds() = wanted_.popup->place.ToProto();
  if (!SendSurface(wanted_.popup->picture, std::move(call))) return false;
  shown_.popup = wanted_.popup;
  return true;
}

bool FrameSender::SendCaret() {
  if (wanted_.caret == shown_.caret) return false;
  const std::optional<Layer> before = std::exchange(shown_.caret, std::nullopt);
  if (!orvane::IsServed<rpc::UpdateLayer>(browser_)) return false;

  rpc::UpdateLayerCall call;
  call.set_layer_id(kCaretLayer);
  const Picture* picture = nullptr;
  if (wanted_.caret.has_value()) {
    *call.mutable_bounds() = wanted_.caret->place.ToProto();
    if (std::exchange(is_picture_lost_, false) || !before.has_value() ||
        before->picture != wanted_.caret->picture) {
      picture = &wanted_.caret->picture;
    }
  } else {
    call.set_is_removed(true);
  }
  if (!Send<rpc::UpdateLayer>(service_->OnUpdateLayer(), std::move(call),
                              picture))
    return false;
  shown_.caret = wanted_.caret;
  return true;
}

bool FrameSender::SendSurface(const Picture& picture,
                              rpc::UpdateSurfaceCall call) {
  // Checked before painting, which is expensive.
  if (!orvane::IsServed<rpc::UpdateSurface>(browser_)) return false;
  return Send<rpc::UpdateSurface>(service_->OnUpdateSurface(), std::move(call),
                                  &picture);
}

template <typename T>
bool FrameSender::Send(const orvane::Caller<T>& caller, orvane::CallOf<T> call,
                       const Picture* picture) {
  std::shared_ptr<SharedPixels> pixels;
  if (picture != nullptr) {
    pixels = PaintFrame(*picture, call.mutable_frame());
    if (pixels == nullptr) return false;
    call.mutable_frame()->set_frame_id(++last_frame_);
  }
  // The continuation keeps the pixels until the call has ended. If a picture
  // was not shown, it is not sent again; all of the next one counts as changed.
  caller(browser_, std::move(call),
         [pixels, weak = weak_from_this()](
             const absl::StatusOr<orvane::ResponseOf<T>>& response) {
           const auto self = weak.lock();
           if (self == nullptr) return;
           const bool is_shown =
               response.ok() &&
               response->receipt().outcome() == rpc::FRAME_OUTCOME_PRESENTED;
           if (pixels != nullptr && !is_shown) self->is_picture_lost_ = true;
           self->is_call_waiting_ = false;
           self->SendNext();
         },
         {.timeout = kTimeout});
  return true;
}

}  // namespace widget_server
