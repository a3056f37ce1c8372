#include "engines/chromium/input_commands.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <string>
#include <utility>

#include "absl/strings/ascii.h"
#include "absl/strings/string_view.h"

namespace chromium {
namespace {

constexpr double kDipsPerLine = 40;

// The first four flags are those of the engine. It has none for the
// locks and AltGr.
constexpr std::uint32_t kEngineModifiers = 15;

constexpr int kMaxFingers = 16;

constexpr double kNanosecondsPerSecond = 1e9;

// What windowsVirtualKeyCode is while an input method takes the keys.
constexpr int kComposingKeyCode = 229;

// Where the pointer is when it is nowhere in the view.
constexpr double kOutside = -1;

// In DIPs. An engine that is sent a number near the largest takes no more mouse
// input for that page.
constexpr double kFarthest = 1e6;

constexpr std::uint32_t kMaxClickCount = 100;
constexpr std::uint32_t kMaxKeyCode = 0xffff;

// The codes of keys whose names pages act on, for hosts that send the names
// alone.
constexpr std::pair<absl::string_view, int> kKeyCodes[] = {
    {"Backspace", 8},    {"Tab", 9},         {"Enter", 13},
    {"Shift", 16},       {"Control", 17},    {"Alt", 18},
    {"Pause", 19},       {"CapsLock", 20},   {"Escape", 27},
    {" ", 32},           {"PageUp", 33},     {"PageDown", 34},
    {"End", 35},         {"Home", 36},       {"ArrowLeft", 37},
    {"ArrowUp", 38},     {"ArrowRight", 39}, {"ArrowDown", 40},
    {"Insert", 45},      {"Delete", 46},     {"Meta", 91},
    {"ContextMenu", 93}, {"F1", 112},        {"F2", 113},
    {"F3", 114},         {"F4", 115},        {"F5", 116},
    {"F6", 117},         {"F7", 118},        {"F8", 119},
    {"F9", 120},         {"F10", 121},       {"F11", 122},
    {"F12", 123},        {"NumLock", 144},   {"ScrollLock", 145},
};

// One that is not a number becomes the lowest: the engine refuses a command
// with it, and a button or finger whose release is refused would be held for
// ever.
template <typename Number>
Number Within(Number low, Number value, Number high) {
  return value >= low ? std::min(value, high) : low;
}

int KeyCodeOf(const rpc::Key& key) {
  if (key.windows_key_code() != 0 && key.windows_key_code() <= kMaxKeyCode)
    return static_cast<int>(key.windows_key_code());
  if (key.key().size() == 1 &&
      absl::ascii_isalnum(static_cast<unsigned char>(key.key()[0]))) {
    return absl::ascii_toupper(static_cast<unsigned char>(key.key()[0]));
  }
  for (const auto& [name, code] : kKeyCodes) {
    if (name == key.key()) return code;
  }
  return 0;
}

const char* NameOf(rpc::MouseButton button) {
  switch (button) {
    case rpc::MOUSE_BUTTON_PRIMARY:
      return "left";
    case rpc::MOUSE_BUTTON_AUXILIARY:
      return "middle";
    case rpc::MOUSE_BUTTON_SECONDARY:
      return "right";
    case rpc::MOUSE_BUTTON_BACK:
      return "back";
    case rpc::MOUSE_BUTTON_FORWARD:
      return "forward";
    default:
      return "none";
  }
}

// The button that the page takes a movement for.
const char* HeldButton(std::uint32_t buttons) {
  if (buttons & rpc::MOUSE_BUTTON_FLAG_PRIMARY) return "left";
  if (buttons & rpc::MOUSE_BUTTON_FLAG_SECONDARY) return "right";
  if (buttons & rpc::MOUSE_BUTTON_FLAG_AUXILIARY) return "middle";
  if (buttons & rpc::MOUSE_BUTTON_FLAG_BACK) return "back";
  if (buttons & rpc::MOUSE_BUTTON_FLAG_FORWARD) return "forward";
  return "none";
}

Json NewEvent(const char* type, const rpc::InputInfo& input) {
  Json event = {{"type", type},
                {"modifiers", EngineModifiers(input.modifiers())}};
  if (input.time_ns() > 0) {
    // The engine counts in seconds since 1970, hosts on the monotonic clock.
    using std::chrono::nanoseconds;
    const auto monotonic = std::chrono::duration_cast<nanoseconds>(
        std::chrono::steady_clock::now().time_since_epoch());
    const auto now = std::chrono::duration_cast<nanoseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    const std::int64_t age =
        monotonic.count() -
        std::min<std::int64_t>(input.time_ns(), monotonic.count());
    event["timestamp"] =
        static_cast<double>(now.count() - age) / kNanosecondsPerSecond;
  }
  return event;
}

Json NewKeyEvent(const char* type, const rpc::Key& key,
                 const rpc::InputInfo& input, bool is_system_key) {
  Json event = NewEvent(type, input);
  if (!key.key().empty()) event["key"] = key.key();
  if (!key.code().empty()) event["code"] = key.code();
  event["windowsVirtualKeyCode"] = KeyCodeOf(key);
  if (key.has_native_key_code() && key.native_key_code() <= kMaxKeyCode)
    event["nativeVirtualKeyCode"] = key.native_key_code();
  if (key.location() > rpc::KEY_LOCATION_STANDARD &&
      rpc::KeyLocation_IsValid(key.location())) {
    event["location"] = static_cast<int>(key.location()) - 1;
    event["isKeypad"] = key.location() == rpc::KEY_LOCATION_NUMPAD;
  }
  event["isSystemKey"] = is_system_key;
  return event;
}

Json NewMouseEvent(const char* type, const rpc::PointerState& pointer,
                   const rpc::InputInfo& input) {
  Json event = NewEvent(type, input);
  event["x"] = EngineCoordinate(pointer.position().x());
  event["y"] = EngineCoordinate(pointer.position().y());
  event["buttons"] = pointer.buttons() & 31;
  if (pointer.pointer_type() == rpc::POINTER_TYPE_PEN ||
      pointer.pointer_type() == rpc::POINTER_TYPE_ERASER) {
    event["pointerType"] = "pen";
    event["tiltX"] = std::clamp(pointer.tilt_x_deg(), -90, 90);
    event["tiltY"] = std::clamp(pointer.tilt_y_deg(), -90, 90);
    event["twist"] = pointer.twist_deg() % 360;
    event["tangentialPressure"] =
        Within(-1.0F, pointer.tangential_pressure(), 1.0F);
  }
  if (pointer.has_pressure()) {
    event["force"] = Within(0.0F, pointer.pressure(), 1.0F);
  } else if (pointer.buttons() != 0) {
    event["force"] = 0.5;  // As the DOM has it for devices that sense none.
  }
  return event;
}

}  // namespace

double EngineCoordinate(double dips) {
  return Within(-kFarthest, dips, kFarthest);
}

int EngineModifiers(std::uint32_t modifiers) {
  return static_cast<int>(modifiers & kEngineModifiers);
}

Json KeyDown(const rpc::KeyPressRequest& event) {
  Json command = NewKeyEvent("rawKeyDown", event.key(), event.input(),
                             event.is_system_key());
  command["autoRepeat"] = event.is_auto_repeat();
  if (event.is_composing()) {
    command["windowsVirtualKeyCode"] = kComposingKeyCode;
    command["key"] = "Process";
  }
  return command;
}

Json KeyUp(const rpc::KeyReleaseRequest& event) {
  return NewKeyEvent("keyUp", event.key(), event.input(),
                     event.is_system_key());
}

Json KeyText(const rpc::KeyTypeRequest& event) {
  Json command =
      NewKeyEvent("char", event.key(), event.input(), event.is_system_key());
  command["text"] = event.text();
  command["unmodifiedText"] =
      event.unmodified_text().empty() ? event.text() : event.unmodified_text();
  command["autoRepeat"] = event.is_auto_repeat();
  // Under control or alt the engine would enter nothing, but the host has
  // decided that the key typed this.
  command["modifiers"] =
      EngineModifiers(event.input().modifiers() & rpc::MODIFIER_FLAG_SHIFT);
  return command;
}

Json MousePressed(const rpc::MousePressRequest& event) {
  Json command = NewMouseEvent("mousePressed", event.pointer(), event.input());
  command["button"] = NameOf(event.button());
  command["clickCount"] = std::min(event.click_count(), kMaxClickCount);
  return command;
}

Json MouseReleased(const rpc::MouseReleaseRequest& event) {
  Json command = NewMouseEvent("mouseReleased", event.pointer(), event.input());
  command["button"] = NameOf(event.button());
  command["clickCount"] = std::min(event.click_count(), kMaxClickCount);
  return command;
}

Json MouseMoved(const rpc::PointerState& pointer, const rpc::InputInfo& input) {
  Json command = NewMouseEvent("mouseMoved", pointer, input);
  command["button"] = HeldButton(pointer.buttons());
  return command;
}

Json MouseGone() {
  return {{"type", "mouseMoved"}, {"x", kOutside}, {"y", kOutside}};
}

std::optional<Json> MouseWheel(const rpc::MouseWheelRequest& event,
                               double view_height) {
  if (event.delta_x() == 0 && event.delta_y() == 0) return std::nullopt;
  if (std::isnan(event.delta_x()) || std::isnan(event.delta_y()))
    return std::nullopt;
  double dips = 1;
  if (event.delta_mode() == rpc::WHEEL_DELTA_MODE_LINE) dips = kDipsPerLine;
  if (event.delta_mode() == rpc::WHEEL_DELTA_MODE_PAGE) dips = view_height;
  Json command = NewMouseEvent("mouseWheel", event.pointer(), event.input());
  command["deltaX"] = EngineCoordinate(event.delta_x() * dips);
  command["deltaY"] = EngineCoordinate(event.delta_y() * dips);
  return command;
}

std::optional<Json> Fingers::Start(const Points& changed,
                                   const rpc::InputInfo& input) {
  for (const rpc::TouchPoint& point : changed) {
    int number = 0;
    while (
        number < kMaxFingers &&
        std::find_if(numbers_.begin(), numbers_.end(), [&](const auto& used) {
          return used.second == number;
        }) != numbers_.end()) {
      ++number;
    }
    if (number < kMaxFingers) numbers_.emplace(point.id(), number);
  }
  return Command("touchStart", changed, input);
}

std::optional<Json> Fingers::Move(const Points& changed,
                                  const rpc::InputInfo& input) {
  return Command("touchMove", changed, input);
}

std::optional<Json> Fingers::End(const Points& changed,
                                 const rpc::InputInfo& input) {
  std::optional<Json> command = Command("touchEnd", changed, input);
  for (const rpc::TouchPoint& point : changed) numbers_.erase(point.id());
  return command;
}

std::optional<Json> Fingers::Cancel(const Points& changed) {
  bool is_down = false;
  for (const rpc::TouchPoint& point : changed)
    is_down = is_down || numbers_.contains(point.id());
  if (!is_down) return std::nullopt;
  numbers_.clear();
  return Json{{"type", "touchCancel"}, {"touchPoints", Json::array()}};
}

std::optional<Json> Fingers::Command(const char* type, const Points& changed,
                                     const rpc::InputInfo& input) const {
  Json points = Json::array();
  for (const rpc::TouchPoint& point : changed) {
    const auto found = numbers_.find(point.id());
    if (found == numbers_.end()) continue;
    Json engine_point = {
        {"id", found->second},
        {"x", EngineCoordinate(point.position().x())},
        {"y", EngineCoordinate(point.position().y())},
        {"rotationAngle", Within(-360.0F, point.rotation_deg(), 360.0F)}};
    // The engine has values of its own for what the device does not tell.
    if (point.radius_x_dip() > 0)
      engine_point["radiusX"] = Within(0.0, point.radius_x_dip(), kFarthest);
    if (point.radius_y_dip() > 0)
      engine_point["radiusY"] = Within(0.0, point.radius_y_dip(), kFarthest);
    if (point.has_force())
      engine_point["force"] = Within(0.0F, point.force(), 1.0F);
    points.push_back(std::move(engine_point));
  }
  if (points.empty()) return std::nullopt;
  Json command = NewEvent(type, input);
  command["touchPoints"] = std::move(points);
  return command;
}

}  // namespace chromium
