// The elements of the page and where they are. Places are in DIPs from the top
// left corner of the view.

#ifndef EXAMPLES_WIDGET_SERVER_PAGE_LAYOUT_H_
#define EXAMPLES_WIDGET_SERVER_PAGE_LAYOUT_H_

#include <array>
#include <cstddef>
#include <optional>

#include "absl/strings/string_view.h"

#include "rpc/browser/cursor.pb.h"
#include "rpc/browser/geometry.pb.h"

namespace widget_server {

struct Rect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;

  bool operator==(const Rect&) const = default;
  bool Contains(const rpc::PointDip& point) const;
  rpc::RectDip ToProto() const;
};

enum class ElementId { kPicture, kLink, kField, kList, kButton };

struct Element {
  ElementId id;
  absl::string_view name;  // Of its node in the accessibility tree.
  Rect place;
  rpc::CursorType cursor;
  absl::string_view tooltip;  // Empty if it has none.
};

// All elements, in the order of their ids.
inline constexpr std::array<Element, 5> kElements = {{
    {ElementId::kPicture,
     "picture",
     {16, 16, 64, 64},
     rpc::CURSOR_TYPE_GRAB,
     "A picture to drag"},
    {ElementId::kLink,
     "link",
     {96, 16, 128, 20},
     rpc::CURSOR_TYPE_POINTER,
     "Leads to the manual"},
    {ElementId::kField, "field", {96, 48, 192, 24}, rpc::CURSOR_TYPE_TEXT, ""},
    {ElementId::kList, "list", {96, 84, 96, 24}, rpc::CURSOR_TYPE_DEFAULT, ""},
    {ElementId::kButton,
     "button",
     {208, 84, 80, 24},
     rpc::CURSOR_TYPE_DEFAULT,
     "Asks for your name"},
}};

// The elements that Tab moves through, first to last.
inline constexpr std::array<ElementId, 4> kFocusOrder = {
    ElementId::kLink, ElementId::kField, ElementId::kList, ElementId::kButton};

const Element& GetElement(ElementId id);

// The element at that place, or null.
const Element* ElementAt(const rpc::PointDip& position);

bool IsFocusable(ElementId id);

// The lines of the list. If the page draws the open list, it opens below its
// element.
inline constexpr std::array<absl::string_view, 3> kOptions = {"Red", "Green",
                                                              "Blue"};
inline constexpr double kOptionHeight = 20;
inline constexpr double kFontSize = 13;

Rect OpenListPlace();

// The line of the open list at that place, as an index of kOptions.
std::optional<std::size_t> OptionAt(const rpc::PointDip& position);

// All characters are drawn equally wide.
inline constexpr double kCharacterWidth = 7;
inline constexpr double kTextPadding = 4;

// How many characters the field takes.
inline constexpr std::size_t kFieldCharacters = 26;

// The caret's place after that many characters of the field.
Rect CaretPlace(std::size_t characters);

// How many characters a UTF-8 text has.
std::size_t CharactersIn(absl::string_view text);

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_PAGE_LAYOUT_H_
