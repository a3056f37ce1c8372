#include "examples/widget_server/input.h"

#include <string>
#include <vector>

#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/testing/text.h"

namespace widget_server {
namespace {

using ::orvane::testing::Parsed;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Events in protobuf's text format.
class InputTest : public ::testing::Test {
 protected:
  absl::Status PressKey(const std::string& key) {
    return input_.KeyPress(
        Parsed<rpc::KeyPressRequest>(absl::StrCat("key { ", key, " }")));
  }
  absl::Status ReleaseKey(const std::string& key) {
    return input_.KeyRelease(
        Parsed<rpc::KeyReleaseRequest>(absl::StrCat("key { ", key, " }")));
  }

  absl::Status Press(const std::string& event) {
    return input_.MousePress(Parsed<rpc::MousePressRequest>(event));
  }
  absl::Status Release(const std::string& event) {
    return input_.MouseRelease(Parsed<rpc::MouseReleaseRequest>(event));
  }
  absl::Status MoveHolding(int buttons) {
    return input_.MouseDrag(Parsed<rpc::MouseDragRequest>(
        absl::StrCat("pointer { buttons: ", buttons, " }")));
  }
  void DragThePicture() {
    ASSERT_EQ(Press(kPressOnPicture), absl::OkStatus());
    ASSERT_EQ(MoveHolding(rpc::MOUSE_BUTTON_FLAG_PRIMARY), absl::OkStatus());
    ASSERT_TRUE(input_.has_drag_begun_in_page());
  }

  absl::Status Start(const std::string& points) {
    return input_.TouchStart(Parsed<rpc::TouchStartRequest>(points));
  }
  absl::Status Move(const std::string& points) {
    return input_.TouchMove(Parsed<rpc::TouchMoveRequest>(points));
  }
  absl::Status End(const std::string& points) {
    return input_.TouchEnd(Parsed<rpc::TouchEndRequest>(points));
  }
  absl::Status Cancel(const std::string& points) {
    return input_.TouchCancel(Parsed<rpc::TouchCancelRequest>(points));
  }

  // Of those that the tests use: only such may move.
  std::vector<int> FingersThatAreDown() {
    std::vector<int> down;
    for (int id = 0; id < 10; ++id) {
      if (Move(absl::StrCat("changed_points { id: ", id, " }")).ok())
        down.push_back(id);
    }
    return down;
  }
  // Only a drag that is over the view may move there.
  bool IsDragOver() { return input_.DragOver({}).ok(); }

  static constexpr char kPressOnPicture[] =
      "button: MOUSE_BUTTON_PRIMARY"
      " pointer { position { x: 16 y: 79 } buttons: 1 }";

  // The picture.
  Input input_{[](const rpc::PointDip& position) {
    return position.x() >= 16 && position.x() < 80 && position.y() >= 16 &&
           position.y() < 80;
  }};
};

// Keys

TEST_F(InputTest, AKeyMayBeKnownByItsMeaningAlone) {
  ASSERT_EQ(PressKey("key: 'Enter'"), absl::OkStatus());
}

TEST_F(InputTest, ReleasingAKeyThatIsNotHeldIsHarmless) {
  EXPECT_EQ(ReleaseKey("key: 'a'"), absl::OkStatus());
}

TEST_F(InputTest, AKeyMustBeGiven) {
  const absl::Status refusal = absl::InvalidArgumentError(
      "the key is not given; it needs `key` or `windows_key_code`");
  EXPECT_EQ(PressKey("code: 'KeyA'"), refusal);
  EXPECT_EQ(ReleaseKey(""), refusal);
}

TEST_F(InputTest, TypedTextMustNotBeEmpty) {
  EXPECT_EQ(input_.KeyType(Parsed<rpc::KeyTypeRequest>("text: 'é'")),
            absl::OkStatus());
  EXPECT_EQ(input_.KeyType(Parsed<rpc::KeyTypeRequest>("key { key: 'a' }")),
            absl::InvalidArgumentError(
                "the text is empty; only text that a key produces is typed"));
}

// Mouse

TEST_F(InputTest, AButtonMustBeGiven) {
  const absl::Status refusal = absl::InvalidArgumentError(
      "button 0 does not exist; a mouse has buttons 1 (primary) to 5 "
      "(forward)");
  EXPECT_EQ(Press("pointer { buttons: 1 }"), refusal);
  EXPECT_EQ(Release(""), refusal);
}

TEST_F(InputTest, AButtonMustBeOneOfAMouse) {
  rpc::MousePressRequest event;
  event.set_button(static_cast<rpc::MouseButton>(6));
  EXPECT_EQ(input_.MousePress(event).message(),
            "button 6 does not exist; a mouse has buttons 1 (primary) to 5 "
            "(forward)");
}

TEST_F(InputTest, ThePointerEntersAndExits) {
  EXPECT_EQ(input_.MouseEnter({}), absl::OkStatus());
  EXPECT_EQ(input_.MouseExit({}), absl::OkStatus());
}

TEST_F(InputTest, MovingWithAButtonNeedsOneThatIsHeld) {
  EXPECT_EQ(MoveHolding(0), absl::InvalidArgumentError(
                                "no button is held; use ForwardMouseMove "
                                "for that"));
  EXPECT_EQ(MoveHolding(rpc::MOUSE_BUTTON_FLAG_AUXILIARY), absl::OkStatus());
}

TEST_F(InputTest, MovesAndWheelTurnsAreTaken) {
  EXPECT_EQ(input_.MouseMove(Parsed<rpc::MouseMoveRequest>(
                "pointer { position { x: 3 y: -4.5 } }")),
            absl::OkStatus());
  EXPECT_EQ(input_.MouseWheel(Parsed<rpc::MouseWheelRequest>("delta_y: 120")),
            absl::OkStatus());
}

// Events in the platform's own layout

TEST_F(InputTest, NativeEventsOfThePlatformAreTaken) {
  rpc::NativeEvent event;
  event.set_platform(rpc::PLATFORM_X11);
  event.set_payload(std::string(192, '\0'));
  rpc::NativeKeyEventRequest key;
  *key.mutable_event() = event;
  rpc::NativeMouseEventRequest mouse;
  *mouse.mutable_event() = event;
  rpc::NativeTouchEventRequest touch;
  *touch.mutable_event() = event;
  EXPECT_EQ(input_.NativeKeyEvent(key), absl::OkStatus());
  EXPECT_EQ(input_.NativeMouseEvent(mouse), absl::OkStatus());
  EXPECT_EQ(input_.NativeTouchEvent(touch), absl::OkStatus());
}

TEST_F(InputTest, NativeEventsOfAnotherPlatformAreRefused) {
  EXPECT_EQ(input_.NativeKeyEvent(Parsed<rpc::NativeKeyEventRequest>(
                "event { platform: PLATFORM_WINDOWS }")),
            absl::InvalidArgumentError("the event is of PLATFORM_WINDOWS; this "
                                       "widget runs on PLATFORM_X11"));
}

TEST_F(InputTest, NativeEventsThatAreTooShortAreRefused) {
  EXPECT_EQ(input_.NativeTouchEvent(Parsed<rpc::NativeTouchEventRequest>(
                "event { platform: PLATFORM_X11 payload: '12345' }")),
            absl::InvalidArgumentError(
                "the event has 5 bytes; the shortest X11 event has 184"));
}

// Touch

TEST_F(InputTest, FingersAreDownFromStartToEndOrCancel) {
  ASSERT_EQ(Start("changed_points { id: 4 } changed_points { id: 7 }"),
            absl::OkStatus());
  ASSERT_EQ(Start("changed_points { id: 0 }"), absl::OkStatus());
  EXPECT_THAT(FingersThatAreDown(), ElementsAre(0, 4, 7));
  ASSERT_EQ(End("changed_points { id: 4 }"), absl::OkStatus());
  EXPECT_THAT(FingersThatAreDown(), ElementsAre(0, 7));
  ASSERT_EQ(Cancel("changed_points { id: 7 } changed_points { id: 0 }"),
            absl::OkStatus());
  EXPECT_THAT(FingersThatAreDown(), IsEmpty());
}

TEST_F(InputTest, FingersThatAreDownMayMove) {
  ASSERT_EQ(Start("changed_points { id: 4 }"), absl::OkStatus());
  EXPECT_EQ(Move("changed_points { id: 4 }"), absl::OkStatus());
  EXPECT_THAT(FingersThatAreDown(), ElementsAre(4));
}

TEST_F(InputTest, ATouchNeedsAPoint) {
  const absl::Status refusal = absl::InvalidArgumentError(
      "no point is given; `changed_points` takes at least one");
  EXPECT_EQ(Start("active_points { id: 1 }"), refusal);
  EXPECT_EQ(Move(""), refusal);
  EXPECT_EQ(End(""), refusal);
  EXPECT_EQ(Cancel(""), refusal);
}

TEST_F(InputTest, AFingerThatIsDownCannotComeDown) {
  ASSERT_EQ(Start("changed_points { id: 4 }"), absl::OkStatus());
  EXPECT_EQ(Start("changed_points { id: 5 } changed_points { id: 4 }"),
            absl::FailedPreconditionError(
                "finger 4 is down already; ForwardTouchEnd or "
                "ForwardTouchCancel comes first"));
  EXPECT_THAT(FingersThatAreDown(), ElementsAre(4));
}

TEST_F(InputTest, AFingerCannotComeDownTwiceInOneEvent) {
  EXPECT_EQ(Start("changed_points { id: 4 } changed_points { id: 4 }").code(),
            absl::StatusCode::kFailedPrecondition);
  EXPECT_THAT(FingersThatAreDown(), IsEmpty());
}

TEST_F(InputTest, AFingerThatIsNotDownCannotMoveOrGo) {
  ASSERT_EQ(Start("changed_points { id: 4 }"), absl::OkStatus());
  const std::string points =
      "changed_points { id: 4 } changed_points { id: 5 }";
  const absl::Status refusal = absl::FailedPreconditionError(
      "finger 5 is not down; ForwardTouchStart comes first");
  EXPECT_EQ(Move(points), refusal);
  EXPECT_EQ(End(points), refusal);
  EXPECT_EQ(Cancel(points), refusal);
  EXPECT_THAT(FingersThatAreDown(), ElementsAre(4));
}

// Drag and drop

TEST_F(InputTest, ADragIsOverTheViewFromEnterToLeave) {
  ASSERT_EQ(input_.DragEnter({}), absl::OkStatus());
  EXPECT_TRUE(IsDragOver());
  ASSERT_EQ(input_.DragLeave({}), absl::OkStatus());
  EXPECT_FALSE(IsDragOver());
}

TEST_F(InputTest, ADropEndsTheDragOverTheView) {
  ASSERT_EQ(input_.DragEnter({}), absl::OkStatus());
  ASSERT_EQ(input_.DragDrop({}), absl::OkStatus());
  EXPECT_FALSE(IsDragOver());
}

TEST_F(InputTest, ASecondDragCannotComeOverTheView) {
  ASSERT_EQ(input_.DragEnter({}), absl::OkStatus());
  EXPECT_EQ(input_.DragEnter({}),
            absl::FailedPreconditionError(
                "a drag is over the view already; ForwardDragLeave or "
                "ForwardDragDrop comes first"));
}

TEST_F(InputTest, WithoutADragOverTheViewNoneMovesLeavesOrDrops) {
  const absl::Status refusal = absl::FailedPreconditionError(
      "no drag is over the view; ForwardDragEnter comes first");
  EXPECT_EQ(input_.DragOver({}), refusal);
  EXPECT_EQ(input_.DragLeave({}), refusal);
  EXPECT_EQ(input_.DragDrop({}), refusal);
}

TEST_F(InputTest, ADragOfThePictureBeginsOverTheView) {
  DragThePicture();
  EXPECT_TRUE(IsDragOver());
}

TEST_F(InputTest, OnlyThePrimaryButtonDragsThePicture) {
  ASSERT_EQ(Press("button: MOUSE_BUTTON_SECONDARY"
                  " pointer { position { x: 20 y: 20 } buttons: 2 }"),
            absl::OkStatus());
  ASSERT_EQ(MoveHolding(2), absl::OkStatus());
  EXPECT_FALSE(input_.has_drag_begun_in_page());
}

TEST_F(InputTest, NoDragBeginsBesideThePicture) {
  for (const char* const position :
       {"x: 15.9 y: 20", "x: 80 y: 20", "x: 20 y: 15.9", "x: 20 y: 80"}) {
    ASSERT_EQ(Press(absl::StrCat("button: MOUSE_BUTTON_PRIMARY pointer {"
                                 " position { ",
                                 position, " } buttons: 1 }")),
              absl::OkStatus());
    ASSERT_EQ(MoveHolding(1), absl::OkStatus());
    EXPECT_FALSE(input_.has_drag_begun_in_page()) << position;
  }
}

TEST_F(InputTest, NoDragBeginsOnceThePictureWasReleased) {
  ASSERT_EQ(Press(kPressOnPicture), absl::OkStatus());
  ASSERT_EQ(Release("button: MOUSE_BUTTON_PRIMARY"), absl::OkStatus());
  ASSERT_EQ(MoveHolding(1), absl::OkStatus());
  EXPECT_FALSE(input_.has_drag_begun_in_page());
}

TEST_F(InputTest, APagesDragMayEndOutsideTheView) {
  DragThePicture();
  ASSERT_EQ(input_.DragLeave({}), absl::OkStatus());
  EXPECT_EQ(input_.DragEnd({}), absl::OkStatus());
  EXPECT_FALSE(input_.has_drag_begun_in_page());
}

TEST_F(InputTest, APagesDragThatEndsOverTheViewIsOverItNoLonger) {
  DragThePicture();
  ASSERT_EQ(input_.DragEnd({}), absl::OkStatus());
  EXPECT_FALSE(IsDragOver());
}

TEST_F(InputTest, ADragFromElsewhereHasNoEndInThePage) {
  ASSERT_EQ(input_.DragEnter({}), absl::OkStatus());
  EXPECT_EQ(input_.DragEnd({}),
            absl::FailedPreconditionError(
                "no drag began in the page; use ForwardDragLeave or "
                "ForwardDragDrop for a drag from elsewhere"));
  EXPECT_TRUE(IsDragOver());
}

TEST_F(InputTest, APagesDragEndsOnce) {
  DragThePicture();
  ASSERT_EQ(input_.DragEnd({}), absl::OkStatus());
  EXPECT_EQ(input_.DragEnd({}).code(), absl::StatusCode::kFailedPrecondition);
}

}  // namespace
}  // namespace widget_server
