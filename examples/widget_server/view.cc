#include "examples/widget_server/view.h"

#include <utility>

#include "absl/strings/str_cat.h"

#include "examples/widget_server/x11.h"

namespace widget_server {
namespace {

absl::Status CheckBounds(const rpc::RectDip& bounds,
                         const rpc::RectPx& screen_bounds) {
  // Written so that NaN is refused too.
  if (!(bounds.width() >= 0 && bounds.height() >= 0)) {
    return absl::InvalidArgumentError(
        absl::StrCat("`bounds` are ", bounds.width(), " by ", bounds.height(),
                     " DIPs; neither may be negative"));
  }
  if (screen_bounds.width() < 0 || screen_bounds.height() < 0) {
    return absl::InvalidArgumentError(absl::StrCat(
        "`screen_bounds` are ", screen_bounds.width(), " by ",
        screen_bounds.height(), " pixels; neither may be negative"));
  }
  return absl::OkStatus();
}

}  // namespace

View::View(rpc::RenderingMode rendering_mode, rpc::WindowHandle engine_window,
           Input::IsDraggableAt is_draggable_at)
    : rendering_mode_(rendering_mode),
      engine_window_(std::move(engine_window)),
      input_(std::move(is_draggable_at)) {}

absl::Status View::MoveTo(const rpc::AttachRequest& request) {
  if (rendering_mode_ == rpc::RENDERING_MODE_WINDOWED ||
      request.has_parent_window()) {
    if (absl::Status status = CheckWindow(request.parent_window());
        !status.ok()) {
      return status;
    }
  }
  if (absl::Status status =
          CheckBounds(request.bounds(), request.screen_bounds());
      !status.ok()) {
    return status;
  }
  parent_window_ = request.parent_window();
  bounds_ = request.bounds();
  screen_bounds_ = request.screen_bounds();
  return absl::OkStatus();
}

absl::Status View::SetBounds(const rpc::ViewBounds& request) {
  if (absl::Status status =
          CheckBounds(request.bounds(), request.screen_bounds());
      !status.ok()) {
    return status;
  }
  bounds_ = request.bounds();
  screen_bounds_ = request.screen_bounds();
  return absl::OkStatus();
}

absl::Status View::Show() {
  is_shown_ = true;
  return absl::OkStatus();
}

absl::Status View::Hide() {
  is_shown_ = false;
  return absl::OkStatus();
}

absl::Status View::Minimize() {
  is_minimized_ = true;
  return absl::OkStatus();
}

absl::Status View::Restore() {
  is_minimized_ = false;
  return absl::OkStatus();
}

absl::Status View::Focus() {
  has_focus_ = true;
  return absl::OkStatus();
}

absl::Status View::Unfocus() {
  has_focus_ = false;
  return absl::OkStatus();
}

}  // namespace widget_server
