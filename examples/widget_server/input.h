// The input that has reached a view.

#ifndef EXAMPLES_WIDGET_SERVER_INPUT_H_
#define EXAMPLES_WIDGET_SERVER_INPUT_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <set>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/string_view.h"
#include "google/protobuf/repeated_ptr_field.h"

#include "rpc/browser/drag.pb.h"
#include "rpc/browser/geometry.pb.h"
#include "rpc/browser/keyboard.pb.h"
#include "rpc/browser/mouse.pb.h"
#include "rpc/browser/native_input.pb.h"
#include "rpc/browser/touch.pb.h"
#include "rpc/browser/wheel.pb.h"

namespace widget_server {

// Each operation takes one event. Remembers which keys, buttons and fingers are
// down and whether something is being dragged. An event that does not fit, such
// as a release of a finger that is not down, is an error and changes nothing.
//
// All that it knows of the page is where something lies that can be dragged.
class Input {
 public:
  using IsDraggableAt = std::function<bool(const rpc::PointDip& position)>;

  static constexpr std::size_t kRecentEvents = 8;

  // Empty: nothing can be dragged.
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

  // Listed in recent_events(), but not decoded: no key, button or finger counts
  // as held because of them.
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

  // The keys that are down, by KeyboardEvent.code if the host sent it.
  const std::set<std::string>& held_keys() const { return held_keys_; }

  // Sum of the rpc::MouseButtonFlag values of the buttons held, from the latest
  // event.
  std::uint32_t held_buttons() const { return held_buttons_; }

  bool is_pointer_inside() const { return is_pointer_inside_; }

  // The ids of the fingers that are down.
  const std::set<std::int32_t>& fingers() const { return fingers_; }

  bool is_drag_over() const { return is_drag_over_; }
  bool has_drag_begun_in_page() const { return has_drag_begun_in_page_; }

  // How many events were accepted; descriptions of the latest, oldest first.
  std::uint64_t event_count() const { return event_count_; }
  const std::deque<std::string>& recent_events() const {
    return recent_events_;
  }

 private:
  using TouchPoints = google::protobuf::RepeatedPtrField<rpc::TouchPoint>;

  // Lifts all of them, or none and fails if one is not down.
  absl::Status LiftFingers(const TouchPoints& points);
  absl::Status CheckDragIsOver() const;

  absl::Status AcceptNative(absl::string_view kind,
                            const rpc::NativeEvent& event);

  // Both add to recent_events() and return OK.
  absl::Status AcceptPointer(absl::string_view kind,
                             const rpc::PointerState& pointer);
  absl::Status Accept(std::string event);

  IsDraggableAt is_draggable_at_;
  std::set<std::string> held_keys_;
  std::uint32_t held_buttons_ = 0;
  bool is_pointer_inside_ = false;
  bool is_draggable_pressed_ = false;
  std::set<std::int32_t> fingers_;
  bool is_drag_over_ = false;
  bool has_drag_begun_in_page_ = false;
  std::uint64_t event_count_ = 0;
  std::deque<std::string> recent_events_;
};

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_INPUT_H_
