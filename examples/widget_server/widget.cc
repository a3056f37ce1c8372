#include "examples/widget_server/widget.h"

#include <cmath>
#include <utility>

#include "absl/strings/str_cat.h"

#include "examples/widget_server/x11.h"

namespace widget_server {
namespace {

constexpr double kMinForcedScaleFactor = 0.25;
constexpr double kMaxForcedScaleFactor = 8;

rpc::RenderingMode ChooseMode(const rpc::AttachRequest& request,
                              const rpc::WindowHandle& engine_window) {
  if (request.rendering_mode() != rpc::RENDERING_MODE_UNSPECIFIED)
    return request.rendering_mode();
  return request.has_parent_window() && engine_window.handle() != 0
             ? rpc::RENDERING_MODE_WINDOWED
             : rpc::RENDERING_MODE_OFF_SCREEN;
}

// The nearest length that is a whole number of pixels.
double RoundToPixels(double dips, double scale_factor) {
  return std::round(dips * scale_factor) / scale_factor;
}

}  // namespace

Widget::Widget(std::uint64_t browser, std::shared_ptr<AbstractPage> page)
    : browser_(browser), page_(std::move(page)) {}

absl::Status Widget::Attach(const rpc::AttachRequest& request,
                            rpc::AttachResult* result) {
  if (view_.has_value()) {
    return absl::FailedPreconditionError(absl::StrCat(
        "browser ", browser_, " is attached already; Detach comes first"));
  }
  const rpc::WindowHandle engine_window = page_->window();
  const rpc::RenderingMode mode = ChooseMode(request, engine_window);
  if (!rpc::RenderingMode_IsValid(mode)) {
    result->set_refusal(
        absl::StrCat("rendering mode ", static_cast<int>(mode),
                     " is not supported; use 1 (windowed) or 2 (off-screen)"));
    return absl::OkStatus();
  }
  if (mode == rpc::RENDERING_MODE_WINDOWED && engine_window.handle() == 0) {
    result->set_refusal("this widget draws into no window; use 2 (off-screen)");
    return absl::OkStatus();
  }
  View view(mode,
            mode == rpc::RENDERING_MODE_WINDOWED ? engine_window
                                                 : rpc::WindowHandle(),
            [page = page_.get()](const rpc::PointDip& position) {
              return page->IsDraggableAt(position);
            });
  if (absl::Status status = view.MoveTo(request); !status.ok()) return status;

  result->set_attached(true);
  result->set_rendering_mode(mode);
  result->set_scale_factor(scale_factor());
  result->mutable_size()->set_width(
      RoundToPixels(view.bounds().width(), scale_factor()));
  result->mutable_size()->set_height(
      RoundToPixels(view.bounds().height(), scale_factor()));
  view_ = std::move(view);
  return absl::OkStatus();
}

void Widget::KeepFor(std::unique_ptr<orvane::ClientWatch> host) {
  host_ = std::move(host);
}

absl::Status Widget::Detach() {
  view_.reset();
  host_.reset();
  return absl::OkStatus();
}

absl::Status Widget::Unfocus() {
  return view_.has_value() ? view_->Unfocus() : absl::OkStatus();
}

absl::StatusOr<View*> Widget::view() {
  if (view_.has_value()) return &*view_;
  return absl::FailedPreconditionError(absl::StrCat(
      "browser ", browser_, " is not attached; Attach comes first"));
}

absl::StatusOr<Input*> Widget::input() {
  const absl::StatusOr<View*> view = this->view();
  if (!view.ok()) return view.status();
  if (absl::Status status = page_->CheckTakesInput(); !status.ok())
    return status;
  Input& input = (*view)->input();
  if (page_->HasBegunDrag()) input.BeginDragInPage();
  return &input;
}

absl::Status Widget::AssignHostWindow(
    const rpc::AssignHostWindowRequest& request) {
  return request.has_host_window() ? CheckWindow(request.host_window())
                                   : absl::OkStatus();
}

absl::Status Widget::SetDisplay(const rpc::Display& display) {
  const rpc::RectDip& bounds = display.bounds();
  // Both conditions are written so that NaN is refused too.
  if (!(bounds.width() > 0 && bounds.height() > 0)) {
    return absl::InvalidArgumentError(
        absl::StrCat("`bounds` are ", bounds.width(), " by ", bounds.height(),
                     " DIPs; both must be above 0"));
  }
  if (!(display.scale_factor() > 0)) {
    return absl::InvalidArgumentError(absl::StrCat(
        "`scale_factor` is ", display.scale_factor(), "; it must be above 0"));
  }
  display_ = display;
  return absl::OkStatus();
}

absl::Status Widget::SetDpiAware(const rpc::SetDpiAwareRequest& request) {
  is_dpi_aware_ = request.dpi_aware();
  return absl::OkStatus();
}

absl::Status Widget::SetForcedScaleFactor(
    const rpc::SetForcedScaleFactorRequest& request) {
  if (!request.has_scale_factor()) {
    forced_scale_factor_.reset();
    return absl::OkStatus();
  }
  const double factor = request.scale_factor();
  if (!(factor >= kMinForcedScaleFactor && factor <= kMaxForcedScaleFactor)) {
    return absl::InvalidArgumentError(absl::StrCat(
        "`scale_factor` is ", factor, "; it must be from ",
        kMinForcedScaleFactor, " to ", kMaxForcedScaleFactor, ", or absent"));
  }
  forced_scale_factor_ = factor;
  return absl::OkStatus();
}

absl::Status Widget::GetAccessibilityToken(rpc::AccessibilityToken* token) {
  if (absl::Status status = view().status(); !status.ok()) return status;
  is_accessibility_on_ = true;
  *token = page_->root_node();
  return absl::OkStatus();
}

absl::Status Widget::SetParentAccessibilityNodes(
    const rpc::SetParentAccessibilityNodesRequest& request) {
  if (request.has_parent_node()) {
    if (absl::Status status = CheckNode(request.parent_node()); !status.ok())
      return status;
  }
  return request.has_window_node() ? CheckNode(request.window_node())
                                   : absl::OkStatus();
}

absl::Status Widget::AttachAccessibleWindow(
    const rpc::AttachAccessibleWindowRequest& request,
    google::protobuf::BoolValue* is_joined) {
  if (request.has_window()) {
    if (absl::Status status = CheckWindow(request.window()); !status.ok())
      return status;
  }
  is_joined->set_value(false);
  return absl::OkStatus();
}

void Widget::UpdatePage(absl::FunctionRef<void(AbstractPage&)> react) {
  Viewport viewport;
  viewport.is_accessibility_on = is_accessibility_on_;
  viewport.scale_factor = scale_factor();
  viewport.display = display_;
  if (view_.has_value()) {
    viewport.is_attached = true;
    viewport.is_drawn_off_screen =
        view_->rendering_mode() == rpc::RENDERING_MODE_OFF_SCREEN &&
        view_->is_drawn();
    viewport.has_focus = view_->has_focus();
    viewport.has_drag_begun_in_page = view_->input().has_drag_begun_in_page();
    viewport.width = view_->bounds().width();
    viewport.height = view_->bounds().height();
    viewport.screen_bounds = view_->screen_bounds();
  }
  page_->SetViewport(viewport);
  react(*page_);
  page_->Draw();
}

double Widget::scale_factor() const {
  if (forced_scale_factor_.has_value()) return *forced_scale_factor_;
  return is_dpi_aware_ && display_.scale_factor() > 0 ? display_.scale_factor()
                                                      : 1;
}

}  // namespace widget_server
