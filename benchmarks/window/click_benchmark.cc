// From a click to the first pixel that it changes on the screen: through the X
// server, GTK, the host, the socket, the widget, and back with a picture.

#include <algorithm>
#include <array>
#include <csignal>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "absl/time/clock.h"
#include "absl/time/time.h"
#include "benchmark/benchmark.h"

#include "examples/screen_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"

namespace {

using ::examples::testing::Area;
using ::examples::testing::Point;
using ::examples::testing::Rgb;
using ::examples::testing::Screen;
using ::orvane::testing::ChildProcess;

constexpr int kClicks = 50;
constexpr absl::Duration kBound = absl::Seconds(20);

struct Page {
  std::vector<std::string> widget;  // The command, without the socket.
  Rgb mark;                         // A colour that is seen nowhere else,
  Point mark_place;                 // and its place on the page.
  std::array<Point, 2> clicked;     // In turn. Each click changes
  Point changed;                    // this pixel.
};

double Quantile(const std::vector<double>& sorted, double part) {
  return sorted[static_cast<std::size_t>(
      part * static_cast<double>(sorted.size() - 1))];
}

void ClickToChangedPixel(benchmark::State& state, const Page& page) {
  if (const std::string missing = Screen::Missing(); !missing.empty())
    return state.SkipWithError(missing.c_str());
  const orvane::testing::TemporaryFolder folder;
  const std::string socket = folder.path() + "/widget.sock";
  std::vector<std::string> command = page.widget;
  command.insert(command.end(), {"--socket", socket});
  ChildProcess widget(std::move(command));
  if (widget.ReadLine().empty())
    return state.SkipWithError("the widget does not run here");
  Screen screen;
  const ChildProcess host(screen.CommandOf({GTK_HOST, socket}));

  // Once nothing moves any more, such as for an address bar that appears.
  Point origin;
  absl::Time moved = absl::Now();
  const auto stands_still = [&] {
    const std::optional<Area> mark = screen.Take().Find(page.mark);
    if (!mark.has_value() || mark->x != origin.x || mark->y != origin.y) {
      origin = mark.has_value() ? Point{mark->x, mark->y} : Point{};
      moved = absl::Now();
    }
    return mark.has_value() && absl::Now() - moved > absl::Milliseconds(500);
  };
  const absl::Time start_bound = absl::Now() + kBound;
  while (!screen.RunUntil(
      stands_still,
      std::min(absl::Now() + absl::Milliseconds(500), start_bound))) {
    if (absl::Now() >= start_bound)
      return state.SkipWithError("the page does not appear");
  }
  const auto at = [&](const Point& place) {
    return Point{origin.x - page.mark_place.x + place.x,
                 origin.y - page.mark_place.y + place.y};
  };

  std::vector<double> times;
  for (auto _ : state) {
    screen.MoveTo(at(page.clicked[times.size() % 2]));
    const Rgb before = screen.ColorAt(at(page.changed));
    const absl::Time begun = absl::Now();
    screen.Press();
    if (!screen.RunUntil(
            [&] { return screen.ColorAt(at(page.changed)) != before; },
            begun + kBound)) {
      state.SkipWithError("a click changes nothing");
      break;
    }
    const absl::Duration time = absl::Now() - begun;
    state.SetIterationTime(absl::ToDoubleSeconds(time));
    times.push_back(absl::ToDoubleMilliseconds(time));
    screen.Release();
  }
  if (times.empty()) return;
  std::ranges::sort(times);
  state.counters["q1_ms"] = Quantile(times, 0.25);
  state.counters["median_ms"] = Quantile(times, 0.5);
  state.counters["q3_ms"] = Quantile(times, 0.75);
  state.counters["max_ms"] = times.back();
}

// The field and the link get a ring, or lose it.
BENCHMARK_CAPTURE(ClickToChangedPixel, toy,
                  Page{.widget = {WIDGET_SERVER},
                       .mark = 0x78b4f0,
                       .mark_place = {16, 16},
                       .clicked = {{{192, 60}, {160, 26}}},
                       .changed = {94, 60}})
    ->Iterations(kClicks)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

#ifdef ORVANE_CHROMIUM
// The page changes its colour.
BENCHMARK_CAPTURE(
    ClickToChangedPixel, real_engine,
    Page{.widget = {ORVANE_CHROMIUM,
                    "--page=1=data:text/html,<body style='margin:0'>"
                    "<div style='width:8px;height:8px;background:%23ff0080'>"
                    "</div><script>onmousedown = () => document.body.style."
                    "background = document.body.style.background ? '' : 'navy'"
                    "</script>"},
         .mark = 0xff0080,
         .mark_place = {0, 0},
         .clicked = {{{200, 100}, {200, 100}}},
         .changed = {300, 200}})
    ->Iterations(kClicks)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
#endif

}  // namespace
