// The complete service, served by widgets without a browser engine.

#ifndef EXAMPLES_WIDGET_SERVER_WIDGET_SERVICE_H_
#define EXAMPLES_WIDGET_SERVER_WIDGET_SERVICE_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "absl/functional/function_ref.h"
#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "google/protobuf/service.h"

#include "examples/widget_server/widget.h"
#include "rpc/browser/browser_widget.rpc.h"

namespace widget_server {

// The error for a call about a browser that is not one of `browsers`, which it
// names. There is at least one.
absl::Status NoSuchBrowser(std::uint64_t browser,
                           std::vector<std::uint64_t> browsers);

// Passes each call to its widget and answers it before the handler returns,
// with the widget's result or its error. The widget's page reacts after the
// reply, so events and calls caused by a call arrive after its reply. When a
// host has gone, what it had attached is detached.
//
// Thread: the service thread.
class WidgetService final : public rpc::BrowserWidgetRpc {
 public:
  using Controller = google::protobuf::RpcController;
  using Closure = google::protobuf::Closure;
  using Empty = google::protobuf::Empty;

  // Makes the page of a browser, which publishes and calls through `service`.
  using MakePage = std::function<std::shared_ptr<AbstractPage>(
      std::uint64_t browser, rpc::BrowserWidgetRpc* service)>;

  // Serves the browsers 1 to `browsers`, which is at least 1, with pages that
  // need no engine.
  explicit WidgetService(int browsers);

  // Serves these browsers, at least one.
  WidgetService(const std::vector<std::uint64_t>& browsers,
                const MakePage& make_page);

  // The widget of a browser, valid as long as the service. If there is no such
  // browser, the error names those that exist.
  absl::StatusOr<Widget*> FindWidget(const BrowserId& browser_id);

  // By browser; valid as long as the service.
  const std::map<std::uint64_t, Widget>& widgets() const { return widgets_; }

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

  // The pages publish events and call the host through these.
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
  static void DoNotReact(AbstractPage&) {}

  // Serves a call: fails it if the browser does not exist or `serve` returns an
  // error. Runs `done` in either case; the handler's arguments no longer exist
  // afterwards. If the call succeeded, the page gets the state of its view, and
  // `react` runs.
  void ServeWidget(Controller* controller, const BrowserId& browser_id,
                   Closure* done,
                   absl::FunctionRef<absl::Status(Widget&)> serve,
                   absl::FunctionRef<void(AbstractPage&)> react = DoNotReact);

  // Like ServeWidget, but fails if the browser is not attached.
  void ServeView(Controller* controller, const BrowserId& browser_id,
                 Closure* done, absl::FunctionRef<absl::Status(View&)> serve,
                 absl::FunctionRef<void(AbstractPage&)> react = DoNotReact);

  // Like ServeView, for an event that goes to the view's input, and then to the
  // page, which may be asked before whether it can read it.
  template <typename Event>
  void ServeInput(Controller* controller, const Event& event, Closure* done,
                  absl::Status (Input::*take)(const Event&),
                  void (AbstractPage::*react)(const Event&),
                  absl::Status (AbstractPage::*check)(const Event&) = nullptr);

  std::map<std::uint64_t, Widget> widgets_;  // By browser.
};

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_WIDGET_SERVICE_H_
