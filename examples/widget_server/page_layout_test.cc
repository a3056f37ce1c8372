#include "examples/widget_server/page_layout.h"

#include <cstddef>
#include <optional>

#include "gtest/gtest.h"

namespace widget_server {
namespace {

rpc::PointDip At(double x, double y) {
  rpc::PointDip point;
  point.set_x(x);
  point.set_y(y);
  return point;
}

TEST(PageLayout, AnElementBeginsAtItsLeftAndTopEdgeAndEndsBeforeTheOthers) {
  EXPECT_EQ(ElementAt(At(16, 16))->id, ElementId::kPicture);
  EXPECT_EQ(ElementAt(At(79.9, 79.9))->id, ElementId::kPicture);
  EXPECT_EQ(ElementAt(At(80, 79)), nullptr);
  EXPECT_EQ(ElementAt(At(79, 80)), nullptr);
  EXPECT_EQ(ElementAt(At(15.9, 16)), nullptr);
}

TEST(PageLayout, EveryElementIsFoundByItsIdAndAtItsPlace) {
  for (const Element& element : kElements) {
    EXPECT_EQ(&GetElement(element.id), &element);
    EXPECT_EQ(ElementAt(At(element.place.x, element.place.y)), &element);
  }
}

TEST(PageLayout, AllButThePictureAreFocusable) {
  for (const Element& element : kElements)
    EXPECT_EQ(IsFocusable(element.id), element.id != ElementId::kPicture);
}

TEST(PageLayout, TheListOpensBelowItsElement) {
  const Rect& list = GetElement(ElementId::kList).place;
  const Rect open = OpenListPlace();
  EXPECT_EQ(open.x, list.x);
  EXPECT_EQ(open.y, list.y + list.height);
  EXPECT_EQ(open.width, list.width);
  EXPECT_EQ(open.height, 60);
}

TEST(PageLayout, EachLineOfTheOpenListIsFoundInIt) {
  const Rect open = OpenListPlace();
  EXPECT_EQ(OptionAt(At(open.x, open.y)), std::optional<std::size_t>(0));
  EXPECT_EQ(OptionAt(At(open.x, open.y + 20)), std::optional<std::size_t>(1));
  EXPECT_EQ(OptionAt(At(open.x, open.y + 59.9)), std::optional<std::size_t>(2));
  EXPECT_EQ(OptionAt(At(open.x, open.y + 60)), std::nullopt);
  EXPECT_EQ(OptionAt(At(open.x - 1, open.y)), std::nullopt);
}

TEST(PageLayout, TheCaretStaysInTheFieldHoweverFullItIs) {
  const Rect& field = GetElement(ElementId::kField).place;
  EXPECT_LT(CaretPlace(0).x, CaretPlace(1).x);
  const Rect last = CaretPlace(kFieldCharacters);
  EXPECT_LT(last.x + last.width, field.x + field.width);
  EXPECT_LT(last.y + last.height, field.y + field.height);
}

TEST(PageLayout, CountsCharactersNotBytes) {
  EXPECT_EQ(CharactersIn(""), 0u);
  EXPECT_EQ(CharactersIn("Ada"), 3u);
  EXPECT_EQ(CharactersIn("\u00c5\u20ac\U0001f600"), 3u);
}

TEST(PageLayout, ARectangleTravelsWithItsFourNumbers) {
  const rpc::RectDip rect = Rect{1, 2, 3, 4}.ToProto();
  EXPECT_EQ(rect.x(), 1);
  EXPECT_EQ(rect.y(), 2);
  EXPECT_EQ(rect.width(), 3);
  EXPECT_EQ(rect.height(), 4);
}

}  // namespace
}  // namespace widget_server
