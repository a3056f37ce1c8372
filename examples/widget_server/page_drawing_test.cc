// The pictures that a host receives which draws the page.

#include <cstddef>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "examples/widget_server/page.h"
#include "examples/widget_server/page_fixture.h"

namespace widget_server {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;
using PageDrawingTest = PageFixture;

TEST_F(PageDrawingTest, NothingIsDrawnForTheHostUnlessOffScreen) {
  Serve(surfaces_);
  page_->Draw();
  EXPECT_THAT(surfaces_.received(), IsEmpty());
}

class OffScreenPageTest : public PageFixture {
 protected:
  OffScreenPageTest() {
    viewport_.is_drawn_off_screen = true;
    page_->SetViewport(viewport_);
    Serve(surfaces_);
  }

  // Draws and answers until nothing changes any more; returns how many frames
  // were sent.
  std::size_t Settle() {
    const std::size_t before = answered_;
    page_->Draw();
    while (answered_ < surfaces_.received().size()) {
      surfaces_.Answer(kBrowser, surfaces_.received()[answered_++].id);
      loop_.RunUntilIdle();
    }
    return answered_ - before;
  }

  void FocusField() { Press(Middle(ElementId::kField)); }
  void TypeLetter() { Type("a"); }
  void OpenList() { Click(ElementId::kList); }
  void Resize() {
    viewport_.width = 100;
    page_->SetViewport(viewport_);
  }
  void Rescale() {
    viewport_.scale_factor = 2;
    page_->SetViewport(viewport_);
  }
  void LoseFocus() {
    viewport_.has_focus = false;
    page_->SetViewport(viewport_);
  }

  std::size_t answered_ = 0;
};

TEST_F(OffScreenPageTest, EachChangeOfWhatIsSeenIsAFrame) {
  EXPECT_EQ(Settle(), 1u);
  EXPECT_EQ(Settle(), 0u);
  FocusField();
  EXPECT_EQ(Settle(), 1u);
  TypeLetter();
  EXPECT_EQ(Settle(), 1u);
  Resize();
  EXPECT_EQ(Settle(), 1u);
  Rescale();
  EXPECT_EQ(Settle(), 1u);
  LoseFocus();
  EXPECT_EQ(Settle(), 1u);
}

TEST_F(OffScreenPageTest, WithoutLayersTheCaretIsPartOfTheView) {
  FocusField();
  Settle();
  Serve(layers_);
  EXPECT_EQ(Settle(), 1u);  // The view without the caret.
  EXPECT_THAT(layers_.received(), SizeIs(1));
}

TEST_F(OffScreenPageTest, AListThatThePageShowsIsAPopup) {
  Settle();
  OpenList();
  Settle();
  const auto& call = surfaces_.received().back().message.call();
  EXPECT_EQ(call.popup().popup_id(), 1u);
  EXPECT_EQ(call.popup().bounds().y(), OpenListPlace().y);
  EXPECT_EQ(call.frame().size().height(), 60);
}

TEST_F(OffScreenPageTest, AListThatTheHostShowsIsNoPopup) {
  Serve(lists_);
  Settle();
  OpenList();
  Settle();
  EXPECT_FALSE(surfaces_.received().back().message.call().has_popup());
}

TEST_F(OffScreenPageTest, TheCaretIsALayerThatFollowsTheText) {
  Serve(layers_);
  FocusField();
  Settle();
  ASSERT_THAT(layers_.received(), SizeIs(1));
  EXPECT_EQ(layers_.received()[0].message.call().bounds().x(), CaretPlace(0).x);
  Answer(layers_, {});
  TypeLetter();
  Settle();
  ASSERT_THAT(layers_.received(), SizeIs(2));
  EXPECT_EQ(layers_.received()[1].message.call().bounds().x(), CaretPlace(1).x);
  Answer(layers_, {});
  LoseFocus();
  Settle();
  ASSERT_THAT(layers_.received(), SizeIs(3));
  EXPECT_TRUE(layers_.received()[2].message.call().is_removed());
}

}  // namespace
}  // namespace widget_server
