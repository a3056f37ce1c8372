// A page's pictures on their way from the engine to the host that draws them.

#ifndef ENGINES_CHROMIUM_PICTURE_SENDER_H_
#define ENGINES_CHROMIUM_PICTURE_SENDER_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "absl/status/statusor.h"

#include "engines/chromium/engine_pipe.h"
#include "engines/chromium/picture.h"
#include "engines/chromium/worker.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace chromium {

// Calls the host with what has changed since the picture that it has, one call
// at a time. The engine draws as fast as the host answers, and not at all while
// nobody serves the pictures; then the newest waits.
//
// Thread: the service thread. Lifetime: loop and service outlive the sender.
class PictureSender {
 public:
  // `acknowledge` tells the engine that it may send another picture: the number
  // is the one of the picture that has been dealt with.
  using Acknowledge = std::function<void(std::int64_t number)>;

  // `on_wrong_size` runs when a picture was dropped because of its size.
  PictureSender(orvane::EventLoop* loop, BrowserId browser,
                rpc::BrowserWidgetRpc* service, Acknowledge acknowledge,
                std::function<void()> on_wrong_size);
  PictureSender(const PictureSender&) = delete;
  PictureSender& operator=(const PictureSender&) = delete;

  // How large pictures are from now on, in pixels, and at what scale they were
  // drawn. Pictures of another size are dropped.
  void SetSize(std::int32_t width, std::int32_t height, double scale_factor);

  // The host may have lost what it was sent, so the next picture is sent whole.
  void ForgetShown();

  // Nobody sees the view: takes no memory for pictures until the next comes,
  // which is sent whole.
  void Rest();

  // The engine, or the page's place in it, is gone: its pictures are void.
  void Reset();

  // Pictures that have come so far are not current any more.
  void Await();

  // Whether the newest picture has the right size, as far as it has been looked
  // at.
  bool is_current() const {
    return is_current_ || (waiting_.has_value() && waiting_->turn == turn_);
  }

  // A Page.screencastFrame.
  void Take(EngineEvent event);

 private:
  struct Waiting {
    std::string base64;
    std::int64_t number;
    std::int64_t time_ns;
    std::uint64_t turn;
  };
  struct Decoded {
    std::uint64_t turn;
    absl::StatusOr<Picture> picture;
    // Against what the host has, if it has something.
    std::optional<std::vector<rpc::RectPx>> damage;
  };

  void Next();
  void TakeDecoded(Decoded decoded, std::int64_t number, std::int64_t time_ns);
  void Send(std::vector<rpc::RectPx> damage, std::int64_t number,
            std::int64_t time_ns);
  void TakeAnswer(const absl::StatusOr<rpc::UpdateSurfaceResponse>& response);
  void Finish(std::int64_t number);
  void FreeMemory();

  orvane::EventLoop* const loop_;
  const BrowserId browser_;
  rpc::BrowserWidgetRpc* const service_;
  const Acknowledge acknowledge_;
  const std::function<void()> on_wrong_size_;

  std::int32_t width_ = 0;
  std::int32_t height_ = 0;
  double scale_factor_ = 1;

  std::uint64_t turn_ = 0;  // Grows with Await.
  bool is_current_ = false;
  std::optional<Waiting> waiting_;  // The newest that is not begun.
  bool is_busy_ = false;            // One is being decoded or shown.
  bool is_resting_ = false;
  // Grows with Reset, whose pictures are not acknowledged.
  std::uint64_t generation_ = 0;
  std::uint64_t last_frame_ = 0;
  std::unique_ptr<orvane::EventLoop::Timer> retry_;

  // Pixels are written by the worker while `is_busy_`; the rest is ours.
  Picture shown_;  // What the host has.
  bool is_shown_forgotten_ = false;
  Picture sending_;
  std::unique_ptr<widget_server::SharedPixels> spare_;

  const std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  Worker worker_;  // Last: ends before what it reads.
};

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_PICTURE_SENDER_H_
