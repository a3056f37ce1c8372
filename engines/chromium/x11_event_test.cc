// Events byte for byte, as Xlib lays them out on a 64-bit machine.

#include "engines/chromium/x11_event.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

#include "absl/strings/escaping.h"
#include "absl/strings/string_view.h"
#include "gtest/gtest.h"

#include "engines/chromium/x11_event_fixture.h"

namespace chromium {
namespace {

using testing::Core;
using testing::kCoreBytes;
using testing::kXiBytes;
using testing::kXiCrossingBytes;
using testing::Poke;
using testing::Xi;
using testing::XiCrossing;

std::string FromHex(absl::string_view digits) {
  std::string bytes;
  EXPECT_TRUE(absl::HexStringToBytes(digits, &bytes));
  return bytes;
}

std::string Message(const std::string& payload, X11Input input) {
  return std::string(ReadX11Event(payload, input).status().message());
}

std::string XiKey(std::uint32_t key_code) {
  return Xi(testing::kKeyPress, {.detail = key_code});
}

// A host's own memory: the H key goes down under Num Lock and the second
// layout, at 120, 48 in its window and 920, 348 on the screen.
TEST(X11Event, ReadsTheBytesOfAKeyEvent) {
  std::string bytes = FromHex(
      "0200000000000000"    // type
      "6712000000000000"    // serial
      "0000000000000000"    // send_event
      "70aa5b0c8f550000"    // display
      "0100000200000000"    // window
      "ee01000000000000"    // root
      "0000000000000000"    // subwindow
      "3a430f0000000000"    // time
      "7800000030000000"    // x, y
      "980300005c010000"    // x_root, y_root
      "102000002b000000"    // state, keycode
      "0100000000000000");  // same_screen
  bytes.resize(kCoreBytes, '\0');
  const auto event = ReadX11Event(bytes, X11Input::kKeys);
  ASSERT_TRUE(event.ok()) << event.status();
  EXPECT_EQ(event->kind, X11EventKind::kKeyPress);
  EXPECT_EQ(event->detail, 43u);
  EXPECT_EQ(event->x, 120);
  EXPECT_EQ(event->y, 48);
  EXPECT_EQ(event->root_x, 920);
  EXPECT_EQ(event->root_y, 348);
  EXPECT_EQ(event->modifiers, 0x10u);
  EXPECT_EQ(event->group, 1u);
  EXPECT_EQ(event->buttons, 0u);
  EXPECT_EQ(event->time_ms, 0xf433au);
}

// A finger comes down at 17.75, 84.5.
TEST(X11Event, ReadsTheBytesOfAnXInput2Event) {
  const std::string bytes = FromHex(
      "2300000000000000"                    // type
      "6912000000000000"                    // serial
      "0000000000000000"                    // send_event
      "70aa5b0c8f550000"                    // display
      "8300000012000000"                    // extension, evtype
      "9e430f0000000000"                    // time
      "0b0000000c000000"                    // deviceid, sourceid
      "0700000000000000"                    // detail
      "ee01000000000000"                    // root
      "0100000200000000"                    // event
      "0000000000000000"                    // child
      "0000000000c08c400000000000807840"    // root_x, root_y
      "0000000000c031400000000000205540"    // event_x, event_y
      "0000000000000000"                    // flags
      "0100000000000000b8aa5b0c8f550000"    // buttons
      "0000000000000000b9aa5b0c8f550000"    // valuators
      "c0aa5b0c8f550000"                    // their values
      "00000000000000000000000005000000"    // mods
      "00000000000000000000000002000000");  // group
  ASSERT_EQ(bytes.size(), kXiBytes);
  const auto event = ReadX11Event(bytes, X11Input::kTouch);
  ASSERT_TRUE(event.ok()) << event.status();
  EXPECT_EQ(event->kind, X11EventKind::kTouchBegin);
  EXPECT_EQ(event->detail, 7u);
  EXPECT_EQ(event->x, 17.75);
  EXPECT_EQ(event->y, 84.5);
  EXPECT_EQ(event->root_x, 920);
  EXPECT_EQ(event->root_y, 392);
  EXPECT_EQ(event->modifiers, 5u);
  EXPECT_EQ(event->group, 2u);
  EXPECT_EQ(event->time_ms, 0xf439eu);
  EXPECT_EQ(event->device, 12u);
}

TEST(X11Event, ReadsTheButtonsThatAreHeld) {
  EXPECT_EQ(ReadX11Event(Core(6, {.state = 0x500}), X11Input::kMouse)->buttons,
            0x500u);
}

TEST(X11Event, TellsACrossingByAGrabFromAMovement) {
  std::string core = Core(8, {.state = 0x104});
  const auto left = ReadX11Event(core, X11Input::kMouse);
  EXPECT_EQ(left->kind, X11EventKind::kLeave);
  EXPECT_EQ(left->modifiers, 4u);
  EXPECT_EQ(left->buttons, 0x100u);
  EXPECT_FALSE(left->is_by_grab);
  Poke(core, 80, std::int32_t{1});
  EXPECT_TRUE(ReadX11Event(core, X11Input::kMouse)->is_by_grab);

  std::string xi = XiCrossing(7, {.state = 4});
  const auto entered = ReadX11Event(xi, X11Input::kMouse);
  EXPECT_EQ(entered->kind, X11EventKind::kEnter);
  EXPECT_EQ(entered->modifiers, 4u);
  EXPECT_FALSE(entered->is_by_grab);
  Poke(xi, 120, std::int32_t{2});
  EXPECT_TRUE(ReadX11Event(xi, X11Input::kMouse)->is_by_grab);
}

TEST(X11Event, KnowsARepetitionOfXInput2) {
  std::string bytes = XiKey(38);
  EXPECT_FALSE(ReadX11Event(bytes, X11Input::kKeys)->is_repeat);
  Poke(bytes, 120, std::int32_t{1 << 16});
  EXPECT_TRUE(ReadX11Event(bytes, X11Input::kKeys)->is_repeat);
}

TEST(X11Event, NeedsNoAlignment) {
  std::string bytes = "x" + XiKey(38);
  EXPECT_EQ(
      ReadX11Event(absl::string_view(bytes).substr(1), X11Input::kKeys)->detail,
      38u);
}

// What is refused

TEST(X11Event, RefusesEveryOtherLength) {
  const std::string whole = Core(2);
  for (std::size_t length = 0; length < kXiCrossingBytes; ++length) {
    EXPECT_FALSE(ReadX11Event(whole.substr(0, length), X11Input::kKeys).ok());
  }
  EXPECT_EQ(Message("", X11Input::kKeys),
            "the event has 0 bytes; the shortest X11 event has 184");
  EXPECT_EQ(Message(whole.substr(0, 191), X11Input::kKeys),
            "the event has 191 bytes; an XEvent has 192");
  EXPECT_EQ(Message(whole + '\0', X11Input::kKeys),
            "the event has 193 bytes; an XEvent has 192");
  EXPECT_EQ(Message(Xi(4).substr(0, kCoreBytes), X11Input::kMouse),
            "the event has 192 bytes; an XIDeviceEvent has 200");
  EXPECT_EQ(Message(Xi(7), X11Input::kMouse),
            "the event has 200 bytes; an XIEnterEvent has 184");
  EXPECT_EQ(Message(Xi(18) + std::string(1 << 20, 'x'), X11Input::kTouch),
            "the event has 1048776 bytes; an XIDeviceEvent has 200");
}

TEST(X11Event, RefusesOtherKindsOfEvents) {
  EXPECT_EQ(Message(Core(4), X11Input::kKeys),
            "the event is of type 4; key events are of type 2 or 3, or of type "
            "35 (XInput 2) and evtype 2 or 3");
  EXPECT_EQ(Message(Core(33), X11Input::kMouse),
            "the event is of type 33; mouse events are of type 4 to 8, or of "
            "type 35 (XInput 2) and evtype 4 to 8");
  EXPECT_EQ(Message(Core(18), X11Input::kTouch),
            "the event is of type 18; touch events are of type 35 (XInput 2) "
            "and evtype 18 to 20");
  EXPECT_EQ(Message(Xi(13), X11Input::kKeys),
            "the event is of type 35 and evtype 13; key events are of type 2 "
            "or 3, or of type 35 (XInput 2) and evtype 2 or 3");
  EXPECT_FALSE(ReadX11Event(std::string(kCoreBytes, '\xff'),  // Type -1.
                            X11Input::kMouse)
                   .ok());
}

TEST(X11Event, RefusesPositionsThatAreNone) {
  constexpr double kNone[] = {std::numeric_limits<double>::quiet_NaN(),
                              std::numeric_limits<double>::infinity()};
  for (const std::size_t offset : {88, 96, 104, 112}) {
    for (const double none : kNone) {
      std::string bytes = Xi(6);
      Poke(bytes, offset, none);
      EXPECT_FALSE(ReadX11Event(bytes, X11Input::kMouse).ok()) << offset;
    }
  }
  std::string bytes = Xi(6);
  Poke(bytes, 104, kNone[1]);
  EXPECT_EQ(Message(bytes, X11Input::kMouse),
            "the event's position has the coordinate inf");
}

TEST(X11Event, RefusesKeyCodesThatNoKeyboardHas) {
  for (const std::uint32_t key_code : {0u, 7u, 256u, 1u << 30, ~0u})
    EXPECT_FALSE(ReadX11Event(XiKey(key_code), X11Input::kKeys).ok());
  EXPECT_EQ(Message(XiKey(7), X11Input::kKeys),
            "the event is about key code 7; key codes are from 8 to 255");
  EXPECT_TRUE(ReadX11Event(XiKey(255), X11Input::kKeys).ok());
}

}  // namespace
}  // namespace chromium
