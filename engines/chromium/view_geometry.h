// Where a view lies, as the engine counts: a screen for its display, and a
// window on that.

#ifndef ENGINES_CHROMIUM_VIEW_GEOMETRY_H_
#define ENGINES_CHROMIUM_VIEW_GEOMETRY_H_

#include <cstdint>

#include "engines/chromium/json.h"
#include "examples/widget_server/abstract_page.h"

namespace chromium {

// Pixels per DIP. The engine draws with no fewer than a half.
double ScaleOf(const widget_server::Viewport& viewport);

// What an Emulation.updateScreen takes but for the screen's place. Where the
// display lies among the host's displays is left out: positions on the screen
// count from the display's own corner.
Json ScreenOf(const widget_server::Viewport& viewport);

// In whole DIPs from the corner of the screen. A view that is larger than the
// engine draws well is cut.
struct WindowPlace {
  int left;
  int top;
  int width;
  int height;

  bool operator==(const WindowPlace&) const = default;
};
WindowPlace WindowPlaceOf(const widget_server::Viewport& viewport);

// How many pixels the engine draws for so many DIPs.
std::int32_t PixelsOf(int dips, double scale);

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_VIEW_GEOMETRY_H_
