#include "examples/widget_server/page_picture.h"

#include <algorithm>
#include <cmath>

#include "absl/strings/string_view.h"

namespace widget_server {
namespace {

constexpr Color kSky = {120, 180, 240};
constexpr Color kSun = {250, 200, 60};
constexpr Color kMeadow = {70, 150, 70};
constexpr Color kLinkInk = {20, 60, 200};
constexpr Color kButtonFace = {225, 225, 225};

constexpr double kMaxSidePixels = 16384;
constexpr std::int64_t kMaxBytes = std::int64_t{1} << 30;

// Draws text as bars: one for each character that fits the line.
void AddText(absl::string_view text, double x, const Rect& line, Color color,
             std::vector<Box>* boxes) {
  constexpr double kBarWidth = 5;
  constexpr double kBarHeight = 9;
  for (const char byte : text) {
    if (CharactersIn({&byte, 1}) == 0) continue;  // Continues a character.
    if (x + kBarWidth > line.x + line.width) return;
    if (byte != ' ') {
      boxes->push_back(
          {{x, line.y + (line.height - kBarHeight) / 2, kBarWidth, kBarHeight},
           color});
    }
    x += kCharacterWidth;
  }
}

void AddFrame(const Rect& place, Color border, Color face,
              std::vector<Box>* boxes) {
  boxes->push_back({place, border});
  boxes->push_back(
      {{place.x + 1, place.y + 1, place.width - 2, place.height - 2}, face});
}

}  // namespace

Picture DrawPage(const PageLook& look, double width, double height,
                 double scale_factor) {
  Picture page = {width, height, scale_factor, {}};
  std::vector<Box>& boxes = page.boxes;
  boxes.push_back({{0, 0, width, height}, kPaper});

  if (look.focused.has_value()) {
    constexpr double kRing = 2;
    const Rect& place = GetElement(*look.focused).place;
    const Rect around = {place.x - kRing, place.y - kRing,
                         place.width + 2 * kRing, place.height + 2 * kRing};
    boxes.push_back({around, kFocusRing});
    boxes.push_back({place, kPaper});
  }

  const Rect& picture = GetElement(ElementId::kPicture).place;
  boxes.push_back({picture, kSky});
  boxes.push_back({{picture.x + 40, picture.y + 10, 14, 14}, kSun});
  boxes.push_back({{picture.x, picture.y + 44, 64, 20}, kMeadow});

  const Rect& link = GetElement(ElementId::kLink).place;
  AddText("Read the manual", link.x, link, kLinkInk, &boxes);

  const Rect& field = GetElement(ElementId::kField).place;
  AddFrame(field, kInk, kPaper, &boxes);
  AddText(look.text, field.x + kTextPadding, field, kInk, &boxes);
  if (look.has_caret)
    boxes.push_back({CaretPlace(CharactersIn(look.text)), kInk});

  const Rect& list = GetElement(ElementId::kList).place;
  AddFrame(list, kInk, kPaper, &boxes);
  AddText(kOptions[look.option], list.x + kTextPadding, list, kInk, &boxes);

  const Rect& button = GetElement(ElementId::kButton).place;
  AddFrame(button, kInk, kButtonFace, &boxes);
  AddText(look.button_label, button.x + kTextPadding, button, kInk, &boxes);
  return page;
}

Picture DrawOpenList(std::size_t chosen, double scale_factor) {
  const Rect place = OpenListPlace();
  Picture list = {place.width, place.height, scale_factor, {}};
  AddFrame({0, 0, place.width, place.height}, kInk, kPaper, &list.boxes);
  double y = 0;
  for (std::size_t i = 0; i < kOptions.size(); ++i, y += kOptionHeight) {
    const Rect line = {1, y + 1, place.width - 2, kOptionHeight - 2};
    if (i == chosen) list.boxes.push_back({line, kHighlight});
    AddText(kOptions[i], kTextPadding, line, kInk, &list.boxes);
  }
  return list;
}

Picture DrawCaret(double scale_factor) {
  const Rect place = CaretPlace(0);
  return {place.width,
          place.height,
          scale_factor,
          {{{0, 0, place.width, place.height}, kInk}}};
}

std::optional<rpc::SizePx> SizeInPixels(const Picture& picture) {
  const double width = std::round(picture.width * picture.scale_factor);
  const double height = std::round(picture.height * picture.scale_factor);
  // Written so that NaN does not fit.
  const auto fits = [](double side) {
    return side >= 1 && side <= kMaxSidePixels;
  };
  if (!fits(width) || !fits(height)) return std::nullopt;
  const std::int64_t bytes = static_cast<std::int64_t>(width) *
                             static_cast<std::int64_t>(height) * kBytesPerPixel;
  if (bytes > kMaxBytes) return std::nullopt;
  rpc::SizePx size;
  size.set_width(static_cast<std::int32_t>(width));
  size.set_height(static_cast<std::int32_t>(height));
  return size;
}

void Paint(const Picture& picture, std::span<std::uint8_t> pixels) {
  const rpc::SizePx size = SizeInPixels(picture).value_or(rpc::SizePx());
  // Clamped first, since a box may lie too far out for an integer.
  const auto edge = [&picture](double dips, double end) {
    return static_cast<std::int64_t>(
        std::clamp(std::round(dips * picture.scale_factor), 0.0, end));
  };
  for (const auto& [place, color] : picture.boxes) {
    const std::int64_t left = edge(place.x, size.width());
    const std::int64_t right = edge(place.x + place.width, size.width());
    const std::int64_t bottom = edge(place.y + place.height, size.height());
    for (std::int64_t y = edge(place.y, size.height()); y < bottom; ++y) {
      std::uint8_t* pixel =
          pixels.data() + (y * size.width() + left) * kBytesPerPixel;
      for (std::int64_t x = left; x < right; ++x, pixel += kBytesPerPixel) {
        pixel[0] = color.blue;
        pixel[1] = color.green;
        pixel[2] = color.red;
        pixel[3] = 255;
      }
    }
  }
}

}  // namespace widget_server
