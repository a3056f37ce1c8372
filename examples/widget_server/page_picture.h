// What the page looks like, and how it becomes pixels.

#ifndef EXAMPLES_WIDGET_SERVER_PAGE_PICTURE_H_
#define EXAMPLES_WIDGET_SERVER_PAGE_PICTURE_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "examples/widget_server/page_layout.h"
#include "rpc/browser/geometry.pb.h"

namespace widget_server {

// Opaque, so multiplied by alpha as it is.
struct Color {
  std::uint8_t red;
  std::uint8_t green;
  std::uint8_t blue;

  bool operator==(const Color&) const = default;
};

inline constexpr Color kPaper = {255, 255, 255};
inline constexpr Color kInk = {32, 32, 32};
inline constexpr Color kFocusRing = {0, 95, 204};
inline constexpr Color kHighlight = {190, 215, 250};

struct Box {
  Rect place;
  Color color;

  bool operator==(const Box&) const = default;
};

// A picture before it is painted: cheap to make and to compare.
struct Picture {
  double width;  // In DIPs, as the boxes.
  double height;
  double scale_factor;
  std::vector<Box> boxes;  // Each covers those before it.

  bool operator==(const Picture&) const = default;
};

// All of the page that a picture shows and that can change.
struct PageLook {
  std::string text = "";  // In the field.
  std::string button_label = "";
  std::size_t option = 0;                 // Index of kOptions.
  std::optional<ElementId> focused = {};  // Marked by a ring.
  bool has_caret = false;
};

Picture DrawPage(const PageLook& look, double width, double height,
                 double scale_factor);
Picture DrawOpenList(std::size_t chosen, double scale_factor);
Picture DrawCaret(double scale_factor);

inline constexpr std::int64_t kBytesPerPixel = 4;

// Nothing if the picture is empty, or beyond what a frame may hold: 16384
// pixels a side, 2^30 bytes.
std::optional<rpc::SizePx> SizeInPixels(const Picture& picture);

// Fills `pixels`, whose size is that of the picture, without gaps between rows:
// blue, green, red, alpha.
void Paint(const Picture& picture, std::span<std::uint8_t> pixels);

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_PAGE_PICTURE_H_
