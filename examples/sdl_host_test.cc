// The window on a screen that only exists in memory, with input as from a mouse
// and a keyboard.

#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "absl/time/clock.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "examples/screen_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/call_by_name.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace {

using ::examples::testing::Area;
using ::examples::testing::Point;
using ::examples::testing::Rgb;
using ::examples::testing::Screen;
using ::examples::testing::WindowId;
using ::orvane::testing::ChildProcess;
using ::testing::StartsWith;

// Of the widget's page.
constexpr Rgb kSky = 0x78b4f0;
constexpr Rgb kDimmedSky = 0x2d435a;
constexpr Rgb kInk = 0x202020;
constexpr Rgb kPaper = 0xffffff;
constexpr Rgb kFocusRing = 0x005fcc;
constexpr Rgb kHighlight = 0xbed7fa;

// In pixels from the window's top left corner.
constexpr Point kPicture = {20, 20};
constexpr Point kLink = {150, 26};
constexpr Point kField = {200, 60};
constexpr Point kFieldRing = {95, 60};
constexpr Point kFirstLetter = {102, 60};
constexpr Point kList = {144, 96};
constexpr Point kListRing = {95, 96};

class SdlHostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!Screen::Missing().empty()) GTEST_SKIP() << Screen::Missing();
    screen_ = std::make_unique<Screen>();
    StartWidget();
  }

  void StartWidget() {
    widget_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{WIDGET_SERVER, "--socket", socket_});
    EXPECT_EQ(widget_->ReadLine(), "widget_server listens at " + socket_);
  }
  void StartHost() {
    host_ = std::make_unique<ChildProcess>(screen_->CommandOf(
        {SDL_HOST, socket_},
        {"SDL_VIDEODRIVER=x11", "SDL_RENDER_DRIVER=software",
         // SDL unloads its drivers, so that what they leak has no name.
         "LSAN_OPTIONS=detect_leaks=0"}));
  }
  void OpenPage() {
    StartHost();
    AwaitColor(kPicture, kSky);
    Await("the window, ready for input",
          [this] { return screen_->IsActive(window()); });
  }

  // Fails, and fails again at once, if that does not happen in the test's time.
  void Await(const std::string& what, const std::function<bool()>& is_true) {
    ASSERT_TRUE(screen_->RunUntil(is_true, deadline_))
        << "not in time: " << what;
  }
  void AwaitColor(Point at, Rgb color) {
    Await(absl::StrCat("colour ", absl::Hex(color, absl::kZeroPad6), " at ",
                       at.x, ", ", at.y),
          [&] { return ColorAt(at) == color; });
  }
  // SDL 2.26 takes its cursors from X's font, SDL 2.32 from the theme, where
  // they are called as in CSS.
  void AwaitCursor(const std::string& font_name, const std::string& css_name) {
    Await("the cursor " + css_name, [&] {
      const std::string name = screen_->Cursor();
      return name == font_name || name == css_name;
    });
  }
  void AwaitNoWindow() {
    Await("the end of the window", [this] { return window() == 0; });
  }

  // The only one; 0 if there is none.
  WindowId window() const {
    const std::vector<WindowId> windows = screen_->Windows();
    return windows.empty() ? 0 : windows.front();
  }
  std::string Title() const { return screen_->TitleOf(window()); }

  Point OnScreen(Point at) const {
    const Area place = screen_->PlaceOf(window());
    return {place.x + at.x, place.y + at.y};
  }
  Rgb ColorAt(Point at) const { return screen_->ColorAt(OnScreen(at)); }
  void MoveTo(Point to) { screen_->MoveTo(OnScreen(to)); }
  void Click(Point at) { screen_->Click(OnScreen(at)); }

  static constexpr absl::Duration kTestBound = absl::Seconds(60);

  const absl::Time deadline_ = absl::Now() + kTestBound;
  const orvane::testing::TemporaryFolder folder_;
  const std::string socket_ = folder_.path() + "/widget.sock";
  std::unique_ptr<Screen> screen_;
  std::unique_ptr<ChildProcess> widget_;
  std::unique_ptr<ChildProcess> host_;
};

TEST_F(SdlHostTest, ThePageIsSeenAndKeptWhenTheWindowIsResized) {
  OpenPage();
  EXPECT_EQ(Title(), "Browser");
  const Point corner = {880, 630};
  EXPECT_NE(ColorAt(corner), kPaper);
  screen_->Resize(window(), 890, 640);
  AwaitColor(corner, kPaper);
  EXPECT_EQ(ColorAt(kPicture), kSky);
}

TEST_F(SdlHostTest, AClickAndTypedLettersArrive) {
  OpenPage();
  Click(kField);
  AwaitColor(kFieldRing, kFocusRing);
  screen_->PressKey("a");
  AwaitColor(kFirstLetter, kInk);
  screen_->PressKey("shift+1");
  AwaitColor({kFirstLetter.x + 7, kFirstLetter.y}, kInk);
}

// SDL reports the text of Alt+A like that of A.
TEST_F(SdlHostTest, AShortcutTypesNothing) {
  OpenPage();
  Click(kField);
  screen_->PressKey("Alt_L+a");
  screen_->PressKey("Tab");
  AwaitColor(kListRing, kFocusRing);
  EXPECT_EQ(ColorAt(kFirstLetter), kPaper);
}

TEST_F(SdlHostTest, TheCursorIsThePages) {
  OpenPage();
  MoveTo(kLink);
  AwaitCursor("hand2", "pointer");
  MoveTo(kField);
  AwaitCursor("xterm", "text");
}

TEST_F(SdlHostTest, AListOpensAndIsChosenFrom) {
  OpenPage();
  Click(kList);
  AwaitColor({kList.x, 118}, kHighlight);
  Click({kList.x, 138});
  AwaitColor({kList.x, 118}, kPaper);
  AwaitColor({130, kList.y}, kInk);  // "Green" is longer than "Red".
}

TEST_F(SdlHostTest, ThePageIsDimmedWhileThereIsNoWidgetAndComesBack) {
  OpenPage();
  widget_->Signal(SIGKILL);
  widget_->Wait();
  Await("a title that says why", [this] {
    return Title() == "Browser: the server closed the connection";
  });
  AwaitColor(kPicture, kDimmedSky);
  StartWidget();
  AwaitColor(kPicture, kSky);
  EXPECT_EQ(Title(), "Browser");
  Click(kField);
  AwaitColor(kFieldRing, kFocusRing);
}

TEST_F(SdlHostTest, AWindowThatIsClosedLeavesThePageToTheNext) {
  OpenPage();
  screen_->Close(window());
  EXPECT_EQ(host_->Wait().exit_code, 0);
  AwaitNoWindow();
  OpenPage();
}

TEST_F(SdlHostTest, AHostThatHasDiedLeavesThePageToTheNext) {
  OpenPage();
  host_->Signal(SIGKILL);
  host_->Wait();
  AwaitNoWindow();
  OpenPage();
}

TEST_F(SdlHostTest, AClickTakesThePageFromAnotherHost) {
  const auto other = orvane::SocketClient::Connect(&screen_->loop(), socket_);
  ASSERT_TRUE(other.ok()) << other.status();
  ASSERT_EQ(orvane::testing::CallByName(other->get(), "Attach",
                                        "browser_id { value: 1 }"),
            absl::OkStatus());
  StartHost();
  Await("a title that says what to do",
        [this] { return absl::EndsWith(Title(), "(click to take over)"); });
  Click(kPicture);
  AwaitColor(kPicture, kSky);
}

TEST(SdlHost, SaysThatThereIsNoScreen) {
  const ChildProcess::Result ended =
      ChildProcess({"/usr/bin/env", "DISPLAY=:none", "SDL_VIDEODRIVER=x11",
                    SDL_HOST, "/none"})
          .Wait();
  EXPECT_EQ(ended.exit_code, 1);
  EXPECT_THAT(ended.errors, StartsWith("sdl_host: "));
}

}  // namespace
