#include "host/pointer.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <iterator>
#include <string>
#include <utility>

#include "absl/algorithm/container.h"
#include "absl/status/statusor.h"
#include "absl/strings/ascii.h"
#include "absl/strings/match.h"
#include "absl/strings/str_split.h"
#include "absl/strings/string_view.h"

#include "host/cursor.h"
#include "host/finite.h"

namespace orvane::host {
namespace {

using google::protobuf::Empty;
using Client = InputCalls::Client;

// In the order of MouseButton, from primary on.
constexpr std::array<rpc::MouseButtonFlag, 5> kFlags = {
    rpc::MOUSE_BUTTON_FLAG_PRIMARY, rpc::MOUSE_BUTTON_FLAG_AUXILIARY,
    rpc::MOUSE_BUTTON_FLAG_SECONDARY, rpc::MOUSE_BUTTON_FLAG_BACK,
    rpc::MOUSE_BUTTON_FLAG_FORWARD};

// Those whose state every toolkit tells.
constexpr std::uint32_t kAlwaysTold = rpc::MOUSE_BUTTON_FLAG_PRIMARY |
                                      rpc::MOUSE_BUTTON_FLAG_AUXILIARY |
                                      rpc::MOUSE_BUTTON_FLAG_SECONDARY;

// What a page may do with what it drags itself.
constexpr std::uint32_t kAllOperations = rpc::DRAG_OPERATION_COPY |
                                         rpc::DRAG_OPERATION_LINK |
                                         rpc::DRAG_OPERATION_MOVE;

constexpr double kUnitsPerDetent = 120;

// Of detents or DIPs in one event. Whatever is more is a toolkit's mistake.
constexpr double kMaxTurn = 1e6;

bool IsButton(rpc::MouseButton button) {
  return button >= rpc::MOUSE_BUTTON_PRIMARY &&
         button <= rpc::MOUSE_BUTTON_FORWARD;
}

std::size_t IndexOf(rpc::MouseButton button) {
  return static_cast<std::size_t>(button - rpc::MOUSE_BUTTON_PRIMARY);
}

std::size_t IndexOf(std::uint32_t flag) {
  return static_cast<std::size_t>(
      std::find(kFlags.begin(), kFlags.end(), flag) - kFlags.begin());
}

std::uint32_t LowestOf(std::uint32_t flags) { return flags & (~flags + 1); }

std::int64_t MonotonicNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// 0 for what no device can turn by.
double TurnOf(double told) {
  return std::abs(told) <= kMaxTurn ? told : 0;  // False for NaN.
}

// A file manager takes files from links, also from some that do not look like
// it, so a page may give away links to the web only.
bool IsToTheWeb(absl::string_view link) {
  link = absl::StripLeadingAsciiWhitespace(link);
  if (link.empty() || link.front() == '#') return true;  // A remark.
  return absl::c_any_of(std::array{"http:", "https:", "ftp:", "mailto:"},
                        [link](const char* scheme) {
                          return absl::StartsWithIgnoreCase(link, scheme);
                        });
}

bool IsHarmless(absl::string_view mime_type, absl::string_view content) {
  const absl::string_view type =
      absl::StripAsciiWhitespace(mime_type.substr(0, mime_type.find(';')));
  // What toolkits mean by these is files.
  if (type.empty() || absl::StartsWithIgnoreCase(type, "x-special/") ||
      absl::StartsWithIgnoreCase(type, "application/vnd.portal."))
    return false;
  if (!absl::EqualsIgnoreCase(type, "text/uri-list")) return true;
  return absl::c_all_of(
      absl::StrSplit(content, absl::ByAnyChar("\r\n")),
      [](absl::string_view line) { return IsToTheWeb(line); });
}

bool MayLeaveThePage(const rpc::DragItem& item) {
  return item.has_text()
             ? IsHarmless(item.text().mime_type(), item.text().value())
             : IsHarmless(item.binary().mime_type(), item.binary().value());
}

// Returns the whole units of what has been turned, and keeps the rest.
std::int32_t TakeWholeUnits(double& turned) {
  const double whole = std::round(turned);
  turned -= whole;
  return static_cast<std::int32_t>(whole);
}

}  // namespace

rpc::MouseButton ButtonOfX11(std::uint32_t number) {
  switch (number) {
    case 1:
      return rpc::MOUSE_BUTTON_PRIMARY;
    case 2:
      return rpc::MOUSE_BUTTON_AUXILIARY;
    case 3:
      return rpc::MOUSE_BUTTON_SECONDARY;
    case 8:
      return rpc::MOUSE_BUTTON_BACK;
    case 9:
      return rpc::MOUSE_BUTTON_FORWARD;
    default:
      return rpc::MOUSE_BUTTON_UNSPECIFIED;
  }
}

std::uint32_t FlagOf(rpc::MouseButton button) {
  return IsButton(button) ? kFlags[IndexOf(button)] : 0;
}

std::uint32_t ButtonsOfX11State(std::uint32_t state) {
  constexpr std::uint32_t kFirst = 1 << 8;  // Button1Mask
  std::uint32_t buttons = 0;
  for (std::uint32_t number = 1; number <= 3; ++number) {
    if ((state & kFirst << (number - 1)) != 0)
      buttons |= FlagOf(ButtonOfX11(number));
  }
  return buttons;
}

Pointer::Pointer(InputCalls* calls, PointerOptions options, OnCursor on_cursor,
                 OnPageDrag on_page_drag)
    : calls_(calls),
      options_(options),
      on_page_drag_(std::move(on_page_drag)),
      on_cursor_(std::move(on_cursor)),
      cursor_events_(calls->client().WhenCursorChanged(
          calls->browser(),
          [this](const rpc::CursorChanged& event) {
            page_cursor_ = event.cursor();
            if (phase_ != Phase::kPageDrag) ShowCursor();
          })),
      drag_events_(calls->client().WhenDragCursorUpdated(
          calls->browser(), [this](const rpc::DragCursorUpdated& event) {
            OnDragCursorUpdated(event);
          })) {}

void Pointer::SetViewSize(const rpc::SizeDip& size) { view_size_ = size; }

// What the toolkit reports ----------------------------------------------------

void Pointer::Enter(const PointerSample& sample) {
  Remember(sample);
  EnterNow();
  NoteLostReleases(sample.pointer.buttons());
}

void Pointer::Leave(const PointerSample& sample) {
  Remember(sample);
  LeaveNow();
  NoteLostReleases(sample.pointer.buttons());
}

void Pointer::Move(const PointerSample& sample,
                   const std::optional<rpc::VectorDip>& movement) {
  const bool has_moved_by = movement.has_value() && IsFinite(*movement);
  Remember(sample);
  NoteLostReleases(sample.pointer.buttons());
  FollowPosition();
  ForgetClicksThatMoved();
  if (phase_ == Phase::kMouse && held_ != 0) {
    auto drag = NewMouse<rpc::MouseDragRequest>();
    if (has_moved_by) *drag.mutable_movement() = *movement;
    calls_->Move(std::move(drag));
  } else if (phase_ == Phase::kMouse && is_inside_) {
    auto move = NewMouse<rpc::MouseMoveRequest>();
    if (has_moved_by) *move.mutable_movement() = *movement;
    calls_->Move(std::move(move));
  } else if (phase_ == Phase::kPageDrag && is_inside_) {
    auto over = NewDrag<rpc::DragOverRequest>();
    over.set_allowed_operations(kAllOperations);
    calls_->Move(std::move(over), [self = std::weak_ptr(self_), drag = drag_](
                                      const absl::StatusOr<Empty>& answer) {
      if (const auto alive = self.lock())
        (*alive)->OnDragOverAnswered(answer.ok(), drag);
    });
  }
}

void Pointer::Press(const PointerSample& sample, rpc::MouseButton button,
                    std::uint32_t click_count) {
  const std::uint32_t flag = FlagOf(button);
  if (flag == 0) return;
  // A toolkit that drags reports no press.
  EndDrag(rpc::DRAG_OPERATION_UNSPECIFIED);
  Remember(sample);
  NoteLostReleases(sample.pointer.buttons() | flag);
  // Of a button that was down already, the release was lost.
  if ((down_ & flag) != 0) {
    clicks_[IndexOf(button)].count = 0;
    ReleaseNow(flag, Drop::kNo);
  }
  FollowPosition();
  if (phase_ == Phase::kMouse && held_ == 0 && !is_inside_) return;
  down_ |= flag;
  if (phase_ != Phase::kMouse) return;
  held_ |= flag;
  auto press = NewMouse<rpc::MousePressRequest>();
  press.set_button(button);
  press.set_click_count(CountClick(button, click_count));
  press.set_is_popup_trigger(button == rpc::MOUSE_BUTTON_SECONDARY);
  calls_->Send(&Client::ForwardMousePress, std::move(press));
}

void Pointer::Release(const PointerSample& sample, rpc::MouseButton button) {
  const std::uint32_t flag = FlagOf(button);
  if (flag == 0) return;
  Remember(sample);
  NoteLostReleases(sample.pointer.buttons() | flag);
  // A view that the pointer has entered with a button held from elsewhere is
  // told of it here at the latest.
  FollowPosition();
  ForgetClicksThatMoved();
  if ((down_ & flag) != 0) ReleaseNow(flag, Drop::kIfPossible);
}

void Pointer::TurnWheel(const PointerSample& sample, double detents_x,
                        double detents_y) {
  Remember(sample);
  FollowPosition();
  if (phase_ != Phase::kMouse || (!is_inside_ && held_ == 0)) return;
  detents_x = TurnOf(detents_x);
  detents_y = TurnOf(detents_y);
  if (detents_x == 0 && detents_y == 0) return;
  if ((sample.input.modifiers() & rpc::MODIFIER_FLAG_SHIFT) != 0 &&
      detents_x == 0) {
    std::swap(detents_x, detents_y);
  }
  turned_x_ += detents_x * kUnitsPerDetent;
  turned_y_ += detents_y * kUnitsPerDetent;
  auto wheel = NewMouse<rpc::MouseWheelRequest>();
  wheel.set_delta_x(detents_x * options_.lines_per_detent);
  wheel.set_delta_y(detents_y * options_.lines_per_detent);
  wheel.set_delta_mode(rpc::WHEEL_DELTA_MODE_LINE);
  wheel.set_detents_x_120ths(TakeWholeUnits(turned_x_));
  wheel.set_detents_y_120ths(TakeWholeUnits(turned_y_));
  wheel.set_source(rpc::WHEEL_SOURCE_WHEEL);
  calls_->Send(&Client::ForwardMouseWheel, std::move(wheel));
}

void Pointer::Scroll(const PointerSample& sample, double dx, double dy) {
  Remember(sample);
  FollowPosition();
  if (phase_ != Phase::kMouse || (!is_inside_ && held_ == 0)) return;
  dx = TurnOf(dx);
  dy = TurnOf(dy);
  if (dx == 0 && dy == 0) return;
  auto wheel = NewMouse<rpc::MouseWheelRequest>();
  wheel.set_delta_x(dx);
  wheel.set_delta_y(dy);
  wheel.set_delta_mode(rpc::WHEEL_DELTA_MODE_PIXEL);
  wheel.set_source(rpc::WHEEL_SOURCE_FINGER);
  wheel.set_phase(std::exchange(is_scrolling_, true) ? rpc::WHEEL_PHASE_CHANGED
                                                     : rpc::WHEEL_PHASE_BEGAN);
  wheel.set_is_precise(true);
  calls_->Send(&Client::ForwardMouseWheel, std::move(wheel));
}

void Pointer::EndScroll(const PointerSample& sample) {
  Remember(sample);
  if (!std::exchange(is_scrolling_, false)) return;
  auto wheel = NewMouse<rpc::MouseWheelRequest>();
  wheel.set_delta_mode(rpc::WHEEL_DELTA_MODE_PIXEL);
  wheel.set_source(rpc::WHEEL_SOURCE_FINGER);
  wheel.set_phase(rpc::WHEEL_PHASE_ENDED);
  wheel.set_is_precise(true);
  calls_->Send(&Client::ForwardMouseWheel, std::move(wheel));
}

void Pointer::Cancel() {
  EndScroll(latest_);
  if (phase_ == Phase::kToolkitDrag) return;
  if (phase_ == Phase::kPageDrag) {
    EndPageDrag(Drop::kNo);
    if (!is_inside_) SendExit();
  } else if (phase_ == Phase::kMouse) {
    while (held_ != 0) SendRelease(LowestOf(held_), 0);
    SendExit();
  }
  const bool was_page_dragging = is_page_dragging();
  if (down_ != 0) {
    phase_ = Phase::kSwallow;
  } else {
    phase_ = Phase::kMouse;
    is_inside_ = false;
  }
  if (was_page_dragging) ShowCursor();
}

// Where the pointer is --------------------------------------------------------

void Pointer::Remember(const PointerSample& sample) {
  const rpc::PointDip position = latest_.pointer.position();
  const std::int64_t time_ns = latest_.input.time_ns();
  latest_ = sample;
  rpc::PointerState& told = latest_.pointer;
  if (!IsFinite(told.position())) *told.mutable_position() = position;
  if (!IsFinite(told.screen_position())) told.clear_screen_position();
  if (!std::isfinite(told.pressure())) told.clear_pressure();
  if (!std::isfinite(told.tangential_pressure()))
    told.clear_tangential_pressure();
  if (sample.input.time_ns() != 0)
    latest_.input.set_time_ns(std::max(sample.input.time_ns(), time_ns));
}

bool Pointer::IsOverView() const {
  const rpc::PointDip& at = latest_.pointer.position();
  return at.x() >= 0 && at.x() < view_size_->width() && at.y() >= 0 &&
         at.y() < view_size_->height();
}

void Pointer::FollowPosition() {
  if (view_size_.has_value()) {
    if (IsOverView()) {
      EnterNow();
    } else {
      LeaveNow();
    }
  } else if (phase_ == Phase::kMouse && held_ == 0) {
    EnterNow();  // Only a grab brings events from outside.
  }
}

void Pointer::EnterNow() {
  if (std::exchange(is_inside_, true)) return;
  if (phase_ == Phase::kMouse && held_ == 0) {
    SendEnter();
  } else if (phase_ == Phase::kPageDrag) {
    auto enter = NewDrag<rpc::DragEnterRequest>();
    enter.set_allowed_operations(kAllOperations);
    calls_->Send(&Client::ForwardDragEnter, std::move(enter));
    ShowCursor();
  }
}

void Pointer::LeaveNow() {
  if (!std::exchange(is_inside_, false)) return;
  if (phase_ == Phase::kMouse && held_ == 0) {
    SendExit();
  } else if (phase_ == Phase::kPageDrag) {
    operation_ = rpc::DRAG_OPERATION_UNSPECIFIED;
    SendDragLeave();
    drag_cursor_ = CursorOf(rpc::DragCursorUpdated());
    ShowCursor();
  }
}

// Buttons ---------------------------------------------------------------------

void Pointer::NoteLostReleases(std::uint32_t buttons) {
  // After Cancel nothing depends on back and forward, so that they cannot keep
  // the view from the pointer.
  const std::uint32_t told =
      phase_ == Phase::kSwallow ? ~std::uint32_t{0} : kAlwaysTold;
  while (const std::uint32_t lost = LowestOf(down_ & ~buttons & told)) {
    clicks_[IndexOf(lost)].count = 0;
    ReleaseNow(lost, Drop::kNo);
  }
}

void Pointer::ReleaseNow(std::uint32_t flag, Drop drop) {
  down_ &= ~flag;
  switch (phase_) {
    case Phase::kMouse:
      // A button pressed in a drag that the widget then refused was not sent.
      if ((held_ & flag) == 0) break;
      SendRelease(flag, clicks_[IndexOf(flag)].count);
      if (held_ == 0 && !is_inside_) SendExit();
      break;
    case Phase::kPageDrag:
      if (flag != drag_button_) break;
      EndPageDrag(drop);
      phase_ = down_ != 0 ? Phase::kSwallow : Phase::kMouse;
      if (phase_ == Phase::kMouse) SettleAfterButtons();
      ShowCursor();
      break;
    case Phase::kToolkitDrag:
      break;
    case Phase::kSwallow:
      if (down_ != 0) break;
      phase_ = Phase::kMouse;
      SettleAfterButtons();
      break;
  }
}

void Pointer::SettleAfterButtons() {
  if (!is_inside_) {
    SendExit();
  } else if (has_entered_) {
    calls_->Move(NewMouse<rpc::MouseMoveRequest>());
  } else {
    SendEnter();
  }
}

std::uint32_t Pointer::CountClick(rpc::MouseButton button, std::uint32_t told) {
  const rpc::PointDip& at = latest_.pointer.position();
  const std::int64_t told_ns = latest_.input.time_ns();
  const std::int64_t time_ns = told_ns != 0 ? told_ns : MonotonicNs();
  Click& click = clicks_[IndexOf(button)];
  const bool continues =
      std::exchange(latest_button_, button) == button &&
      time_ns - click.time_ns <=
          absl::ToInt64Nanoseconds(options_.double_click_time) &&
      std::abs(at.x() - click.x) <= options_.double_click_distance_dip &&
      std::abs(at.y() - click.y) <= options_.double_click_distance_dip;
  const std::uint32_t counted = continues ? click.count + 1 : 1;
  click = {at.x(), at.y(), time_ns, told != 0 ? told : counted};
  return click.count;
}

void Pointer::ForgetClicksThatMoved() {
  const rpc::PointDip& at = latest_.pointer.position();
  for (std::size_t button = 0; button < kButtons; ++button) {
    Click& click = clicks_[button];
    if ((held_ & kFlags[button]) != 0 &&
        std::hypot(at.x() - click.x, at.y() - click.y) >
            options_.drag_threshold_dip) {
      click.count = 0;
    }
  }
}

// Drags of the page's ---------------------------------------------------------

void Pointer::OnDragCursorUpdated(const rpc::DragCursorUpdated& event) {
  // Until the end is answered, events may be about the drag that it ended.
  if (!event.began_in_page() || unanswered_ends_ > 0) return;
  if (phase_ == Phase::kToolkitDrag) return;  // It is about DropTarget's calls.
  if (phase_ == Phase::kPageDrag) {
    operation_ = event.operation();
    drag_cursor_ = CursorOf(event);
    ShowCursor();
    return;
  }
  const bool is_too_late = phase_ == Phase::kSwallow || held_ == 0;
  if (!is_too_late) {
    ++drag_;
    drag_button_ = LowestOf(held_);
    if (HandToToolkit(event)) return;
    phase_ = Phase::kPageDrag;
    operation_ = event.operation();
    drag_cursor_ = CursorOf(event);
    ShowCursor();
    if (is_inside_) return;
    operation_ = rpc::DRAG_OPERATION_UNSPECIFIED;
  }
  // The widget takes a drag that has begun to be over the view.
  SendDragLeave();
  // The button's release was sent before the page's drag was known.
  if (is_too_late) SendDragEnd(rpc::DRAG_OPERATION_UNSPECIFIED);
}

bool Pointer::HandToToolkit(const rpc::DragCursorUpdated& event) {
  std::vector<rpc::DragItem> items;
  std::copy_if(event.items().begin(), event.items().end(),
               std::back_inserter(items), MayLeaveThePage);
  const std::uint32_t allowed = event.allowed_operations() & kAllOperations;
  if (!on_page_drag_ || items.empty() || allowed == 0) return false;
  // The toolkit may report a leave or a broken grab while it begins.
  phase_ = Phase::kToolkitDrag;
  const bool is_handed = on_page_drag_(std::move(items), allowed);
  if (phase_ != Phase::kToolkitDrag) return true;  // It has ended already.
  // The toolkit says when it is over the view; the widget takes it to be.
  if (is_handed) SendDragLeave();
  return is_handed;
}

void Pointer::EndDrag(rpc::DragOperation operation) {
  if (phase_ != Phase::kToolkitDrag) return;
  SendDragEnd(operation);
  SendExit();
  // What is held, and where the pointer is, the next sample tells.
  is_inside_ = false;
  phase_ = down_ != 0 ? Phase::kSwallow : Phase::kMouse;
}

void Pointer::OnDragOverAnswered(bool is_ok, std::uint64_t drag) {
  // The widget has no drag, so the pointer is a mouse again.
  if (is_ok || drag != drag_ || phase_ != Phase::kPageDrag) return;
  phase_ = Phase::kMouse;
  while (const std::uint32_t released = LowestOf(held_ & ~down_))
    SendRelease(released, 0);
  ShowCursor();
}

void Pointer::EndPageDrag(Drop drop) {
  rpc::DragOperation operation = rpc::DRAG_OPERATION_UNSPECIFIED;
  if (is_inside_ && drop == Drop::kIfPossible &&
      operation_ != rpc::DRAG_OPERATION_UNSPECIFIED) {
    operation = operation_;
    auto request = NewDrag<rpc::DragDropRequest>();
    request.set_allowed_operations(kAllOperations);
    calls_->Send(&Client::ForwardDragDrop, std::move(request));
  } else if (is_inside_) {
    SendDragLeave();
  }
  SendDragEnd(operation);
}

void Pointer::ShowCursor() {
  if (on_cursor_) on_cursor_(is_page_dragging() ? drag_cursor_ : page_cursor_);
}

// Calls -----------------------------------------------------------------------

template <typename Request>
Request Pointer::NewMouse() const {
  Request request;
  *request.mutable_input() = latest_.input;
  *request.mutable_pointer() = latest_.pointer;
  request.mutable_pointer()->set_buttons(held_);
  return request;
}

template <typename Request>
Request Pointer::NewDrag() const {
  Request request;
  *request.mutable_input() = latest_.input;
  *request.mutable_position() = latest_.pointer.position();
  if (latest_.pointer.has_screen_position())
    *request.mutable_screen_position() = latest_.pointer.screen_position();
  return request;
}

void Pointer::SendEnter() {
  has_entered_ = true;
  calls_->Send(&Client::ForwardMouseEnter, NewMouse<rpc::MouseEnterRequest>());
}

void Pointer::SendExit() {
  if (!std::exchange(has_entered_, false)) return;
  calls_->Send(&Client::ForwardMouseExit, NewMouse<rpc::MouseExitRequest>());
}

void Pointer::SendRelease(std::uint32_t flag, std::uint32_t click_count) {
  held_ &= ~flag;
  auto release = NewMouse<rpc::MouseReleaseRequest>();
  release.set_button(
      static_cast<rpc::MouseButton>(rpc::MOUSE_BUTTON_PRIMARY + IndexOf(flag)));
  release.set_click_count(click_count);
  calls_->Send(&Client::ForwardMouseRelease, std::move(release));
}

void Pointer::SendDragLeave() {
  rpc::DragLeaveRequest leave;
  *leave.mutable_input() = latest_.input;
  calls_->Send(&Client::ForwardDragLeave, std::move(leave));
}

void Pointer::SendDragEnd(rpc::DragOperation operation) {
  auto end = NewDrag<rpc::DragEndRequest>();
  end.set_operation(operation);
  ++unanswered_ends_;
  calls_->Send(&Client::ForwardDragEnd, std::move(end),
               [self = std::weak_ptr(self_)](const absl::StatusOr<Empty>&) {
                 if (const auto alive = self.lock())
                   --(*alive)->unanswered_ends_;
               });
  held_ &= ~drag_button_;  // The end counts as its release.
  while (held_ != 0) SendRelease(LowestOf(held_), 0);
}

}  // namespace orvane::host
