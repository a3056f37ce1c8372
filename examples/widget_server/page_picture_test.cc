#include "examples/widget_server/page_picture.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace widget_server {
namespace {

// The pixels of a picture.
class Painted {
 public:
  explicit Painted(const Picture& picture)
      : width_(SizeInPixels(picture)->width()),
        bytes_(static_cast<std::size_t>(kBytesPerPixel * width_ *
                                        SizeInPixels(picture)->height())) {
    Paint(picture, bytes_);
  }

  Color At(std::int64_t x, std::int64_t y) const {
    const std::uint8_t* const pixel =
        &bytes_[static_cast<std::size_t>((y * width_ + x) * kBytesPerPixel)];
    return {pixel[2], pixel[1], pixel[0]};
  }
  const std::vector<std::uint8_t>& bytes() const { return bytes_; }

 private:
  const std::int64_t width_;
  std::vector<std::uint8_t> bytes_;
};

Picture Page(const PageLook& look) { return DrawPage(look, 320, 200, 1); }

Picture OfSize(double width, double height, double scale_factor = 1) {
  return {width, height, scale_factor, {}};
}

// From boxes to pixels

TEST(PagePicture, PixelsAreBlueGreenRedAndOpaque) {
  const Painted painted({1, 1, 1, {{{0, 0, 1, 1}, {1, 2, 3}}}});
  EXPECT_EQ(painted.bytes(), (std::vector<std::uint8_t>{3, 2, 1, 255}));
}

TEST(PagePicture, LaterBoxesCoverEarlierOnes) {
  const Painted painted(
      {4, 1, 1, {{{0, 0, 4, 1}, kPaper}, {{1, 0, 2, 1}, kInk}}});
  EXPECT_EQ(painted.At(0, 0), kPaper);
  EXPECT_EQ(painted.At(1, 0), kInk);
  EXPECT_EQ(painted.At(2, 0), kInk);
  EXPECT_EQ(painted.At(3, 0), kPaper);
}

TEST(PagePicture, BoxesAreScaledToPixels) {
  const Painted painted(
      {4, 2, 1.5, {{{0, 0, 4, 2}, kPaper}, {{2, 1, 1, 1}, kInk}}});
  EXPECT_EQ(painted.At(2, 2), kPaper);
  EXPECT_EQ(painted.At(3, 2), kInk);
  EXPECT_EQ(painted.At(4, 2), kInk);  // To pixel 4.5, rounded.
  EXPECT_EQ(painted.At(5, 2), kPaper);
}

TEST(PagePicture, BoxesBeyondThePictureAreCutOff) {
  const double far = std::numeric_limits<double>::max();
  const Painted painted({2,
                         2,
                         2,
                         {{{-far, 1, far, far}, kInk},
                          {{1, -5, 20, 6}, kPaper},
                          {{5, 5, 5, 5}, kInk}}});
  EXPECT_EQ(painted.At(3, 1), kPaper);
  EXPECT_EQ(painted.At(3, 3), (Color{0, 0, 0}));
}

// Sizes

TEST(PagePicture, TheSizeIsInWholePixels) {
  const std::optional<rpc::SizePx> size = SizeInPixels(OfSize(100.5, 50, 1.5));
  ASSERT_TRUE(size.has_value());
  EXPECT_EQ(size->width(), 151);
  EXPECT_EQ(size->height(), 75);
}

TEST(PagePicture, AnEmptyPictureHasNoSize) {
  EXPECT_FALSE(SizeInPixels(OfSize(0, 50)).has_value());
  EXPECT_FALSE(SizeInPixels(OfSize(50, 0)).has_value());
  EXPECT_FALSE(SizeInPixels(OfSize(50, 1, 0.25)).has_value());
}

TEST(PagePicture, TheLargestPictureHas16384PixelsASide) {
  EXPECT_TRUE(SizeInPixels(OfSize(16384, 16384)).has_value());
  EXPECT_FALSE(SizeInPixels(OfSize(16385, 1)).has_value());
  EXPECT_FALSE(SizeInPixels(OfSize(1, 16385)).has_value());
  EXPECT_FALSE(SizeInPixels(OfSize(8193, 1, 2)).has_value());
}

TEST(PagePicture, WhatIsNoNumberHasNoSize) {
  const double infinite = std::numeric_limits<double>::infinity();
  EXPECT_FALSE(SizeInPixels(OfSize(infinite, 1)).has_value());
  EXPECT_FALSE(SizeInPixels(OfSize(1, 1, infinite)).has_value());
  EXPECT_FALSE(SizeInPixels(OfSize(0, 1, infinite)).has_value());
}

// The page

TEST(PagePicture, EveryElementIsSeenAtItsPlace) {
  const Painted page(Page({}));
  EXPECT_EQ(page.At(4, 4), kPaper);
  for (const ElementId id : {ElementId::kPicture, ElementId::kField,
                             ElementId::kList, ElementId::kButton}) {
    const Rect& place = GetElement(id).place;
    EXPECT_FALSE(page.At(static_cast<std::int64_t>(place.x),
                         static_cast<std::int64_t>(place.y)) == kPaper);
  }
}

TEST(PagePicture, TextGrowsByABarForEachCharacter) {
  const std::size_t empty = Page({}).boxes.size();
  EXPECT_EQ(Page({.text = "Ad"}).boxes.size(), empty + 2);
  EXPECT_EQ(Page({.text = "\u00c5 \u20ac"}).boxes.size(), empty + 2);
}

TEST(PagePicture, TextEndsWhereItsElementDoes) {
  const std::size_t full =
      Page({.button_label = std::string(10, 'a')}).boxes.size();
  EXPECT_EQ(Page({.button_label = std::string(100, 'a')}).boxes.size(),
            full + 1);
}

TEST(PagePicture, TheCaretStandsBehindTheText) {
  const Rect caret = CaretPlace(2);
  const auto x = static_cast<std::int64_t>(caret.x);
  const auto y = static_cast<std::int64_t>(caret.y);
  EXPECT_EQ(Painted(Page({.text = "Ad"})).At(x, y), kPaper);
  EXPECT_EQ(Painted(Page({.text = "Ad", .has_caret = true})).At(x, y), kInk);
}

TEST(PagePicture, ARingSurroundsTheFocusedElement) {
  const Rect& field = GetElement(ElementId::kField).place;
  const auto x = static_cast<std::int64_t>(field.x) - 1;
  const auto y = static_cast<std::int64_t>(field.y) - 1;
  EXPECT_EQ(Painted(Page({})).At(x, y), kPaper);
  EXPECT_EQ(Painted(Page({.focused = ElementId::kField})).At(x, y), kFocusRing);
  EXPECT_EQ(Painted(Page({.focused = ElementId::kLink})).At(x, y), kPaper);
}

TEST(PagePicture, TheChoiceAndTheButtonsLabelAreSeen) {
  EXPECT_FALSE(Page({.option = 0}) == Page({.option = 1}));
  EXPECT_FALSE(Page({.button_label = "a"}) == Page({.button_label = "ab"}));
  EXPECT_EQ(Page({.option = 1}), Page({.option = 1}));
}

TEST(PagePicture, TheOpenListHighlightsTheChoice) {
  const Painted list(DrawOpenList(1, 1));
  EXPECT_EQ(list.At(90, 10), kPaper);
  EXPECT_EQ(list.At(90, 30), kHighlight);
  EXPECT_EQ(list.At(90, 50), kPaper);
  EXPECT_EQ(list.At(0, 0), kInk);
}

TEST(PagePicture, TheCaretFillsItsPicture) {
  const Picture caret = DrawCaret(2);
  EXPECT_EQ(SizeInPixels(caret)->width(), 2);
  EXPECT_EQ(Painted(caret).At(1, 31), kInk);
}

}  // namespace
}  // namespace widget_server
