#include "host/pointer.h"

#include <array>
#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/match.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "google/protobuf/message.h"
#include "gtest/gtest.h"

#include "host/recording_widget_fixture.h"

namespace orvane::host {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr auto kPrimary = rpc::MOUSE_BUTTON_PRIMARY;
constexpr auto kSecondary = rpc::MOUSE_BUTTON_SECONDARY;
constexpr auto kAuxiliary = rpc::MOUSE_BUTTON_AUXILIARY;
constexpr auto kBack = rpc::MOUSE_BUTTON_BACK;
constexpr auto kForward = rpc::MOUSE_BUTTON_FORWARD;
constexpr std::uint32_t kPrimaryFlag = rpc::MOUSE_BUTTON_FLAG_PRIMARY;
constexpr std::uint32_t kSecondaryFlag = rpc::MOUSE_BUTTON_FLAG_SECONDARY;
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

// A sample, with the flags of the buttons that the toolkit says are held.
PointerSample At(double x, double y, std::uint32_t buttons = 0,
                 std::int64_t time_ns = 0) {
  PointerSample sample;
  sample.pointer.mutable_position()->set_x(x);
  sample.pointer.mutable_position()->set_y(y);
  sample.pointer.set_buttons(buttons);
  sample.input.set_time_ns(time_ns);
  return sample;
}

rpc::SizeDip Size(double width, double height) {
  rpc::SizeDip size;
  size.set_width(width);
  size.set_height(height);
  return size;
}

TEST(PointerButtons, AreNumberedAsX11NumbersThem) {
  EXPECT_EQ(ButtonOfX11(1), kPrimary);
  EXPECT_EQ(ButtonOfX11(2), kAuxiliary);
  EXPECT_EQ(ButtonOfX11(3), kSecondary);
  EXPECT_EQ(ButtonOfX11(8), kBack);
  EXPECT_EQ(ButtonOfX11(9), kForward);
  EXPECT_EQ(ButtonOfX11(4), rpc::MOUSE_BUTTON_UNSPECIFIED);
}

TEST(PointerButtons, AreTakenFromTheStateOfAnX11Event) {
  constexpr std::uint32_t kShiftMask = 1;
  EXPECT_EQ(ButtonsOfX11State(kShiftMask), 0u);
  EXPECT_EQ(ButtonsOfX11State(1 << 8 | kShiftMask), kPrimaryFlag);
  EXPECT_EQ(ButtonsOfX11State(1 << 9),
            std::uint32_t{rpc::MOUSE_BUTTON_FLAG_AUXILIARY});
  EXPECT_EQ(ButtonsOfX11State(1 << 10), kSecondaryFlag);
}

class PointerTest : public RecordingWidgetFixture {
 protected:
  PointerTest() { Calls(); }

  void PageShowsCursor(rpc::CursorType type) {
    rpc::CursorChanged event;
    event.mutable_cursor()->set_type(type);
    Publish<rpc::CursorChanged>(kBrowser, event);
    loop.RunUntilIdle();
  }

  // The page begins a drag, or says what a drop of it would do.
  void PageDrags(rpc::DragOperation operation = rpc::DRAG_OPERATION_UNSPECIFIED,
                 bool began_in_page = true) {
    rpc::DragCursorUpdated event;
    event.set_operation(operation);
    event.set_began_in_page(began_in_page);
    EXPECT_EQ(Publish<rpc::DragCursorUpdated>(kBrowser, event), 1u);
    loop.RunUntilIdle();
  }
  // A drag of the page's is over the view, at 1,2.
  void BeginPageDrag() {
    pointer->Press(At(1, 2), kPrimary);
    PageDrags(rpc::DRAG_OPERATION_COPY);
    Calls();
  }
  // From now on the toolkit drags what the page drags, if it can.
  void HaveAToolkitThatDrags() {
    pointer.emplace(
        &*calls, PointerOptions{}, nullptr,
        [this](std::vector<rpc::DragItem> items, std::uint32_t allowed) {
          for (const rpc::DragItem& item : items) {
            dragged.push_back(std::string(
                item.has_text() ? item.text().value() : item.binary().value()));
          }
          allowed_operations = allowed;
          if (while_it_begins) while_it_begins();
          return can_drag;
        });
    Calls();
  }
  static rpc::DragItem Item(const std::string& mime_type,
                            const std::string& value) {
    rpc::DragItem item;
    item.mutable_text()->set_mime_type(mime_type);
    item.mutable_text()->set_value(value);
    return item;
  }
  void PageDragsItems(const std::vector<rpc::DragItem>& items) {
    rpc::DragCursorUpdated event;
    event.mutable_items()->Assign(items.begin(), items.end());
    event.set_allowed_operations(rpc::DRAG_OPERATION_COPY);
    event.set_began_in_page(true);
    Publish<rpc::DragCursorUpdated>(kBrowser, event);
    loop.RunUntilIdle();
  }
  // The toolkit drags a text, which the page began at 1,2.
  void BeginToolkitDrag() {
    pointer->Press(At(1, 2), kPrimary);
    PageDragsItems({Item("text/plain", "Ada")});
    Calls();
  }
  // Presses and releases the primary button.
  void Click(double x, double y, double milliseconds) {
    const auto time_ns = static_cast<std::int64_t>(milliseconds * 1e6);
    pointer->Press(At(x, y, 0, time_ns), kPrimary);
    pointer->Release(At(x, y, kPrimaryFlag, time_ns), kPrimary);
  }

  rpc::CursorType cursor = rpc::CURSOR_TYPE_UNSPECIFIED;  // The latest.
  std::vector<std::string> dragged;                       // By the toolkit.
  std::uint32_t allowed_operations = 0;
  std::function<void()> while_it_begins;
  bool can_drag = true;
  std::optional<Pointer> pointer{
      std::in_place, &*calls, PointerOptions{},
      [this](const rpc::Cursor& shown) { cursor = shown.type(); }};
};

// The cursor

TEST_F(PointerTest, TheCursorIsThePages) {
  PageShowsCursor(rpc::CURSOR_TYPE_TEXT);
  EXPECT_EQ(cursor, rpc::CURSOR_TYPE_TEXT);
}

TEST_F(PointerTest, ADragOfThePagesHasItsOwnCursorUntilItEnds) {
  PageShowsCursor(rpc::CURSOR_TYPE_GRAB);
  BeginPageDrag();
  EXPECT_EQ(cursor, rpc::CURSOR_TYPE_COPY);
  PageDrags(rpc::DRAG_OPERATION_UNSPECIFIED);
  EXPECT_EQ(cursor, rpc::CURSOR_TYPE_NO_DROP);
  PageShowsCursor(rpc::CURSOR_TYPE_POINTER);
  EXPECT_EQ(cursor, rpc::CURSOR_TYPE_NO_DROP);
  pointer->Release(At(1, 2), kPrimary);
  EXPECT_EQ(cursor, rpc::CURSOR_TYPE_POINTER);
}

TEST_F(PointerTest, ADragOfThePagesCannotBeDroppedOutsideTheView) {
  BeginPageDrag();
  pointer->Leave(At(-1, 2, kPrimaryFlag));
  EXPECT_EQ(cursor, rpc::CURSOR_TYPE_NO_DROP);
  pointer->Cancel();
  EXPECT_EQ(cursor, rpc::CURSOR_TYPE_UNSPECIFIED);
}

// No button is held

TEST_F(PointerTest, ThePointerEntersMovesAndLeaves) {
  pointer->Enter(At(1, 2));
  pointer->Move(At(3, 4));
  pointer->Leave(At(-1, 4));
  EXPECT_THAT(Calls(),
              ElementsAre("MouseEnter 1,2", "MouseMove 3,4", "MouseExit -1,4"));
}

TEST_F(PointerTest, ThePointerEntersBeforeItMovesOrPresses) {
  pointer->Move(At(3, 4));
  EXPECT_THAT(Calls(), ElementsAre("MouseEnter 3,4", "MouseMove 3,4"));
  pointer->Leave(At(-1, 4));
  pointer->Press(At(5, 6), kPrimary);
  EXPECT_THAT(Calls(), ElementsAre("MouseExit -1,4", "MouseEnter 5,6",
                                   "MousePress 5,6 held 1 PRIMARY x1"));
}

TEST_F(PointerTest, EnteringOrLeavingTwiceIsToldOnce) {
  pointer->Leave(At(-1, 0));
  pointer->Enter(At(1, 2));
  pointer->Enter(At(1, 2));
  pointer->Leave(At(-1, 0));
  pointer->Leave(At(-1, 0));
  EXPECT_THAT(Calls(), ElementsAre("MouseEnter 1,2", "MouseExit -1,0"));
}

TEST_F(PointerTest, AllThatTheToolkitTellsIsPassedOn) {
  PointerSample sample = At(1, 2, 0, 1234);
  sample.input.set_device_id(5);
  sample.input.set_modifiers(rpc::MODIFIER_FLAG_ALT);
  sample.pointer.mutable_screen_position()->set_x(101);
  sample.pointer.set_pressure(0.25F);
  sample.pointer.set_pointer_type(rpc::POINTER_TYPE_PEN);
  rpc::VectorDip movement;
  movement.set_dx(7);
  pointer->Move(sample, movement);
  const auto move = Latest<rpc::MouseMoveRequest>();
  EXPECT_EQ(move.input().time_ns(), 1234);
  EXPECT_EQ(move.input().device_id(), 5u);
  EXPECT_EQ(move.input().modifiers(), rpc::MODIFIER_FLAG_ALT);
  EXPECT_EQ(move.pointer().screen_position().x(), 101);
  EXPECT_EQ(move.pointer().pressure(), 0.25F);
  EXPECT_EQ(move.pointer().pointer_type(), rpc::POINTER_TYPE_PEN);
  EXPECT_EQ(move.movement().dx(), 7);
}

TEST_F(PointerTest, NumbersThatAreNoneAreLeftOut) {
  PointerSample sample = At(1, 2);
  sample.pointer.mutable_screen_position()->set_y(kNan);
  sample.pointer.set_pressure(static_cast<float>(kNan));
  sample.pointer.set_tangential_pressure(static_cast<float>(kInfinity));
  rpc::VectorDip movement;
  movement.set_dx(kInfinity);
  pointer->Move(sample, movement);
  const auto move = Latest<rpc::MouseMoveRequest>();
  EXPECT_FALSE(move.pointer().has_screen_position());
  EXPECT_FALSE(move.pointer().has_pressure());
  EXPECT_EQ(move.pointer().tangential_pressure(), 0);
  EXPECT_FALSE(move.has_movement());
}

TEST_F(PointerTest, TimeNeverGoesBack) {
  pointer->Move(At(1, 1, 0, 1000));
  pointer->Move(At(2, 2, 0, 900));
  EXPECT_EQ(Latest<rpc::MouseMoveRequest>().input().time_ns(), 1000);
  pointer->Move(At(2, 2, 0, 0));
  EXPECT_EQ(Latest<rpc::MouseMoveRequest>().input().time_ns(), 0);
}

// Buttons

TEST_F(PointerTest, ButtonsAreToldAsHeldFromTheirPressToTheirRelease) {
  pointer->Press(At(1, 2), kPrimary);
  pointer->Press(At(1, 2, 1), kSecondary);
  pointer->Press(At(1, 2, 3), kAuxiliary);
  pointer->Press(At(1, 2, 7), kBack);
  pointer->Press(At(1, 2, 7), kForward);
  pointer->Release(At(1, 2, 7), kPrimary);
  pointer->Release(At(1, 2, 6), kSecondary);
  pointer->Release(At(1, 2, 4), kAuxiliary);
  pointer->Release(At(1, 2), kBack);
  pointer->Release(At(1, 2), kForward);
  EXPECT_THAT(Calls(),
              ElementsAre("MouseEnter 1,2", "MousePress 1,2 held 1 PRIMARY x1",
                          "MousePress 1,2 held 3 SECONDARY x1",
                          "MousePress 1,2 held 7 AUXILIARY x1",
                          "MousePress 1,2 held 15 BACK x1",
                          "MousePress 1,2 held 31 FORWARD x1",
                          "MouseRelease 1,2 held 30 PRIMARY x1",
                          "MouseRelease 1,2 held 28 SECONDARY x1",
                          "MouseRelease 1,2 held 24 AUXILIARY x1",
                          "MouseRelease 1,2 held 16 BACK x1",
                          "MouseRelease 1,2 FORWARD x1"));
}

// Qt and SDL count the button itself, GDK and X11 do not.
TEST_F(PointerTest, ASampleMayCountTheButtonItselfOrNot) {
  pointer->Press(At(1, 2, kPrimaryFlag), kPrimary);
  pointer->Release(At(1, 2, 0), kPrimary);
  pointer->Press(At(1, 2, 0), kSecondary);
  pointer->Release(At(1, 2, kSecondaryFlag), kSecondary);
  EXPECT_THAT(Calls(),
              ElementsAre("MouseEnter 1,2", "MousePress 1,2 held 1 PRIMARY x1",
                          "MouseRelease 1,2 PRIMARY x1",
                          "MousePress 1,2 held 2 SECONDARY x1",
                          "MouseRelease 1,2 SECONDARY x1"));
}

TEST_F(PointerTest, MovementsWithAButtonHeldAreDrags) {
  pointer->Press(At(1, 2), kPrimary);
  pointer->Move(At(3, 4, kPrimaryFlag));
  pointer->Release(At(5, 6, kPrimaryFlag), kPrimary);
  pointer->Move(At(7, 8));
  EXPECT_THAT(Calls(),
              ElementsAre("MouseEnter 1,2", "MousePress 1,2 held 1 PRIMARY x1",
                          "MouseDrag 3,4 held 1", "MouseRelease 5,6 PRIMARY x1",
                          "MouseMove 7,8"));
}

// GTK reports that the pointer leaves while a button is held.
TEST_F(PointerTest, APointerThatLeavesWithAButtonHeldExitsAfterTheRelease) {
  pointer->Press(At(1, 2), kPrimary);
  pointer->Leave(At(-1, 2, kPrimaryFlag));
  pointer->Move(At(-20, 2, kPrimaryFlag));
  pointer->Press(At(-20, 2, kPrimaryFlag), kSecondary);
  pointer->Release(At(-20, 2, 3), kPrimary);
  pointer->Release(At(-20, 2, 2), kSecondary);
  EXPECT_THAT(
      Calls(),
      ElementsAre("MouseEnter 1,2", "MousePress 1,2 held 1 PRIMARY x1",
                  "MouseDrag -20,2 held 1",
                  "MousePress -20,2 held 3 SECONDARY x1",
                  "MouseRelease -20,2 held 2 PRIMARY x0",
                  "MouseRelease -20,2 SECONDARY x1", "MouseExit -20,2"));
}

// Qt and SDL report it after the release.
TEST_F(PointerTest, APointerThatLeavesAfterTheReleaseExitsOnce) {
  pointer->SetViewSize(Size(100, 50));
  pointer->Press(At(1, 2), kPrimary);
  pointer->Move(At(-20, 2, kPrimaryFlag));
  pointer->Release(At(-20, 2), kPrimary);
  pointer->Leave(At(-20, 2));
  EXPECT_THAT(Calls(),
              ElementsAre("MouseEnter 1,2", "MousePress 1,2 held 1 PRIMARY x1",
                          "MouseDrag -20,2 held 1",
                          "MouseRelease -20,2 PRIMARY x0", "MouseExit -20,2"));
}

TEST_F(PointerTest, APointerThatComesBackBeforeTheReleaseStays) {
  pointer->Press(At(1, 2), kPrimary);
  pointer->Leave(At(-1, 2, kPrimaryFlag));
  pointer->Enter(At(1, 2, kPrimaryFlag));
  pointer->Release(At(1, 2), kPrimary);
  EXPECT_THAT(Calls(),
              ElementsAre("MouseEnter 1,2", "MousePress 1,2 held 1 PRIMARY x1",
                          "MouseRelease 1,2 PRIMARY x1"));
}

TEST_F(PointerTest, AReleaseWithoutAPressOverTheViewIsIgnored) {
  pointer->Enter(At(1, 2, kPrimaryFlag));
  pointer->Release(At(1, 2, kPrimaryFlag), kPrimary);
  pointer->Release(At(1, 2), rpc::MOUSE_BUTTON_UNSPECIFIED);
  pointer->Press(At(1, 2), static_cast<rpc::MouseButton>(9));
  EXPECT_THAT(Calls(), ElementsAre("MouseEnter 1,2"));
}

TEST_F(PointerTest, AButtonWhoseReleaseGotLostIsReleasedOnceASampleSaysSo) {
  pointer->Press(At(1, 2), kPrimary);
  pointer->Move(At(3, 4));
  EXPECT_THAT(Calls(),
              ElementsAre("MouseEnter 1,2", "MousePress 1,2 held 1 PRIMARY x1",
                          "MouseRelease 3,4 PRIMARY x0", "MouseMove 3,4"));
  pointer->Press(At(1, 2), kPrimary);
  pointer->Leave(At(-1, 2));
  EXPECT_THAT(Calls(),
              ElementsAre("MousePress 1,2 held 1 PRIMARY x1",
                          "MouseRelease -1,2 PRIMARY x0", "MouseExit -1,2"));
}

TEST_F(PointerTest, APressOfAHeldButtonReleasesItFirst) {
  pointer->Press(At(1, 2), kBack);
  pointer->Press(At(1, 2), kBack);
  EXPECT_THAT(
      Calls(),
      ElementsAre("MouseEnter 1,2", "MousePress 1,2 held 8 BACK x1",
                  "MouseRelease 1,2 BACK x0", "MousePress 1,2 held 8 BACK x1"));
}

TEST_F(PointerTest, OnlyTheSecondaryButtonsPressOpensAContextMenu) {
  pointer->Press(At(1, 2), kPrimary);
  EXPECT_FALSE(Latest<rpc::MousePressRequest>().is_popup_trigger());
  pointer->Press(At(1, 2, kPrimaryFlag), kSecondary);
  EXPECT_TRUE(Latest<rpc::MousePressRequest>().is_popup_trigger());
  pointer->Release(At(1, 2, 3), kSecondary);
  EXPECT_FALSE(Latest<rpc::MouseReleaseRequest>().is_popup_trigger());
}

// With SetViewSize

TEST_F(PointerTest, PositionsTellWhetherThePointerIsOverAViewOfKnownSize) {
  pointer->SetViewSize(Size(100, 50));
  pointer->Move(At(-1, 10));
  pointer->Press(At(-1, 10), kPrimary);
  pointer->TurnWheel(At(-1, 10, kPrimaryFlag), 0, 1);
  pointer->Move(At(10, 10, kPrimaryFlag));
  pointer->Release(At(10, 10), kPrimary);
  pointer->Move(At(100, 10));
  pointer->Move(At(99, 49));
  pointer->Move(At(99, 50));
  EXPECT_THAT(Calls(), ElementsAre("MouseEnter 10,10", "MouseMove 10,10",
                                   "MouseExit 100,10", "MouseEnter 99,49",
                                   "MouseMove 99,49", "MouseExit 99,50"));
}

// Clicks

TEST_F(PointerTest, PressesInARowAreCounted) {
  Click(1, 2, 1000);
  Click(6, 7, 1400);
  Click(1, 2, 1800);
  Click(1, 2, 2201);
  EXPECT_THAT(
      Calls(),
      ElementsAre(
          "MouseEnter 1,2", "MousePress 1,2 held 1 PRIMARY x1",
          "MouseRelease 1,2 PRIMARY x1", "MousePress 6,7 held 1 PRIMARY x2",
          "MouseRelease 6,7 PRIMARY x2", "MousePress 1,2 held 1 PRIMARY x3",
          "MouseRelease 1,2 PRIMARY x3", "MousePress 1,2 held 1 PRIMARY x1",
          "MouseRelease 1,2 PRIMARY x1"));
}

TEST_F(PointerTest, AnotherButtonOrPlaceBeginsANewCount) {
  Click(1, 2, 1000);
  Click(1, 7.5, 1001);
  EXPECT_EQ(Latest<rpc::MouseReleaseRequest>().click_count(), 1u);
  pointer->Press(At(1, 7.5, 0, 1002000000), kSecondary);
  pointer->Release(At(1, 7.5, kSecondaryFlag, 1002000000), kSecondary);
  EXPECT_EQ(Latest<rpc::MouseReleaseRequest>().click_count(), 1u);
  Click(1, 7.5, 1003);
  EXPECT_EQ(Latest<rpc::MouseReleaseRequest>().click_count(), 1u);
}

TEST_F(PointerTest, ReleasesFarFromThePressAreNotClicks) {
  Click(0, 0, 1000);
  pointer->Press(At(0, 0, 0, 1001000000), kPrimary);
  pointer->Move(At(8, 0, kPrimaryFlag));
  pointer->Move(At(8, 1, kPrimaryFlag));
  pointer->Move(At(0, 0, kPrimaryFlag));
  pointer->Release(At(0, 0, kPrimaryFlag, 1002000000), kPrimary);
  EXPECT_EQ(Latest<rpc::MouseReleaseRequest>().click_count(), 0u);
  Click(0, 0, 1003);
  EXPECT_EQ(Latest<rpc::MouseReleaseRequest>().click_count(), 1u);
}

TEST_F(PointerTest, TheToolkitMayCountClicksItself) {
  pointer->Press(At(1, 2, 0, 1000), kPrimary, 4);
  EXPECT_EQ(Latest<rpc::MousePressRequest>().click_count(), 4u);
  pointer->Release(At(1, 2, 0, 1000), kPrimary);
  EXPECT_EQ(Latest<rpc::MouseReleaseRequest>().click_count(), 4u);
}

TEST_F(PointerTest, TheLimitsOfADoubleClickAreTheToolkits) {
  pointer.emplace(&*calls,
                  PointerOptions{.double_click_time = absl::Milliseconds(50),
                                 .double_click_distance_dip = 100});
  Click(0, 0, 1000);
  Click(90, 0, 1050);
  EXPECT_EQ(Latest<rpc::MouseReleaseRequest>().click_count(), 2u);
  Click(90, 0, 1101);
  EXPECT_EQ(Latest<rpc::MouseReleaseRequest>().click_count(), 1u);
}

// Wheel and touchpad

TEST_F(PointerTest, AWheelTellsLinesAndDetents) {
  pointer->Move(At(1, 2));
  pointer->TurnWheel(At(kNan, kNan), 0, -1);
  const auto wheel = Latest<rpc::MouseWheelRequest>();
  EXPECT_EQ(wheel.pointer().position().x(), 1);
  EXPECT_EQ(wheel.pointer().position().y(), 2);
  EXPECT_EQ(wheel.delta_x(), 0);
  EXPECT_EQ(wheel.delta_y(), -3);
  EXPECT_EQ(wheel.delta_mode(), rpc::WHEEL_DELTA_MODE_LINE);
  EXPECT_EQ(wheel.detents_y_120ths(), -120);
  EXPECT_EQ(wheel.source(), rpc::WHEEL_SOURCE_WHEEL);
  EXPECT_EQ(wheel.phase(), rpc::WHEEL_PHASE_UNSPECIFIED);
  EXPECT_FALSE(wheel.is_precise());
}

TEST_F(PointerTest, PartsOfADetentAddUpToWholeOnes) {
  std::int64_t sum = 0;
  for (int part = 0; part < 7; ++part) {
    pointer->TurnWheel(At(1, 2), 0, 1.0 / 7);
    sum += Latest<rpc::MouseWheelRequest>().detents_y_120ths();
  }
  EXPECT_EQ(sum, 120);
}

TEST_F(PointerTest, AWheelThatTurnsByNonsenseTurnsByItNoFurther) {
  pointer->Move(At(1, 2));
  Calls();
  for (const double nonsense : {kNan, kInfinity, 1e300}) {
    pointer->TurnWheel(At(1, 2), nonsense, 0);
    pointer->Scroll(At(1, 2), nonsense, 0);
  }
  EXPECT_THAT(Calls(), IsEmpty());
  pointer->TurnWheel(At(1, 2), kNan, 1);
  const auto wheel = Latest<rpc::MouseWheelRequest>();
  EXPECT_EQ(wheel.delta_x(), 0);
  EXPECT_EQ(wheel.delta_y(), 3);
  EXPECT_EQ(wheel.detents_x_120ths(), 0);
  EXPECT_EQ(wheel.detents_y_120ths(), 120);
}

TEST_F(PointerTest, ShiftMakesAWheelScrollSideways) {
  PointerSample sample = At(1, 2);
  sample.input.set_modifiers(rpc::MODIFIER_FLAG_SHIFT);
  pointer->TurnWheel(sample, 0, 1);
  EXPECT_EQ(Latest<rpc::MouseWheelRequest>().delta_x(), 3);
  EXPECT_EQ(Latest<rpc::MouseWheelRequest>().delta_y(), 0);
  pointer->TurnWheel(sample, 1, 0);  // The toolkit has done it already.
  EXPECT_EQ(Latest<rpc::MouseWheelRequest>().delta_x(), 3);
}

TEST_F(PointerTest, ATouchpadTellsPixelsAndPhases) {
  const auto phase = [this] {
    return Latest<rpc::MouseWheelRequest>().phase();
  };
  pointer->Scroll(At(1, 2), 1.5, -2.5);
  const auto wheel = Latest<rpc::MouseWheelRequest>();
  EXPECT_EQ(wheel.delta_x(), 1.5);
  EXPECT_EQ(wheel.delta_y(), -2.5);
  EXPECT_EQ(wheel.delta_mode(), rpc::WHEEL_DELTA_MODE_PIXEL);
  EXPECT_FALSE(wheel.has_detents_x_120ths());
  EXPECT_EQ(wheel.source(), rpc::WHEEL_SOURCE_FINGER);
  EXPECT_TRUE(wheel.is_precise());
  EXPECT_EQ(phase(), rpc::WHEEL_PHASE_BEGAN);
  pointer->Scroll(At(1, 2), 1, 1);
  EXPECT_EQ(phase(), rpc::WHEEL_PHASE_CHANGED);
  pointer->EndScroll(At(1, 2));
  EXPECT_EQ(phase(), rpc::WHEEL_PHASE_ENDED);
  pointer->EndScroll(At(1, 2));
  EXPECT_THAT(Calls(), ElementsAre("MouseEnter 1,2", "MouseWheel 1,2",
                                   "MouseWheel 1,2", "MouseWheel 1,2"));
  pointer->Scroll(At(1, 2), 1, 1);
  EXPECT_EQ(phase(), rpc::WHEEL_PHASE_BEGAN);
}

// Drags of the page's

TEST_F(PointerTest, ADragOfThePageTakesThePlaceOfTheMouse) {
  pointer->Press(At(1, 2), kPrimary);
  pointer->Move(At(20, 2, kPrimaryFlag));
  PageDrags();
  EXPECT_TRUE(pointer->is_page_dragging());
  pointer->Move(At(30, 2, kPrimaryFlag));
  EXPECT_EQ(Latest<rpc::DragOverRequest>().allowed_operations(), 1u + 2 + 16);
  PageDrags(rpc::DRAG_OPERATION_COPY);
  pointer->Release(At(40, 2, kPrimaryFlag), kPrimary);
  EXPECT_FALSE(pointer->is_page_dragging());
  EXPECT_THAT(
      Calls(),
      ElementsAre("MouseEnter 1,2", "MousePress 1,2 held 1 PRIMARY x1",
                  "MouseDrag 20,2 held 1", "DragOver 30,2", "DragDrop 40,2",
                  "DragEnd 40,2 COPY", "MouseMove 40,2"));
}

TEST_F(PointerTest, ADropThatThePageRefusesIsALeave) {
  BeginPageDrag();
  PageDrags(rpc::DRAG_OPERATION_UNSPECIFIED);
  pointer->Release(At(3, 4), kPrimary);
  EXPECT_THAT(Calls(), ElementsAre("DragLeave", "DragEnd 3,4 UNSPECIFIED",
                                   "MouseMove 3,4"));
}

TEST_F(PointerTest, ADragThatLeavesAndComesBackIsAskedAnew) {
  BeginPageDrag();
  pointer->Leave(At(-1, 2, kPrimaryFlag));
  pointer->Move(At(-2, 2, kPrimaryFlag));
  pointer->Enter(At(3, 4, kPrimaryFlag));
  pointer->Release(At(3, 4), kPrimary);
  EXPECT_THAT(Calls(), ElementsAre("DragLeave", "DragEnter 3,4", "DragLeave",
                                   "DragEnd 3,4 UNSPECIFIED", "MouseMove 3,4"));
}

TEST_F(PointerTest, ADragThatEndsOutsideExits) {
  BeginPageDrag();
  pointer->Leave(At(-1, 2, kPrimaryFlag));
  pointer->Release(At(-9, 2), kPrimary);
  EXPECT_THAT(Calls(), ElementsAre("DragLeave", "DragEnd -9,2 UNSPECIFIED",
                                   "MouseExit -9,2"));
}

TEST_F(PointerTest, ADragThatIsAnnouncedOutsideLeavesTheView) {
  pointer->Press(At(1, 2), kPrimary);
  pointer->Leave(At(-1, 2, kPrimaryFlag));
  Calls();
  PageDrags(rpc::DRAG_OPERATION_COPY);
  EXPECT_TRUE(pointer->is_page_dragging());
  EXPECT_THAT(Calls(), ElementsAre("DragLeave"));
}

TEST_F(PointerTest, ADragThatIsAnnouncedAfterTheReleaseIsEndedAtOnce) {
  Click(1, 2, 1000);
  Calls();
  PageDrags();
  EXPECT_FALSE(pointer->is_page_dragging());
  EXPECT_THAT(Calls(), ElementsAre("DragLeave", "DragEnd 1,2 UNSPECIFIED"));
}

TEST_F(PointerTest, EventsOfADragThatWasEndedAreIgnored) {
  BeginPageDrag();
  widget.is_holding = true;
  pointer->Release(At(3, 4), kPrimary);
  Calls();
  PageDrags();
  PageDrags();
  EXPECT_THAT(Calls(), IsEmpty());
  widget.is_holding = false;
  widget.AnswerAll();
  pointer->Press(At(3, 4), kPrimary);
  Calls();
  PageDrags();
  EXPECT_TRUE(pointer->is_page_dragging());
}

TEST_F(PointerTest, DragsFromElsewhereAreNotThePages) {
  pointer->Press(At(1, 2), kPrimary);
  PageDrags(rpc::DRAG_OPERATION_COPY, false);
  EXPECT_FALSE(pointer->is_page_dragging());
}

TEST_F(PointerTest, OtherButtonsPressedDuringADragAreNotTold) {
  BeginPageDrag();
  pointer->Press(At(3, 4, kPrimaryFlag), kSecondary);
  pointer->Release(At(3, 4, 3), kPrimary);
  EXPECT_THAT(Calls(), ElementsAre("DragDrop 3,4", "DragEnd 3,4 COPY"));
  pointer->Move(At(5, 6, kSecondaryFlag));
  EXPECT_THAT(Calls(), IsEmpty());
  pointer->Release(At(7, 8, kSecondaryFlag), kSecondary);
  EXPECT_THAT(Calls(), ElementsAre("MouseMove 7,8"));
}

TEST_F(PointerTest, OtherButtonsHeldBeforeADragAreReleasedAtItsEnd) {
  pointer->Press(At(1, 2), kPrimary);
  pointer->Press(At(1, 2, kPrimaryFlag), kSecondary);
  Calls();
  PageDrags(rpc::DRAG_OPERATION_COPY);
  pointer->Release(At(3, 4, 3), kPrimary);
  EXPECT_THAT(Calls(), ElementsAre("DragDrop 3,4", "DragEnd 3,4 COPY",
                                   "MouseRelease 3,4 SECONDARY x0"));
  pointer->Release(At(3, 4, kSecondaryFlag), kSecondary);
  EXPECT_THAT(Calls(), ElementsAre("MouseMove 3,4"));
}

TEST_F(PointerTest, ALostReleaseDropsNothing) {
  BeginPageDrag();
  pointer->Move(At(3, 4));
  EXPECT_THAT(Calls(), ElementsAre("DragLeave", "DragEnd 3,4 UNSPECIFIED",
                                   "MouseMove 3,4", "MouseMove 3,4"));
}

TEST_F(PointerTest, AWidgetThatRefusesADragMakesThePointerAMouseAgain) {
  BeginPageDrag();
  pointer->Press(At(1, 2, kPrimaryFlag), kSecondary);
  widget.failing = {"DragOver"};
  pointer->Move(At(3, 4, 3));
  EXPECT_THAT(Calls(), ElementsAre("DragOver 3,4"));
  EXPECT_FALSE(pointer->is_page_dragging());
  pointer->Move(At(5, 6, 3));
  pointer->Release(At(5, 6, 3), kSecondary);
  pointer->Release(At(5, 6, 1), kPrimary);
  EXPECT_THAT(Calls(), ElementsAre("MouseDrag 5,6 held 1",
                                   "MouseRelease 5,6 PRIMARY x1"));
}

// Drags of the page's that the toolkit drags

TEST_F(PointerTest, AToolkitDragsWhatThePageDrags) {
  HaveAToolkitThatDrags();
  pointer->Press(At(1, 2), kPrimary);
  Calls();
  PageDragsItems({Item("text/plain", "Ada"), Item("text/html", "<b>Ada</b>")});
  EXPECT_THAT(dragged, ElementsAre("Ada", "<b>Ada</b>"));
  EXPECT_EQ(allowed_operations, std::uint32_t{rpc::DRAG_OPERATION_COPY});
  EXPECT_TRUE(pointer->is_toolkit_dragging());
  EXPECT_FALSE(pointer->is_page_dragging());
  EXPECT_THAT(Calls(), ElementsAre("DragLeave"));
  pointer->EndDrag(rpc::DRAG_OPERATION_COPY);
  EXPECT_FALSE(pointer->is_toolkit_dragging());
  EXPECT_THAT(Calls(), ElementsAre("DragEnd 1,2 COPY", "MouseExit 1,2"));
  pointer->Move(At(3, 4));
  EXPECT_THAT(Calls(), ElementsAre("MouseEnter 3,4", "MouseMove 3,4"));
}

TEST_F(PointerTest, NothingIsSentWhileTheToolkitDrags) {
  HaveAToolkitThatDrags();
  BeginToolkitDrag();
  pointer->Move(At(3, 4, kPrimaryFlag));
  pointer->Leave(At(-1, 2, kPrimaryFlag));
  pointer->Enter(At(3, 4));
  pointer->TurnWheel(At(3, 4), 0, 1);
  pointer->Scroll(At(3, 4), 1, 1);
  pointer->Release(At(3, 4), kPrimary);
  pointer->Cancel();  // As for a grab that the drag breaks.
  PageDrags(rpc::DRAG_OPERATION_COPY);
  EXPECT_TRUE(pointer->is_toolkit_dragging());
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(PointerTest, WhatAToolkitCannotDragStaysInTheView) {
  HaveAToolkitThatDrags();
  can_drag = false;
  BeginToolkitDrag();
  EXPECT_THAT(dragged, ElementsAre("Ada"));
  EXPECT_TRUE(pointer->is_page_dragging());
  pointer->Move(At(3, 4, kPrimaryFlag));
  pointer->EndDrag(rpc::DRAG_OPERATION_COPY);  // It has none.
  EXPECT_THAT(Calls(), ElementsAre("DragOver 3,4"));
}

TEST_F(PointerTest, ADragWithoutItemsStaysInTheView) {
  HaveAToolkitThatDrags();
  pointer->Press(At(1, 2), kPrimary);
  PageDragsItems({});
  EXPECT_TRUE(pointer->is_page_dragging());
  EXPECT_THAT(dragged, IsEmpty());
}

TEST_F(PointerTest, ADragThatAllowsNothingStaysInTheView) {
  HaveAToolkitThatDrags();
  pointer->Press(At(1, 2), kPrimary);
  rpc::DragCursorUpdated event;
  *event.add_items() = Item("text/plain", "Ada");
  event.set_began_in_page(true);
  Publish<rpc::DragCursorUpdated>(kBrowser, event);
  loop.RunUntilIdle();
  EXPECT_TRUE(pointer->is_page_dragging());
  EXPECT_THAT(dragged, IsEmpty());
}

// Another page would get to read it.
TEST_F(PointerTest, APageCannotDragAFileThatItNames) {
  HaveAToolkitThatDrags();
  rpc::DragItem file;
  file.mutable_file()->set_path("/etc/passwd");
  rpc::DragItem bytes;
  bytes.mutable_binary()->set_mime_type("image/png");
  bytes.mutable_binary()->set_value("picture");
  rpc::DragItem links;
  links.mutable_binary()->set_mime_type("text/uri-list");
  links.mutable_binary()->set_value("file:///etc/passwd");
  pointer->Press(At(1, 2), kPrimary);
  PageDragsItems({file, bytes, Item("text/uri-list", "https://a.example/"),
                  Item("Text/URI-list", "# Two\r\n FILE:///etc/passwd"),
                  Item("text/uri-list;charset=utf-8", "file:///etc/passwd"),
                  Item("text/uri-list", "https://a.example/\ntrash:///a"),
                  Item("x-special/gnome-copied-files", "copy\nfile:///etc"),
                  links, Item("text/plain", "file:///etc/passwd"),
                  Item("", "of no type"), rpc::DragItem()});
  EXPECT_THAT(dragged, ElementsAre("picture", "https://a.example/",
                                   "file:///etc/passwd"));
}

TEST_F(PointerTest, ADragThatIsAnnouncedAfterTheReleaseIsNotTheToolkits) {
  HaveAToolkitThatDrags();
  Click(1, 2, 1000);
  Calls();
  PageDragsItems({Item("text/plain", "Ada")});
  EXPECT_THAT(dragged, IsEmpty());
  EXPECT_THAT(Calls(), ElementsAre("DragLeave", "DragEnd 1,2 UNSPECIFIED"));
}

TEST_F(PointerTest, AToolkitMayReportALeaveAndABrokenGrabAsItBegins) {
  HaveAToolkitThatDrags();
  while_it_begins = [this] {
    pointer->Leave(At(1, 2, kPrimaryFlag));
    pointer->Cancel();
  };
  BeginToolkitDrag();
  EXPECT_TRUE(pointer->is_toolkit_dragging());
}

TEST_F(PointerTest, AToolkitsDragMayEndAsItBegins) {
  HaveAToolkitThatDrags();
  while_it_begins = [this] { pointer->EndDrag({}); };
  pointer->Press(At(1, 2), kPrimary);
  Calls();
  PageDragsItems({Item("text/plain", "Ada")});
  EXPECT_FALSE(pointer->is_toolkit_dragging());
  EXPECT_FALSE(pointer->is_page_dragging());
  EXPECT_THAT(Calls(), ElementsAre("DragEnd 1,2 UNSPECIFIED", "MouseExit 1,2"));
}

TEST_F(PointerTest, EventsBeforeTheEndOfAToolkitsDragIsAnsweredAreIgnored) {
  HaveAToolkitThatDrags();
  BeginToolkitDrag();
  widget.is_holding = true;
  pointer->EndDrag({});
  pointer->Press(At(3, 4), kPrimary);
  Calls();
  PageDragsItems({Item("text/plain", "late")});
  EXPECT_THAT(dragged, ElementsAre("Ada"));
  EXPECT_THAT(Calls(), IsEmpty());
  widget.is_holding = false;
  widget.AnswerAll();
  Calls();
  PageDragsItems({Item("text/plain", "next")});
  EXPECT_THAT(dragged, ElementsAre("Ada", "next"));
  EXPECT_TRUE(pointer->is_toolkit_dragging());
}

// Toolkits keep for themselves what ends their drags.
TEST_F(PointerTest, WhatIsHeldAtTheEndOfAToolkitsDragIsNotTold) {
  HaveAToolkitThatDrags();
  BeginToolkitDrag();
  pointer->EndDrag({});  // By Escape.
  Calls();
  pointer->Move(At(3, 4, kPrimaryFlag));
  EXPECT_THAT(Calls(), IsEmpty());
  pointer->Press(At(5, 6), kPrimary);
  EXPECT_THAT(Calls(), ElementsAre("MouseEnter 5,6",
                                   "MousePress 5,6 held 1 PRIMARY x1"));
}

TEST_F(PointerTest, OtherButtonsAreReleasedAtTheEndOfAToolkitsDrag) {
  HaveAToolkitThatDrags();
  pointer->Press(At(1, 2), kPrimary);
  pointer->Press(At(1, 2, kPrimaryFlag), kSecondary);
  PageDragsItems({Item("text/plain", "Ada")});
  Calls();
  pointer->EndDrag({});
  EXPECT_THAT(Calls(),
              ElementsAre("DragEnd 1,2 UNSPECIFIED",
                          "MouseRelease 1,2 SECONDARY x0", "MouseExit 1,2"));
}

// A target that died may keep the toolkit waiting for ever.
TEST_F(PointerTest, APressEndsAToolkitsDrag) {
  HaveAToolkitThatDrags();
  BeginToolkitDrag();
  pointer->Press(At(3, 4), kPrimary);
  EXPECT_THAT(Calls(), ElementsAre("DragEnd 1,2 UNSPECIFIED", "MouseExit 1,2",
                                   "MouseEnter 3,4",
                                   "MousePress 3,4 held 1 PRIMARY x1"));
  pointer->EndDrag(rpc::DRAG_OPERATION_COPY);
  EXPECT_THAT(Calls(), IsEmpty());
}

// Cancelling

TEST_F(PointerTest, CancellingReleasesAllButtonsWithoutAClick) {
  pointer->Press(At(1, 2), kPrimary);
  pointer->Press(At(1, 2, kPrimaryFlag), kSecondary);
  Calls();
  pointer->Cancel();
  EXPECT_THAT(Calls(),
              ElementsAre("MouseRelease 1,2 held 2 PRIMARY x0",
                          "MouseRelease 1,2 SECONDARY x0", "MouseExit 1,2"));
}

TEST_F(PointerTest, NothingIsToldAfterCancellingUntilAllButtonsAreUp) {
  pointer->Press(At(1, 2), kPrimary);
  pointer->Press(At(1, 2, kPrimaryFlag), kBack);
  pointer->Cancel();
  Calls();
  pointer->Move(At(3, 4, kPrimaryFlag));
  pointer->Press(At(3, 4, kPrimaryFlag), kSecondary);
  pointer->Release(At(3, 4, 3), kSecondary);
  pointer->Cancel();
  EXPECT_THAT(Calls(), IsEmpty());
  pointer->Release(At(5, 6, kPrimaryFlag), kPrimary);
  pointer->Move(At(7, 8));
  EXPECT_THAT(Calls(), ElementsAre("MouseEnter 5,6", "MouseMove 7,8"));
}

// GTK reports no release when a window is unmapped under a held button.
TEST_F(PointerTest, AReleaseThatIsNeverReportedDoesNotKeepThePointerAway) {
  pointer->Press(At(1, 2), kPrimary);
  pointer->Cancel();
  Calls();
  pointer->Leave(At(1, 2));
  EXPECT_THAT(Calls(), IsEmpty());
  pointer->Enter(At(3, 4));
  pointer->Press(At(3, 4), kPrimary);
  EXPECT_THAT(Calls(), ElementsAre("MouseEnter 3,4",
                                   "MousePress 3,4 held 1 PRIMARY x1"));
}

TEST_F(PointerTest, APressMayBeTheFirstThatIsReportedAfterALostRelease) {
  pointer->Press(At(1, 2), kPrimary);
  pointer->Cancel();
  pointer->Leave(At(-1, 2, kPrimaryFlag));
  Calls();
  pointer->Press(At(3, 4), kSecondary);
  EXPECT_THAT(Calls(), ElementsAre("MouseEnter 3,4",
                                   "MousePress 3,4 held 2 SECONDARY x1"));
}

TEST_F(PointerTest, CancellingWithoutAButtonHeldExits) {
  pointer->Move(At(1, 2));
  Calls();
  pointer->Cancel();
  pointer->Cancel();
  EXPECT_THAT(Calls(), ElementsAre("MouseExit 1,2"));
  pointer->Move(At(1, 2));
  EXPECT_THAT(Calls(), ElementsAre("MouseEnter 1,2", "MouseMove 1,2"));
}

TEST_F(PointerTest, CancellingEndsADragWithoutADrop) {
  BeginPageDrag();
  pointer->Cancel();
  EXPECT_FALSE(pointer->is_page_dragging());
  EXPECT_THAT(Calls(), ElementsAre("DragLeave", "DragEnd 1,2 UNSPECIFIED"));
  PageDrags();  // About the drag that was ended, or another one.
  EXPECT_THAT(Calls(), ElementsAre("DragLeave", "DragEnd 1,2 UNSPECIFIED"));
  pointer->Release(At(3, 4), kPrimary);
  EXPECT_THAT(Calls(), ElementsAre("MouseMove 3,4"));
}

TEST_F(PointerTest, CancellingADragOutsideTheViewExits) {
  BeginPageDrag();
  pointer->Leave(At(-1, 2, kPrimaryFlag));
  Calls();
  pointer->Cancel();
  EXPECT_THAT(Calls(),
              ElementsAre("DragEnd -1,2 UNSPECIFIED", "MouseExit -1,2"));
  pointer->Release(At(-1, 2), kPrimary);
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(PointerTest, CancellingEndsAScroll) {
  pointer->Scroll(At(1, 2), 1, 1);
  Calls();
  pointer->Cancel();
  EXPECT_THAT(Calls(), ElementsAre("MouseWheel 1,2", "MouseExit 1,2"));
}

// The whole

TEST_F(PointerTest, AnswersAfterItsEndAreDropped) {
  BeginPageDrag();
  widget.is_holding = true;
  pointer->Move(At(3, 4, kPrimaryFlag));
  pointer->Release(At(3, 4), kPrimary);
  Calls();
  pointer.reset();
  widget.failing = {"DragOver"};
  widget.AnswerAll();
  EXPECT_THAT(Calls(), IsEmpty());
}

// What a widget believes of the pointer. Each call has to fit what was told
// before.
class Story {
 public:
  void Tell(const google::protobuf::Message& request) {
    SCOPED_TRACE(request.GetTypeName() + " " + request.ShortDebugString());
    const std::string& type = request.GetTypeName();
    if (type == "rpc.MouseEnterRequest") {
      EXPECT_FALSE(std::exchange(is_inside_, true));
    } else if (type == "rpc.MouseExitRequest") {
      EXPECT_TRUE(std::exchange(is_inside_, false));
      EXPECT_EQ(held_, 0u);
    } else if (type == "rpc.MouseMoveRequest") {
      EXPECT_TRUE(is_inside_);
      EXPECT_EQ(held_, 0u);
    } else if (type == "rpc.MouseDragRequest") {
      EXPECT_NE(held_, 0u);
    } else if (type == "rpc.MousePressRequest") {
      EXPECT_TRUE(is_inside_);
      const auto& press = static_cast<const rpc::MousePressRequest&>(request);
      const std::uint32_t flag = kFlags[press.button()];
      EXPECT_EQ(held_ & flag, 0u);
      held_ |= flag;
      EXPECT_EQ(press.pointer().buttons(), held_);
    } else if (type == "rpc.MouseReleaseRequest") {
      const auto& release =
          static_cast<const rpc::MouseReleaseRequest&>(request);
      const std::uint32_t flag = kFlags[release.button()];
      EXPECT_EQ(held_ & flag, flag);
      held_ &= ~flag;
      EXPECT_EQ(release.pointer().buttons(), held_);
    } else if (type == "rpc.DragEnterRequest") {
      EXPECT_FALSE(std::exchange(is_drag_over_, true));
    } else if (type == "rpc.DragOverRequest") {
      EXPECT_TRUE(is_drag_over_);
    } else if (type == "rpc.DragLeaveRequest" ||
               type == "rpc.DragDropRequest") {
      EXPECT_TRUE(std::exchange(is_drag_over_, false));
    } else if (type == "rpc.DragEndRequest") {
      EXPECT_FALSE(is_drag_over_);
      EXPECT_TRUE(std::exchange(is_page_dragging_, false));
      held_ &= ~kPrimaryFlag;
    } else {
      ADD_FAILURE();
    }
    EXPECT_EQ(is_page_dragging_, absl::StartsWith(type, "rpc.Drag") &&
                                     type != "rpc.DragEndRequest");
  }

  void BeginPageDrag() {
    is_page_dragging_ = true;
    is_drag_over_ = true;
  }
  bool is_primary_held() const { return (held_ & kPrimaryFlag) != 0; }
  bool is_page_dragging() const { return is_page_dragging_; }
  std::uint32_t held() const { return held_; }

 private:
  static constexpr std::array<std::uint32_t, 6> kFlags = {0, 1, 4, 2, 8, 16};

  bool is_inside_ = false;
  bool is_page_dragging_ = false;
  bool is_drag_over_ = false;
  std::uint32_t held_ = 0;
};

TEST_F(PointerTest, WhateverAToolkitReportsTheCallsFitEachOther) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const auto below = [&random](unsigned end) {
    return std::uniform_int_distribution<unsigned>(0, end - 1)(random);
  };
  Story story;
  const auto tell_story = [&] {
    loop.RunUntilIdle();
    for (const auto& request : std::exchange(widget.requests, {}))
      story.Tell(*request);
  };
  for (int step = 0; step < 5000 && !HasFailure(); ++step) {
    if (step == 2500) pointer->SetViewSize(Size(5, 5));
    // Most samples say that the buttons are held that may be.
    const PointerSample sample =
        At(below(7), below(7), below(4) == 0 ? below(8) : 7);
    const auto button =
        static_cast<rpc::MouseButton>(rpc::MOUSE_BUTTON_PRIMARY + below(5));
    switch (below(8)) {
      case 0:
        pointer->Enter(sample);
        break;
      case 1:
        pointer->Leave(sample);
        break;
      case 2:
        pointer->Press(sample, button);
        break;
      case 3:
        pointer->Release(sample, button);
        break;
      case 4:
        if (below(9) == 0) pointer->Cancel();
        break;
      case 5:
        if (story.is_primary_held() && !story.is_page_dragging()) {
          story.BeginPageDrag();
          PageDrags(rpc::DRAG_OPERATION_COPY);
        }
        break;
      default:
        pointer->Move(sample);
    }
    tell_story();
  }
  pointer->Cancel();
  tell_story();
  EXPECT_EQ(story.held(), 0u);
  EXPECT_FALSE(story.is_page_dragging());
}

}  // namespace
}  // namespace orvane::host
