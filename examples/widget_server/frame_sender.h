// Brings a browser's pictures to the host that draws them.

#ifndef EXAMPLES_WIDGET_SERVER_FRAME_SENDER_H_
#define EXAMPLES_WIDGET_SERVER_FRAME_SENDER_H_

#include <cstdint>
#include <memory>
#include <optional>

#include "examples/widget_server/page_picture.h"
#include "rpc/browser/browser_widget.rpc.h"

namespace widget_server {

struct Popup {
  std::uint64_t id;
  Rect place;
  Picture picture;

  bool operator==(const Popup&) const = default;
};

struct Layer {
  Rect place;
  Picture picture;

  bool operator==(const Layer&) const = default;
};

// All that is to be seen of a browser, off-screen.
struct Scene {
  std::optional<Picture> view;
  std::optional<Popup> popup;
  std::optional<Layer> caret;
};

// Calls the host with what has changed since the last scene, one call at a
// time: while one waits for its answer nothing else is painted, and then only
// the newest scene. Pixels lie in shared memory until their call has ended. A
// picture that is empty or too large for a frame is left out, and so is one
// that nobody serves, until the next Show.
//
// Thread: the service thread. Lifetime: `service` outlives the sender; calls
// may outlive both.
class FrameSender : public std::enable_shared_from_this<FrameSender> {
 public:
  static constexpr std::uint64_t kCaretLayer = 1;

  FrameSender(BrowserId browser, rpc::BrowserWidgetRpc* service);

  void Show(Scene scene);

 private:
  // Each begins a call if what is wanted is not what the host has; false if
  // there is nothing to do, or it cannot be done.
  bool SendView();
  bool SendPopup();
  bool SendCaret();
  void SendNext();

  bool SendSurface(const Picture& picture, rpc::UpdateSurfaceCall call);

  // Sends `call`, with a new frame of `picture` unless that is null.
  template <typename T>
  bool Send(const orvane::Caller<T>& caller, orvane::CallOf<T> call,
            const Picture* picture);

  const BrowserId browser_;
  rpc::BrowserWidgetRpc* const service_;
  Scene wanted_;
  Scene shown_;  // As far as the host took it.
  bool is_call_waiting_ = false;
  // A picture did not get to be shown; if it was the caret's, the next call
  // about that has to bring it again.
  bool is_picture_lost_ = false;
  std::uint64_t last_frame_ = 0;
};

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_FRAME_SENDER_H_
