#include "examples/widget_server/view.h"

#include <limits>
#include <string>

#include "gtest/gtest.h"

#include "examples/widget_server/x11.h"
#include "zimbrel/src/core/common/rpc/testing/text.h"

namespace widget_server {
namespace {

using ::orvane::testing::Parsed;

View Windowed() { return {rpc::RENDERING_MODE_WINDOWED, EngineWindow(1)}; }

View OffScreen() { return {rpc::RENDERING_MODE_OFF_SCREEN, {}}; }

absl::Status MoveTo(View* view, const std::string& request) {
  return view->MoveTo(Parsed<rpc::AttachRequest>(request));
}

absl::Status SetBounds(View* view, const std::string& request) {
  return view->SetBounds(Parsed<rpc::ViewBounds>(request));
}

TEST(View, IsHiddenAndWithoutFocusAtFirst) {
  const View view = Windowed();
  EXPECT_FALSE(view.is_drawn());
  EXPECT_FALSE(view.has_focus());
}

TEST(View, IsDrawnWhileItIsShown) {
  View view = Windowed();
  EXPECT_EQ(view.Show(), absl::OkStatus());
  EXPECT_TRUE(view.is_drawn());
  EXPECT_EQ(view.Hide(), absl::OkStatus());
  EXPECT_FALSE(view.is_drawn());
}

TEST(View, IsNotDrawnWhileItIsMinimised) {
  View view = Windowed();
  ASSERT_EQ(view.Show(), absl::OkStatus());
  EXPECT_EQ(view.Minimize(), absl::OkStatus());
  EXPECT_FALSE(view.is_drawn());
  EXPECT_EQ(view.Restore(), absl::OkStatus());
  EXPECT_TRUE(view.is_drawn());
}

TEST(View, ShownWhileMinimisedItIsDrawnOnceRestored) {
  View view = Windowed();
  ASSERT_EQ(view.Minimize(), absl::OkStatus());
  ASSERT_EQ(view.Show(), absl::OkStatus());
  EXPECT_FALSE(view.is_drawn());
  ASSERT_EQ(view.Restore(), absl::OkStatus());
  EXPECT_TRUE(view.is_drawn());
}

TEST(View, RestoringWhatWasNotMinimisedIsHarmless) {
  View view = Windowed();
  EXPECT_EQ(view.Restore(), absl::OkStatus());
  EXPECT_FALSE(view.is_drawn());
}

TEST(View, HasTheFocusFromFocusToUnfocus) {
  View view = Windowed();
  EXPECT_EQ(view.Focus(), absl::OkStatus());
  EXPECT_TRUE(view.has_focus());
  EXPECT_EQ(view.Unfocus(), absl::OkStatus());
  EXPECT_FALSE(view.has_focus());
}

TEST(View, MovesIntoAnotherParentWindowAndKeepsWhatItShows) {
  View view = Windowed();
  ASSERT_EQ(MoveTo(&view, "parent_window { platform: PLATFORM_X11 handle: 5 }"),
            absl::OkStatus());
  ASSERT_EQ(view.Show(), absl::OkStatus());
  ASSERT_EQ(view.Focus(), absl::OkStatus());
  EXPECT_EQ(MoveTo(&view,
                   "parent_window { platform: PLATFORM_X11 handle: 6 }"
                   " rendering_mode: RENDERING_MODE_OFF_SCREEN"
                   " bounds { x: 1 y: 2 width: 3 height: 4 }"
                   " screen_bounds { x: 10 y: 20 width: 30 height: 40 }"),
            absl::OkStatus());
  EXPECT_EQ(view.parent_window().handle(), 6U);
  EXPECT_EQ(view.bounds().width(), 3);
  EXPECT_EQ(view.screen_bounds().height(), 40);
  EXPECT_EQ(view.rendering_mode(), rpc::RENDERING_MODE_WINDOWED);
  EXPECT_TRUE(view.is_drawn());
  EXPECT_TRUE(view.has_focus());
}

TEST(View, NeedsAParentWindowUnlessItIsOffScreen) {
  View windowed = Windowed();
  EXPECT_EQ(
      MoveTo(&windowed, "bounds { width: 1 height: 1 }"),
      absl::NotFoundError(
          "window 0 of PLATFORM_UNSPECIFIED does not exist; windows are of "
          "PLATFORM_X11, with handles from 1 to 536870911"));
  View off_screen = OffScreen();
  EXPECT_EQ(MoveTo(&off_screen, "bounds { width: 1 height: 1 }"),
            absl::OkStatus());
}

TEST(View, DoesNotMoveIntoAWindowThatDoesNotExist) {
  for (View view : {Windowed(), OffScreen()}) {
    EXPECT_EQ(
        MoveTo(&view,
               "parent_window { platform: PLATFORM_X11"
               "  handle: 536870912 }"
               " bounds { width: 1 height: 1 }"),
        absl::NotFoundError(
            "window 536870912 of PLATFORM_X11 does not exist; windows are of "
            "PLATFORM_X11, with handles from 1 to 536870911"));
    EXPECT_EQ(view.bounds().width(), 0);
  }
}

TEST(View, DoesNotMoveIntoAWindowOfAnotherPlatform) {
  View view = Windowed();
  EXPECT_EQ(
      MoveTo(&view, "parent_window { platform: PLATFORM_WAYLAND handle: 0 }")
          .code(),
      absl::StatusCode::kNotFound);
}

TEST(View, TakesBoundsInBothUnits) {
  View view = Windowed();
  EXPECT_EQ(SetBounds(&view,
                      "bounds { x: -1.5 y: 2 width: 3.5 height: 4 }"
                      " screen_bounds { x: 10 y: 20 width: 30 height: 40 }"),
            absl::OkStatus());
  EXPECT_EQ(view.bounds().x(), -1.5);
  EXPECT_EQ(view.bounds().width(), 3.5);
  EXPECT_EQ(view.screen_bounds().x(), 10);
}

TEST(View, MayBeEmpty) {
  View view = Windowed();
  ASSERT_EQ(SetBounds(&view, "bounds { width: 3 height: 4 }"),
            absl::OkStatus());
  EXPECT_EQ(SetBounds(&view, "bounds { width: 0 height: 4 }"),
            absl::OkStatus());
  EXPECT_EQ(view.bounds().width(), 0);
}

TEST(View, HasNoNegativeSize) {
  View view = Windowed();
  ASSERT_EQ(SetBounds(&view, "bounds { width: 3 height: 4 }"),
            absl::OkStatus());
  EXPECT_EQ(SetBounds(&view, "bounds { width: 5 height: -0.5 }"),
            absl::InvalidArgumentError(
                "`bounds` are 5 by -0.5 DIPs; neither may be negative"));
  EXPECT_EQ(SetBounds(&view, "bounds { width: -5 height: 1 }").code(),
            absl::StatusCode::kInvalidArgument);
  EXPECT_EQ(SetBounds(&view, "screen_bounds { width: -1 height: 1 }"),
            absl::InvalidArgumentError(
                "`screen_bounds` are -1 by 1 pixels; neither may be negative"));
  EXPECT_EQ(SetBounds(&view, "screen_bounds { width: 1 height: -1 }").code(),
            absl::StatusCode::kInvalidArgument);
  EXPECT_EQ(view.bounds().width(), 3);
}

TEST(View, HasASizeThatIsANumber) {
  View view = Windowed();
  rpc::ViewBounds request;
  request.mutable_bounds()->set_width(std::numeric_limits<double>::quiet_NaN());
  EXPECT_EQ(view.SetBounds(request),
            absl::InvalidArgumentError(
                "`bounds` are nan by 0 DIPs; neither may be negative"));
}

}  // namespace
}  // namespace widget_server
