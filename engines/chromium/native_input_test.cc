#include "engines/chromium/native_input.h"

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "engines/chromium/x11_event_fixture.h"

namespace chromium {
namespace {

using testing::Bytes;
using testing::Core;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::Xi;
using testing::XiCrossing;

// Keys as X11 numbers them, on whatever layout.
constexpr std::uint32_t kA = 38;
constexpr std::uint32_t kE = 26;
constexpr std::uint32_t kY = 29;
constexpr std::uint32_t kReturn = 36;
constexpr std::uint32_t kBackspace = 22;
constexpr std::uint32_t kEqual = 21;  // A dead acute on a German keyboard.
constexpr std::uint32_t kShiftLeft = 50;
constexpr std::uint32_t kShiftRight = 62;

// Bits of a state.
constexpr std::uint32_t kShift = 1;
constexpr std::uint32_t kCapsLock = 2;
constexpr std::uint32_t kControl = 4;
constexpr std::uint32_t kAltGr = 0x80;
constexpr std::uint32_t kButton1 = 0x100;
constexpr std::uint32_t kSecondGroup = 0x2000;

std::string At(const rpc::PointerState& pointer) {
  return absl::StrCat(pointer.position().x(), ",", pointer.position().y(),
                      " buttons ", pointer.buttons());
}

std::string At(const rpc::TouchPoint& point) {
  return absl::StrCat(point.id(), " ", point.position().x(), ",",
                      point.position().y());
}

std::string Of(const rpc::Key& key, const rpc::InputInfo& input) {
  return absl::StrCat(key.key(), " ", key.code(), " ", key.windows_key_code(),
                      " modifiers ", input.modifiers());
}

// Writes down what it is told.
class WritingPage final : public widget_server::AbstractPage {
 public:
  void SetViewport(const widget_server::Viewport&) override {}
  void KeyPress(const rpc::KeyPressRequest& event) override {
    Write(event.is_auto_repeat() ? "repeat " : "press ",
          Of(event.key(), event.input()));
  }
  void KeyRelease(const rpc::KeyReleaseRequest& event) override {
    Write("release ", Of(event.key(), event.input()));
  }
  void KeyType(const rpc::KeyTypeRequest& event) override {
    Write("type ", std::string(event.text()));
  }
  void MousePress(const rpc::MousePressRequest& event) override {
    Write(
        absl::StrCat("press ", event.button(), " x", event.click_count(), " "),
        At(event.pointer()));
  }
  void MouseRelease(const rpc::MouseReleaseRequest& event) override {
    Write(absl::StrCat("release ", event.button(), " "), At(event.pointer()));
  }
  void MouseEnter(const rpc::MouseEnterRequest& event) override {
    Write("enter ", At(event.pointer()));
  }
  void MouseExit(const rpc::MouseExitRequest& event) override {
    Write("exit ", At(event.pointer()));
  }
  void MouseDrag(const rpc::MouseDragRequest& event) override {
    Write("drag ", At(event.pointer()));
  }
  void MouseMove(const rpc::MouseMoveRequest& event) override {
    Write("move ", At(event.pointer()));
  }
  void MouseWheel(const rpc::MouseWheelRequest& event) override {
    Write("wheel ", absl::StrCat(event.delta_x(), ",", event.delta_y()));
  }
  void TouchStart(const rpc::TouchStartRequest& event) override {
    Write("start ", At(event.changed_points(0)));
  }
  void TouchMove(const rpc::TouchMoveRequest& event) override {
    Write("move ", At(event.changed_points(0)));
  }
  void TouchEnd(const rpc::TouchEndRequest& event) override {
    Write("end ", At(event.changed_points(0)));
  }

  std::vector<std::string> Take() { return std::exchange(written_, {}); }

 private:
  void Write(const std::string& what, const std::string& how) {
    written_.push_back(what + how);
  }

  std::vector<std::string> written_;
};

// An American keyboard, a German one as the second group.
class NativeInputTest : public ::testing::Test {
 protected:
  NativeInputTest() {
    ::setenv("XKB_DEFAULT_LAYOUT", "us,de", 1);
    ::setenv("LC_ALL", "en_US.UTF-8", 1);
  }

  void Key(const std::string& payload) {
    rpc::NativeKeyEventRequest request;
    Fill(*request.mutable_event(), payload);
    ASSERT_EQ(input_.Check(request), absl::OkStatus());
    input_.Take(request);
  }
  void PressKey(std::uint32_t code, std::uint32_t state = 0,
                std::uint32_t time = 0) {
    Key(Core(testing::kKeyPress,
             {.detail = code, .state = state, .time = time}));
  }
  void ReleaseKey(std::uint32_t code, std::uint32_t state = 0,
                  std::uint32_t time = 0) {
    Key(Core(testing::kKeyRelease,
             {.detail = code, .state = state, .time = time}));
  }
  void TypeKey(std::uint32_t code, std::uint32_t state = 0) {
    PressKey(code, state, ++time_);
    ReleaseKey(code, state, ++time_);
  }
  // What was typed since the last look.
  std::string Typed() {
    std::string text;
    for (const std::string& line : page_.Take()) {
      if (line.rfind("type ", 0) == 0) text += line.substr(5);
    }
    return text;
  }

  void Mouse(const std::string& payload, double scale = 1) {
    rpc::NativeMouseEventRequest request;
    Fill(*request.mutable_event(), payload);
    ASSERT_EQ(NativeInput::Check(request), absl::OkStatus());
    input_.Take(request, scale);
  }
  void Press(const Bytes& bytes) { Mouse(Core(testing::kButtonPress, bytes)); }
  void Release(const Bytes& bytes) {
    Mouse(Core(testing::kButtonRelease, bytes));
  }

  void Touch(const std::string& payload, double scale = 1) {
    rpc::NativeTouchEventRequest request;
    Fill(*request.mutable_event(), payload);
    ASSERT_EQ(NativeInput::Check(request), absl::OkStatus());
    input_.Take(request, scale);
  }

  void Fill(rpc::NativeEvent& event, const std::string& payload) const {
    event.set_platform(rpc::PLATFORM_X11);
    event.set_payload(payload);
    if (origin_.has_value()) *event.mutable_view_origin() = *origin_;
  }

  std::optional<rpc::PointPx> origin_;
  std::uint32_t time_ = 0;
  WritingPage page_;
  NativeInput input_{&page_};
};

// Keys

TEST_F(NativeInputTest, AKeyIsPressedTypedAndReleased) {
  PressKey(kA);
  ReleaseKey(kA);
  EXPECT_THAT(page_.Take(), ElementsAre("press a KeyA 65 modifiers 0", "type a",
                                        "release a KeyA 65 modifiers 0"));
}

TEST_F(NativeInputTest, AKeyOfXInput2IsOneToo) {
  Key(Xi(testing::kKeyPress, {.detail = kA, .state = kShift}));
  EXPECT_THAT(page_.Take(),
              ElementsAre("press A KeyA 65 modifiers 8", "type A"));
}

TEST_F(NativeInputTest, ModifiersAndLocksDecideWhatIsTyped) {
  TypeKey(kA, kShift);
  TypeKey(kA, kCapsLock);
  TypeKey(kE, kSecondGroup | kAltGr);
  EXPECT_EQ(Typed(), "AA\xe2\x82\xac");
}

TEST_F(NativeInputTest, TheGroupOfTheStateIsTheLayout) {
  TypeKey(kY);
  TypeKey(kY, kSecondGroup);
  EXPECT_THAT(page_.Take(), ElementsAre("press y KeyY 89 modifiers 0", "type y",
                                        "release y KeyY 89 modifiers 0",
                                        "press z KeyY 90 modifiers 0", "type z",
                                        "release z KeyY 90 modifiers 0"));
}

TEST_F(NativeInputTest, ShortcutsTypeNothing) {
  PressKey(kA, kControl);
  EXPECT_THAT(page_.Take(), ElementsAre("press a KeyA 65 modifiers 2"));
}

TEST_F(NativeInputTest, EnterIsTypedAndOtherControlCharactersAreNot) {
  PressKey(kReturn);
  PressKey(kBackspace);
  EXPECT_THAT(page_.Take(),
              ElementsAre("press Enter Enter 13 modifiers 0", "type \r",
                          "press Backspace Backspace 8 modifiers 0"));
}

TEST_F(NativeInputTest, ADeadKeyIsTypedWithTheNextOne) {
  TypeKey(kEqual, kSecondGroup);
  EXPECT_THAT(page_.Take(), ElementsAre("press Dead Equal 187 modifiers 0",
                                        "release Dead Equal 187 modifiers 0"));
  TypeKey(kE, kSecondGroup);
  EXPECT_EQ(Typed(), "\xc3\xa9");
  // One that has no meaning together types nothing; then all is as before.
  TypeKey(kEqual, kSecondGroup);
  TypeKey(kBackspace, kSecondGroup);
  TypeKey(kE, kSecondGroup);
  EXPECT_EQ(Typed(), "e");
}

TEST_F(NativeInputTest, AModifierCountsItselfAndItsTwin) {
  PressKey(kShiftLeft);
  PressKey(kShiftRight, kShift);
  ReleaseKey(kShiftLeft, kShift);
  ReleaseKey(kShiftRight, kShift);
  EXPECT_THAT(page_.Take(),
              ElementsAre("press Shift ShiftLeft 16 modifiers 8",
                          "press Shift ShiftRight 16 modifiers 8",
                          "release Shift ShiftLeft 16 modifiers 8",
                          "release Shift ShiftRight 16 modifiers 0"));
}

TEST_F(NativeInputTest, AHeldKeyRepeats) {
  PressKey(kA, 0, 100);
  PressKey(kA, 0, 500);
  // As X11 reports it unless told otherwise.
  ReleaseKey(kA, 0, 530);
  PressKey(kA, 0, 530);
  ReleaseKey(kA, 0, 560);
  PressKey(kA, 0, 561);
  EXPECT_THAT(page_.Take(),
              ElementsAre("press a KeyA 65 modifiers 0", "type a",
                          "repeat a KeyA 65 modifiers 0", "type a",
                          "release a KeyA 65 modifiers 0",
                          "repeat a KeyA 65 modifiers 0", "type a",
                          "release a KeyA 65 modifiers 0",
                          "press a KeyA 65 modifiers 0", "type a"));
}

TEST_F(NativeInputTest, AKeyThatWasPressedElsewhereIsNotReleased) {
  ReleaseKey(kA);
  PressKey(kA);
  page_.Take();
  input_.ForgetHeld();
  ReleaseKey(kA);
  EXPECT_THAT(page_.Take(), IsEmpty());
}

TEST_F(NativeInputTest, ALayoutThatDoesNotExistIsToldInWords) {
  ::setenv("XKB_DEFAULT_LAYOUT", "nowhere", 1);
  rpc::NativeKeyEventRequest request;
  Fill(*request.mutable_event(), Core(testing::kKeyPress, {.detail = kA}));
  EXPECT_EQ(input_.Check(request).message(),
            "there is no keyboard layout 'nowhere'; XKB_DEFAULT_LAYOUT in the "
            "environment of orvane-chromium names it");
}

// The mouse

TEST_F(NativeInputTest, AButtonIsPressedMovedAndReleased) {
  Mouse(Core(testing::kMotion, {.x = 10, .y = 20}));
  Press({.detail = 1, .x = 10, .y = 20});
  Mouse(Core(testing::kMotion, {.x = 30, .y = 20, .state = kButton1}));
  Release({.detail = 1, .x = 30, .y = 20, .state = kButton1});
  EXPECT_THAT(page_.Take(),
              ElementsAre("move 10,20 buttons 0", "press 1 x1 10,20 buttons 1",
                          "drag 30,20 buttons 1", "release 1 30,20 buttons 0"));
}

TEST_F(NativeInputTest, XInput2SaysNotWhichButtonsAreHeld) {
  Mouse(Xi(testing::kButtonPress, {.detail = 3, .x = 10.5, .y = 20}));
  Mouse(Xi(testing::kMotion, {.x = 30, .y = 20}));
  Mouse(Xi(testing::kButtonRelease, {.detail = 3, .x = 30, .y = 20}));
  Mouse(Xi(testing::kMotion, {.x = 31, .y = 20}));
  EXPECT_THAT(
      page_.Take(),
      ElementsAre("press 3 x1 10.5,20 buttons 2", "drag 30,20 buttons 2",
                  "release 3 30,20 buttons 0", "move 31,20 buttons 0"));
}

TEST_F(NativeInputTest, EveryButtonHasItsNumber) {
  for (const std::uint32_t detail : {1, 2, 3, 8, 9, 10}) {
    Press({.detail = detail});
    Release({.detail = detail});
  }
  EXPECT_THAT(
      page_.Take(),
      ElementsAre("press 1 x1 0,0 buttons 1", "release 1 0,0 buttons 0",
                  "press 2 x1 0,0 buttons 4", "release 2 0,0 buttons 0",
                  "press 3 x1 0,0 buttons 2", "release 3 0,0 buttons 0",
                  "press 4 x1 0,0 buttons 8", "release 4 0,0 buttons 0",
                  "press 5 x1 0,0 buttons 16", "release 5 0,0 buttons 0"));
}

TEST_F(NativeInputTest, ClicksInARowAreCounted) {
  const auto press = [&](const Bytes& bytes) {
    page_.Take();
    Press(bytes);
    return page_.Take().front();
  };
  // The server's time wraps around meanwhile.
  EXPECT_EQ(press({.detail = 1, .time = 0xffffff00}),
            "press 1 x1 0,0 buttons 1");
  EXPECT_EQ(press({.detail = 1, .x = 5, .time = 0x40}),
            "press 1 x2 5,0 buttons 1");
  EXPECT_EQ(press({.detail = 1, .x = 5, .time = 0x41}),
            "press 1 x3 5,0 buttons 1");
  EXPECT_EQ(press({.detail = 1, .x = 11, .time = 0x42}),
            "press 1 x1 11,0 buttons 1");
  EXPECT_EQ(press({.detail = 1, .x = 11, .time = 0x42 + 401}),
            "press 1 x1 11,0 buttons 1");
  EXPECT_EQ(press({.detail = 3, .x = 11, .time = 0x42 + 402}),
            "press 3 x1 11,0 buttons 3");
}

TEST_F(NativeInputTest, PositionsAreInTheViewAndInDips) {
  origin_.emplace();
  origin_->set_x(100);
  origin_->set_y(-50);
  Mouse(Core(testing::kMotion, {.x = 110, .y = 50}), 2);
  Touch(Xi(testing::kTouchBegin, {.detail = 1, .x = 110, .y = 50}), 2);
  EXPECT_THAT(page_.Take(), ElementsAre("move 5,50 buttons 0", "start 1 5,50"));
}

TEST_F(NativeInputTest, TheWheelHasButtonsOfItsOwn) {
  for (const std::uint32_t detail : {4, 5, 6, 7}) {
    Press({.detail = detail});
    Release({.detail = detail});
  }
  Press({.detail = 5, .state = kShift});
  EXPECT_THAT(page_.Take(),
              ElementsAre("wheel 0,-120", "wheel 0,120", "wheel -120,0",
                          "wheel 120,0", "wheel 120,0"));
}

TEST_F(NativeInputTest, ThePointerLeavesOnceItsButtonIsUp) {
  Mouse(Core(testing::kEnter, {.x = 1}));
  Press({.detail = 1, .x = 1});
  Mouse(Core(testing::kLeave, {.x = -1, .state = kButton1}));
  Release({.detail = 1, .x = -2, .state = kButton1});
  EXPECT_THAT(page_.Take(),
              ElementsAre("enter 1,0 buttons 0", "press 1 x1 1,0 buttons 1",
                          "release 1 -2,0 buttons 0", "exit -2,0 buttons 0"));
  Mouse(XiCrossing(testing::kEnter, {.x = 1.5}));
  Mouse(XiCrossing(testing::kLeave, {.x = -1}));
  EXPECT_THAT(page_.Take(),
              ElementsAre("enter 1.5,0 buttons 0", "exit -1,0 buttons 0"));
}

TEST_F(NativeInputTest, AGrabIsNoMovement) {
  std::string left = Core(testing::kLeave);
  testing::Poke(left, 80, std::int32_t{1});
  Mouse(left);
  EXPECT_THAT(page_.Take(), IsEmpty());
}

TEST_F(NativeInputTest, AButtonThatWasPressedElsewhereIsNotReleased) {
  Release({.detail = 1, .state = kButton1});
  Press({.detail = 2});
  page_.Take();
  input_.ForgetButtons();
  Release({.detail = 2});
  EXPECT_THAT(page_.Take(), IsEmpty());
}

// Touch

TEST_F(NativeInputTest, AFingerComesMovesAndGoes) {
  Touch(Xi(testing::kTouchBegin, {.detail = 9, .x = 1.25, .y = 2}));
  Touch(Xi(testing::kTouchUpdate, {.detail = 9, .x = 3, .y = 4}));
  Touch(Xi(testing::kTouchEnd, {.detail = 9, .x = 3, .y = 4}));
  EXPECT_THAT(page_.Take(),
              ElementsAre("start 9 1.25,2", "move 9 3,4", "end 9 3,4"));
}

}  // namespace
}  // namespace chromium
