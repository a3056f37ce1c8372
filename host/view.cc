#include "host/view.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "absl/strings/str_cat.h"
#include "google/protobuf/util/message_differencer.h"

#include "host/pixels.h"
#include "zimbrel/src/core/common/rpc/printable.h"
#include "zimbrel/src/core/common/rpc/transport/responder.h"

namespace orvane::host {
namespace {

using Client = InputCalls::Client;
using google::protobuf::util::MessageDifferencer;

bool IsSide(double dips) { return std::isfinite(dips) && dips >= 0; }

}  // namespace

rpc::Display NewDisplay(double width, double height, double scale_factor) {
  rpc::Display display;
  display.set_display_id(1);
  display.set_scale_factor(scale_factor);
  display.mutable_bounds()->set_width(width);
  display.mutable_bounds()->set_height(height);
  *display.mutable_work_area() = display.bounds();
  display.mutable_pixel_bounds()->set_width(
      static_cast<std::int32_t>(std::lround(width * scale_factor)));
  display.mutable_pixel_bounds()->set_height(
      static_cast<std::int32_t>(std::lround(height * scale_factor)));
  return display;
}

View::Session::Session(std::unique_ptr<SocketClient> new_connection, View* view)
    : connection(std::move(new_connection)),
      calls(connection.get(), view->options_.browser),
      pointer(
          &calls, view->options_.pointer,
          [view](const rpc::Cursor& cursor) { view->ShowCursor(cursor); },
          [view](std::vector<rpc::DragItem> items, std::uint32_t allowed) {
            return view->handlers_.on_page_drag &&
                   view->handlers_.on_page_drag(std::move(items), allowed);
          }),
      keyboard(&calls),
      touch(&calls),
      drop_target(&calls, &pointer, view->handlers_.on_drop_operation) {}

View::View(EventLoop* loop, ViewOptions options, ViewHandlers handlers)
    : loop_(loop),
      options_(std::move(options)),
      handlers_(std::move(handlers)),
      scene_(handlers_.on_scene),
      retry_(options_.first_retry) {
  // Later, so that no handler runs inside the constructor.
  retry_timer_ = loop_->RunAfter(absl::ZeroDuration(), [this] { Connect(); });
}

View::~View() = default;

Pointer* View::pointer() {
  return state_ == ViewState::kAttached ? &session_->pointer : nullptr;
}

Keyboard* View::keyboard() {
  return state_ == ViewState::kAttached ? &session_->keyboard : nullptr;
}

Touch* View::touch() {
  return state_ == ViewState::kAttached ? &session_->touch : nullptr;
}

DropTarget* View::drop_target() {
  return state_ == ViewState::kAttached ? &session_->drop_target : nullptr;
}

rpc::BrowserWidgetRpcClient* View::client() {
  return session_ == nullptr ? nullptr : &session_->calls.client();
}

void View::SetState(ViewState state, absl::Status status) {
  if (state == state_ && status == status_) return;
  status_ = std::move(status);
  if (std::exchange(state_, state) == ViewState::kAttached &&
      state != ViewState::kAttached) {
    ShowCursor({});
    ShowTooltip("");
  }
  if (handlers_.on_state) handlers_.on_state(state);
}

std::string View::StateText() const {
  if (is_hung_) return "The browser does not respond";
  const std::string reason =
      status_.ok() ? "" : absl::StrCat(": ", Printable(status_.message()));
  switch (state_) {
    case ViewState::kWaiting:
    case ViewState::kConnected:
      return absl::StrCat("Waiting for the browser", reason);
    case ViewState::kAttached:
      return "";
    case ViewState::kRefused:
      return absl::StrCat("The browser does not come into this window", reason);
    case ViewState::kIncompatible:
      return absl::StrCat("This browser cannot be used", reason);
  }
  return "";
}

void View::ShowCursor(const rpc::Cursor& cursor) {
  if (handlers_.on_cursor) handlers_.on_cursor(cursor);
}

void View::ShowTooltip(absl::string_view text) {
  if (handlers_.on_tooltip) handlers_.on_tooltip(text);
}

// The widget's process -------------------------------------------------------

void View::Connect() {
  auto connection = options_.connect();
  if (absl::IsPermissionDenied(connection.status())) {
    SetState(ViewState::kIncompatible, connection.status());
    return;
  }
  if (!connection.ok()) {
    ConnectLater();
    SetState(ViewState::kWaiting, connection.status());
    return;
  }
  session_ = std::make_shared<Session>(*std::move(connection), this);
  OpenStreams();
  const std::weak_ptr<Session> session = session_;
  if (handlers_.on_connected) handlers_.on_connected(session_->calls.client());
  if (session.expired()) return;  // It ran the loop, and the widget has gone.
  if (display_.has_value())
    session_->calls.Send(&Client::SetDisplay, *display_);
  SetState(ViewState::kConnected, absl::OkStatus());
  AttachIfPossible();
}

void View::WatchWidget() {
  session_->connection->WatchServer(options_.patience,
                                    [this](const Responsiveness& widget) {
                                      is_hung_ = !widget.responds;
                                      if (handlers_.on_state)
                                        handlers_.on_state(state_);
                                    });
}

void View::ConnectLater() {
  retry_timer_ = loop_->RunAfter(NextRetry(), [this] { Connect(); });
}

absl::Duration View::NextRetry() {
  return std::exchange(retry_, std::min(2 * retry_, options_.last_retry));
}

void View::OpenStreams() {
  Client& widget = session_->calls.client();
  // Ends with the widget, as any other stream would.
  session_->streams.push_back(widget.WhenTooltipChanged(
      options_.browser,
      [this](const rpc::TooltipChanged& event) { ShowTooltip(event.text()); },
      [this](const absl::Status& why) { OnWidgetGone(why); }));
  if (handlers_.on_scene) scene_.Serve(widget, options_.browser);
  // Answers fail only if the widget has gone.
  if (handlers_.on_take_focus) {
    session_->streams.push_back(widget.OnTakeFocus(
        options_.browser, [this](const rpc::TakeFocusCall& call,
                                 Responder<rpc::TakeFocus> responder) {
          rpc::TakeFocusResponse answer;
          answer.set_taken(handlers_.on_take_focus(call.direction()));
          if (answer.taken()) Unfocus();
          std::move(responder).Respond(answer).IgnoreError();
        }));
  }
  if (handlers_.on_accessibility_focus) {
    session_->streams.push_back(widget.OnAccessibilityRequestFocus(
        options_.browser,
        [this](const rpc::AccessibilityRequestFocusCall& call,
               Responder<rpc::AccessibilityRequestFocus> responder) {
          rpc::AccessibilityRequestFocusResponse answer;
          answer.set_focused(handlers_.on_accessibility_focus(call));
          std::move(responder).Respond(answer).IgnoreError();
        }));
  }
}

void View::OnWidgetGone(const absl::Status& end) {
  // Taken out first, since the handler may call anything.
  const std::shared_ptr<Session> ended = std::move(session_);
  session_ = nullptr;
  scene_.Stop();
  is_attaching_ = false;
  is_hung_ = false;
  absl::Status why = ended->connection->status();
  // A widget that shuts down completes its streams before the connection ends;
  // one that is older, or has narrow limits, may refuse the stream.
  if (why.ok())
    why = end.ok() ? absl::UnavailableError("the widget shuts down") : end;
  if (absl::IsFailedPrecondition(why) || absl::IsUnimplemented(why)) {
    SetState(ViewState::kIncompatible, why);
    return;
  }
  ConnectLater();
  SetState(ViewState::kWaiting, why);
}

// Attaching ------------------------------------------------------------------

void View::AttachIfPossible() {
  if (state_ == ViewState::kConnected && bounds_.has_value()) Attach();
}

void View::Attach() {
  if (std::exchange(is_attaching_, true)) return;
  told_bounds_ = *bounds_;
  rpc::AttachRequest request;
  *request.mutable_browser_id() = options_.browser;
  request.set_rendering_mode(rpc::RENDERING_MODE_OFF_SCREEN);
  *request.mutable_bounds() = bounds_->bounds();
  if (bounds_->has_screen_bounds())
    *request.mutable_screen_bounds() = bounds_->screen_bounds();
  session_->calls.client().Attach(
      request, [this, session = std::weak_ptr(session_)](
                   const absl::StatusOr<rpc::AttachResult>& answer) {
        if (!session.expired()) OnAttached(answer);
      });
}

void View::OnAttached(const absl::StatusOr<rpc::AttachResult>& answer) {
  is_attaching_ = false;
  // Before its first answer a widget may be starting, for as long as that
  // takes.
  if (!std::exchange(session_->is_watched, true)) WatchWidget();
  if (!answer.ok() || !answer->attached()) {
    // Without a connection, its end is told in a moment.
    if (!session_->connection->status().ok() || !bounds_.has_value()) return;
    retry_timer_ = loop_->RunAfter(NextRetry(), [this] {
      if (state_ == ViewState::kRefused) Attach();
    });
    SetState(ViewState::kRefused,
             answer.ok() ? absl::UnavailableError(answer->refusal())
                         : answer.status());
    return;
  }
  if (!bounds_.has_value()) {  // Taken out of the window meanwhile.
    session_->calls.Send(&Client::Detach);
    return;
  }
  retry_ = options_.first_retry;
  attached_ = *answer;
  attached_.set_scale_factor(ScaleFactorFrom(attached_.scale_factor()));
  if (!IsSide(attached_.size().width()) || !IsSide(attached_.size().height())) {
    attached_.mutable_size()->set_width(told_bounds_.bounds().width());
    attached_.mutable_size()->set_height(told_bounds_.bounds().height());
  }
  session_->pointer.SetViewSize(attached_.size());
  InputCalls& calls = session_->calls;
  TellBounds();
  if (is_shown_) calls.Send(&Client::Show);
  if (is_minimized_) calls.Send(&Client::Minimize);
  if (focus_.has_value()) {
    rpc::FocusRequest focus;
    focus.set_reason(*focus_);
    calls.Send(&Client::Focus, std::move(focus));
  }
  SetState(ViewState::kAttached, absl::OkStatus());
}

void View::Detach() {
  bounds_.reset();
  focus_.reset();
  if (session_ == nullptr) return;
  // What is not attached here may be attached to another host.
  if (state_ == ViewState::kAttached) {
    EndPageDrag(rpc::DRAG_OPERATION_UNSPECIFIED);
    CancelInput();
    session_->calls.Send(&Client::Unfocus);
    session_->calls.Send(&Client::Detach);
  }
  SetState(ViewState::kConnected, absl::OkStatus());
}

void View::TakeOver() {
  if (state_ != ViewState::kRefused) return;
  session_->calls.Send(&Client::Detach);
  retry_ = options_.first_retry;
  SetState(ViewState::kConnected, absl::OkStatus());
  AttachIfPossible();
}

void View::EndPageDrag(rpc::DragOperation operation) {
  if (session_ == nullptr || !session_->pointer.is_toolkit_dragging()) return;
  session_->drop_target.Leave({});
  session_->pointer.EndDrag(operation);
}

void View::CancelInput() {
  session_->pointer.Cancel();
  session_->touch.CancelAll();
  session_->keyboard.ReleaseAll();
}

// What the window wants ------------------------------------------------------

void View::SetDisplay(const rpc::Display& display) {
  rpc::Display wanted = display;
  *wanted.mutable_browser_id() = options_.browser;
  wanted.set_scale_factor(ScaleFactorFrom(display.scale_factor()));
  if (display_.has_value() && MessageDifferencer::Equals(*display_, wanted))
    return;
  display_ = std::move(wanted);
  if (session_ != nullptr) session_->calls.Send(&Client::SetDisplay, *display_);
}

void View::SetBounds(const rpc::RectDip& bounds,
                     const std::optional<rpc::RectPx>& screen_bounds) {
  bounds_.emplace();
  *bounds_->mutable_browser_id() = options_.browser;
  rpc::RectDip& wanted = *bounds_->mutable_bounds();
  wanted.set_x(std::isfinite(bounds.x()) ? bounds.x() : 0);
  wanted.set_y(std::isfinite(bounds.y()) ? bounds.y() : 0);
  wanted.set_width(IsSide(bounds.width()) ? bounds.width() : 0);
  wanted.set_height(IsSide(bounds.height()) ? bounds.height() : 0);
  if (screen_bounds.has_value())
    *bounds_->mutable_screen_bounds() = *screen_bounds;
  if (state_ == ViewState::kAttached) {
    TellBounds();
  } else {
    AttachIfPossible();
  }
}

void View::SetSize(double width, double height) {
  rpc::RectDip bounds;
  bounds.set_width(width);
  bounds.set_height(height);
  SetBounds(bounds, std::nullopt);
}

void View::TellBounds() {
  if (MessageDifferencer::Equals(*bounds_, told_bounds_)) return;
  told_bounds_ = *bounds_;
  rpc::SizeDip size;
  size.set_width(told_bounds_.bounds().width());
  size.set_height(told_bounds_.bounds().height());
  session_->pointer.SetViewSize(size);
  session_->calls.Send(&Client::SetViewBounds, told_bounds_);
}

void View::SetShown(bool is_shown) {
  if (std::exchange(is_shown_, is_shown) == is_shown ||
      state_ != ViewState::kAttached) {
    return;
  }
  if (!is_shown) CancelInput();
  if (is_shown)
    session_->calls.Send(&Client::Show);
  else
    session_->calls.Send(&Client::Hide);
}

void View::SetMinimized(bool is_minimized) {
  if (std::exchange(is_minimized_, is_minimized) == is_minimized ||
      state_ != ViewState::kAttached) {
    return;
  }
  if (is_minimized) CancelInput();
  if (is_minimized)
    session_->calls.Send(&Client::Minimize);
  else
    session_->calls.Send(&Client::Restore);
}

void View::Focus(rpc::FocusReason reason) {
  if (std::exchange(focus_, reason).has_value() ||
      state_ != ViewState::kAttached) {
    return;
  }
  rpc::FocusRequest focus;
  focus.set_reason(reason);
  session_->calls.Send(&Client::Focus, std::move(focus));
}

void View::Unfocus() {
  if (!std::exchange(focus_, std::nullopt).has_value() ||
      state_ != ViewState::kAttached) {
    return;
  }
  session_->keyboard.ReleaseAll();
  session_->calls.Send(&Client::Unfocus);
}

}  // namespace orvane::host
