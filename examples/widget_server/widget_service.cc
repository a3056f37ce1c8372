#include "examples/widget_server/widget_service.h"

#include <cstddef>
#include <numeric>
#include <string>
#include <utility>

#include "absl/strings/str_cat.h"
#include "absl/strings/str_join.h"

#include "examples/widget_server/page.h"

namespace widget_server {

namespace {

std::vector<std::uint64_t> NumbersTo(int last) {
  std::vector<std::uint64_t> numbers(static_cast<std::size_t>(last));
  std::iota(numbers.begin(), numbers.end(), 1);
  return numbers;
}

}  // namespace

absl::Status NoSuchBrowser(std::uint64_t browser,
                           std::vector<std::uint64_t> browsers) {
  const std::uint64_t last = browsers.back();
  browsers.pop_back();
  return absl::NotFoundError(absl::StrCat(
      "browser ", browser, " does not exist; there ",
      browsers.empty()
          ? "is only "
          : absl::StrCat("are ", absl::StrJoin(browsers, ", "), " and "),
      last));
}

WidgetService::WidgetService(int browsers)
    : WidgetService(NumbersTo(browsers),
                    [](std::uint64_t browser, rpc::BrowserWidgetRpc* service) {
                      return std::make_shared<Page>(browser, service);
                    }) {}

WidgetService::WidgetService(const std::vector<std::uint64_t>& browsers,
                             const MakePage& make_page) {
  for (const std::uint64_t browser : browsers)
    widgets_.try_emplace(browser, browser, make_page(browser, this));
}

absl::StatusOr<Widget*> WidgetService::FindWidget(const BrowserId& browser_id) {
  const auto found = widgets_.find(browser_id.value());
  if (found != widgets_.end()) return &found->second;

  std::vector<std::uint64_t> browsers;
  for (const auto& [browser, widget] : widgets_) browsers.push_back(browser);
  return NoSuchBrowser(browser_id.value(), std::move(browsers));
}

void WidgetService::ServeWidget(Controller* controller,
                                const BrowserId& browser_id, Closure* done,
                                absl::FunctionRef<absl::Status(Widget&)> serve,
                                absl::FunctionRef<void(AbstractPage&)> react) {
  const absl::StatusOr<Widget*> widget = FindWidget(browser_id);
  const absl::Status status = widget.ok() ? serve(**widget) : widget.status();
  if (!status.ok()) controller->SetFailed(std::string(status.message()));
  done->Run();
  if (status.ok()) (*widget)->UpdatePage(react);
}

void WidgetService::ServeView(Controller* controller,
                              const BrowserId& browser_id, Closure* done,
                              absl::FunctionRef<absl::Status(View&)> serve,
                              absl::FunctionRef<void(AbstractPage&)> react) {
  ServeWidget(
      controller, browser_id, done,
      [&](Widget& widget) {
        const absl::StatusOr<View*> view = widget.view();
        return view.ok() ? serve(**view) : view.status();
      },
      react);
}

template <typename Event>
void WidgetService::ServeInput(
    Controller* controller, const Event& event, Closure* done,
    absl::Status (Input::*take)(const Event&),
    void (AbstractPage::*react)(const Event&),
    absl::Status (AbstractPage::*check)(const Event&)) {
  const Event kept =
      event;  // The reply frees the event before the page reacts.
  ServeWidget(
      controller, event.browser_id(), done,
      [&](Widget& widget) {
        const absl::StatusOr<Input*> input = widget.input();
        if (!input.ok()) return input.status();
        const absl::Status taken = ((**input).*take)(event);
        return taken.ok() && check != nullptr ? (widget.page().*check)(event)
                                              : taken;
      },
      [&](AbstractPage& page) { (page.*react)(kept); });
}

void WidgetService::Focus(Controller* controller,
                          const rpc::FocusRequest* request, Empty*,
                          Closure* done) {
  const rpc::FocusRequest kept = *request;
  ServeView(controller, request->browser_id(), done, &View::Focus,
            [&](AbstractPage& page) { page.Focus(kept); });
}

void WidgetService::Unfocus(Controller* controller, const BrowserId* request,
                            Empty*, Closure* done) {
  ServeWidget(controller, *request, done, &Widget::Unfocus);
}

void WidgetService::Attach(Controller* controller,
                           const rpc::AttachRequest* request,
                           rpc::AttachResult* response, Closure* done) {
  ServeWidget(controller, request->browser_id(), done, [&](Widget& widget) {
    absl::Status status = widget.Attach(*request, response);
    if (response->attached()) {
      widget.KeepFor(orvane::ClientWatch::Make(controller, [&widget] {
        widget.Detach().IgnoreError();  // Always OK.
        widget.UpdatePage(DoNotReact);
      }));
    }
    return status;
  });
}

void WidgetService::Detach(Controller* controller, const BrowserId* request,
                           Empty*, Closure* done) {
  ServeWidget(controller, *request, done, &Widget::Detach);
}

void WidgetService::AssignHostWindow(
    Controller* controller, const rpc::AssignHostWindowRequest* request, Empty*,
    Closure* done) {
  ServeWidget(controller, request->browser_id(), done, [&](Widget& widget) {
    return widget.AssignHostWindow(*request);
  });
}

void WidgetService::Show(Controller* controller, const BrowserId* request,
                         Empty*, Closure* done) {
  ServeView(controller, *request, done, &View::Show);
}

void WidgetService::Hide(Controller* controller, const BrowserId* request,
                         Empty*, Closure* done) {
  ServeView(controller, *request, done, &View::Hide);
}

void WidgetService::Minimize(Controller* controller, const BrowserId* request,
                             Empty*, Closure* done) {
  ServeView(controller, *request, done, &View::Minimize);
}

void WidgetService::Restore(Controller* controller, const BrowserId* request,
                            Empty*, Closure* done) {
  ServeView(controller, *request, done, &View::Restore);
}

void WidgetService::SetDisplay(Controller* controller,
                               const rpc::Display* request, Empty*,
                               Closure* done) {
  ServeWidget(controller, request->browser_id(), done,
              [&](Widget& widget) { return widget.SetDisplay(*request); });
}

void WidgetService::SetViewBounds(Controller* controller,
                                  const rpc::ViewBounds* request, Empty*,
                                  Closure* done) {
  ServeView(controller, request->browser_id(), done,
            [&](View& view) { return view.SetBounds(*request); });
}

void WidgetService::GetChromiumWindowHandle(Controller* controller,
                                            const BrowserId* request,
                                            rpc::WindowHandle* response,
                                            Closure* done) {
  ServeView(controller, *request, done, [&](View& view) {
    *response = view.engine_window();
    return absl::OkStatus();
  });
}

void WidgetService::ForwardKeyPress(Controller* controller,
                                    const rpc::KeyPressRequest* request, Empty*,
                                    Closure* done) {
  ServeInput(controller, *request, done, &Input::KeyPress,
             &AbstractPage::KeyPress);
}

void WidgetService::ForwardKeyRelease(Controller* controller,
                                      const rpc::KeyReleaseRequest* request,
                                      Empty*, Closure* done) {
  ServeInput(controller, *request, done, &Input::KeyRelease,
             &AbstractPage::KeyRelease);
}

void WidgetService::ForwardKeyType(Controller* controller,
                                   const rpc::KeyTypeRequest* request, Empty*,
                                   Closure* done) {
  ServeInput(controller, *request, done, &Input::KeyType,
             &AbstractPage::KeyType);
}

void WidgetService::ForwardMousePress(Controller* controller,
                                      const rpc::MousePressRequest* request,
                                      Empty*, Closure* done) {
  ServeInput(controller, *request, done, &Input::MousePress,
             &AbstractPage::MousePress);
}

void WidgetService::ForwardMouseRelease(Controller* controller,
                                        const rpc::MouseReleaseRequest* request,
                                        Empty*, Closure* done) {
  ServeInput(controller, *request, done, &Input::MouseRelease,
             &AbstractPage::MouseRelease);
}

void WidgetService::ForwardMouseEnter(Controller* controller,
                                      const rpc::MouseEnterRequest* request,
                                      Empty*, Closure* done) {
  ServeInput(controller, *request, done, &Input::MouseEnter,
             &AbstractPage::MouseEnter);
}

void WidgetService::ForwardMouseExit(Controller* controller,
                                     const rpc::MouseExitRequest* request,
                                     Empty*, Closure* done) {
  ServeInput(controller, *request, done, &Input::MouseExit,
             &AbstractPage::MouseExit);
}

void WidgetService::ForwardMouseDrag(Controller* controller,
                                     const rpc::MouseDragRequest* request,
                                     Empty*, Closure* done) {
  ServeInput(controller, *request, done, &Input::MouseDrag,
             &AbstractPage::MouseDrag);
}

void WidgetService::ForwardMouseMove(Controller* controller,
                                     const rpc::MouseMoveRequest* request,
                                     Empty*, Closure* done) {
  ServeInput(controller, *request, done, &Input::MouseMove,
             &AbstractPage::MouseMove);
}

void WidgetService::ForwardMouseWheel(Controller* controller,
                                      const rpc::MouseWheelRequest* request,
                                      Empty*, Closure* done) {
  ServeInput(controller, *request, done, &Input::MouseWheel,
             &AbstractPage::MouseWheel);
}

void WidgetService::ForwardNativeKeyEvent(
    Controller* controller, const rpc::NativeKeyEventRequest* request, Empty*,
    Closure* done) {
  ServeInput(controller, *request, done, &Input::NativeKeyEvent,
             &AbstractPage::NativeKeyEvent, &AbstractPage::CheckNativeKeyEvent);
}

void WidgetService::ForwardNativeMouseEvent(
    Controller* controller, const rpc::NativeMouseEventRequest* request, Empty*,
    Closure* done) {
  ServeInput(controller, *request, done, &Input::NativeMouseEvent,
             &AbstractPage::NativeMouseEvent,
             &AbstractPage::CheckNativeMouseEvent);
}

void WidgetService::ForwardNativeTouchEvent(
    Controller* controller, const rpc::NativeTouchEventRequest* request, Empty*,
    Closure* done) {
  ServeInput(controller, *request, done, &Input::NativeTouchEvent,
             &AbstractPage::NativeTouchEvent,
             &AbstractPage::CheckNativeTouchEvent);
}

void WidgetService::GetAccessibilityToken(Controller* controller,
                                          const BrowserId* request,
                                          rpc::AccessibilityToken* response,
                                          Closure* done) {
  ServeWidget(controller, *request, done, [&](Widget& widget) {
    return widget.GetAccessibilityToken(response);
  });
}

void WidgetService::SetParentAccessibilityNodes(
    Controller* controller,
    const rpc::SetParentAccessibilityNodesRequest* request, Empty*,
    Closure* done) {
  ServeWidget(controller, request->browser_id(), done, [&](Widget& widget) {
    return widget.SetParentAccessibilityNodes(*request);
  });
}

void WidgetService::AttachAccessibleWindow(
    Controller* controller, const rpc::AttachAccessibleWindowRequest* request,
    google::protobuf::BoolValue* response, Closure* done) {
  ServeWidget(controller, request->browser_id(), done, [&](Widget& widget) {
    return widget.AttachAccessibleWindow(*request, response);
  });
}

void WidgetService::ForwardTouchStart(Controller* controller,
                                      const rpc::TouchStartRequest* request,
                                      Empty*, Closure* done) {
  ServeInput(controller, *request, done, &Input::TouchStart,
             &AbstractPage::TouchStart);
}

void WidgetService::ForwardTouchMove(Controller* controller,
                                     const rpc::TouchMoveRequest* request,
                                     Empty*, Closure* done) {
  ServeInput(controller, *request, done, &Input::TouchMove,
             &AbstractPage::TouchMove);
}

void WidgetService::ForwardTouchEnd(Controller* controller,
                                    const rpc::TouchEndRequest* request, Empty*,
                                    Closure* done) {
  ServeInput(controller, *request, done, &Input::TouchEnd,
             &AbstractPage::TouchEnd);
}

void WidgetService::ForwardTouchCancel(Controller* controller,
                                       const rpc::TouchCancelRequest* request,
                                       Empty*, Closure* done) {
  ServeInput(controller, *request, done, &Input::TouchCancel,
             &AbstractPage::TouchCancel);
}

void WidgetService::ForwardDragEnter(Controller* controller,
                                     const rpc::DragEnterRequest* request,
                                     Empty*, Closure* done) {
  ServeInput(controller, *request, done, &Input::DragEnter,
             &AbstractPage::DragEnter);
}

void WidgetService::ForwardDragOver(Controller* controller,
                                    const rpc::DragOverRequest* request, Empty*,
                                    Closure* done) {
  ServeInput(controller, *request, done, &Input::DragOver,
             &AbstractPage::DragOver);
}

void WidgetService::ForwardDragLeave(Controller* controller,
                                     const rpc::DragLeaveRequest* request,
                                     Empty*, Closure* done) {
  ServeInput(controller, *request, done, &Input::DragLeave,
             &AbstractPage::DragLeave);
}

void WidgetService::ForwardDragDrop(Controller* controller,
                                    const rpc::DragDropRequest* request, Empty*,
                                    Closure* done) {
  ServeInput(controller, *request, done, &Input::DragDrop,
             &AbstractPage::DragDrop);
}

void WidgetService::ForwardDragEnd(Controller* controller,
                                   const rpc::DragEndRequest* request, Empty*,
                                   Closure* done) {
  ServeInput(controller, *request, done, &Input::DragEnd,
             &AbstractPage::DragEnd);
}

void WidgetService::NotifyParentWindowChanged(Controller* controller,
                                              const rpc::AttachRequest* request,
                                              Empty*, Closure* done) {
  ServeView(controller, request->browser_id(), done,
            [&](View& view) { return view.MoveTo(*request); });
}

void WidgetService::SetDpiAware(Controller* controller,
                                const rpc::SetDpiAwareRequest* request, Empty*,
                                Closure* done) {
  ServeWidget(controller, request->browser_id(), done,
              [&](Widget& widget) { return widget.SetDpiAware(*request); });
}

void WidgetService::SetForcedScaleFactor(
    Controller* controller, const rpc::SetForcedScaleFactorRequest* request,
    Empty*, Closure* done) {
  ServeWidget(controller, request->browser_id(), done, [&](Widget& widget) {
    return widget.SetForcedScaleFactor(*request);
  });
}

orvane::Publisher<rpc::CursorChanged> WidgetService::WhenCursorChanged() {
  return orvane::Publish<rpc::CursorChanged>;
}

orvane::Publisher<rpc::TooltipChanged> WidgetService::WhenTooltipChanged() {
  return orvane::Publish<rpc::TooltipChanged>;
}

orvane::Publisher<rpc::DropDownCreated> WidgetService::WhenDropDownCreated() {
  return orvane::Publish<rpc::DropDownCreated>;
}

orvane::Publisher<rpc::DropDownDeleted> WidgetService::WhenDropDownDeleted() {
  return orvane::Publish<rpc::DropDownDeleted>;
}

orvane::Publisher<rpc::DragCursorUpdated>
WidgetService::WhenDragCursorUpdated() {
  return orvane::Publish<rpc::DragCursorUpdated>;
}

orvane::Publisher<rpc::AriaLiveRegionChanged>
WidgetService::WhenAriaLiveRegionChanged() {
  return orvane::Publish<rpc::AriaLiveRegionChanged>;
}

orvane::Caller<rpc::CreateWebDialog> WidgetService::OnCreateWebDialog() {
  return orvane::Call<rpc::CreateWebDialog>;
}

orvane::Caller<rpc::UpdateSurface> WidgetService::OnUpdateSurface() {
  return orvane::Call<rpc::UpdateSurface>;
}

orvane::Caller<rpc::UpdateLayer> WidgetService::OnUpdateLayer() {
  return orvane::Call<rpc::UpdateLayer>;
}

orvane::Caller<rpc::ShowDropdown> WidgetService::OnShowDropdown() {
  return orvane::Call<rpc::ShowDropdown>;
}

orvane::Caller<rpc::TakeFocus> WidgetService::OnTakeFocus() {
  return orvane::Call<rpc::TakeFocus>;
}

orvane::Caller<rpc::AccessibilityRequestFocus>
WidgetService::OnAccessibilityRequestFocus() {
  return orvane::Call<rpc::AccessibilityRequestFocus>;
}

}  // namespace widget_server
