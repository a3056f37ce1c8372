// The window on a screen that only exists in memory, with input as from a mouse
// and a keyboard.

#include <X11/XKBlib.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XTest.h>
#include <X11/extensions/Xdamage.h>
#include <X11/extensions/Xfixes.h>

#include "zimbrel/src/core/common/rpc/main_loops/xlib_names.h"

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "absl/functional/function_ref.h"
#include "absl/log/log.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/call_by_name.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace {

using ::orvane::testing::ChildProcess;
using ::testing::StartsWith;

constexpr char kXServer[] = "/usr/bin/Xvfb";

// SDL opens its window of 800 x 600 in the middle.
constexpr char kScreen[] = "1000x700x24";
constexpr int kLeft = 100;
constexpr int kTop = 50;

// Of the widget's page, as 0xrrggbb.
constexpr std::uint32_t kSky = 0x78b4f0;
constexpr std::uint32_t kInk = 0x202020;
constexpr std::uint32_t kPaper = 0xffffff;
constexpr std::uint32_t kFocusRing = 0x005fcc;
constexpr std::uint32_t kHighlight = 0xbed7fa;

// Positions are in pixels from the window's top left corner.
struct Point {
  int x;
  int y;
};
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
    if (!std::filesystem::exists(kXServer))
      GTEST_SKIP() << "no X server at " << kXServer << "; install xvfb";
    // It ends with the test, and its windows do.
    x_server_ = std::make_unique<ChildProcess>(std::vector<std::string>{
        "/usr/bin/setpriv", "--pdeathsig", "KILL", kXServer, "-displayfd", "1",
        "-screen", "0", kScreen, "-nolisten", "tcp"});
    name_ = absl::StrCat(":", x_server_->ReadLine());
    display_ = XOpenDisplay(name_.c_str());
    ASSERT_NE(display_, nullptr);
    // A window may be gone before it is asked.
    XSetErrorHandler([](Display*, XErrorEvent*) { return 0; });
    // Whatever changes is an event, so that a test can wait for it.
    const Window root = DefaultRootWindow(display_);
    XDamageCreate(display_, root, XDamageReportRawRectangles);
    XFixesSelectCursorInput(display_, root, XFixesDisplayCursorNotifyMask);
    XSelectInput(display_, root, SubstructureNotifyMask);
    StartWidget();
  }
  void TearDown() override {
    if (display_ != nullptr) XCloseDisplay(display_);
  }

  void StartWidget() {
    widget_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{WIDGET_SERVER, "--socket", socket_});
    EXPECT_EQ(widget_->ReadLine(), "widget_server listens at " + socket_);
  }
  void StartHost() {
    host_ = std::make_unique<ChildProcess>(std::vector<std::string>{
        "/usr/bin/env", "DISPLAY=" + name_, "SDL_VIDEODRIVER=x11",
        "SDL_RENDER_DRIVER=software",
        // SDL unloads its drivers, so that what they leak has no name.
        "LSAN_OPTIONS=detect_leaks=0", SDL_HOST, socket_});
  }
  void OpenPage() {
    StartHost();
    AwaitColor(kPicture, kSky);
  }

  // Waits until it is so; only the test's timeout ends that.
  void Await(absl::FunctionRef<bool()> is_so) {
    while (!is_so()) {
      XEvent event;
      XNextEvent(display_, &event);
    }
  }
  void AwaitColor(Point at, std::uint32_t rgb) {
    Await([&] { return ColorAt(at) == rgb; });
  }

  // What is seen.
  std::uint32_t ColorAt(Point at) const {
    XImage* const image =
        XGetImage(display_, DefaultRootWindow(display_), kLeft + at.x,
                  kTop + at.y, 1, 1, AllPlanes, ZPixmap);
    if (image == nullptr) LOG(FATAL) << "the screen cannot be read";
    const auto rgb = static_cast<std::uint32_t>(XGetPixel(image, 0, 0));
    XDestroyImage(image);
    return rgb;
  }
  std::string Cursor() const {
    XFixesCursorImage* const cursor = XFixesGetCursorImage(display_);
    std::string name = cursor->name;
    XFree(cursor);
    return name;
  }
  std::string Title() const {
    XSelectInput(display_, window(), PropertyChangeMask);
    char* name = nullptr;
    if (XFetchName(display_, window(), &name) == 0) return "";
    std::string title = name;
    XFree(name);
    return title;
  }

  // The only one, or None.
  Window window() const {
    Window root = None;
    Window parent = None;
    Window* children = nullptr;
    unsigned count = 0;
    XQueryTree(display_, DefaultRootWindow(display_), &root, &parent, &children,
               &count);
    const Window only = count == 0 ? static_cast<Window>(None) : children[0];
    XFree(children);
    return only;
  }

  // Input.
  void MoveTo(Point to) {
    XTestFakeMotionEvent(display_, -1, kLeft + to.x, kTop + to.y, CurrentTime);
  }
  void Click(Point at) {
    MoveTo(at);
    XTestFakeButtonEvent(display_, 1, True, CurrentTime);
    XTestFakeButtonEvent(display_, 1, False, CurrentTime);
  }
  void Press(const std::vector<KeySym>& chord) {
    for (const KeySym key : chord) SendKey(key, True);
    for (const KeySym key : chord) SendKey(key, False);
  }
  void SendKey(KeySym key, Bool is_press) {
    XTestFakeKeyEvent(display_, XKeysymToKeycode(display_, key), is_press,
                      CurrentTime);
  }
  void CloseWindow() {
    XEvent event = {};
    event.xclient.type = ClientMessage;
    event.xclient.window = window();
    event.xclient.message_type = XInternAtom(display_, "WM_PROTOCOLS", False);
    event.xclient.format = 32;
    event.xclient.data.l[0] =
        static_cast<long>(XInternAtom(display_, "WM_DELETE_WINDOW", False));
    XSendEvent(display_, window(), False, NoEventMask, &event);
    XFlush(display_);
  }

  const orvane::testing::TemporaryFolder folder_;
  const std::string socket_ = folder_.path() + "/widget.sock";
  std::unique_ptr<ChildProcess> x_server_;
  std::string name_;  // Of the display.
  Display* display_ = nullptr;
  std::unique_ptr<ChildProcess> widget_;
  std::unique_ptr<ChildProcess> host_;
};

TEST_F(SdlHostTest, ThePageIsSeenAndKeptWhenTheWindowIsResized) {
  OpenPage();
  EXPECT_EQ(Title(), "Browser");
  const Point corner = {880, 630};
  EXPECT_NE(ColorAt(corner), kPaper);
  XResizeWindow(display_, window(), 890, 640);
  AwaitColor(corner, kPaper);
  EXPECT_EQ(ColorAt(kPicture), kSky);
}

TEST_F(SdlHostTest, AClickAndTypedLettersArrive) {
  OpenPage();
  Click(kField);
  AwaitColor(kFieldRing, kFocusRing);
  Press({XK_a});
  AwaitColor(kFirstLetter, kInk);
  Press({XK_Shift_L, XK_1});
  AwaitColor({kFirstLetter.x + 7, kFirstLetter.y}, kInk);
}

// SDL reports the text of Alt+A like that of A.
TEST_F(SdlHostTest, AShortcutTypesNothing) {
  OpenPage();
  Click(kField);
  Press({XK_Alt_L, XK_a});
  Press({XK_Tab});
  AwaitColor(kListRing, kFocusRing);
  EXPECT_EQ(ColorAt(kFirstLetter), kPaper);
}

TEST_F(SdlHostTest, TheCursorIsThePages) {
  OpenPage();
  MoveTo(kLink);
  Await([this] { return Cursor() == "hand2"; });
  MoveTo(kField);
  Await([this] { return Cursor() == "xterm"; });
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
  Await([this] {
    return Title() == "Browser: the server closed the connection";
  });
  AwaitColor(kPicture, 0x2d435a);
  StartWidget();
  AwaitColor(kPicture, kSky);
  EXPECT_EQ(Title(), "Browser");
  Click(kField);
  AwaitColor(kFieldRing, kFocusRing);
}

TEST_F(SdlHostTest, AWindowThatIsClosedLeavesThePageToTheNext) {
  OpenPage();
  CloseWindow();
  EXPECT_EQ(host_->Wait().exit_code, 0);
  Await([this] { return window() == None; });
  OpenPage();
}

TEST_F(SdlHostTest, AHostThatHasDiedLeavesThePageToTheNext) {
  OpenPage();
  host_->Signal(SIGKILL);
  host_->Wait();
  Await([this] { return window() == None; });
  OpenPage();
}

TEST_F(SdlHostTest, AClickTakesThePageFromAnotherHost) {
  orvane::EventLoop loop;
  const auto other = orvane::SocketClient::Connect(&loop, socket_);
  ASSERT_TRUE(other.ok()) << other.status();
  ASSERT_EQ(orvane::testing::CallByName(other->get(), "Attach",
                                        "browser_id { value: 1 }"),
            absl::OkStatus());
  StartHost();
  Await([this] { return absl::EndsWith(Title(), "(click to take over)"); });
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
