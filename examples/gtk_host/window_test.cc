// The window with the toy widget's page in it, used as people use it.

#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "absl/base/config.h"
#include "absl/strings/match.h"
#include "absl/time/clock.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "examples/gtk_host/window_fixture.h"
#include "rpc/browser/browser_widget.client.h"

namespace gtk_host::testing {
namespace {

using ::testing::Contains;
using ::testing::Not;

// See page_layout.h and page_picture.h of the widget server.
constexpr Rgb kSky = 0x78b4f0;
constexpr Point kPicture = {16, 16};
constexpr int kPictureSide = 64;
constexpr Rgb kPaper = 0xffffff;
constexpr Rgb kInk = 0x202020;
constexpr Rgb kRing = 0x005fcc;

// A sanitizer keeps what is freed, and finds leaks by itself.
#if defined(ABSL_HAVE_ADDRESS_SANITIZER) || defined(ABSL_HAVE_THREAD_SANITIZER)
constexpr long kMaxGrowthKiB = std::numeric_limits<long>::max();
#else
constexpr long kMaxGrowthKiB = 16 << 10;
#endif

class WindowTest : public WindowFixture {
 protected:
  // A host that starts the toy widget itself, which logs that it serves no
  // pages.
  void StartHostWithItsWidget() {
    host_ = std::make_unique<orvane::testing::ChildProcess>(
        screen_->CommandOf({GTK_HOST, "--start", "--", "sh", "-c",
                            "exec \"$0\" \"$@\" 2>/dev/null", WIDGET_SERVER},
                           {}));
  }
  pid_t widget_of_host() const {
    const std::vector<pid_t> children = host_->Children();
    return children.size() == 1 ? children.front() : 0;
  }

  WindowTest() : WindowFixture(kSky, kPicture) {}

  void StartWidget() {
    widget_ = std::make_unique<orvane::testing::ChildProcess>(
        std::vector<std::string>{WIDGET_SERVER, "--socket", socket()});
    ASSERT_EQ(widget_->ReadLine(), "widget_server listens at " + socket());
  }

  // Returns once the window shows that it has gone.
  void KillTheWidget() {
    widget_->Signal(SIGKILL);
    widget_->Wait();
    Await("a dimmed picture", [this] { return ColorAt(20, 20) != kSky; });
  }

  void Start(const std::vector<std::string>& environment = {}) {
    StartWidget();
    StartHost(environment);
    AwaitPage();
  }

  // From now on the page tells what was entered and chosen.
  void Listen() {
    connection_ = Connect();
    client_.emplace(connection_.get());
    told_.clear();
    reports_ = client_->WhenAriaLiveRegionChanged(
        browser_, [this](const rpc::AriaLiveRegionChanged& event) {
          told_.emplace_back(event.text());
        });
    ASSERT_TRUE(client_->GetAccessibilityToken(browser_).ok());
  }
  bool HasTold(const std::string& text) const {
    return std::find(told_.begin(), told_.end(), text) != told_.end();
  }
  void AwaitTold(const std::string& text) {
    Await("the page tells " + text, [&] { return HasTold(text); });
  }

  // Left of what an element's place begins with.
  void AwaitFocusAt(int x, int y) { AwaitColor(x - 2, y + 4, kRing); }
  void AwaitFocusOnTheLink() { AwaitFocusAt(96, 16); }
  void AwaitFocusOnTheField() { AwaitFocusAt(96, 48); }
  void AwaitFocusOnTheList() { AwaitFocusAt(96, 84); }
  void AwaitFocusOnTheButton() { AwaitFocusAt(208, 84); }

  void ClickTheField() { Click(192, 60); }
  void ClickTheList() { Click(144, 96); }
  void ClickTheButton() { Click(248, 96); }

  // The character of the field in that place: a bar.
  void AwaitCharacter(int index) { AwaitColor(102 + 7 * index, 60, kInk); }

  std::unique_ptr<orvane::SocketClient> connection_;
  std::optional<rpc::BrowserWidgetRpcClient> client_;
  std::unique_ptr<orvane::ClientStream> reports_;
  std::vector<std::string> told_;
};

TEST_F(WindowTest, TypedTextIsInTheField) {
  Start();
  Listen();
  ClickTheField();
  AwaitFocusOnTheField();
  screen_->Type("Ada 7!");
  AwaitTold("Ada 7!");
  AwaitCharacter(5);
  EXPECT_EQ(ColorAt(102 + 7 * 6, 60), kPaper);
}

TEST_F(WindowTest, TabGoesThroughThePageBothWays) {
  Start();
  ClickTheField();
  AwaitFocusOnTheField();
  screen_->PressKey("Tab");
  AwaitFocusOnTheList();
  screen_->PressKey("Tab");
  AwaitFocusOnTheButton();
  screen_->PressKey("Tab");  // Nothing else in the window wants the focus.
  AwaitFocusOnTheLink();
  screen_->PressKey("shift+Tab");
  AwaitFocusOnTheButton();
  screen_->PressKey("shift+Tab");
  AwaitFocusOnTheList();
}

TEST_F(WindowTest, TheCursorIsWhatThePageWants) {
  Start();
  MoveTo(160, 26);
  Await("a hand over the link", [] { return screen_->Cursor() == "pointer"; });
  MoveTo(192, 60);
  Await("a bar over the field", [] { return screen_->Cursor() == "text"; });
  MoveTo(400, 300);
  Await("an arrow", [] { return screen_->Cursor() == "default"; });
}

TEST_F(WindowTest, ATooltipAppearsWhereThePointerRests) {
  Start();
  MoveTo(47, 47);
  MoveTo(48, 48);
  AwaitPopup();
  MoveTo(400, 300);
  AwaitNoPopup();
}

TEST_F(WindowTest, ALineOfAListIsChosenByClick) {
  Start();
  Listen();
  ClickTheList();
  AwaitPopup();
  screen_->Click(LineBelowTheChosen(2));
  AwaitTold("Blue");
  AwaitNoPopup();
  ClickTheField();  // The window takes input again.
  AwaitFocusOnTheField();
}

TEST_F(WindowTest, ALineOfAListIsChosenByKey) {
  Start();
  Listen();
  ClickTheList();
  AwaitPopup();
  LineBelowTheChosen(0);
  screen_->PressKey("Down");
  screen_->PressKey("Return");
  AwaitTold("Green");
  AwaitNoPopup();
}

TEST_F(WindowTest, AListThatIsLeftChoosesNothing) {
  Start();
  Listen();
  ClickTheList();
  AwaitPopup();
  screen_->PressKey("Escape");
  AwaitNoPopup();
  ClickTheList();
  AwaitPopup();
  Click(400, 300);
  AwaitNoPopup();
  ClickTheList();
  AwaitPopup();
  screen_->Click(LineBelowTheChosen(1));
  AwaitTold("Green");
  EXPECT_EQ(told_, std::vector<std::string>{"Green"});
}

TEST_F(WindowTest, APromptIsAnswered) {
  Start();
  Listen();
  ClickTheButton();
  AwaitDialog();
  screen_->Type("Ada");
  screen_->PressKey("Return");
  AwaitTold("Hello, Ada");
  AwaitNoDialog();
  ClickTheField();
  AwaitFocusOnTheField();
  screen_->Type("x");
  AwaitTold("x");
}

TEST_F(WindowTest, APromptThatIsClosedIsDeclined) {
  Start();
  Listen();
  ClickTheButton();
  AwaitDialog();
  screen_->Type("Ada");
  screen_->Close(screen_->Windows().back());
  AwaitNoDialog();
  ClickTheButton();
  AwaitDialog();
  screen_->Type("Bob");
  screen_->PressKey("Return");
  AwaitTold("Hello, Bob");
  EXPECT_EQ(told_, std::vector<std::string>{"Hello, Bob"});
}

TEST_F(WindowTest, APromptIsDeclinedByEscape) {
  Start();
  ClickTheButton();
  AwaitDialog();
  screen_->PressKey("Escape");
  AwaitNoDialog();
}

TEST_F(WindowTest, ThePagesPictureIsDraggedIntoItsField) {
  Start();
  Listen();
  MoveTo(30, 30);
  screen_->Press();
  MoveUntil("the cursor of a copy", At(180, 60),
            [] { return absl::StrContains(screen_->Cursor(), "copy"); });
  screen_->Release();
  AwaitTold("picture");
  AwaitCharacter(6);
  ClickTheField();
  AwaitFocusOnTheField();
}

TEST_F(WindowTest, ThePageFillsTheWindowAtEverySize) {
  Start();
  for (const auto& [width, height] :
       std::vector<std::pair<int, int>>{{500, 300}, {1100, 800}, {900, 640}}) {
    screen_->Resize(window(), width, height);
    Await("a page in all of the window", [&, w = width, h = height] {
      const Area place = screen_->PlaceOf(window());
      // Paper up to the last row and column.
      return place.width == w && place.height == h &&
             screen_->ColorAt({place.x + w - 1, place.y + h - 1}) == kPaper &&
             screen_->ColorAt({place.x + w - 1, place.y + h / 2}) == kPaper;
    });
  }
  ClickTheField();
  AwaitFocusOnTheField();
}

TEST_F(WindowTest, AtTwiceTheScaleThePageHasTwiceAsManyPixels) {
  scale_ = 2;
  Start({"GDK_SCALE=2"});
  const std::optional<Area> sky = screen_->Take().Find(kSky);
  ASSERT_TRUE(sky.has_value());
  EXPECT_EQ(sky->width, 2 * kPictureSide);
  Listen();
  ClickTheField();
  AwaitFocusOnTheField();
  screen_->Type("x");
  AwaitTold("x");
  ClickTheList();
  AwaitPopup();
  screen_->Click(LineBelowTheChosen(1));
  AwaitTold("Green");
}

TEST_F(WindowTest, AWidgetThatComesLaterIsShown) {
  StartHost();
  AwaitWindow();
  StartWidget();
  AwaitPage();
  ClickTheField();
  AwaitFocusOnTheField();
}

TEST_F(WindowTest, AWidgetThatDiesIsToldAndTheNextTakesItsPlace) {
  Start();
  ClickTheField();
  AwaitFocusOnTheField();
  KillTheWidget();  // Leaves the last picture, dimmed, and words over it.
  EXPECT_NE(ColorAt(20, 20), kPaper);
  Await("words", [this] {
    const Area place = screen_->PlaceOf(window());
    const Image image = screen_->Take();
    for (int x = place.x; x < place.x + place.width; ++x) {
      for (int y = At(0, 120).y; y < place.y + place.height; ++y) {
        const Rgb color = image.At({x, y});
        if ((color & 0xff) < 0x60 && (color >> 16) < 0x60) return true;
      }
    }
    return false;
  });
  StartWidget();
  AwaitPage();
  Listen();
  ClickTheField();
  AwaitFocusOnTheField();
  screen_->Type("again");
  AwaitTold("again");
}

TEST_F(WindowTest, AListAndAPromptCloseWithTheirWidget) {
  Start();
  ClickTheList();
  AwaitPopup();
  KillTheWidget();
  AwaitNoPopup();
  StartWidget();
  AwaitPage();
  ClickTheButton();
  AwaitDialog();
  KillTheWidget();
  AwaitNoDialog();
}

TEST_F(WindowTest, AWidgetThatIsStoppedLeavesTheWindowUsable) {
  Start();
  Listen();
  ClickTheField();
  AwaitFocusOnTheField();
  widget_->Signal(SIGSTOP);
  screen_->Type("while it slept");
  screen_->Resize(window(), 1100, 700);
  Await("the window's own colour beside the old picture", [] {
    const Area place = screen_->PlaceOf(window());
    constexpr Rgb kNotDrawn = 0;
    return place.width == 1100 &&
           screen_->ColorAt({place.x + 1090, place.y + 690}) != kNotDrawn;
  });
  const long ping = screen_->Ping(window());
  Await("an answer of the window",
        [ping] { return screen_->HasAnswered(ping); });
  widget_->Signal(SIGCONT);
  AwaitTold("while it slept");
  widget_->Signal(SIGSTOP);
  screen_->Close(window());
  AwaitNoWindow();
}

TEST_F(WindowTest, AWidgetOfItsOwnIsStartedAgain) {
  StartHostWithItsWidget();
  AwaitWindow();
  AwaitPage();
  const pid_t first = widget_of_host();
  ASSERT_NE(first, 0);
  ::kill(first, SIGKILL);
  Await("another widget",
        [&] { return widget_of_host() != 0 && widget_of_host() != first; });
  AwaitPage();
}

TEST_F(WindowTest, AWidgetOfItsOwnThatHangsIsStartedAgainByAClick) {
  StartHostWithItsWidget();
  AwaitWindow();
  AwaitPage();
  const pid_t first = widget_of_host();
  ASSERT_NE(first, 0);
  ::kill(first, SIGSTOP);
  // The button appears below the middle of the page.
  const Area place = screen_->PlaceOf(window());
  int below = 0;
  Await("another widget", [&] {
    screen_->Click(
        {place.x + place.width / 2, place.y + place.height / 2 + below});
    below = (below + 8) % (place.height / 4);
    return widget_of_host() != 0 && widget_of_host() != first;
  });
  AwaitPage();
}

TEST_F(WindowTest, AWidgetOfItsOwnEndsWithTheWindow) {
  StartHostWithItsWidget();
  AwaitWindow();
  AwaitPage();
  const pid_t widget = widget_of_host();
  ASSERT_NE(widget, 0);
  screen_->Close(window());
  AwaitNoWindow();
  EXPECT_EQ(std::exchange(host_, nullptr)->Wait().exit_code, 0);
  EXPECT_NE(::kill(widget, 0), 0);
}

TEST_F(WindowTest, AHostThatWasKilledIsFollowedByTheNext) {
  Start();
  ClickTheField();
  AwaitFocusOnTheField();
  screen_->Press();
  host_->Signal(SIGKILL);
  host_->Wait();
  screen_->Release();
  AwaitNoWindow();
  StartHost();
  AwaitPage();
  Listen();
  ClickTheField();
  AwaitFocusOnTheField();
  screen_->Type("next");
  AwaitTold("next");
}

TEST_F(WindowTest, AButtonHeldWhileTheWindowIsMinimisedIsNotStuck) {
  Start();
  Listen();
  MoveTo(30, 30);
  screen_->Press();
  for (int step = 1; step <= 10; ++step) MoveTo(30 + 10 * step, 30);
  screen_->Minimize(window());
  Await("no page", [this] { return !screen_->Take().Find(mark_).has_value(); });
  screen_->Release();
  screen_->Restore(window());
  AwaitPage();
  MoveTo(150, 20);
  MoveTo(160, 26);  // Hovers; with a button held it would drag.
  Await("a hand over the link", [] { return screen_->Cursor() == "pointer"; });
  ClickTheField();
  AwaitFocusOnTheField();
  screen_->Type("free");
  AwaitTold("free");
  EXPECT_THAT(told_, Not(Contains("picture")));
}

// In KiB.
long MemoryOf(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  std::string word;
  while (status >> word && word != "RssAnon:") {
  }
  long memory = 0;
  status >> memory;
  return memory;
}

// One button at a time; 0 if none is held.
void UseAtRandom(std::mt19937& random, const Area& page, WindowId window,
                 Screen* screen, unsigned* held) {
  static constexpr std::array kKeys = {
      "a", "B", "space", "Tab", "shift+Tab", "Return", "Up", "Down", "Escape"};
  const auto below = [&random](int end) {
    return static_cast<int>(random() % static_cast<unsigned>(end));
  };
  const Point inside = {page.x + below(page.width),
                        page.y + below(page.height)};
  const int what = below(100);
  if (what < 50) {
    screen->MoveTo(inside);
  } else if (what < 75) {
    if (*held != 0) {
      screen->Release(std::exchange(*held, 0));
    } else {
      screen->MoveTo(inside);
      screen->Press(*held = 1 + static_cast<unsigned>(below(3)));
    }
  } else if (what < 80) {
    const unsigned wheel = 4 + static_cast<unsigned>(below(4));
    screen->Press(wheel);
    screen->Release(wheel);
  } else if (what < 98) {
    screen->PressKey(kKeys[static_cast<std::size_t>(below(kKeys.size()))]);
  } else if (what < 99) {
    screen->Resize(window, 500 + below(500), 300 + below(500));
  } else {
    screen->Minimize(window);
    screen->Restore(window);
  }
}

// Three seconds, or as many as ORVANE_SECONDS says. Takes --gtest_random_seed.
TEST_F(WindowTest, RandomInputLeavesNothingBehind) {
  const auto given = GTEST_FLAG_GET(random_seed);
  const auto seed = given != 0 ? static_cast<unsigned>(given)
                               : std::random_device()() % 100000;
  std::cout << "To repeat: --gtest_random_seed=" << seed << std::endl;
  std::mt19937 random(seed);
  const char* const seconds = std::getenv("ORVANE_SECONDS");
  const absl::Duration time =
      absl::Seconds(seconds == nullptr ? 3 : std::atoi(seconds));
  deadline_ += time;
  Start();
  const pid_t host = screen_->ProcessOf(window());
  // The elements of the page, and a little more.
  const Area page = {At(0, 0).x, At(0, 0).y, 320, 200};
  const absl::Time warm = absl::Now() + time / 4;
  const absl::Time end = absl::Now() + time;
  long memory = 0;
  int inputs = 0;
  unsigned held = 0;
  while (absl::Now() < end && !HasFailure()) {
    for (int i = 0; i < 20; ++i, ++inputs)
      UseAtRandom(random, page, window(), screen_.get(), &held);
    const long ping = screen_->Ping(window());
    Await("an answer of the window",
          [ping] { return screen_->HasAnswered(ping); });
    if (memory == 0 && absl::Now() > warm) memory = MemoryOf(host);
  }
  const long grown = MemoryOf(host) - memory;
  std::cout << inputs << " inputs; the host has grown by " << grown
            << " KiB of " << memory << std::endl;
  EXPECT_LT(grown, kMaxGrowthKiB);

  // What was begun may still open a list or a dialog, so more than one try.
  screen_->ReleaseAll();
  Listen();
  while (!HasFailure() && !HasTold("usable")) {
    ASSERT_LT(absl::Now(), deadline_) << "the window is not usable any more";
    for (const WindowId dialog : screen_->Windows()) {
      if (dialog != window()) screen_->Close(dialog);
    }
    screen_->PressKey("Escape");  // Closes a list.
    ClickTheField();
    screen_->PressKey("Return");  // Empties it.
    screen_->Type("usable");
    screen_->RunUntil([this] { return HasTold("usable"); },
                      absl::Now() + absl::Seconds(1));
  }
}

}  // namespace
}  // namespace gtk_host::testing
