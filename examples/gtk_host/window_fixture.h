// For tests of the window: the host on a screen of its own, beside a widget
// process.

#ifndef EXAMPLES_GTK_HOST_WINDOW_FIXTURE_H_
#define EXAMPLES_GTK_HOST_WINDOW_FIXTURE_H_

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_join.h"
#include "absl/strings/str_split.h"
#include "absl/time/clock.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "examples/screen_fixture.h"
#include "rpc/browser/browser_id.pb.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace gtk_host::testing {

using ::examples::testing::Area;
using ::examples::testing::Image;
using ::examples::testing::Point;
using ::examples::testing::Rgb;
using ::examples::testing::Screen;
using ::examples::testing::WindowId;

// The page marks its place by a spot of a colour that it has nowhere else. A
// test that fails leaves a picture of the screen in its folder.
class WindowFixture : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (Screen::Missing().empty()) screen_ = std::make_unique<Screen>();
  }
  static void TearDownTestSuite() { screen_.reset(); }

  // `mark` is the colour of the spot, and `place` where it is on the page.
  WindowFixture(Rgb mark, Point place) : mark_(mark), mark_place_(place) {
    browser_.set_value(1);
  }

  void SetUp() override {
    if (screen_ == nullptr) GTEST_SKIP() << Screen::Missing();
    screen_->MoveTo({0, 0});
  }

  // The window closes as by its button, without a complaint of GTK's.
  void TearDown() override {
    if (host_ == nullptr) return;
    screen_->ReleaseAll();
    const auto has_no_window = [] { return screen_->Windows().empty(); };
    if (!HasFailure()) {
      for (const WindowId window : screen_->Windows()) screen_->Close(window);
      EXPECT_TRUE(screen_->RunUntil(has_no_window, absl::Now() + kCloseBound))
          << "the window does not close";
    }
    const bool is_to_be_killed = HasFailure();
    if (is_to_be_killed) {
      SavePicture();
      host_->Signal(SIGKILL);
      screen_->RunUntil(has_no_window, absl::Now() + kCloseBound);
    }
    const auto ended = std::exchange(host_, nullptr)->Wait();
    EXPECT_EQ(ComplaintsIn(ended.errors), "");
    EXPECT_EQ(ended.exit_code, is_to_be_killed ? 128 + SIGKILL : 0);
  }

  // GTK counts presses and releases of each widget, and warns when a list or a
  // dialog has come between the two.
  static std::string ComplaintsIn(const std::string& errors) {
    std::vector<std::string> lines = absl::StrSplit(errors, '\n');
    std::erase_if(lines, [](const std::string& line) {
      return line.empty() ||
             absl::StrContains(line, "Broken accounting of active state");
    });
    return absl::StrJoin(lines, "\n");
  }

  static void SavePicture() {
    const ::testing::TestInfo& test =
        *::testing::UnitTest::GetInstance()->current_test_info();
    const std::string path =
        absl::StrCat(test.test_suite_name(), ".", test.name(), ".png");
    screen_->Take().SaveAsPng(path);
    GTEST_LOG_(INFO) << "the screen is in " << path;
  }

  std::string socket() const { return folder_.path() + "/widget.sock"; }

  // Where a host saves files that is started in the environment which this
  // returns; not in the home of whoever runs the test.
  std::string files() const { return folder_.path() + "/files"; }
  std::vector<std::string> MakeFolderForFiles() const {
    std::filesystem::create_directory(files());
    std::ofstream(folder_.path() + "/user-dirs.dirs")
        << "XDG_DOWNLOAD_DIR=\"" << files() << "\"\n";
    return {"HOME=" + folder_.path(), "XDG_CONFIG_HOME=" + folder_.path()};
  }

  void StartHost(const std::vector<std::string>& environment = {},
                 const std::vector<std::string>& options = {}) {
    std::vector<std::string> command = {GTK_HOST, socket()};
    command.insert(command.end(), options.begin(), options.end());
    host_ = std::make_unique<orvane::testing::ChildProcess>(
        screen_->CommandOf(std::move(command), environment));
  }

  // Fails, and fails again at once, if that does not happen in the test's time.
  void Await(const std::string& what, const std::function<bool()>& is_true) {
    ASSERT_TRUE(screen_->RunUntil(is_true, deadline_))
        << "not in time: " << what;
  }
  void AwaitColor(int x, int y, Rgb color) {
    Await(absl::StrCat("colour ", absl::Hex(color, absl::kZeroPad6), " at ", x,
                       ", ", y, " of the page"),
          [&] { return ColorAt(x, y) == color; });
  }

  // Until the page can be seen and stays where it is.
  void AwaitPage() {
    Await("the page", [this] {
      const std::optional<Area> mark = screen_->Take().Find(mark_);
      if (!mark.has_value()) return false;
      page_ = {mark->x - scale_ * mark_place_.x,
               mark->y - scale_ * mark_place_.y};
      return true;
    });
  }

  // Of places on the page, in DIPs.
  Point At(int x, int y) const {
    return {page_.x + scale_ * x, page_.y + scale_ * y};
  }
  Rgb ColorAt(int x, int y) const { return screen_->ColorAt(At(x, y)); }
  void MoveTo(int x, int y) { screen_->MoveTo(At(x, y)); }
  void Click(int x, int y) { screen_->Click(At(x, y)); }

  // Moves to and fro there until that is so, as users move on: the engine wants
  // some movement before it drags, and GTK leaves movements out while the
  // target has not answered the one before.
  void MoveUntil(const std::string& what, const Point& place,
                 const std::function<bool()>& is_true) {
    for (int step = 0; !is_true() && absl::Now() < deadline_; ++step) {
      screen_->MoveTo({place.x + 4 * (step % 4), place.y});
      screen_->RunUntil(is_true, absl::Now() + absl::Milliseconds(50));
    }
    Await(what, is_true);
  }

  // The host's, which is the oldest; 0 if there is none.
  static WindowId window() {
    const std::vector<WindowId> windows = screen_->Windows();
    return windows.empty() ? 0 : windows.front();
  }
  void AwaitWindow() {
    Await("the window, ready for input",
          [] { return screen_->IsActive(window()); });
  }
  void AwaitTitle(const std::string& title) {
    Await(absl::StrCat("the title '", title, "'"),
          [&] { return screen_->TitleOf(window()) == title; });
  }
  void AwaitNoWindow() {
    Await("the end of the window", [] { return window() == 0; });
  }

  // A dialog of the page's, over the window.
  void AwaitDialog() {
    Await("a dialog, ready for input", [] {
      const std::vector<WindowId> windows = screen_->Windows();
      return windows.size() == 2 && screen_->IsActive(windows.back());
    });
  }
  void AwaitNoDialog() {
    Await("the window alone, ready for input", [] {
      return screen_->Windows().size() == 1 && screen_->IsActive(window());
    });
  }

  void AwaitPopup() {
    Await("a list", [] { return screen_->Popup().has_value(); });
  }
  void AwaitNoPopup() {
    Await("the end of the list", [] { return !screen_->Popup().has_value(); });
  }

  // The line of the open list that is so many below the chosen one.
  Point LineBelowTheChosen(int lines) {
    constexpr Rgb kChosen = 0x3584e4;  // By GTK's theme Adwaita.
    std::optional<Area> chosen;
    Await("a chosen line", [&] {
      const Image image = screen_->Take();
      chosen = image.Find(kChosen);
      return chosen.has_value();
    });
    const Area line = chosen.value_or(Area{});
    return {line.center().x, line.center().y + lines * line.height};
  }

  std::unique_ptr<orvane::SocketClient> Connect() {
    auto connected = orvane::SocketClient::Connect(&screen_->loop(), socket());
    EXPECT_TRUE(connected.ok()) << connected.status();
    return *std::move(connected);
  }

  static constexpr absl::Duration kTestBound = absl::Seconds(60);
  static constexpr absl::Duration kCloseBound = absl::Seconds(20);

  inline static std::unique_ptr<Screen> screen_;
  absl::Time deadline_ = absl::Now() + kTestBound;
  const orvane::testing::TemporaryFolder folder_;  // Of the socket.
  BrowserId browser_;
  std::unique_ptr<orvane::testing::ChildProcess> widget_;
  std::unique_ptr<orvane::testing::ChildProcess> host_;
  int scale_ = 1;
  const Rgb mark_;
  const Point mark_place_;
  Point page_;  // On the screen.
};

}  // namespace gtk_host::testing

#endif  // EXAMPLES_GTK_HOST_WINDOW_FIXTURE_H_
