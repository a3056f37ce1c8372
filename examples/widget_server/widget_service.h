// The service as this example serves it: every method, over widgets in memory.

#ifndef EXAMPLES_WIDGET_SERVER_WIDGET_SERVICE_H_
#define EXAMPLES_WIDGET_SERVER_WIDGET_SERVICE_H_

#include <cstdint>
#include <map>

#include "absl/functional/function_ref.h"
#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "google/protobuf/service.h"

#include "examples/widget_server/widget.h"
#include "rpc/browser/browser_widget.rpc.h"

namespace widget_server {

// Hands each call to the widget that it is about, and answers it before the
// handler returns: by what the widget filled in, or by what it has to say
// against it. Then the widget's page reacts, so that the reply precedes what
// follows from the call.
//
// Thread: the service thread.
class WidgetService final : public rpc::BrowserWidgetRpc {
 public:
  using Controller = google::protobuf::RpcController;
  using Closure = google::protobuf::Closure;
  using Empty = google::protobuf::Empty;

  // Serves the browsers 1 to `browsers`, which is at least 1.
  explicit WidgetService(int browsers);

  // The widget of a browser, good as long as the service. If there is no such
  // browser, an error that names those that there are.
  absl::StatusOr<Widget*> FindWidget(const BrowserId& browser_id);

  void Focus(Controller* controller, const rpc::FocusRequest* request,
             Empty* response, Closure* done) override;
  void Unfocus(Controller* controller, const BrowserId* request,
               Empty* response, Closure* done) override;
  void Attach(Controller* controller, const rpc::AttachRequest* request,
              rpc::AttachResult* response, Closure* done) override;
  void Detach(Controller* controller, const BrowserId* request, Empty* response,
              Closure* done) override;
  void AssignHostWindow(Controller* controller,
                        const rpc::AssignHostWindowRequest* request,
                        Empty* response, Closure* done) override;
  void Show(Controller* controller, const BrowserId* request, Empty* response,
            Closure* done) override;
  void Hide(Controller* controller, const BrowserId* request, Empty* response,
            Closure* done) override;
  void Minimize(Controller* controller, const BrowserId* request,
                Empty* response, Closure* done) override;
  void Restore(Controller* controller, const BrowserId* request,
               Empty* response, Closure* done) override;
  void SetDisplay(Controller* controller, const rpc::Display* request,
                  Empty* response, Closure* done) override;
  void SetViewBounds(Controller* controller, const rpc::ViewBounds* request,
                     Empty* response, Closure* done) override;
  void GetChromiumWindowHandle(Controller* controller, const BrowserId* request,
                               rpc::WindowHandle* response,
                               Closure* done) override;
  void ForwardKeyPress(Controller* controller,
                       const rpc::KeyPressRequest* request, Empty* response,
                       Closure* done) override;
  void ForwardKeyRelease(Controller* controller,
                         const rpc::KeyReleaseRequest* request, Empty* response,
                         Closure* done) override;
  void ForwardKeyType(Controller* controller,
                      const rpc::KeyTypeRequest* request, Empty* response,
                      Closure* done) override;
  void ForwardMousePress(Controller* controller,
                         const rpc::MousePressRequest* request, Empty* response,
                         Closure* done) override;
  void ForwardMouseRelease(Controller* controller,
                           const rpc::MouseReleaseRequest* request,
                           Empty* response, Closure* done) override;
  void ForwardMouseEnter(Controller* controller,
                         const rpc::MouseEnterRequest* request, Empty* response,
                         Closure* done) override;
  void ForwardMouseExit(Controller* controller,
                        const rpc::MouseExitRequest* request, Empty* response,
                        Closure* done) override;
  void ForwardMouseDrag(Controller* controller,
                        const rpc::MouseDragRequest* request, Empty* response,
                        Closure* done) override;
  void ForwardMouseMove(Controller* controller,
                        const rpc::MouseMoveRequest* request, Empty* response,
                        Closure* done) override;
  void ForwardMouseWheel(Controller* controller,
                         const rpc::MouseWheelRequest* request, Empty* response,
                         Closure* done) override;
  void ForwardNativeKeyEvent(Controller* controller,
                             const rpc::NativeKeyEventRequest* request,
                             Empty* response, Closure* done) override;
  void ForwardNativeMouseEvent(Controller* controller,
                               const rpc::NativeMouseEventRequest* request,
                               Empty* response, Closure* done) override;
  void ForwardNativeTouchEvent(Controller* controller,
                               const rpc::NativeTouchEventRequest* request,
                               Empty* response, Closure* done) override;
  void GetAccessibilityToken(Controller* controller, const BrowserId* request,
                             rpc::AccessibilityToken* response,
                             Closure* done) override;
  void SetParentAccessibilityNodes(
      Controller* controller,
      const rpc::SetParentAccessibilityNodesRequest* request, Empty* response,
      Closure* done) override;
  void AttachAccessibleWindow(Controller* controller,
                              const rpc::AttachAccessibleWindowRequest* request,
                              google::protobuf::BoolValue* response,
                              Closure* done) override;
  void ForwardTouchStart(Controller* controller,
                         const rpc::TouchStartRequest* request, Empty* response,
                         Closure* done) override;
  void ForwardTouchMove(Controller* controller,
                        const rpc::TouchMoveRequest* request, Empty* response,
                        Closure* done) override;
  void ForwardTouchEnd(Controller* controller,
                       const rpc::TouchEndRequest* request, Empty* response,
                       Closure* done) override;
  void ForwardTouchCancel(Controller* controller,
                          const rpc::TouchCancelRequest* request,
                          Empty* response, Closure* done) override;
  void ForwardDragEnter(Controller* controller,
                        const rpc::DragEnterRequest* request, Empty* response,
                        Closure* done) override;
  void ForwardDragOver(Controller* controller,
                       const rpc::DragOverRequest* request, Empty* response,
                       Closure* done) override;
  void ForwardDragLeave(Controller* controller,
                        const rpc::DragLeaveRequest* request, Empty* response,
                        Closure* done) override;
  void ForwardDragDrop(Controller* controller,
                       const rpc::DragDropRequest* request, Empty* response,
                       Closure* done) override;
  void ForwardDragEnd(Controller* controller,
                      const rpc::DragEndRequest* request, Empty* response,
                      Closure* done) override;
  void NotifyParentWindowChanged(Controller* controller,
                                 const rpc::AttachRequest* request,
                                 Empty* response, Closure* done) override;
  void SetDpiAware(Controller* controller,
                   const rpc::SetDpiAwareRequest* request, Empty* response,
                   Closure* done) override;
  void SetForcedScaleFactor(Controller* controller,
                            const rpc::SetForcedScaleFactorRequest* request,
                            Empty* response, Closure* done) override;

  // Plain publishing and calling, for the pages.
  orvane::Publisher<rpc::CursorChanged> WhenCursorChanged() override;
  orvane::Publisher<rpc::TooltipChanged> WhenTooltipChanged() override;
  orvane::Publisher<rpc::DropDownCreated> WhenDropDownCreated() override;
  orvane::Publisher<rpc::DropDownDeleted> WhenDropDownDeleted() override;
  orvane::Publisher<rpc::DragCursorUpdated> WhenDragCursorUpdated() override;
  orvane::Publisher<rpc::AriaLiveRegionChanged> WhenAriaLiveRegionChanged()
      override;
  orvane::Caller<rpc::CreateWebDialog> OnCreateWebDialog() override;
  orvane::Caller<rpc::UpdateSurface> OnUpdateSurface() override;
  orvane::Caller<rpc::UpdateLayer> OnUpdateLayer() override;
  orvane::Caller<rpc::ShowDropdown> OnShowDropdown() override;
  orvane::Caller<rpc::TakeFocus> OnTakeFocus() override;
  orvane::Caller<rpc::AccessibilityRequestFocus> OnAccessibilityRequestFocus()
      override;

 private:
  static void DoNotReact(Page&) {}

  // Fails the call if there is no such browser or `serve` says so; completes it
  // in any case, which ends the life of what the handler was given. If nothing
  // failed, the page then learns what has become of its view, and reacts.
  void ServeWidget(Controller* controller, const BrowserId& browser_id,
                   Closure* done,
                   absl::FunctionRef<absl::Status(Widget&)> serve,
                   absl::FunctionRef<void(Page&)> react = DoNotReact);

  // The same, and the browser must be attached.
  void ServeView(Controller* controller, const BrowserId& browser_id,
                 Closure* done, absl::FunctionRef<absl::Status(View&)> serve,
                 absl::FunctionRef<void(Page&)> react = DoNotReact);

  // The same for an event, which the view's input takes.
  template <typename Event>
  void ServeInput(Controller* controller, const Event& event, Closure* done,
                  absl::Status (Input::*take)(const Event&));

  // The same for an event that the page reacts to.
  template <typename Event>
  void ServeInput(Controller* controller, const Event& event, Closure* done,
                  absl::Status (Input::*take)(const Event&),
                  void (Page::*react)(const Event&));

  std::map<std::uint64_t, Widget> widgets_;  // By browser.
};

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_WIDGET_SERVICE_H_
