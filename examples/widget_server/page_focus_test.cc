// Focus, typed and dropped text, and answers that arrive after the page has
// been destroyed.

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "examples/widget_server/page.h"
#include "examples/widget_server/page_fixture.h"

namespace widget_server {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using PageFocusTest = PageFixture;
using PageTextTest = PageFixture;
using PageDragTest = PageFixture;
using PageLifeTest = PageFixture;

// The focus

TEST_F(PageFocusTest, TabLeadsThroughTheElementsAndShiftTabBack) {
  std::vector<std::optional<ElementId>> path;
  for (int i = 0; i < 4; ++i) {
    Tab();
    path.push_back(page_->look().focused);
  }
  ShiftTab();
  path.push_back(page_->look().focused);
  EXPECT_THAT(path,
              ElementsAre(ElementId::kLink, ElementId::kField, ElementId::kList,
                          ElementId::kButton, ElementId::kList));
}

TEST_F(PageFocusTest, ShiftTabComesInAtTheLastElement) {
  ShiftTab();
  EXPECT_EQ(page_->look().focused, ElementId::kButton);
}

TEST_F(PageFocusTest, ATabOfAShortcutLeavesTheFocusWhereItIs) {
  Tab(rpc::MODIFIER_FLAG_CONTROL);
  EXPECT_EQ(page_->look().focused, std::nullopt);
}

TEST_F(PageFocusTest, KeysAreForTheViewThatHasTheFocus) {
  viewport_.has_focus = false;
  page_->SetViewport(viewport_);
  Tab();
  viewport_.has_focus = true;
  page_->SetViewport(viewport_);
  EXPECT_EQ(page_->look().focused, std::nullopt);
}

TEST_F(PageFocusTest, FocusByTabIsAtTheFirstElementAndByBackTabAtTheLast) {
  Focus(rpc::FOCUS_REASON_TAB);
  EXPECT_EQ(page_->look().focused, ElementId::kLink);
  Focus(rpc::FOCUS_REASON_BACK_TAB);
  EXPECT_EQ(page_->look().focused, ElementId::kButton);
}

TEST_F(PageFocusTest, OtherwiseTheElementThatHadTheFocusHasItAgain) {
  Tab();
  Focus(rpc::FOCUS_REASON_WINDOW);
  EXPECT_EQ(page_->look().focused, ElementId::kLink);
}

TEST_F(PageFocusTest, APressFocusesWhatItHits) {
  Press(Middle(ElementId::kField));
  EXPECT_EQ(page_->look().focused, ElementId::kField);
  Press(Middle(ElementId::kPicture));
  EXPECT_EQ(page_->look().focused, std::nullopt);
}

TEST_F(PageFocusTest, TheHostIsAskedToMoveTheAccessibilityFocus) {
  Serve(readers_);
  Tab();
  ASSERT_THAT(readers_.received(), SizeIs(1));
  const auto& call = readers_.received()[0].message.call();
  EXPECT_EQ(call.node().token(), ":1.1:/org/a11y/atspi/accessible/link");
  EXPECT_EQ(call.bounds().x(), 96);
  Answer(readers_, {});
  EXPECT_EQ(page_->look().focused, ElementId::kLink);
}

TEST_F(PageFocusTest, WithAccessibilityOffNobodyIsAskedToMoveItsFocus) {
  viewport_.is_accessibility_on = false;
  page_->SetViewport(viewport_);
  Serve(readers_);
  Tab();
  EXPECT_THAT(readers_.received(), IsEmpty());
}

TEST_F(PageFocusTest, PastAnEndTheHostIsOfferedTheFocus) {
  Serve(focus_takers_);
  Focus(rpc::FOCUS_REASON_BACK_TAB);
  Tab();
  ASSERT_THAT(focus_takers_.received(), SizeIs(1));
  EXPECT_EQ(focus_takers_.received()[0].message.call().direction(),
            rpc::FOCUS_DIRECTION_FORWARD);
  Tab();  // It has not answered yet.
  EXPECT_THAT(focus_takers_.received(), SizeIs(1));
  AnswerFocus(true);
  EXPECT_EQ(page_->look().focused, std::nullopt);

  Focus(rpc::FOCUS_REASON_TAB);
  ShiftTab();
  EXPECT_EQ(focus_takers_.received()[1].message.call().direction(),
            rpc::FOCUS_DIRECTION_BACKWARD);
}

TEST_F(PageFocusTest, AFocusThatIsNotTakenStartsOverAtTheOtherEnd) {
  Focus(rpc::FOCUS_REASON_BACK_TAB);
  Tab();  // No host serves OnTakeFocus.
  EXPECT_EQ(page_->look().focused, ElementId::kLink);

  Serve(focus_takers_);
  ShiftTab();
  AnswerFocus(false);
  EXPECT_EQ(page_->look().focused, ElementId::kButton);
  Tab();
  Fail(focus_takers_);
  EXPECT_EQ(page_->look().focused, ElementId::kLink);
}

// Text

TEST_F(PageTextTest, TypedTextGrowsInTheFocusedFieldAndIsAnnounced) {
  Press(Middle(ElementId::kField));
  Type("A");
  Type("da");
  EXPECT_EQ(page_->look().text, "Ada");
  EXPECT_THAT(service_.Published(),
              ElementsAre("ARIA_LIVE_POLITENESS_POLITE 'A' 4",
                          "ARIA_LIVE_POLITENESS_POLITE 'Ada' 4"));
}

TEST_F(PageTextTest, WithoutFocusNothingIsTyped) {
  Type("a");
  Press(Middle(ElementId::kLink));
  Type("a");
  Press(Middle(ElementId::kField));
  viewport_.has_focus = false;
  page_->SetViewport(viewport_);
  Type("a");
  EXPECT_EQ(page_->look().text, "");
  EXPECT_THAT(service_.Published(), IsEmpty());
}

TEST_F(PageTextTest, ControlCharactersAreNotText) {
  Press(Middle(ElementId::kField));
  Type("\x1b");
  Type("\x7f");
  EXPECT_EQ(page_->look().text, "");
  EXPECT_THAT(service_.Published(), IsEmpty());
}

TEST_F(PageTextTest, EnterEmptiesTheField) {
  Press(Middle(ElementId::kField));
  Type("\r");
  EXPECT_THAT(service_.Published(), IsEmpty());
  Type("a");
  service_.Published();
  Type("\r");
  EXPECT_EQ(page_->look().text, "");
  EXPECT_THAT(service_.Published(),
              ElementsAre("ARIA_LIVE_POLITENESS_POLITE '' 2"));
}

TEST_F(PageTextTest, AFullFieldTakesNoMoreCharacters) {
  Press(Middle(ElementId::kField));
  Type(std::string(kFieldCharacters - 1, 'a'));
  Type("\u20ac\u20ac");
  EXPECT_EQ(page_->look().text,
            absl::StrCat(std::string(kFieldCharacters - 1, 'a'), "\u20ac"));
}

// Drags

TEST_F(PageDragTest, EachEnterTellsWhatADropWouldDo) {
  rpc::DragEnterRequest enter;
  enter.set_allowed_operations(rpc::DRAG_OPERATION_COPY |
                               rpc::DRAG_OPERATION_MOVE);
  page_->DragEnter(enter);
  page_->DragEnter(enter);
  *enter.mutable_position() = Middle(ElementId::kField);
  page_->DragEnter(enter);
  enter.set_allowed_operations(rpc::DRAG_OPERATION_MOVE);
  page_->DragEnter(enter);
  EXPECT_THAT(service_.Published(),
              ElementsAre("drag, DRAG_OPERATION_UNSPECIFIED",
                          "drag, DRAG_OPERATION_UNSPECIFIED",
                          "drag, DRAG_OPERATION_COPY",
                          "drag, DRAG_OPERATION_UNSPECIFIED"));
}

TEST_F(PageDragTest, AMovementTellsOnlyWhatHasChanged) {
  page_->DragEnter({});
  service_.Published();
  rpc::DragOverRequest over;
  over.set_allowed_operations(rpc::DRAG_OPERATION_COPY);
  page_->DragOver(over);
  EXPECT_THAT(service_.Published(), IsEmpty());
  *over.mutable_position() = Middle(ElementId::kField);
  page_->DragOver(over);
  page_->DragOver(over);
  EXPECT_THAT(service_.Published(), ElementsAre("drag, DRAG_OPERATION_COPY"));
}

TEST_F(PageDragTest, TextDroppedOnTheFieldIsEntered) {
  rpc::DragEnterRequest enter;
  enter.set_allowed_operations(rpc::DRAG_OPERATION_COPY);
  *enter.mutable_position() = Middle(ElementId::kField);
  page_->DragEnter(enter);
  rpc::DragDropRequest drop;
  drop.add_items()->mutable_text()->set_mime_type("text/html");
  drop.mutable_items(0)->mutable_text()->set_value("<b>Ada</b>");
  drop.add_items()->mutable_text()->set_mime_type("text/plain");
  drop.mutable_items(1)->mutable_text()->set_value("Ada");
  page_->DragDrop(drop);
  EXPECT_EQ(page_->look().text, "Ada");
}

TEST_F(PageDragTest, WhatWouldBeRefusedIsNotEntered) {
  page_->DragEnter({});
  rpc::DragDropRequest drop;
  drop.add_items()->mutable_text()->set_mime_type("text/plain");
  drop.mutable_items(0)->mutable_text()->set_value("Ada");
  page_->DragDrop(drop);
  EXPECT_EQ(page_->look().text, "");
}

TEST_F(PageDragTest, ADragOfThePictureSaysThatItBeganInThePage) {
  viewport_.has_drag_begun_in_page = true;
  page_->SetViewport(viewport_);
  page_->MouseDrag({});
  page_->MouseDrag({});
  rpc::DragOverRequest over;
  over.set_allowed_operations(rpc::DRAG_OPERATION_COPY);
  *over.mutable_position() = Middle(ElementId::kField);
  page_->DragOver(over);
  EXPECT_THAT(service_.Published(),
              ElementsAre("own drag, DRAG_OPERATION_UNSPECIFIED of 'picture'",
                          "own drag, DRAG_OPERATION_COPY"));
  page_->DragDrop({});
  EXPECT_EQ(page_->look().text, "picture");
}

TEST_F(PageDragTest, EachDragOfThePictureIsAnnounced) {
  for (const bool is_dragged : {true, false, true}) {
    viewport_.has_drag_begun_in_page = is_dragged;
    page_->SetViewport(viewport_);
    page_->MouseDrag({});
  }
  EXPECT_THAT(service_.Published(), SizeIs(2));
}

// Answers after the page has been destroyed

TEST_F(PageLifeTest, AnswersThatComeLaterMakeNoDifference) {
  Serve(dialogs_);
  Serve(lists_);
  Serve(focus_takers_);
  Click(ElementId::kList);
  Focus(rpc::FOCUS_REASON_BACK_TAB);
  Tab();
  Click(ElementId::kButton);
  service_.Published();
  page_.reset();
  AnswerDialog(true, "Ada");
  AnswerList(true, {1});
  AnswerFocus(true);
  EXPECT_THAT(service_.Published(), IsEmpty());
}

TEST_F(PageLifeTest, AnAnswerThatComesAfterDetachIsTaken) {
  Serve(dialogs_);
  Click(ElementId::kButton);
  page_->SetViewport({});
  AnswerDialog(true, "Ada");
  page_->SetViewport(viewport_);
  Click(ElementId::kButton);
  EXPECT_THAT(dialogs_.received(), SizeIs(2));
}

}  // namespace
}  // namespace widget_server
