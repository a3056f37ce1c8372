#include "engines/chromium/picture_sender.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>

#include "absl/log/log.h"
#include "absl/time/time.h"

namespace chromium {
namespace {

constexpr absl::Duration kTimeout = absl::Seconds(5);
// How often to look whether somebody serves the pictures.
constexpr absl::Duration kRetry = absl::Milliseconds(50);
constexpr std::uint32_t kBytesPerPixel = 4;
constexpr double kNanosecondsPerSecond = 1e9;

std::int64_t MonotonicNow() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// When the picture was drawn. The engine's time lies a little ahead.
std::int64_t TimeOf(const Json& params) {
  const double seconds =
      Number(Member(params, "metadata"), "monotonicTimestamp");
  const std::int64_t now = MonotonicNow();
  if (!(seconds > 0 &&
        seconds < static_cast<double>(now) / kNanosecondsPerSecond)) {
    return now;
  }
  return static_cast<std::int64_t>(seconds * kNanosecondsPerSecond);
}

}  // namespace

PictureSender::PictureSender(orvane::EventLoop* loop, BrowserId browser,
                             rpc::BrowserWidgetRpc* service,
                             Acknowledge acknowledge,
                             std::function<void()> on_wrong_size)
    : loop_(loop),
      browser_(std::move(browser)),
      service_(service),
      acknowledge_(std::move(acknowledge)),
      on_wrong_size_(std::move(on_wrong_size)) {}

void PictureSender::SetSize(std::int32_t width, std::int32_t height,
                            double scale_factor) {
  width_ = width;
  height_ = height;
  scale_factor_ = scale_factor;
  is_current_ = false;
}

void PictureSender::Await() {
  ++turn_;
  is_current_ = false;
}

void PictureSender::ForgetShown() { is_shown_forgotten_ = true; }

void PictureSender::Rest() {
  is_resting_ = true;
  if (!is_busy_) FreeMemory();
}

void PictureSender::FreeMemory() {
  shown_ = Picture();
  spare_.reset();
}

void PictureSender::Reset() {
  waiting_.reset();
  ++generation_;
  is_current_ = false;
  ForgetShown();
}

void PictureSender::Take(EngineEvent event) {
  is_resting_ = false;
  // One that was not begun is not shown any more.
  if (waiting_.has_value()) acknowledge_(waiting_->number);
  waiting_ = {std::move(event.picture),
              static_cast<std::int64_t>(Number(event.params, "sessionId")),
              TimeOf(event.params), turn_};
  Next();
}

void PictureSender::Next() {
  retry_.reset();
  if (is_busy_ || !waiting_.has_value()) return;
  if (!orvane::IsServed<rpc::UpdateSurface>(browser_)) {
    retry_ = loop_->RunAfter(kRetry, [this] { Next(); });
    return;
  }
  is_busy_ = true;
  if (std::exchange(is_shown_forgotten_, false) && shown_.pixels != nullptr)
    spare_ = std::move(shown_.pixels);
  Waiting picture = *std::exchange(waiting_, std::nullopt);
  worker_.Post([this, base64 = std::move(picture.base64),
                number = picture.number, time_ns = picture.time_ns,
                turn = picture.turn, width = width_, height = height_,
                spare = std::move(spare_), mailbox = loop_->mailbox(),
                generation = generation_,
                alive = std::weak_ptr<bool>(alive_)]() mutable {
    Decoded decoded{
        turn, DecodePicture(base64, width, height, std::move(spare)), {}};
    // What the host has stays as it is while this runs.
    if (decoded.picture.ok() && shown_.pixels != nullptr &&
        shown_.width == width && shown_.height == height) {
      decoded.damage =
          FindDamage(shown_.pixels->bytes(), decoded.picture->pixels->bytes(),
                     width, height);
    }
    mailbox->Post([this, alive, generation, number, time_ns,
                   decoded = std::move(decoded)]() mutable {
      if (alive.expired()) return;
      TakeDecoded(std::move(decoded), generation == generation_ ? number : 0,
                  time_ns);
    });
  });
}

void PictureSender::TakeDecoded(Decoded decoded, std::int64_t number,
                                std::int64_t time_ns) {
  if (!decoded.picture.ok()) {
    VLOG(1) << "dropped: " << decoded.picture.status().message();
    is_current_ = false;
    on_wrong_size_();
    Finish(number);
    return;
  }
  is_current_ = decoded.turn == turn_ && decoded.picture->width == width_ &&
                decoded.picture->height == height_;
  sending_ = *std::move(decoded.picture);
  if (decoded.damage.has_value() && decoded.damage->empty() &&
      !is_shown_forgotten_) {
    spare_ = std::move(sending_.pixels);  // The host has it.
    Finish(number);
    return;
  }
  if (is_shown_forgotten_) decoded.damage.reset();
  Send(std::move(decoded.damage).value_or(std::vector<rpc::RectPx>()), number,
       time_ns);
}

void PictureSender::Send(std::vector<rpc::RectPx> damage, std::int64_t number,
                         std::int64_t time_ns) {
  rpc::UpdateSurfaceCall call;
  rpc::PixelFrame& frame = *call.mutable_frame();
  frame.set_frame_id(++last_frame_);
  frame.mutable_size()->set_width(sending_.width);
  frame.mutable_size()->set_height(sending_.height);
  frame.set_stride_bytes(kBytesPerPixel *
                         static_cast<std::uint32_t>(sending_.width));
  frame.set_format(rpc::PIXEL_FORMAT_BGRA_8888_PREMULTIPLIED);
  frame.set_color_space(rpc::COLOR_SPACE_SRGB);
  frame.set_scale_factor(scale_factor_);
  frame.set_produced_time_ns(time_ns);
  for (rpc::RectPx& rect : damage) *frame.add_damage() = std::move(rect);
  frame.mutable_shared_memory()->set_name(sending_.pixels->name());
  frame.mutable_shared_memory()->set_length_bytes(
      sending_.pixels->bytes().size());
  service_->OnUpdateSurface()(
      browser_, std::move(call),
      [this, number, generation = generation_,
       alive = std::weak_ptr<bool>(alive_)](
          const absl::StatusOr<rpc::UpdateSurfaceResponse>& response) {
        if (alive.expired()) return;
        TakeAnswer(response);
        Finish(generation == generation_ ? number : 0);
      },
      {.timeout = kTimeout});
}

void PictureSender::TakeAnswer(
    const absl::StatusOr<rpc::UpdateSurfaceResponse>& response) {
  if (response.ok() &&
      response->receipt().outcome() == rpc::FRAME_OUTCOME_PRESENTED) {
    spare_ = std::move(shown_.pixels);
    shown_ = std::move(sending_);
    return;
  }
  // The host has no picture to which the next one could be a change. One that
  // has not answered may still read this one, so its memory is not used again.
  shown_ = Picture();
  if (response.ok()) {
    spare_ = std::move(sending_.pixels);
  } else {
    sending_ = Picture();
  }
}

void PictureSender::Finish(std::int64_t number) {
  is_busy_ = false;
  if (is_resting_) FreeMemory();
  if (number != 0) acknowledge_(number);
  Next();
}

}  // namespace chromium
