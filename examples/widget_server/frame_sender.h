// Sends a browser's pictures to the host that draws them.

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

// Everything that an off-screen browser shows.
struct Scene {
  std::optional<Picture> view;
  std::optional<Popup> popup;
  std::optional<Layer> caret;
};

// Sends the host what has changed since the last scene, one call at a time:
// while the host has not answered, nothing is painted; then the newest scene
// is. Pixels stay in shared memory until their call has ended. A picture is not
// sent if it is empty or too large for a frame, or if no host receives
// pictures; the next Show tries again.
//
// Thread: the service thread. Lifetime: `service` outlives the sender; calls
// may outlive both.
class FrameSender : public std::enable_shared_from_this<FrameSender> {
 public:
  static constexpr std::uint64_t kCaretLayer = 1;

  FrameSender(BrowserId browser, rpc::BrowserWidgetRpc* service);

  void Show(Scene scene);

 private:
  // Each starts a call if the host does not have the wanted picture yet, and
  // returns whether it has started one.
  bool SendView();
  bool SendPopup();
  bool SendCaret();
  void SendNext();

  bool SendSurface(const Picture& picture, rpc::UpdateSurfaceCall call);

  // Sends `call`, with `picture` as a new frame unless it is null. Returns
  // false if nothing was sent.
  template <typename T>
  bool Send(const orvane::Caller<T>& caller, orvane::CallOf<T> call,
            const Picture* picture);

  const BrowserId browser_;
  rpc::BrowserWidgetRpc* const service_;
  Scene wanted_;
  Scene shown_;  // What the host has been sent.
  bool is_call_waiting_ = false;
  // The host did not present a picture. It may have been the caret's, so the
  // next call for the caret carries its picture again.
  bool is_picture_lost_ = false;
  std::uint64_t last_frame_ = 0;
};

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_FRAME_SENDER_H_
