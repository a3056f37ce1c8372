// For tests: a screen without a monitor, with real input to whatever is on it.

#ifndef EXAMPLES_SCREEN_FIXTURE_H_
#define EXAMPLES_SCREEN_FIXTURE_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/functional/function_ref.h"
#include "absl/time/time.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"

namespace examples::testing {

// In pixels from the screen's top left corner.
struct Point {
  int x = 0;
  int y = 0;
};
struct Area {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;

  Point center() const { return {x + width / 2, y + height / 2}; }
};

using WindowId = unsigned long;  // As Xlib's Window.

// 0xrrggbb
using Rgb = std::uint32_t;

// What was seen on a screen.
class Image {
 public:
  Image(int width, std::vector<Rgb> pixels)
      : width_(width), pixels_(std::move(pixels)) {}

  int width() const { return width_; }
  int height() const { return static_cast<int>(pixels_.size()) / width_; }
  const std::vector<Rgb>& pixels() const { return pixels_; }

  Rgb At(const Point& point) const;

  // The smallest area that holds all pixels of that colour.
  std::optional<Area> Find(Rgb color) const;

  // Ends the process if the file cannot be written.
  void SaveAsPng(const std::string& path) const;

 private:
  const int width_;
  const std::vector<Rgb> pixels_;  // In rows from the top.
};

// An X server that draws into memory, and a window manager. What an input call
// sends has been handled by the server when the call returns, and by programs
// some time later.
class Screen {
 public:
  // Words, if a program is missing that a screen is made of; else empty.
  static std::string Missing();

  // Ends the process if the programs do not start.
  Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;
  ~Screen();

  // Runs whenever something on the screen has changed. Clients of the test may
  // use it too.
  orvane::EventLoop& loop() { return loop_; }

  // The command that starts a program of GTK or SDL here, with these settings.
  std::vector<std::string> CommandOf(
      std::vector<std::string> program,
      const std::vector<std::string>& environment = {}) const;

  // Runs the loop until that is true, which it asks whenever something has
  // happened. False if it has not become true by then.
  bool RunUntil(absl::FunctionRef<bool()> is_true, absl::Time deadline);

  // Input, as from the mouse and the keyboard. Buttons: 1 is the left one, 4
  // and 5 turn the wheel up and down.
  void MoveTo(const Point& point);
  void Press(unsigned button = 1);
  void Release(unsigned button = 1);
  void Click(const Point& point);
  void Type(const std::string& text);      // ASCII
  void PressKey(const std::string& name);  // "Return", "shift+Tab"
  void ReleaseAll();

  // What is seen.
  Image Take() const;
  Image Take(const Area& area) const;
  Rgb ColorAt(const Point& point) const;
  std::string Cursor() const;  // As CSS calls it.

  // The windows that the window manager has, the oldest first.
  std::vector<WindowId> Windows() const;
  std::string TitleOf(WindowId window) const;
  Area PlaceOf(WindowId window) const;  // Without its frame.
  bool IsActive(WindowId window) const;
  void Resize(WindowId window, int width, int height);
  void Minimize(WindowId window);
  void Restore(WindowId window);
  void Close(WindowId window);  // As by its button.
  pid_t ProcessOf(WindowId window) const;

  // Asks a window to answer, which it does once it has handled all input so
  // far. The result is for HasAnswered.
  long Ping(WindowId window);
  bool HasAnswered(long ping) const { return answered_ >= ping; }

  // A list or tooltip, which lies over all windows.
  std::optional<Area> Popup() const;

 private:
  struct Connection;

  void OnChange();

  orvane::EventLoop loop_;
  orvane::testing::ChildProcess server_;
  const std::string name_;  // ":99"
  // Replies to the questions that are asked at one must not look like changes
  // on the screen, which are seen at the other.
  const std::unique_ptr<Connection> asked_;
  const std::unique_ptr<Connection> watched_;
  std::unique_ptr<orvane::EventLoop::Watch> watch_;
  long pings_ = 0;
  long answered_ = 0;
  std::unique_ptr<orvane::testing::ChildProcess> window_manager_;
};

}  // namespace examples::testing

#endif  // EXAMPLES_SCREEN_FIXTURE_H_
