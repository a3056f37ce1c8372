#include "engines/chromium/input_commands.h"

#include <optional>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "engines/chromium/json.h"
#include "zimbrel/src/core/common/rpc/testing/text.h"

namespace chromium {
namespace {

using ::orvane::testing::Parsed;

// The members that `expected` has, which are what a test is about.
Json PartOf(const Json& actual, const Json& expected) {
  Json part = Json::object();
  for (const auto& [name, value] : expected.items())
    part[name] = Member(actual, name.c_str());
  return part;
}

#define EXPECT_HAS(actual, ...)                    \
  {                                                \
    const Json expected = __VA_ARGS__;             \
    EXPECT_EQ(PartOf(actual, expected), expected); \
  }

// Keys

TEST(InputCommands, AKeyGoesDownWithoutItsText) {
  const Json down = KeyDown(Parsed<rpc::KeyPressRequest>(
      "key { key: 'a' code: 'KeyA' windows_key_code: 65 native_key_code: 38 }"
      " input { modifiers: 8 }"));
  EXPECT_HAS(down, {{"type", "rawKeyDown"},
                    {"key", "a"},
                    {"code", "KeyA"},
                    {"windowsVirtualKeyCode", 65},
                    {"nativeVirtualKeyCode", 38},
                    {"modifiers", 8},
                    {"autoRepeat", false}});
  EXPECT_FALSE(down.contains("text"));
}

TEST(InputCommands, KeyCodesAreDerivedFromNames) {
  for (const auto& [name, code] : {std::pair{"Backspace", 8},
                                   {"Tab", 9},
                                   {"Enter", 13},
                                   {" ", 32},
                                   {"ArrowLeft", 37},
                                   {"Delete", 46},
                                   {"a", 65},
                                   {"7", 55},
                                   {"F5", 116}}) {
    rpc::KeyPressRequest event;
    event.mutable_key()->set_key(name);
    EXPECT_HAS(KeyDown(event), {{"windowsVirtualKeyCode", code}});
  }
}

TEST(InputCommands, LocksAndAltGrAreNotTheEngines) {
  EXPECT_EQ(EngineModifiers(1 | 2 | 4 | 8 | 16 | 32 | 128), 15);
}

TEST(InputCommands, LocationsCountFrom0) {
  EXPECT_HAS(KeyUp(Parsed<rpc::KeyReleaseRequest>(
                 "key { key: 'Shift' location: KEY_LOCATION_RIGHT }")),
             {{"type", "keyUp"}, {"location", 2}, {"isKeypad", false}});
  EXPECT_HAS(KeyUp(Parsed<rpc::KeyReleaseRequest>(
                 "key { key: '7' location: KEY_LOCATION_NUMPAD }")),
             {{"location", 3}, {"isKeypad", true}});
}

TEST(InputCommands, AKeyThatComposesIsSaidToProcess) {
  EXPECT_HAS(KeyDown(Parsed<rpc::KeyPressRequest>(
                 "key { key: 'a' code: 'KeyA' } is_composing: true")),
             {{"key", "Process"}, {"windowsVirtualKeyCode", 229}});
}

TEST(InputCommands, TextIsEnteredUnderAnyModifier) {
  EXPECT_HAS(KeyText(Parsed<rpc::KeyTypeRequest>(
                 "key { key: '@' } text: '@' input { modifiers: 139 }")),
             {{"type", "char"},
              {"text", "@"},
              {"unmodifiedText", "@"},
              {"modifiers", 8}});
}

// Mouse

TEST(InputCommands, APressTellsItsButtonAndAllThatAreHeld) {
  EXPECT_HAS(MousePressed(Parsed<rpc::MousePressRequest>(
                 "pointer { position { x: 1.5 y: 2 } buttons: 3 }"
                 " button: MOUSE_BUTTON_SECONDARY click_count: 2")),
             {{"type", "mousePressed"},
              {"x", 1.5},
              {"y", 2.0},
              {"button", "right"},
              {"buttons", 3},
              {"clickCount", 2},
              {"force", 0.5}});
}

TEST(InputCommands, AMoveTellsAHeldButton) {
  const auto pointer = Parsed<rpc::PointerState>("buttons: 4");
  EXPECT_HAS(MouseMoved(pointer, {}), {{"button", "middle"}, {"buttons", 4}});
  const Json lone = MouseMoved({}, {});
  EXPECT_HAS(lone, {{"button", "none"}, {"buttons", 0}});
  EXPECT_FALSE(lone.contains("force"));
}

TEST(InputCommands, APenTellsHowItIsHeld) {
  const Json moved =
      MouseMoved(Parsed<rpc::PointerState>(
                     "pointer_type: POINTER_TYPE_PEN pressure: 0.25"
                     " tilt_x_deg: 10 tilt_y_deg: -20 twist_deg: 30"),
                 {});
  EXPECT_HAS(moved, {{"pointerType", "pen"},
                     {"force", 0.25},
                     {"tiltX", 10},
                     {"tiltY", -20},
                     {"twist", 30}});
}

TEST(InputCommands, TheWheelTurnsInDips) {
  const auto wheel = [](const std::string& mode) {
    return MouseWheel(Parsed<rpc::MouseWheelRequest>(
                          "delta_x: 1 delta_y: -3 delta_mode: " + mode),
                      500);
  };
  EXPECT_HAS(*wheel("WHEEL_DELTA_MODE_PIXEL"),
             {{"deltaX", 1.0}, {"deltaY", -3.0}});
  EXPECT_HAS(*wheel("WHEEL_DELTA_MODE_LINE"),
             {{"deltaX", 40.0}, {"deltaY", -120.0}});
  EXPECT_HAS(*wheel("WHEEL_DELTA_MODE_PAGE"),
             {{"deltaX", 500.0}, {"deltaY", -1500.0}});
}

// One of the numbers below made the engine take no more mouse input, and others
// made it refuse the command, the release of a button too.
TEST(InputCommands, NumbersThatTheEngineDoesNotTakeAreBounded) {
  const std::string pointer =
      "pointer { position { x: 1e308 y: -inf } buttons: 4294967295"
      "  pressure: nan tilt_x_deg: 2147483647 twist_deg: 4294967295"
      "  tangential_pressure: inf pointer_type: POINTER_TYPE_PEN } ";
  EXPECT_HAS(MousePressed(Parsed<rpc::MousePressRequest>(
                 pointer + "button: MOUSE_BUTTON_PRIMARY"
                           " click_count: 4294967295")),
             {{"x", 1e6},
              {"y", -1e6},
              {"buttons", 31},
              {"force", 0.0},
              {"tiltX", 90},
              {"twist", 255},
              {"tangentialPressure", 1.0},
              {"clickCount", 100}});
  EXPECT_HAS(
      MouseReleased(Parsed<rpc::MouseReleaseRequest>(
          "pointer { position { x: nan y: 5 } } button: MOUSE_BUTTON_PRIMARY")),
      {{"x", -1e6}, {"y", 5.0}});
  EXPECT_HAS(*MouseWheel(Parsed<rpc::MouseWheelRequest>(
                             "delta_x: 1e308 delta_y: -3"
                             " delta_mode: WHEEL_DELTA_MODE_PAGE"),
                         1e300),
             {{"deltaX", 1e6}, {"deltaY", -1e6}});
  EXPECT_HAS(
      KeyDown(Parsed<rpc::KeyPressRequest>(
          "key { key: 'a' windows_key_code: 4294967295"
          "  native_key_code: 4294967295 }")),
      {{"windowsVirtualKeyCode", 65}, {"nativeVirtualKeyCode", nullptr}});
  const auto touch = Parsed<rpc::TouchStartRequest>(
      "changed_points { id: -1 position { x: inf y: nan } radius_x_dip: 1e308"
      "  radius_y_dip: nan rotation_deg: nan force: inf }");
  EXPECT_HAS(
      Member(*Fingers().Start(touch.changed_points(), {}), "touchPoints")[0],
      {{"x", 1e6},
       {"y", -1e6},
       {"radiusX", 1e6},
       {"radiusY", nullptr},
       {"rotationAngle", -360.0},
       {"force", 1.0}});
}

TEST(InputCommands, AnEventOfTheFutureIsOneOfNow) {
  const auto timestamp = [](const std::string& time) {
    return Number(KeyDown(Parsed<rpc::KeyPressRequest>(
                      "key { key: 'a' } input { time_ns: " + time + " }")),
                  "timestamp");
  };
  const double now = timestamp("9223372036854775807");
  EXPECT_GT(now, timestamp("1"));
  EXPECT_LT(now, timestamp("9223372036854775807") + 1);
  EXPECT_LT(now, 1e11);
}

TEST(InputCommands, AWheelThatDoesNotTurnIsNotSent) {
  EXPECT_EQ(MouseWheel(Parsed<rpc::MouseWheelRequest>("delta_y: nan"), 100),
            std::nullopt);

  EXPECT_EQ(MouseWheel(Parsed<rpc::MouseWheelRequest>(
                           "phase: WHEEL_PHASE_ENDED delta_z: 1"),
                       500),
            std::nullopt);
}

// Touch

Fingers::Points Points(const std::string& ids) {
  return Parsed<rpc::TouchStartRequest>(ids).changed_points();
}

TEST(Fingers, AreNumberedFrom0WhateverTheHostCallsThem) {
  Fingers fingers;
  const auto start = fingers.Start(
      Points("changed_points { id: 2147483647 position { x: 1 y: 2 } }"
             "changed_points { id: -5 radius_x_dip: 3 force: 0.5 }"),
      {});
  ASSERT_TRUE(start.has_value());
  EXPECT_HAS((*start)["touchPoints"][0], {{"id", 0}, {"x", 1.0}, {"y", 2.0}});
  EXPECT_HAS((*start)["touchPoints"][1],
             {{"id", 1}, {"radiusX", 3.0}, {"force", 0.5}});
  const auto move = fingers.Move(Points("changed_points { id: -5 }"), {});
  ASSERT_TRUE(move.has_value());
  EXPECT_HAS((*move)["touchPoints"][0], {{"id", 1}});
}

TEST(Fingers, ALiftedFingersNumberIsUsedAgain) {
  Fingers fingers;
  fingers.Start(Points("changed_points { id: 1 } changed_points { id: 2 }"),
                {});
  const auto end = fingers.End(Points("changed_points { id: 1 }"), {});
  ASSERT_TRUE(end.has_value());
  EXPECT_HAS(*end, {{"type", "touchEnd"}});
  EXPECT_HAS((*end)["touchPoints"][0], {{"id", 0}});
  const auto start = fingers.Start(Points("changed_points { id: 3 }"), {});
  EXPECT_HAS((*start)["touchPoints"][0], {{"id", 0}});
}

TEST(Fingers, The17thDoesNothing) {
  Fingers fingers;
  for (int id = 0; id < 16; ++id) {
    EXPECT_TRUE(fingers.Start(
        Points("changed_points { id: " + std::to_string(id) + " }"), {}));
  }
  EXPECT_FALSE(fingers.Start(Points("changed_points { id: 16 }"), {}));
  EXPECT_FALSE(fingers.Move(Points("changed_points { id: 16 }"), {}));
  EXPECT_FALSE(fingers.End(Points("changed_points { id: 16 }"), {}));
}

TEST(Fingers, ACancelIsForAllAndTheOthersDoNothingAnyMore) {
  Fingers fingers;
  fingers.Start(Points("changed_points { id: 1 } changed_points { id: 2 }"),
                {});
  const auto cancel = fingers.Cancel(Points("changed_points { id: 1 }"));
  ASSERT_TRUE(cancel.has_value());
  EXPECT_EQ((*cancel)["touchPoints"], Json::array());
  EXPECT_FALSE(fingers.Move(Points("changed_points { id: 2 }"), {}));
  EXPECT_FALSE(fingers.Cancel(Points("changed_points { id: 2 }")));
  EXPECT_TRUE(fingers.Start(Points("changed_points { id: 2 }"), {}));
}

}  // namespace
}  // namespace chromium
