// Input events of X11, read from the bytes that Xlib has in memory.

#ifndef ENGINES_CHROMIUM_X11_EVENT_H_
#define ENGINES_CHROMIUM_X11_EVENT_H_

#include <cstdint>

#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"

namespace chromium {

enum class X11EventKind {
  kKeyPress,
  kKeyRelease,
  kButtonPress,
  kButtonRelease,
  kMotion,
  kEnter,
  kLeave,
  kTouchBegin,
  kTouchUpdate,
  kTouchEnd,
};

// What the events of the core protocol and of XInput 2 have in common.
struct X11Event {
  X11EventKind kind;
  std::uint32_t detail = 0;  // The key code, the button or the finger.

  // In pixels of the window, and of the screen.
  double x = 0;
  double y = 0;
  double root_x = 0;
  double root_y = 0;

  // Before the event, by the bits of an X11 state. XInput 2 has the buttons
  // behind a pointer into the host's memory, so there they stay 0.
  std::uint32_t modifiers = 0;
  std::uint32_t buttons = 0;

  // Which one of the keyboard's layouts is in effect.
  std::uint32_t group = 0;

  std::uint32_t time_ms = 0;  // Wraps around.
  std::uint32_t device = 0;   // Of XInput 2.
  bool is_repeat = false;     // Told by XInput 2 alone.

  // An entering or leaving that is no movement: something has grabbed the
  // pointer or let it go.
  bool is_by_grab = false;
};

enum class X11Input { kKeys, kMouse, kTouch };

// The payload is an XEvent, or the cookie data of an XInput 2 event: an
// XIDeviceEvent, or an XIEnterEvent for entering and leaving. What its pointers
// point to is in the host's memory and is not looked at.
//
// kInvalidArgument if it has not the length of such an event, is none of that
// kind of input, or has values that X11 never has.
absl::StatusOr<X11Event> ReadX11Event(absl::string_view payload,
                                      X11Input input);

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_X11_EVENT_H_
