#include "engines/chromium/native_input.h"

#include <cmath>
#include <string>
#include <utility>

#include "absl/status/statusor.h"

#include "host/pointer.h"
#include "rpc/browser/touch.pb.h"
#include "rpc/browser/wheel.pb.h"

namespace chromium {
namespace {

using orvane::host::ButtonOfX11;
using orvane::host::FlagOf;

// Those of GTK, in pixels of a screen at scale 1.
constexpr std::uint32_t kDoubleClickMs = 400;
constexpr double kDoubleClickDistance = 5;

// What most browsers scroll by for one step of the wheel.
constexpr double kDipsPerDetent = 120;
constexpr int kDetent = 120;  // In 120ths.

// Events that are read here have been checked.
X11Event Read(const rpc::NativeEvent& event, X11Input input) {
  return *ReadX11Event(event.payload(), input);
}

absl::Status CheckRead(const rpc::NativeEvent& event, X11Input input) {
  return ReadX11Event(event.payload(), input).status();
}

rpc::InputInfo InfoOf(const rpc::NativeEvent& native, const X11Event& event) {
  rpc::InputInfo input;
  input.set_time_ns(native.time_ns());
  input.set_device_id(event.device);
  input.set_modifiers(orvane::host::ModifiersOfX11State(event.modifiers));
  return input;
}

// A position in the view, and one on the screen.
void SetPositions(const rpc::NativeEvent& native, const X11Event& event,
                  double scale_factor, rpc::PointDip* position,
                  rpc::PointDip* screen_position) {
  position->set_x((event.x - native.view_origin().x()) / scale_factor);
  position->set_y((event.y - native.view_origin().y()) / scale_factor);
  screen_position->set_x(event.root_x / scale_factor);
  screen_position->set_y(event.root_y / scale_factor);
}

KeyboardLayout::Press PressOf(const X11Event& event) {
  return {event.detail, event.modifiers, event.group};
}

}  // namespace

NativeInput::NativeInput(widget_server::AbstractPage* page) : page_(page) {}

// Keys

absl::Status NativeInput::Check(const rpc::NativeKeyEventRequest& request) {
  if (absl::Status status = CheckRead(request.event(), X11Input::kKeys);
      !status.ok()) {
    return status;
  }
  if (layout_ == nullptr) {
    auto layout = KeyboardLayout::Load();
    if (!layout.ok()) return layout.status();
    layout_ = *std::move(layout);
  }
  return absl::OkStatus();
}

void NativeInput::Take(const rpc::NativeKeyEventRequest& request) {
  const X11Event event = Read(request.event(), X11Input::kKeys);
  rpc::InputInfo input = InfoOf(request.event(), event);
  if (event.kind == X11EventKind::kKeyPress) {
    PressKey(event, std::move(input));
  } else {
    ReleaseKey(event, std::move(input));
  }
}

orvane::host::KeySample NativeInput::Describe(const X11Event& event,
                                              rpc::InputInfo input) {
  const KeyboardLayout::Meaning meaning = layout_->MeaningOf(PressOf(event));
  return {.input = std::move(input),
          .native_key_code = event.detail,
          .keysym = meaning.keysym,
          .character = meaning.character,
          .unshifted_character = meaning.unshifted_character};
}

void NativeInput::PressKey(const X11Event& event, rpc::InputInfo input) {
  orvane::host::KeySample sample = Describe(event, std::move(input));
  sample.is_auto_repeat =
      event.is_repeat ||
      (event.detail == released_key_ && event.time_ms == release_time_ms_);
  const std::string text = layout_->Type(PressOf(event));
  const rpc::KeyPressRequest press = held_.Press(sample, text);
  page_->KeyPress(press);
  if (const auto entered = orvane::host::EnteredBy(press, text))
    page_->KeyType(*entered);
}

void NativeInput::ReleaseKey(const X11Event& event, rpc::InputInfo input) {
  const auto release = held_.Release(Describe(event, std::move(input)));
  if (!release.has_value()) return;  // It was pressed elsewhere.
  released_key_ = event.detail;
  release_time_ms_ = event.time_ms;
  page_->KeyRelease(*release);
}

// The mouse

absl::Status NativeInput::Check(const rpc::NativeMouseEventRequest& request) {
  return CheckRead(request.event(), X11Input::kMouse);
}

void NativeInput::Take(const rpc::NativeMouseEventRequest& request,
                       double scale_factor) {
  const X11Event event = Read(request.event(), X11Input::kMouse);
  const rpc::InputInfo input = InfoOf(request.event(), event);
  rpc::PointerState pointer;
  SetPositions(request.event(), event, scale_factor, pointer.mutable_position(),
               pointer.mutable_screen_position());
  pointer.set_pointer_type(rpc::POINTER_TYPE_MOUSE);
  pointer.set_buttons(pressed_ |
                      orvane::host::ButtonsOfX11State(event.buttons));

  const rpc::MouseButton button = ButtonOfX11(event.detail);
  if (event.kind == X11EventKind::kButtonPress) {
    if (button == rpc::MOUSE_BUTTON_UNSPECIFIED) {
      TurnWheel(event, input, pointer);
    } else {
      PressButton(event, button, input, std::move(pointer));
    }
  } else if (event.kind == X11EventKind::kButtonRelease) {
    ReleaseButton(button, input, std::move(pointer));
  } else if (event.kind == X11EventKind::kMotion) {
    if (pointer.buttons() == 0) {
      rpc::MouseMoveRequest move;
      *move.mutable_input() = input;
      *move.mutable_pointer() = std::move(pointer);
      page_->MouseMove(move);
    } else {
      rpc::MouseDragRequest drag;
      *drag.mutable_input() = input;
      *drag.mutable_pointer() = std::move(pointer);
      page_->MouseDrag(drag);
    }
  } else if (event.is_by_grab) {
    return;
  } else if (event.kind == X11EventKind::kEnter) {
    has_left_ = false;
    rpc::MouseEnterRequest enter;
    *enter.mutable_input() = input;
    *enter.mutable_pointer() = std::move(pointer);
    page_->MouseEnter(enter);
  } else if (pressed_ != 0) {
    has_left_ = true;  // The page is told once the button is up.
  } else {
    rpc::MouseExitRequest exit;
    *exit.mutable_input() = input;
    *exit.mutable_pointer() = std::move(pointer);
    page_->MouseExit(exit);
  }
}

void NativeInput::PressButton(const X11Event& event, rpc::MouseButton button,
                              const rpc::InputInfo& input,
                              rpc::PointerState pointer) {
  CountClick(event, button);
  pressed_ |= FlagOf(button);
  pointer.set_buttons(pointer.buttons() | FlagOf(button));
  rpc::MousePressRequest press;
  *press.mutable_input() = input;
  *press.mutable_pointer() = std::move(pointer);
  press.set_button(button);
  press.set_click_count(click_.count);
  page_->MousePress(press);
}

void NativeInput::ReleaseButton(rpc::MouseButton button,
                                const rpc::InputInfo& input,
                                rpc::PointerState pointer) {
  // The wheel comes up too; other buttons may have been pressed elsewhere.
  if ((pressed_ & FlagOf(button)) == 0) return;
  pressed_ &= ~FlagOf(button);
  pointer.set_buttons(pointer.buttons() & ~FlagOf(button));
  rpc::MouseReleaseRequest release;
  *release.mutable_input() = input;
  *release.mutable_pointer() = pointer;
  release.set_button(button);
  release.set_click_count(button == click_.button ? click_.count : 0);
  page_->MouseRelease(release);

  if (pressed_ != 0 || !std::exchange(has_left_, false)) return;
  rpc::MouseExitRequest exit;
  *exit.mutable_input() = input;
  *exit.mutable_pointer() = std::move(pointer);
  page_->MouseExit(exit);
}

void NativeInput::TurnWheel(const X11Event& event, const rpc::InputInfo& input,
                            const rpc::PointerState& pointer) {
  // Up, down, left, right.
  if (event.detail < 4 || event.detail > 7) return;
  const int detents = event.detail % 2 == 0 ? -1 : 1;
  // Shift makes a wheel scroll sideways.
  const bool is_sideways =
      event.detail >= 6 || (input.modifiers() & rpc::MODIFIER_FLAG_SHIFT) != 0;
  rpc::MouseWheelRequest wheel;
  *wheel.mutable_input() = input;
  *wheel.mutable_pointer() = pointer;
  wheel.set_delta_mode(rpc::WHEEL_DELTA_MODE_PIXEL);
  wheel.set_source(rpc::WHEEL_SOURCE_WHEEL);
  if (is_sideways) {
    wheel.set_delta_x(detents * kDipsPerDetent);
    wheel.set_detents_x_120ths(detents * kDetent);
  } else {
    wheel.set_delta_y(detents * kDipsPerDetent);
    wheel.set_detents_y_120ths(detents * kDetent);
  }
  page_->MouseWheel(wheel);
}

void NativeInput::CountClick(const X11Event& event, rpc::MouseButton button) {
  const bool is_in_a_row =
      click_.button == button &&
      event.time_ms - click_.time_ms <= kDoubleClickMs &&  // Wraps around.
      std::abs(event.x - click_.x) <= kDoubleClickDistance &&
      std::abs(event.y - click_.y) <= kDoubleClickDistance;
  click_ = {button, event.x, event.y, event.time_ms,
            is_in_a_row ? click_.count + 1 : 1};
}

void NativeInput::ForgetButtons() {
  pressed_ = 0;
  has_left_ = false;
}

void NativeInput::ForgetHeld() {
  ForgetButtons();
  held_ = {};
}

// Touch

absl::Status NativeInput::Check(const rpc::NativeTouchEventRequest& request) {
  return CheckRead(request.event(), X11Input::kTouch);
}

void NativeInput::Take(const rpc::NativeTouchEventRequest& request,
                       double scale_factor) {
  const X11Event event = Read(request.event(), X11Input::kTouch);
  const auto fill = [&](auto touch) {
    *touch.mutable_input() = InfoOf(request.event(), event);
    rpc::TouchPoint& point = *touch.add_changed_points();
    point.set_id(static_cast<std::int32_t>(event.detail));
    SetPositions(request.event(), event, scale_factor, point.mutable_position(),
                 point.mutable_screen_position());
    return touch;
  };
  if (event.kind == X11EventKind::kTouchBegin) {
    page_->TouchStart(fill(rpc::TouchStartRequest()));
  } else if (event.kind == X11EventKind::kTouchUpdate) {
    page_->TouchMove(fill(rpc::TouchMoveRequest()));
  } else {
    page_->TouchEnd(fill(rpc::TouchEndRequest()));
  }
}

}  // namespace chromium
