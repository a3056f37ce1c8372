#include "examples/widget_server/page_layout.h"

#include <algorithm>

namespace widget_server {

bool Rect::Contains(const rpc::PointDip& point) const {
  return point.x() >= x && point.x() < x + width && point.y() >= y &&
         point.y() < y + height;
}

rpc::RectDip Rect::ToProto() const {
  rpc::RectDip rect;
  rect.set_x(x);
  rect.set_y(y);
  rect.set_width(width);
  rect.set_height(height);
  return rect;
}

const Element& GetElement(ElementId id) {
  return kElements[static_cast<std::size_t>(id)];
}

const Element* ElementAt(const rpc::PointDip& position) {
  for (const Element& element : kElements) {
    if (element.place.Contains(position)) return &element;
  }
  return nullptr;
}

bool IsFocusable(ElementId id) {
  return std::find(kFocusOrder.begin(), kFocusOrder.end(), id) !=
         kFocusOrder.end();
}

Rect OpenListPlace() {
  const Rect& list = GetElement(ElementId::kList).place;
  return {list.x, list.y + list.height, list.width,
          kOptionHeight * static_cast<double>(kOptions.size())};
}

std::optional<std::size_t> OptionAt(const rpc::PointDip& position) {
  const Rect place = OpenListPlace();
  if (!place.Contains(position)) return std::nullopt;
  return static_cast<std::size_t>((position.y() - place.y) / kOptionHeight);
}

Rect CaretPlace(std::size_t characters) {
  const Rect& field = GetElement(ElementId::kField).place;
  static_assert(kElements[2].id == ElementId::kField &&
                kFieldCharacters * kCharacterWidth + 2 * kTextPadding <=
                    kElements[2].place.width);
  return {field.x + kTextPadding +
              static_cast<double>(characters) * kCharacterWidth,
          field.y + kTextPadding, 1, field.height - 2 * kTextPadding};
}

std::size_t CharactersIn(absl::string_view text) {
  // Counts the bytes that begin a character.
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char byte) {
        return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
      }));
}

}  // namespace widget_server
