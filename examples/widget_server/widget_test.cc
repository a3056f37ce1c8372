#include "examples/widget_server/widget.h"

#include <limits>
#include <memory>
#include <string>

#include "absl/strings/str_cat.h"
#include "gtest/gtest.h"

#include "examples/widget_server/page.h"
#include "zimbrel/src/core/common/rpc/testing/text.h"

namespace widget_server {
namespace {

using ::orvane::testing::Parsed;

constexpr char kParentWindow[] =
    "parent_window { platform: PLATFORM_X11 handle: 5 }";

class WidgetTest : public ::testing::Test {
 protected:
  absl::Status Attach(const std::string& request,
                      rpc::AttachResult* result = nullptr) {
    rpc::AttachResult unused;
    return widget_.Attach(Parsed<rpc::AttachRequest>(request),
                          result != nullptr ? result : &unused);
  }
  rpc::AttachResult ResultOfAttach(const std::string& request) {
    rpc::AttachResult result;
    EXPECT_EQ(Attach(request, &result), absl::OkStatus());
    return result;
  }

  absl::Status SetDisplay(const std::string& display) {
    return widget_.SetDisplay(Parsed<rpc::Display>(display));
  }
  absl::Status ForceScaleFactor(double factor) {
    rpc::SetForcedScaleFactorRequest request;
    request.set_scale_factor(factor);
    return widget_.SetForcedScaleFactor(request);
  }
  absl::Status SetParentNodes(const std::string& request) {
    return widget_.SetParentAccessibilityNodes(
        Parsed<rpc::SetParentAccessibilityNodesRequest>(request));
  }

  rpc::BrowserWidgetRpc service_;
  Widget widget_{2, std::make_shared<Page>(2, &service_)};
};

// Attaching

TEST_F(WidgetTest, HasNoViewUntilItIsAttached) {
  EXPECT_EQ(widget_.view().status(),
            absl::FailedPreconditionError(
                "browser 2 is not attached; Attach comes first"));
  ASSERT_EQ(Attach(kParentWindow), absl::OkStatus());
  ASSERT_TRUE(widget_.view().ok());
  EXPECT_EQ((*widget_.view())->parent_window().handle(), 5U);
}

TEST_F(WidgetTest, AttachTellsModeSizeAndScaleInUse) {
  ASSERT_EQ(ForceScaleFactor(1.5), absl::OkStatus());
  const rpc::AttachResult result = ResultOfAttach(
      absl::StrCat(kParentWindow, " bounds { width: 100.5 height: 50 }"));
  EXPECT_TRUE(result.attached());
  EXPECT_EQ(result.refusal(), "");
  EXPECT_EQ(result.rendering_mode(), rpc::RENDERING_MODE_WINDOWED);
  EXPECT_EQ(result.scale_factor(), 1.5);
  EXPECT_EQ(result.size().width(), 151 / 1.5);  // 150.75 pixels, rounded.
  EXPECT_EQ(result.size().height(), 50);
}

TEST_F(WidgetTest, WithoutAParentWindowTheModeLeftOpenIsOffScreen) {
  EXPECT_EQ(ResultOfAttach("").rendering_mode(),
            rpc::RENDERING_MODE_OFF_SCREEN);
}

TEST_F(WidgetTest, WindowedTheEngineHasAWindow) {
  ASSERT_EQ(Attach(kParentWindow), absl::OkStatus());
  const rpc::WindowHandle window = (*widget_.view())->engine_window();
  EXPECT_EQ(window.platform(), rpc::PLATFORM_X11);
  EXPECT_NE(window.handle(), 0U);
}

TEST_F(WidgetTest, OffScreenTheEngineHasNone) {
  ASSERT_EQ(Attach(absl::StrCat(kParentWindow,
                                " rendering_mode: RENDERING_MODE_OFF_SCREEN")),
            absl::OkStatus());
  EXPECT_EQ((*widget_.view())->engine_window().handle(), 0U);
}

TEST_F(WidgetTest, IsNotAttachedTwice) {
  ASSERT_EQ(Attach(kParentWindow), absl::OkStatus());
  EXPECT_EQ(Attach(kParentWindow),
            absl::FailedPreconditionError(
                "browser 2 is attached already; Detach comes first"));
}

TEST_F(WidgetTest, AModeThatIsNotKnownIsARefusalAndNoFailure) {
  auto request = Parsed<rpc::AttachRequest>(kParentWindow);
  request.set_rendering_mode(static_cast<rpc::RenderingMode>(3));
  rpc::AttachResult result;
  EXPECT_EQ(widget_.Attach(request, &result), absl::OkStatus());
  EXPECT_FALSE(result.attached());
  EXPECT_EQ(result.refusal(),
            "rendering mode 3 is not supported; use 1 (windowed) or 2 "
            "(off-screen)");
  EXPECT_FALSE(widget_.view().ok());
}

TEST_F(WidgetTest, IsNotAttachedToAWindowThatDoesNotExist) {
  EXPECT_EQ(Attach("parent_window { platform: PLATFORM_WINDOWS handle: 5 }"),
            absl::NotFoundError(
                "window 5 of PLATFORM_WINDOWS does not exist; windows are of "
                "PLATFORM_X11, with handles from 1 to 536870911"));
  EXPECT_FALSE(widget_.view().ok());
}

TEST_F(WidgetTest, IsNotAttachedWithANegativeSize) {
  EXPECT_EQ(Attach(absl::StrCat(kParentWindow, " bounds { width: -1 }")).code(),
            absl::StatusCode::kInvalidArgument);
  EXPECT_FALSE(widget_.view().ok());
}

TEST_F(WidgetTest, DetachEndsTheViewAndAllThatCameWithIt) {
  ASSERT_EQ(Attach(kParentWindow), absl::OkStatus());
  View* const view = *widget_.view();
  ASSERT_EQ(view->Show(), absl::OkStatus());
  ASSERT_EQ(view->Focus(), absl::OkStatus());
  ASSERT_EQ(view->input().DragEnter({}), absl::OkStatus());
  EXPECT_EQ(widget_.Detach(), absl::OkStatus());
  EXPECT_FALSE(widget_.view().ok());

  ASSERT_EQ(Attach(kParentWindow), absl::OkStatus());
  EXPECT_FALSE((*widget_.view())->is_drawn());
  EXPECT_FALSE((*widget_.view())->has_focus());
  EXPECT_EQ((*widget_.view())->input().DragEnter({}), absl::OkStatus());
}

TEST_F(WidgetTest, DetachAndUnfocusAreHarmlessWithoutAView) {
  EXPECT_EQ(widget_.Detach(), absl::OkStatus());
  EXPECT_EQ(widget_.Unfocus(), absl::OkStatus());
}

TEST_F(WidgetTest, UnfocusTakesTheFocusFromTheView) {
  ASSERT_EQ(Attach(kParentWindow), absl::OkStatus());
  ASSERT_EQ((*widget_.view())->Focus(), absl::OkStatus());
  EXPECT_EQ(widget_.Unfocus(), absl::OkStatus());
  EXPECT_FALSE((*widget_.view())->has_focus());
}

// Host window

TEST_F(WidgetTest, AHostWindowMustExist) {
  EXPECT_EQ(widget_.AssignHostWindow(Parsed<rpc::AssignHostWindowRequest>(
                "host_window { platform: PLATFORM_X11 handle: 8 }")),
            absl::OkStatus());
  EXPECT_EQ(widget_.AssignHostWindow({}), absl::OkStatus());
  EXPECT_EQ(widget_
                .AssignHostWindow(Parsed<rpc::AssignHostWindowRequest>(
                    "host_window { platform: PLATFORM_X11 handle: 0 }"))
                .message(),
            "window 0 of PLATFORM_X11 does not exist; windows are of "
            "PLATFORM_X11, with handles from 1 to 536870911");
}

// Scale

TEST_F(WidgetTest, DrawsOnePixelPerDipUnlessToldOtherwise) {
  EXPECT_EQ(widget_.scale_factor(), 1);
}

TEST_F(WidgetTest, DrawsAtTheScaleOfItsDisplay) {
  EXPECT_EQ(SetDisplay("bounds { width: 800 height: 600 } scale_factor: 2"),
            absl::OkStatus());
  EXPECT_EQ(widget_.scale_factor(), 2);
}

TEST_F(WidgetTest, NotDpiAwareItDrawsOnePixelPerDip) {
  ASSERT_EQ(SetDisplay("bounds { width: 800 height: 600 } scale_factor: 2"),
            absl::OkStatus());
  ASSERT_EQ(widget_.SetDpiAware({}), absl::OkStatus());
  EXPECT_EQ(widget_.scale_factor(), 1);
  ASSERT_EQ(
      widget_.SetDpiAware(Parsed<rpc::SetDpiAwareRequest>("dpi_aware: true")),
      absl::OkStatus());
  EXPECT_EQ(widget_.scale_factor(), 2);
}

TEST_F(WidgetTest, AForcedScaleCountsWhateverTheDisplaySays) {
  ASSERT_EQ(SetDisplay("bounds { width: 800 height: 600 } scale_factor: 2"),
            absl::OkStatus());
  ASSERT_EQ(ForceScaleFactor(3), absl::OkStatus());
  EXPECT_EQ(widget_.scale_factor(), 3);
  ASSERT_EQ(widget_.SetForcedScaleFactor({}), absl::OkStatus());
  EXPECT_EQ(widget_.scale_factor(), 2);
}

TEST_F(WidgetTest, AForcedScaleIsFromAQuarterToEight) {
  EXPECT_EQ(ForceScaleFactor(0.25), absl::OkStatus());
  EXPECT_EQ(ForceScaleFactor(8), absl::OkStatus());
  EXPECT_EQ(ForceScaleFactor(0),
            absl::InvalidArgumentError("`scale_factor` is 0; it must be from "
                                       "0.25 to 8, or absent"));
  for (const double factor :
       {0.24, 8.01, -1.0, std::numeric_limits<double>::quiet_NaN(),
        std::numeric_limits<double>::infinity()}) {
    EXPECT_EQ(ForceScaleFactor(factor).code(),
              absl::StatusCode::kInvalidArgument)
        << factor;
  }
  EXPECT_EQ(widget_.scale_factor(), 8);
}

TEST_F(WidgetTest, ADisplayIsNotEmpty) {
  EXPECT_EQ(SetDisplay("bounds { width: 800 height: 0 } scale_factor: 1"),
            absl::InvalidArgumentError(
                "`bounds` are 800 by 0 DIPs; both must be above 0"));
  EXPECT_EQ(SetDisplay("bounds { height: 600 } scale_factor: 1").code(),
            absl::StatusCode::kInvalidArgument);
}

TEST_F(WidgetTest, ADisplayHasAScale) {
  ASSERT_EQ(SetDisplay("bounds { width: 800 height: 600 } scale_factor: 2"),
            absl::OkStatus());
  EXPECT_EQ(
      SetDisplay("bounds { width: 800 height: 600 }"),
      absl::InvalidArgumentError("`scale_factor` is 0; it must be above 0"));
  EXPECT_EQ(
      SetDisplay("bounds { width: 800 height: 600 } scale_factor: nan").code(),
      absl::StatusCode::kInvalidArgument);
  EXPECT_EQ(widget_.scale_factor(), 2);
}

// Accessibility

TEST_F(WidgetTest, HasATokenOnceItIsAttached) {
  rpc::AccessibilityToken token;
  EXPECT_EQ(widget_.GetAccessibilityToken(&token),
            absl::FailedPreconditionError(
                "browser 2 is not attached; Attach comes first"));
  ASSERT_EQ(Attach(kParentWindow), absl::OkStatus());
  EXPECT_EQ(widget_.GetAccessibilityToken(&token), absl::OkStatus());
  EXPECT_EQ(token.platform(), rpc::PLATFORM_X11);
  EXPECT_EQ(token.token(), ":1.2:/org/a11y/atspi/accessible/root");
}

TEST_F(WidgetTest, TakesTheNodesOfTheHostAndNone) {
  EXPECT_EQ(SetParentNodes(
                "parent_node { platform: PLATFORM_X11 token: ':1.9:/view' }"
                "window_node { platform: PLATFORM_X11 token: ':1.9:/window' }"),
            absl::OkStatus());
  EXPECT_EQ(SetParentNodes(""), absl::OkStatus());
}

TEST_F(WidgetTest, ANodeMustBeOfThePlatform) {
  EXPECT_EQ(SetParentNodes("parent_node { platform: PLATFORM_MACOS }"),
            absl::InvalidArgumentError("the token is of PLATFORM_MACOS; this "
                                       "widget runs on PLATFORM_X11"));
}

TEST_F(WidgetTest, APlatformWithoutANameIsToldByItsNumber) {
  rpc::SetParentAccessibilityNodesRequest request;
  request.mutable_parent_node()->set_platform(static_cast<rpc::Platform>(9));
  EXPECT_EQ(widget_.SetParentAccessibilityNodes(request).message(),
            "the token is of platform 9; this widget runs on PLATFORM_X11");
}

TEST_F(WidgetTest, ATokenMustNameANode) {
  for (const char* const token : {"", "nonsense", ":/view"}) {
    EXPECT_EQ(
        SetParentNodes(absl::StrCat(
            "parent_node { platform: PLATFORM_X11 token: '", token, "' }")),
        absl::InvalidArgumentError(absl::StrCat(
            "token \"", token,
            "\" does not name a node; it must be a bus name, a colon and an "
            "object path")));
  }
}

TEST_F(WidgetTest, AWindowNodeIsCheckedLikeAParentNode) {
  EXPECT_EQ(SetParentNodes(
                "parent_node { platform: PLATFORM_X11 token: ':1.9:/view' }"
                "window_node { platform: PLATFORM_X11 token: '\\377' }")
                .message(),
            "token \"\\377\" does not name a node; it must be a bus name, a "
            "colon and "
            "an object path");
}

TEST_F(WidgetTest, JoinsNoTreeToAWindow) {
  google::protobuf::BoolValue is_joined;
  EXPECT_EQ(widget_.AttachAccessibleWindow(
                Parsed<rpc::AttachAccessibleWindowRequest>(
                    "window { platform: PLATFORM_X11 handle: 5 }"),
                &is_joined),
            absl::OkStatus());
  EXPECT_FALSE(is_joined.value());
  EXPECT_EQ(widget_.AttachAccessibleWindow({}, &is_joined), absl::OkStatus());
}

TEST_F(WidgetTest, AnAccessibleWindowMustExist) {
  google::protobuf::BoolValue is_joined;
  EXPECT_EQ(widget_
                .AttachAccessibleWindow(
                    Parsed<rpc::AttachAccessibleWindowRequest>(
                        "window { platform: PLATFORM_MACOS handle: 5 }"),
                    &is_joined)
                .code(),
            absl::StatusCode::kNotFound);
}

// What the page is told

// Keeps it.
class WatchingPage final : public AbstractPage {
 public:
  void SetViewport(const Viewport& viewport) override { told = viewport; }

  Viewport told;
};

class WidgetPageTest : public ::testing::Test {
 protected:
  const Viewport& Told() {
    widget_.UpdatePage([](AbstractPage&) {});
    return page_->told;
  }

  const std::shared_ptr<WatchingPage> page_ = std::make_shared<WatchingPage>();
  Widget widget_{2, page_};
};

TEST_F(WidgetPageTest, IsTheStateOfTheView) {
  ASSERT_EQ(widget_.SetDisplay(Parsed<rpc::Display>(
                "bounds { width: 800 height: 600 } scale_factor: 2")),
            absl::OkStatus());
  EXPECT_FALSE(Told().is_attached);
  EXPECT_EQ(Told().scale_factor, 2);
  EXPECT_EQ(Told().display.bounds().width(), 800);

  rpc::AttachResult result;
  ASSERT_EQ(widget_.Attach(
                Parsed<rpc::AttachRequest>("bounds { width: 30 height: 20 }"
                                           " screen_bounds { x: 4 y: 5 }"),
                &result),
            absl::OkStatus());
  EXPECT_TRUE(Told().is_attached);
  EXPECT_FALSE(Told().is_drawn_off_screen);
  EXPECT_EQ(Told().width, 30);
  EXPECT_EQ(Told().height, 20);
  EXPECT_EQ(Told().screen_bounds.x(), 4);

  ASSERT_EQ((*widget_.view())->Show(), absl::OkStatus());
  ASSERT_EQ((*widget_.view())->Focus(), absl::OkStatus());
  EXPECT_TRUE(Told().is_drawn_off_screen);
  EXPECT_TRUE(Told().has_focus);
}

TEST_F(WidgetPageTest, IsThatAccessibilityIsOnOnceTheTokenWasAskedFor) {
  rpc::AccessibilityToken token;
  EXPECT_FALSE(widget_.GetAccessibilityToken(&token).ok());  // Not attached.
  rpc::AttachResult result;
  ASSERT_EQ(widget_.Attach({}, &result), absl::OkStatus());
  EXPECT_FALSE(Told().is_accessibility_on);
  EXPECT_EQ(widget_.GetAccessibilityToken(&token), absl::OkStatus());
  EXPECT_TRUE(Told().is_accessibility_on);
}

TEST_F(WidgetPageTest, WithoutAWindowOfItsOwnOnlyOffScreenIsOffered) {
  rpc::AttachResult result;
  EXPECT_EQ(widget_.Attach(
                Parsed<rpc::AttachRequest>(absl::StrCat(
                    kParentWindow, " rendering_mode: RENDERING_MODE_WINDOWED")),
                &result),
            absl::OkStatus());
  EXPECT_FALSE(result.attached());
  EXPECT_EQ(result.refusal(),
            "this widget draws into no window; use 2 (off-screen)");
}

}  // namespace
}  // namespace widget_server
