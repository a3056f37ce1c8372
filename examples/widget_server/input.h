// The input that has reached a view.

#ifndef EXAMPLES_WIDGET_SERVER_INPUT_H_
#define EXAMPLES_WIDGET_SERVER_INPUT_H_

#include <cstdint>
#include <functional>
#include <set>
#include <utility>

#include "absl/status/status.h"
#include "google/protobuf/repeated_ptr_field.h"

#include "rpc/browser/drag.pb.h"
#include "rpc/browser/geometry.pb.h"
#include "rpc/browser/keyboard.pb.h"
#include "rpc/browser/mouse.pb.h"
#include "rpc/browser/native_input.pb.h"
#include "rpc/browser/touch.pb.h"
#include "rpc/browser/wheel.pb.h"

namespace widget_server {

// Each operation takes one event. Remembers which fingers are down and whether
// something is being dragged. An event that contradicts this, such as the
// release of a finger that is not down, is an error and changes nothing.
//
// Of the page it knows only where something lies that can be dragged.
class Input {
 public:
  using IsDraggableAt = std::function<bool(const rpc::PointDip& position)>;

  // If it is empty, nothing can be dragged.
  explicit Input(IsDraggableAt is_draggable_at = nullptr)
      : is_draggable_at_(std::move(is_draggable_at)) {}

  absl::Status KeyPress(const rpc::KeyPressRequest& event);
  absl::Status KeyRelease(const rpc::KeyReleaseRequest& event);
  absl::Status KeyType(const rpc::KeyTypeRequest& event);

  absl::Status MousePress(const rpc::MousePressRequest& event);
  absl::Status MouseRelease(const rpc::MouseReleaseRequest& event);
  absl::Status MouseEnter(const rpc::MouseEnterRequest& event);
  absl::Status MouseExit(const rpc::MouseExitRequest& event);
  absl::Status MouseDrag(const rpc::MouseDragRequest& event);
  absl::Status MouseMove(const rpc::MouseMoveRequest& event);
  absl::Status MouseWheel(const rpc::MouseWheelRequest& event);

  // Checked, but not decoded: no finger counts as down because of them.
  absl::Status NativeKeyEvent(const rpc::NativeKeyEventRequest& event);
  absl::Status NativeMouseEvent(const rpc::NativeMouseEventRequest& event);
  absl::Status NativeTouchEvent(const rpc::NativeTouchEventRequest& event);

  absl::Status TouchStart(const rpc::TouchStartRequest& event);
  absl::Status TouchMove(const rpc::TouchMoveRequest& event);
  absl::Status TouchEnd(const rpc::TouchEndRequest& event);
  absl::Status TouchCancel(const rpc::TouchCancelRequest& event);

  absl::Status DragEnter(const rpc::DragEnterRequest& event);
  absl::Status DragOver(const rpc::DragOverRequest& event);
  absl::Status DragLeave(const rpc::DragLeaveRequest& event);
  absl::Status DragDrop(const rpc::DragDropRequest& event);
  absl::Status DragEnd(const rpc::DragEndRequest& event);

  // The page has begun a drag by itself. Does nothing if that is known.
  void BeginDragInPage();
  bool has_drag_begun_in_page() const { return has_drag_begun_in_page_; }

 private:
  using TouchPoints = google::protobuf::RepeatedPtrField<rpc::TouchPoint>;

  // Lifts all of them, or none and fails if one is not down.
  absl::Status LiftFingers(const TouchPoints& points);
  absl::Status CheckDragIsOver() const;

  IsDraggableAt is_draggable_at_;
  bool is_draggable_pressed_ = false;
  std::set<std::int32_t> fingers_;  // The ids of those that are down.
  bool is_drag_over_ = false;
  bool has_drag_begun_in_page_ = false;
};

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_INPUT_H_
