#include "host/drop_target.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "host/recording_widget_fixture.h"

namespace orvane::host {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr auto kNone = rpc::DRAG_OPERATION_UNSPECIFIED;
constexpr auto kCopy = rpc::DRAG_OPERATION_COPY;
constexpr auto kMove = rpc::DRAG_OPERATION_MOVE;
constexpr std::uint32_t kAllowed = kCopy | kMove;

PointerSample At(double x, double y) {
  PointerSample sample;
  sample.pointer.mutable_position()->set_x(x);
  sample.pointer.mutable_position()->set_y(y);
  return sample;
}

std::vector<rpc::DragItem> Text(const std::string& value) {
  std::vector<rpc::DragItem> items(1);
  items[0].mutable_text()->set_mime_type("text/plain");
  items[0].mutable_text()->set_value(value);
  return items;
}

class DropTargetTest : public RecordingWidgetFixture {
 protected:
  DropTargetTest() { Calls(); }

  void PageDecides(rpc::DragOperation operation, bool began_in_page = false) {
    rpc::DragCursorUpdated event;
    event.set_operation(operation);
    event.set_began_in_page(began_in_page);
    EXPECT_GE(Publish<rpc::DragCursorUpdated>(kBrowser, event), 1u);
    loop.RunUntilIdle();
  }
  void Drop(const std::string& text) {
    target->Drop(At(5, 6), kAllowed, Text(text),
                 [this](rpc::DragOperation operation) { done = operation; });
  }

  // The toolkit drags what the page began to drag.
  void BeginPageDrag() {
    pointer.Press(At(1, 2), rpc::MOUSE_BUTTON_PRIMARY);
    rpc::DragCursorUpdated event;
    *event.add_items() = Text("Ada")[0];
    event.set_allowed_operations(kAllowed);
    event.set_began_in_page(true);
    Publish<rpc::DragCursorUpdated>(kBrowser, event);
    EXPECT_THAT(Calls().back(), "DragLeave");
  }

  Pointer pointer{&*calls, {}, nullptr, [](auto, auto) { return true; }};
  std::vector<rpc::DragOperation> told;
  std::optional<rpc::DragOperation> done;
  std::optional<DropTarget> target{
      std::in_place, &*calls, &pointer,
      [this](rpc::DragOperation operation) { told.push_back(operation); }};
};

TEST_F(DropTargetTest, WhatThePageTakesIsDropped) {
  target->Enter(At(1, 2), kAllowed, Text(""));
  EXPECT_EQ(Latest<rpc::DragEnterRequest>().allowed_operations(), kAllowed);
  target->Move(At(3, 4), kAllowed);
  PageDecides(kCopy);
  EXPECT_THAT(told, ElementsAre(kCopy));
  EXPECT_EQ(target->operation(), kCopy);
  Drop("Hello");
  EXPECT_EQ(done, kCopy);
  EXPECT_EQ(Latest<rpc::DragDropRequest>().items(0).text().value(), "Hello");
  EXPECT_THAT(Calls(),
              ElementsAre("DragEnter 1,2", "DragOver 3,4", "DragDrop 5,6"));
}

TEST_F(DropTargetTest, WhatThePageRefusesLeaves) {
  target->Enter(At(1, 2), kAllowed, Text(""));
  PageDecides(kNone);
  Drop("Hello");
  EXPECT_EQ(done, kNone);
  EXPECT_THAT(Calls(), ElementsAre("DragEnter 1,2", "DragLeave"));
}

TEST_F(DropTargetTest, ADropWaitsForThePagesDecision) {
  target->Enter(At(1, 2), kAllowed, Text(""));
  Drop("Hello");
  EXPECT_THAT(Calls(), ElementsAre("DragEnter 1,2"));
  EXPECT_EQ(done, std::nullopt);
  PageDecides(kMove);
  EXPECT_EQ(done, kMove);
  EXPECT_THAT(Calls(), ElementsAre("DragDrop 5,6"));
}

TEST_F(DropTargetTest, ADecisionAboutADragThatHasLeftDoesNotCount) {
  target->Enter(At(1, 2), kAllowed, Text(""));
  PageDecides(kCopy);
  target->Leave({});
  EXPECT_EQ(target->operation(), kNone);
  PageDecides(kCopy);
  EXPECT_EQ(target->operation(), kNone);
  EXPECT_THAT(told, ElementsAre(kCopy));
  target->Enter(At(1, 2), kAllowed, Text(""));
  EXPECT_EQ(target->operation(), kNone);
}

TEST_F(DropTargetTest, ADecisionAboutADragOfThePagesDoesNotCount) {
  target->Enter(At(1, 2), kAllowed, Text(""));
  PageDecides(kCopy, true);
  EXPECT_EQ(target->operation(), kNone);
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(DropTargetTest, ADragOfThePagesOwnHasItsItemsInTheWidget) {
  BeginPageDrag();
  target->Enter(At(1, 2), kAllowed, Text("Ada"));
  EXPECT_THAT(Latest<rpc::DragEnterRequest>().items(), IsEmpty());
  PageDecides(kMove, true);
  EXPECT_EQ(target->operation(), kMove);
  EXPECT_THAT(told, ElementsAre(kMove));
  PageDecides(kCopy, false);
  EXPECT_EQ(target->operation(), kMove);
  Drop("Ada");
  EXPECT_EQ(done, kMove);
  EXPECT_THAT(Latest<rpc::DragDropRequest>().items(), IsEmpty());
  pointer.EndDrag(kMove);
  EXPECT_THAT(Calls(), ElementsAre("DragEnter 1,2", "DragDrop 5,6",
                                   "DragEnd 1,2 MOVE", "MouseExit 1,2"));
}

TEST_F(DropTargetTest, AfterADragOfThePagesOwnOthersComeFromElsewhere) {
  BeginPageDrag();
  target->Enter(At(1, 2), kAllowed, Text("Ada"));
  target->Leave({});
  pointer.EndDrag(kNone);
  target->Enter(At(1, 2), kAllowed, Text("Bob"));
  EXPECT_EQ(Latest<rpc::DragEnterRequest>().items_size(), 1);
  PageDecides(kCopy, true);  // Late.
  EXPECT_EQ(target->operation(), kNone);
  PageDecides(kCopy, false);
  EXPECT_EQ(target->operation(), kCopy);
}

TEST_F(DropTargetTest, ADropThatWaitsIsDoneWithAtALeave) {
  target->Enter(At(1, 2), kAllowed, Text("Ada"));
  Drop("Ada");
  target->Leave({});
  EXPECT_EQ(done, kNone);
  EXPECT_THAT(Calls(), ElementsAre("DragEnter 1,2", "DragLeave"));
}

TEST_F(DropTargetTest, ADragThatTheWidgetRefusesIsNotOverItsView) {
  widget.failing = {"DragEnter"};
  target->Enter(At(1, 2), kAllowed, Text(""));
  Drop("Hello");
  EXPECT_THAT(Calls(), ElementsAre("DragEnter 1,2"));
  EXPECT_EQ(done, kNone);
  target->Move(At(3, 4), kAllowed);
  target->Leave({});
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(DropTargetTest, WithoutADragNothingIsSent) {
  target->Move(At(3, 4), kAllowed);
  target->Leave({});
  Drop("Hello");
  EXPECT_EQ(done, kNone);
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(DropTargetTest, ADragWhoseLeaveWasLostLeavesBeforeTheNextOne) {
  target->Enter(At(1, 2), kAllowed, Text(""));
  target->Enter(At(3, 4), kAllowed, Text(""));
  EXPECT_THAT(Calls(),
              ElementsAre("DragEnter 1,2", "DragLeave", "DragEnter 3,4"));
}

TEST_F(DropTargetTest, ATargetMayEndWhileADropWaits) {
  target->Enter(At(1, 2), kAllowed, Text(""));
  Drop("Hello");
  target.reset();
  Calls();
  EXPECT_EQ(done, std::nullopt);
}

}  // namespace
}  // namespace orvane::host
