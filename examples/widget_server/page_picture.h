// What the page looks like, and its pixels.

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

// Opaque, so it is the same with and without premultiplied alpha.
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
  double width;  // In DIPs, like the boxes.
  double height;
  double scale_factor;
  std::vector<Box> boxes;  // A later box covers earlier ones.

  bool operator==(const Picture&) const = default;
};

// Everything visible on the page that can change.
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

// Nothing if the picture is empty or too large for a frame, which holds at most
// 16384 pixels a side and 2^30 bytes.
std::optional<rpc::SizePx> SizeInPixels(const Picture& picture);

// Fills `pixels`, which must have the size of the picture: 4 bytes a pixel, in
// the order blue, green, red, alpha, without gaps between rows.
void Paint(const Picture& picture, std::span<std::uint8_t> pixels);

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_PAGE_PICTURE_H_
