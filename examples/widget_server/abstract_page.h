// What a browser shows in its view, whatever engine draws it.

#ifndef EXAMPLES_WIDGET_SERVER_ABSTRACT_PAGE_H_
#define EXAMPLES_WIDGET_SERVER_ABSTRACT_PAGE_H_

#include "absl/status/status.h"

#include "rpc/browser/accessibility.pb.h"
#include "rpc/browser/display.pb.h"
#include "rpc/browser/drag.pb.h"
#include "rpc/browser/focus.pb.h"
#include "rpc/browser/geometry.pb.h"
#include "rpc/browser/keyboard.pb.h"
#include "rpc/browser/mouse.pb.h"
#include "rpc/browser/native_input.pb.h"
#include "rpc/browser/touch.pb.h"
#include "rpc/browser/wheel.pb.h"
#include "rpc/browser/window.pb.h"

namespace widget_server {

// What the page knows of the view that shows it.
struct Viewport {
  bool is_attached = false;
  bool is_drawn_off_screen = false;  // The host gets its picture and draws it.
  bool has_focus = false;
  bool is_accessibility_on = false;
  bool has_drag_begun_in_page = false;
  double width = 0;  // In DIPs.
  double height = 0;
  double scale_factor = 1;
  rpc::RectPx screen_bounds;
  rpc::Display display;  // Empty if the host has not told it.
};

// Reacts to what the host does by publishing events and calling the host. The
// state and the input that it gets have been checked. Each operation comes
// after the reply to the host's call.
//
// Thread: the service thread.
class AbstractPage {
 public:
  virtual ~AbstractPage() = default;

  // OK if the page takes input now; else words for the host, whose input fails.
  virtual absl::Status CheckTakesInput() const { return absl::OkStatus(); }

  // For a page that reads native events: OK if it can read this one, whose
  // platform has been checked; else words for the host, whose input fails.
  virtual absl::Status CheckNativeKeyEvent(const rpc::NativeKeyEventRequest&) {
    return absl::OkStatus();
  }
  virtual absl::Status CheckNativeMouseEvent(
      const rpc::NativeMouseEventRequest&) {
    return absl::OkStatus();
  }
  virtual absl::Status CheckNativeTouchEvent(
      const rpc::NativeTouchEventRequest&) {
    return absl::OkStatus();
  }

  // The window that the page can be drawn into. The handle is 0 if the page is
  // only ever drawn off-screen.
  virtual rpc::WindowHandle window() const { return {}; }

  // The root of its accessibility tree. The token is empty if there is none.
  virtual rpc::AccessibilityToken root_node() const { return {}; }

  // Whether a press of the primary button there begins a drag once the pointer
  // moves.
  virtual bool IsDraggableAt(const rpc::PointDip&) const { return false; }

  // For a page that finds that out by itself: whether a drag of its own is in
  // progress. Asked before each input.
  virtual bool HasBegunDrag() const { return false; }

  // Comes before the operation for the event that changed the viewport, and
  // whenever it may have changed.
  virtual void SetViewport(const Viewport& viewport) = 0;

  // Input. What a page does not override it does not react to.
  virtual void Focus(const rpc::FocusRequest&) {}
  virtual void KeyPress(const rpc::KeyPressRequest&) {}
  virtual void KeyRelease(const rpc::KeyReleaseRequest&) {}
  virtual void KeyType(const rpc::KeyTypeRequest&) {}
  virtual void MousePress(const rpc::MousePressRequest&) {}
  virtual void MouseRelease(const rpc::MouseReleaseRequest&) {}
  virtual void MouseEnter(const rpc::MouseEnterRequest&) {}
  virtual void MouseExit(const rpc::MouseExitRequest&) {}
  virtual void MouseDrag(const rpc::MouseDragRequest&) {}
  virtual void MouseMove(const rpc::MouseMoveRequest&) {}
  virtual void MouseWheel(const rpc::MouseWheelRequest&) {}
  virtual void NativeKeyEvent(const rpc::NativeKeyEventRequest&) {}
  virtual void NativeMouseEvent(const rpc::NativeMouseEventRequest&) {}
  virtual void NativeTouchEvent(const rpc::NativeTouchEventRequest&) {}
  virtual void TouchStart(const rpc::TouchStartRequest&) {}
  virtual void TouchMove(const rpc::TouchMoveRequest&) {}
  virtual void TouchEnd(const rpc::TouchEndRequest&) {}
  virtual void TouchCancel(const rpc::TouchCancelRequest&) {}
  virtual void DragEnter(const rpc::DragEnterRequest&) {}
  virtual void DragOver(const rpc::DragOverRequest&) {}
  virtual void DragLeave(const rpc::DragLeaveRequest&) {}
  virtual void DragDrop(const rpc::DragDropRequest&) {}
  virtual void DragEnd(const rpc::DragEndRequest&) {}

  // Comes after each of the operations above: sends the host the pictures that
  // have changed, if the page does not do that by itself.
  virtual void Draw() {}
};

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_ABSTRACT_PAGE_H_
