#include "examples/widget_server/input.h"

#include <utility>

#include "absl/strings/str_cat.h"

#include "examples/widget_server/x11.h"

namespace widget_server {
namespace {

using TouchPoints = google::protobuf::RepeatedPtrField<rpc::TouchPoint>;

absl::Status CheckKey(const rpc::Key& key) {
  if (!key.key().empty() || key.windows_key_code() != 0)
    return absl::OkStatus();
  return absl::InvalidArgumentError(
      "the key is not given; it needs `key` or `windows_key_code`");
}

absl::Status CheckButton(rpc::MouseButton button) {
  if (button != rpc::MOUSE_BUTTON_UNSPECIFIED &&
      rpc::MouseButton_IsValid(button)) {
    return absl::OkStatus();
  }
  return absl::InvalidArgumentError(absl::StrCat(
      "button ", static_cast<int>(button),
      " does not exist; a mouse has buttons 1 (primary) to 5 (forward)"));
}

absl::Status CheckPointIsGiven(const TouchPoints& points) {
  if (!points.empty()) return absl::OkStatus();
  return absl::InvalidArgumentError(
      "no point is given; `changed_points` takes at least one");
}

absl::Status FingerIsNotDown(std::int32_t finger) {
  return absl::FailedPreconditionError(absl::StrCat(
      "finger ", finger, " is not down; ForwardTouchStart comes first"));
}

}  // namespace

absl::Status Input::KeyPress(const rpc::KeyPressRequest& event) {
  return CheckKey(event.key());
}

absl::Status Input::KeyRelease(const rpc::KeyReleaseRequest& event) {
  return CheckKey(event.key());
}

absl::Status Input::KeyType(const rpc::KeyTypeRequest& event) {
  if (event.text().empty()) {
    return absl::InvalidArgumentError(
        "the text is empty; only text that a key produces is typed");
  }
  return absl::OkStatus();
}

absl::Status Input::MousePress(const rpc::MousePressRequest& event) {
  if (absl::Status status = CheckButton(event.button()); !status.ok())
    return status;
  if (event.button() == rpc::MOUSE_BUTTON_PRIMARY) {
    is_draggable_pressed_ =
        is_draggable_at_ && is_draggable_at_(event.pointer().position());
  }
  return absl::OkStatus();
}

absl::Status Input::MouseRelease(const rpc::MouseReleaseRequest& event) {
  if (absl::Status status = CheckButton(event.button()); !status.ok())
    return status;
  if (event.button() == rpc::MOUSE_BUTTON_PRIMARY)
    is_draggable_pressed_ = false;
  return absl::OkStatus();
}

absl::Status Input::MouseEnter(const rpc::MouseEnterRequest&) {
  return absl::OkStatus();
}

absl::Status Input::MouseExit(const rpc::MouseExitRequest&) {
  return absl::OkStatus();
}

absl::Status Input::MouseDrag(const rpc::MouseDragRequest& event) {
  if (event.pointer().buttons() == 0) {
    return absl::InvalidArgumentError(
        "no button is held; use ForwardMouseMove for that");
  }
  if (is_draggable_pressed_) {
    is_draggable_pressed_ = false;  // No release follows.
    BeginDragInPage();
  }
  return absl::OkStatus();
}

void Input::BeginDragInPage() {
  if (std::exchange(has_drag_begun_in_page_, true)) return;
  is_drag_over_ = true;
}

absl::Status Input::MouseMove(const rpc::MouseMoveRequest&) {
  return absl::OkStatus();
}

absl::Status Input::MouseWheel(const rpc::MouseWheelRequest&) {
  return absl::OkStatus();
}

absl::Status Input::NativeKeyEvent(const rpc::NativeKeyEventRequest& event) {
  return CheckNativeEvent(event.event());
}

absl::Status Input::NativeMouseEvent(
    const rpc::NativeMouseEventRequest& event) {
  return CheckNativeEvent(event.event());
}

absl::Status Input::NativeTouchEvent(
    const rpc::NativeTouchEventRequest& event) {
  return CheckNativeEvent(event.event());
}

absl::Status Input::TouchStart(const rpc::TouchStartRequest& event) {
  if (absl::Status status = CheckPointIsGiven(event.changed_points());
      !status.ok()) {
    return status;
  }
  std::set<std::int32_t> fingers = fingers_;
  for (const rpc::TouchPoint& point : event.changed_points()) {
    if (!fingers.insert(point.id()).second) {
      return absl::FailedPreconditionError(absl::StrCat(
          "finger ", point.id(),
          " is down already; ForwardTouchEnd or ForwardTouchCancel comes "
          "first"));
    }
  }
  fingers_ = std::move(fingers);
  return absl::OkStatus();
}

absl::Status Input::TouchMove(const rpc::TouchMoveRequest& event) {
  if (absl::Status status = CheckPointIsGiven(event.changed_points());
      !status.ok()) {
    return status;
  }
  for (const rpc::TouchPoint& point : event.changed_points()) {
    if (!fingers_.contains(point.id())) return FingerIsNotDown(point.id());
  }
  return absl::OkStatus();
}

absl::Status Input::TouchEnd(const rpc::TouchEndRequest& event) {
  return LiftFingers(event.changed_points());
}

absl::Status Input::TouchCancel(const rpc::TouchCancelRequest& event) {
  return LiftFingers(event.changed_points());
}

absl::Status Input::DragEnter(const rpc::DragEnterRequest&) {
  if (is_drag_over_) {
    return absl::FailedPreconditionError(
        "a drag is over the view already; ForwardDragLeave or ForwardDragDrop "
        "comes first");
  }
  is_drag_over_ = true;
  return absl::OkStatus();
}

absl::Status Input::DragOver(const rpc::DragOverRequest&) {
  return CheckDragIsOver();
}

absl::Status Input::DragLeave(const rpc::DragLeaveRequest&) {
  if (absl::Status status = CheckDragIsOver(); !status.ok()) return status;
  is_drag_over_ = false;
  return absl::OkStatus();
}

absl::Status Input::DragDrop(const rpc::DragDropRequest&) {
  if (absl::Status status = CheckDragIsOver(); !status.ok()) return status;
  is_drag_over_ = false;
  return absl::OkStatus();
}

absl::Status Input::DragEnd(const rpc::DragEndRequest&) {
  if (!has_drag_begun_in_page_) {
    return absl::FailedPreconditionError(
        "no drag began in the page; use ForwardDragLeave or ForwardDragDrop "
        "for a drag from elsewhere");
  }
  has_drag_begun_in_page_ = false;
  is_drag_over_ = false;
  return absl::OkStatus();
}

absl::Status Input::LiftFingers(const TouchPoints& points) {
  if (absl::Status status = CheckPointIsGiven(points); !status.ok())
    return status;
  std::set<std::int32_t> fingers = fingers_;
  for (const rpc::TouchPoint& point : points) {
    if (fingers.erase(point.id()) == 0) return FingerIsNotDown(point.id());
  }
  fingers_ = std::move(fingers);
  return absl::OkStatus();
}

absl::Status Input::CheckDragIsOver() const {
  if (is_drag_over_) return absl::OkStatus();
  return absl::FailedPreconditionError(
      "no drag is over the view; ForwardDragEnter comes first");
}

}  // namespace widget_server
