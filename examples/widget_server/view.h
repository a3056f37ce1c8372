// The view of a browser while it is attached to the host.

#ifndef EXAMPLES_WIDGET_SERVER_VIEW_H_
#define EXAMPLES_WIDGET_SERVER_VIEW_H_

#include "absl/status/status.h"

#include "examples/widget_server/input.h"
#include "rpc/browser/focus.pb.h"
#include "rpc/browser/geometry.pb.h"
#include "rpc/browser/window.pb.h"

namespace widget_server {

// The view's place, whether it is shown and focused, and the input that it has
// received. A new view is hidden, empty and without focus. An operation that
// fails changes nothing.
class View {
 public:
  // `engine_window` is the window that the engine draws into; unset if
  // off-screen.
  View(rpc::RenderingMode rendering_mode, rpc::WindowHandle engine_window,
       Input::IsDraggableAt is_draggable_at = nullptr);

  // Moves the view into a parent window and to its place there. An off-screen
  // view needs no parent window.
  absl::Status MoveTo(const rpc::AttachRequest& request);

  absl::Status SetBounds(const rpc::ViewBounds& request);

  absl::Status Show();
  absl::Status Hide();

  // A minimized view is not drawn, but remembers whether it is shown.
  absl::Status Minimize();
  absl::Status Restore();

  absl::Status Focus();
  absl::Status Unfocus();

  rpc::RenderingMode rendering_mode() const { return rendering_mode_; }
  const rpc::WindowHandle& engine_window() const { return engine_window_; }
  const rpc::WindowHandle& parent_window() const { return parent_window_; }
  const rpc::RectDip& bounds() const { return bounds_; }
  const rpc::RectPx& screen_bounds() const { return screen_bounds_; }
  bool is_drawn() const { return is_shown_ && !is_minimized_; }
  bool has_focus() const { return has_focus_; }

  Input& input() { return input_; }
  const Input& input() const { return input_; }

 private:
  rpc::RenderingMode rendering_mode_;
  rpc::WindowHandle engine_window_;
  rpc::WindowHandle parent_window_;
  rpc::RectDip bounds_;
  rpc::RectPx screen_bounds_;
  bool is_shown_ = false;
  bool is_minimized_ = false;
  bool has_focus_ = false;
  Input input_;
};

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_VIEW_H_
