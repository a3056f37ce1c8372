#include "examples/widget_server/page.h"

#include <cstdint>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "examples/widget_server/page_fixture.h"

namespace widget_server {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using PageTest = PageFixture;

// The pointer

TEST_F(PageTest, CursorAndTooltipFollowThePointer) {
  Move(Middle(ElementId::kPicture));
  EXPECT_THAT(
      service_.Published(),
      ElementsAre("CURSOR_TYPE_GRAB", "tooltip 'A picture to drag' at 16"));
  Move(Middle(ElementId::kLink));
  EXPECT_THAT(service_.Published(),
              ElementsAre("CURSOR_TYPE_POINTER",
                          "tooltip 'Leads to the manual' at 96"));
  Move(Middle(ElementId::kField));
  EXPECT_THAT(service_.Published(),
              ElementsAre("CURSOR_TYPE_TEXT", "tooltip '' at 0"));
  Move(At(0, 0));
  EXPECT_THAT(service_.Published(), ElementsAre("CURSOR_TYPE_DEFAULT"));
}

TEST_F(PageTest, NothingIsPublishedWhileThePointerStaysOnAnElement) {
  Move(Middle(ElementId::kLink));
  service_.Published();
  Move(Middle(ElementId::kLink));
  EXPECT_THAT(service_.Published(), IsEmpty());
}

TEST_F(PageTest, ATooltipIsHiddenWhenThePointerLeavesTheView) {
  Move(Middle(ElementId::kLink));
  service_.Published();
  page_->MouseExit({});
  EXPECT_THAT(service_.Published(), ElementsAre("tooltip '' at 0"));
}

TEST_F(PageTest, ATooltipIsHiddenWithItsView) {
  Move(Middle(ElementId::kLink));
  service_.Published();
  page_->SetViewport({});
  EXPECT_THAT(service_.Published(), ElementsAre("tooltip '' at 0"));
}

TEST_F(PageTest, APointerThatEntersIsOverWhatIsThere) {
  rpc::MouseEnterRequest event;
  *event.mutable_pointer()->mutable_position() = Middle(ElementId::kField);
  page_->MouseEnter(event);
  EXPECT_THAT(service_.Published(), ElementsAre("CURSOR_TYPE_TEXT"));
}

// The dialog

TEST_F(PageTest, AClickOnTheButtonAsksForAName) {
  Serve(dialogs_);
  Click(ElementId::kButton);
  ASSERT_THAT(dialogs_.received(), SizeIs(1));
  const auto& call = dialogs_.received()[0].message.call();
  EXPECT_EQ(call.prompt().message(), "What is your name?");
  EXPECT_EQ(call.origin(), "https://example.com");
}

TEST_F(PageTest, AnAcceptedNameIsAnnounced) {
  Serve(dialogs_);
  Click(ElementId::kButton);
  AnswerDialog(true, "Ada");
  EXPECT_THAT(service_.Published(),
              ElementsAre("ARIA_LIVE_POLITENESS_ASSERTIVE 'Hello, Ada' 1"));
}

TEST_F(PageTest, WhatIsDeclinedFailedOrServedByNobodyIsNotAnnounced) {
  Click(ElementId::kButton);
  Serve(dialogs_);
  Click(ElementId::kButton);
  AnswerDialog(false, "Ada");
  Click(ElementId::kButton);
  Fail(dialogs_);
  EXPECT_THAT(dialogs_.received(), SizeIs(2));
  EXPECT_THAT(service_.Published(), IsEmpty());
}

TEST_F(PageTest, NothingIsAnnouncedWhileAccessibilityIsOff) {
  viewport_.is_accessibility_on = false;
  page_->SetViewport(viewport_);
  Serve(dialogs_);
  Click(ElementId::kButton);
  AnswerDialog(true, "Ada");
  EXPECT_THAT(service_.Published(), IsEmpty());
}

TEST_F(PageTest, ThePageWaitsWhileADialogIsOpen) {
  Serve(dialogs_);
  Click(ElementId::kField);
  Click(ElementId::kButton);
  Click(ElementId::kButton);
  Click(ElementId::kField);
  Type("a");
  Tab();
  EXPECT_THAT(dialogs_.received(), SizeIs(1));
  EXPECT_EQ(page_->look().text, "");
  EXPECT_EQ(page_->look().focused, ElementId::kButton);
  AnswerDialog(false, "");
  Click(ElementId::kButton);
  EXPECT_THAT(dialogs_.received(), SizeIs(2));
}

TEST_F(PageTest, OnlyAPressAndAReleaseOnOneElementAreAClick) {
  Serve(dialogs_);
  const rpc::PointDip button = Middle(ElementId::kButton);
  Press(Middle(ElementId::kLink));
  Release(button);
  Press(button);
  Release(Middle(ElementId::kLink));
  Release(button);
  Press(button);
  Release(button, 0);  // Moved too far in between.
  Press(button, rpc::MOUSE_BUTTON_SECONDARY);
  Release(button, 1, rpc::MOUSE_BUTTON_SECONDARY);
  EXPECT_THAT(dialogs_.received(), IsEmpty());
}

// The list

TEST_F(PageTest, AHostThatServesListsIsAskedToShowIt) {
  Serve(lists_);
  Click(ElementId::kList);
  EXPECT_THAT(service_.Published(),
              ElementsAre("list 1 opens at the host's, for 84"));
  ASSERT_THAT(lists_.received(), SizeIs(1));
  const rpc::ShowDropdownCall& call = lists_.received()[0].message.call();
  EXPECT_EQ(call.popup_id(), 1u);
  EXPECT_EQ(call.anchor().x(), 96);
  ASSERT_EQ(call.items_size(), 3);
  EXPECT_EQ(call.items(1).label(), "Green");
  EXPECT_TRUE(call.items(0).is_selected());
  EXPECT_EQ(call.selected_index(), 0u);
}

TEST_F(PageTest, TheHostsChoiceIsTakenAndAnnounced) {
  Serve(lists_);
  Click(ElementId::kList);
  service_.Published();
  AnswerList(true, {2});
  EXPECT_THAT(
      service_.Published(),
      ElementsAre("list 1 closes", "ARIA_LIVE_POLITENESS_POLITE 'Blue' 4"));
  EXPECT_EQ(page_->look().option, 2u);
}

TEST_F(PageTest, ThePageKeepsItsChoiceIfTheHostMadeNone) {
  Serve(lists_);
  for (const auto& [accepted, indices] :
       std::vector<std::pair<bool, std::vector<std::uint32_t>>>{
           {false, {1}}, {true, {}}, {true, {1, 2}}, {true, {3}}}) {
    Click(ElementId::kList);
    service_.Published();
    AnswerList(accepted, indices);
    EXPECT_THAT(service_.Published(), SizeIs(1));
    EXPECT_EQ(page_->look().option, 0u);
  }
  Click(ElementId::kList);
  service_.Published();
  Fail(lists_);
  EXPECT_THAT(service_.Published(), ElementsAre("list 5 closes"));
}

TEST_F(PageTest, WithoutAHostThePageShowsTheListAndAPressInItChooses) {
  Click(ElementId::kList);
  EXPECT_THAT(service_.Published(), ElementsAre("list 1 opens below 84"));
  const Rect open = OpenListPlace();
  Press(At(open.x + 5, open.y + 25));
  EXPECT_THAT(
      service_.Published(),
      ElementsAre("list 1 closes", "ARIA_LIVE_POLITENESS_POLITE 'Green' 4"));
  EXPECT_EQ(page_->look().option, 1u);
}

TEST_F(PageTest, APressElsewhereClosesTheListAndDoesNothingElse) {
  Click(ElementId::kList);
  service_.Published();
  Click(ElementId::kButton);
  EXPECT_THAT(service_.Published(), ElementsAre("list 1 closes"));
  EXPECT_EQ(page_->look().option, 0u);
  EXPECT_EQ(page_->look().focused, ElementId::kList);
}

TEST_F(PageTest, WhatTheListCoversIsNotPointedAt) {
  Click(ElementId::kList);
  service_.Published();
  Move(Middle(ElementId::kLink));
  service_.Published();
  Move(At(OpenListPlace().x + 5, OpenListPlace().y + 5));
  EXPECT_THAT(service_.Published(),
              ElementsAre("CURSOR_TYPE_DEFAULT", "tooltip '' at 0"));
}

TEST_F(PageTest, OneListIsOpenAtATime) {
  Serve(lists_);
  Click(ElementId::kList);
  Click(ElementId::kList);
  EXPECT_THAT(lists_.received(), SizeIs(1));
}

TEST_F(PageTest, AListClosesOnceWithItsViewWhateverTheHostAnswersLater) {
  Serve(lists_);
  Click(ElementId::kList);
  service_.Published();
  page_->SetViewport({});
  page_->SetViewport(viewport_);
  EXPECT_THAT(service_.Published(), ElementsAre("list 1 closes"));
  Click(ElementId::kList);
  service_.Published();
  lists_.Answer(kBrowser, lists_.received()[0].id);
  loop_.RunUntilIdle();
  EXPECT_THAT(service_.Published(), IsEmpty());
}

}  // namespace
}  // namespace widget_server
