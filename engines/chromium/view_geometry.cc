#include "engines/chromium/view_geometry.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace chromium {
namespace {

// Beyond this pictures stand still.
constexpr double kMaxSidePx = 8192;
constexpr double kMaxAreaPx = 32e6;
constexpr double kMinScaleFactor = 0.5;
constexpr double kMaxScaleFactor = 8;  // As much as a host may force.
constexpr std::uint32_t kMaxColorDepth = 64;
constexpr std::uint32_t kUsualColorDepth = 24;
// Screens of different pages are farther apart.
constexpr double kMaxOffset = 16384;
// Of the screen, in pixels, while the host has told of no display.
constexpr int kScreenWidth = 1920;
constexpr int kScreenHeight = 1080;

}  // namespace

double ScaleOf(const widget_server::Viewport& viewport) {
  return std::clamp(viewport.scale_factor, kMinScaleFactor, kMaxScaleFactor);
}

Json ScreenOf(const widget_server::Viewport& viewport) {
  const rpc::Display& display = viewport.display;
  const rpc::RectPx& all = display.pixel_bounds();
  const rpc::RectPx& work = display.pixel_work_area();
  const bool is_known = all.width() > 0 && all.height() > 0;
  const std::uint32_t depth = display.color_depth_bits();
  Json insets = {{"left", 0}, {"top", 0}, {"right", 0}, {"bottom", 0}};
  if (is_known && display.has_pixel_work_area()) {
    const auto inset = [](std::int64_t pixels, std::int64_t side) {
      return std::clamp<std::int64_t>(pixels, 0, side);
    };
    insets = {
        {"left", inset(std::int64_t{work.x()} - all.x(), all.width())},
        {"top", inset(std::int64_t{work.y()} - all.y(), all.height())},
        {"right",
         inset(std::int64_t{all.x()} + all.width() - work.x() - work.width(),
               all.width())},
        {"bottom",
         inset(std::int64_t{all.y()} + all.height() - work.y() - work.height(),
               all.height())}};
  }
  return {{"width", is_known ? all.width() : kScreenWidth},
          {"height", is_known ? all.height() : kScreenHeight},
          {"devicePixelRatio", ScaleOf(viewport)},
          {"rotation", display.rotation_deg() % 360 / 90 * 90},
          {"colorDepth",
           depth == 0 || depth > kMaxColorDepth ? kUsualColorDepth : depth},
          {"isInternal", display.is_internal()},
          {"workAreaInsets", std::move(insets)}};
}

WindowPlace WindowPlaceOf(const widget_server::Viewport& viewport) {
  const double scale = ScaleOf(viewport);
  const double side = std::floor(kMaxSidePx / scale);
  const double width = std::clamp(std::round(viewport.width), 0.0, side);
  const double area = kMaxAreaPx / (scale * scale);
  const double height =
      std::clamp(std::round(viewport.height), 0.0,
                 std::min(side, std::floor(area / std::max(width, 1.0))));
  const rpc::RectPx& screen = viewport.display.pixel_bounds();
  const auto offset = [&](double pixels) {
    return static_cast<int>(
        std::clamp(std::round(pixels / scale), -kMaxOffset, kMaxOffset));
  };
  return {offset(static_cast<double>(viewport.screen_bounds.x()) - screen.x()),
          offset(static_cast<double>(viewport.screen_bounds.y()) - screen.y()),
          static_cast<int>(width), static_cast<int>(height)};
}

std::int32_t PixelsOf(int dips, double scale) {
  return static_cast<std::int32_t>(std::ceil(dips * scale));
}

}  // namespace chromium
