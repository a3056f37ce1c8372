#include "engines/chromium/x11_event.h"

#include <cmath>
#include <cstddef>
#include <cstring>
#include <optional>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"

namespace chromium {
namespace {

// The structures of Xlib.h and XInput2.h, with the types that those have. Their
// headers are not included, since they define words like Status and None.

// XKeyEvent, XButtonEvent and XMotionEvent up to what they have in common.
struct CoreEvent {
  int type;
  unsigned long serial;
  int send_event;
  void* display;
  unsigned long window;
  unsigned long root;
  unsigned long subwindow;
  unsigned long time;
  int x;
  int y;
  int x_root;
  int y_root;
  unsigned int state;
  unsigned int detail;
  int same_screen;
};

struct CoreCrossing {
  int type;
  unsigned long serial;
  int send_event;
  void* display;
  unsigned long window;
  unsigned long root;
  unsigned long subwindow;
  unsigned long time;
  int x;
  int y;
  int x_root;
  int y_root;
  int mode;
  int detail;
  int same_screen;
  int focus;
  unsigned int state;
};

union CoreUnion {
  int type;
  CoreEvent event;
  CoreCrossing crossing;
  long padding[24];
};

struct XiButtons {
  int length;
  unsigned char* mask;
};

struct XiValuators {
  int length;
  unsigned char* mask;
  double* values;
};

struct XiModifiers {
  int base;
  int latched;
  int locked;
  int effective;
};

// What every event of XInput 2 begins with.
struct XiEvent {
  int type;
  unsigned long serial;
  int send_event;
  void* display;
  int extension;
  int evtype;
  unsigned long time;
  int device;
  int source;
  int detail;
  unsigned long root;
  unsigned long event;
  unsigned long child;
  double root_x;
  double root_y;
  double event_x;
  double event_y;
};

struct XiDevice {
  XiEvent head;
  int flags;
  XiButtons buttons;
  XiValuators valuators;
  XiModifiers modifiers;
  XiModifiers group;
};

struct XiCrossing {
  XiEvent head;
  int mode;
  int focus;
  int same_screen;
  XiButtons buttons;
  XiModifiers modifiers;
  XiModifiers group;
};

constexpr int kGenericEvent = 35;
constexpr int kNotifyNormal = 0;
constexpr int kXiKeyRepeat = 1 << 16;

// Of a state: eight modifiers, five buttons, and two bits for the group.
constexpr std::uint32_t kModifiers = 0xff;
constexpr std::uint32_t kButtons = 0x1f00;
constexpr int kFirstGroup = 13;
constexpr std::uint32_t kGroups = 3;

// The protocol's key codes have eight bits and begin here.
constexpr std::uint32_t kFirstKey = 8;
constexpr std::uint32_t kLastKey = 255;

// The numbers of the core protocol up to 8 are those of XInput 2.
std::optional<X11EventKind> KindOf(int number) {
  switch (number) {
    case 2:
      return X11EventKind::kKeyPress;
    case 3:
      return X11EventKind::kKeyRelease;
    case 4:
      return X11EventKind::kButtonPress;
    case 5:
      return X11EventKind::kButtonRelease;
    case 6:
      return X11EventKind::kMotion;
    case 7:
      return X11EventKind::kEnter;
    case 8:
      return X11EventKind::kLeave;
    case 18:
      return X11EventKind::kTouchBegin;
    case 19:
      return X11EventKind::kTouchUpdate;
    case 20:
      return X11EventKind::kTouchEnd;
    default:
      return std::nullopt;
  }
}

X11Input InputOf(X11EventKind kind) {
  switch (kind) {
    case X11EventKind::kKeyPress:
    case X11EventKind::kKeyRelease:
      return X11Input::kKeys;
    case X11EventKind::kTouchBegin:
    case X11EventKind::kTouchUpdate:
    case X11EventKind::kTouchEnd:
      return X11Input::kTouch;
    default:
      return X11Input::kMouse;
  }
}

const char* TypesOf(X11Input input) {
  switch (input) {
    case X11Input::kKeys:
      return "key events are of type 2 or 3, or of type 35 (XInput 2) and "
             "evtype 2 or 3";
    case X11Input::kMouse:
      return "mouse events are of type 4 to 8, or of type 35 (XInput 2) and "
             "evtype 4 to 8";
    case X11Input::kTouch:
      return "touch events are of type 35 (XInput 2) and evtype 18 to 20";
  }
  return "";
}

bool IsCrossing(X11EventKind kind) {
  return kind == X11EventKind::kEnter || kind == X11EventKind::kLeave;
}

// The payload may lie at any address.
template <typename Struct>
Struct As(absl::string_view payload) {
  Struct copy;
  std::memcpy(&copy, payload.data(), sizeof copy);
  return copy;
}

absl::Status CheckLength(absl::string_view payload, const char* name,
                         std::size_t length) {
  if (payload.size() == length) return absl::OkStatus();
  return absl::InvalidArgumentError(absl::StrCat(
      "the event has ", payload.size(), " bytes; an ", name, " has ", length));
}

X11Event FromCore(X11EventKind kind, const CoreUnion& core) {
  X11Event event = {.kind = kind};
  // What both structures have at the same place.
  event.x = core.event.x;
  event.y = core.event.y;
  event.root_x = core.event.x_root;
  event.root_y = core.event.y_root;
  event.time_ms = static_cast<std::uint32_t>(core.event.time);
  std::uint32_t state = core.event.state;
  if (IsCrossing(kind)) {
    state = core.crossing.state;
    event.is_by_grab = core.crossing.mode != kNotifyNormal;
  } else if (kind != X11EventKind::kMotion) {
    event.detail = core.event.detail;
  }
  event.modifiers = state & kModifiers;
  event.buttons = state & kButtons;
  event.group = state >> kFirstGroup & kGroups;
  return event;
}

X11Event FromXi(X11EventKind kind, const XiEvent& head,
                const XiModifiers& modifiers, const XiModifiers& group) {
  X11Event event = {.kind = kind};
  event.detail = static_cast<std::uint32_t>(head.detail);
  event.x = head.event_x;
  event.y = head.event_y;
  event.root_x = head.root_x;
  event.root_y = head.root_y;
  event.modifiers =
      static_cast<std::uint32_t>(modifiers.effective) & kModifiers;
  event.group = static_cast<std::uint32_t>(group.effective) & kGroups;
  event.time_ms = static_cast<std::uint32_t>(head.time);
  event.device = static_cast<std::uint32_t>(head.source);
  return event;
}

absl::Status CheckValues(const X11Event& event) {
  for (const double place : {event.x, event.y, event.root_x, event.root_y}) {
    if (!std::isfinite(place)) {
      return absl::InvalidArgumentError(
          absl::StrCat("the event's position has the coordinate ", place));
    }
  }
  if (InputOf(event.kind) == X11Input::kKeys &&
      (event.detail < kFirstKey || event.detail > kLastKey)) {
    return absl::InvalidArgumentError(
        absl::StrCat("the event is about key code ", event.detail,
                     "; key codes are from ", kFirstKey, " to ", kLastKey));
  }
  return absl::OkStatus();
}

}  // namespace

absl::StatusOr<X11Event> ReadX11Event(absl::string_view payload,
                                      X11Input input) {
  if (payload.size() < sizeof(XiCrossing)) {
    return absl::InvalidArgumentError(absl::StrCat(
        "the event has ", payload.size(), " bytes; the shortest X11 event has ",
        sizeof(XiCrossing)));
  }
  const int type = As<int>(payload);
  const bool is_xi = type == kGenericEvent;
  const int number = is_xi ? As<XiEvent>(payload).evtype : type;
  const std::optional<X11EventKind> kind = KindOf(number);
  if (!kind.has_value() || InputOf(*kind) != input ||
      (input == X11Input::kTouch && !is_xi)) {
    return absl::InvalidArgumentError(
        absl::StrCat("the event is of type ", type,
                     is_xi ? absl::StrCat(" and evtype ", number) : "", "; ",
                     TypesOf(input)));
  }

  X11Event event = {.kind = *kind};
  if (!is_xi) {
    if (absl::Status status = CheckLength(payload, "XEvent", sizeof(CoreUnion));
        !status.ok()) {
      return status;
    }
    event = FromCore(*kind, As<CoreUnion>(payload));
  } else if (IsCrossing(*kind)) {
    if (absl::Status status =
            CheckLength(payload, "XIEnterEvent", sizeof(XiCrossing));
        !status.ok()) {
      return status;
    }
    const auto crossing = As<XiCrossing>(payload);
    event = FromXi(*kind, crossing.head, crossing.modifiers, crossing.group);
    event.is_by_grab = crossing.mode != kNotifyNormal;
  } else {
    if (absl::Status status =
            CheckLength(payload, "XIDeviceEvent", sizeof(XiDevice));
        !status.ok()) {
      return status;
    }
    const auto device = As<XiDevice>(payload);
    event = FromXi(*kind, device.head, device.modifiers, device.group);
    event.is_repeat =
        *kind == X11EventKind::kKeyPress && (device.flags & kXiKeyRepeat) != 0;
  }
  if (absl::Status status = CheckValues(event); !status.ok()) return status;
  return event;
}

}  // namespace chromium
