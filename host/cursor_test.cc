#include "host/cursor.h"

#include "gtest/gtest.h"

namespace orvane::host {
namespace {

rpc::DragCursorUpdated DragThatWould(rpc::DragOperation operation) {
  rpc::DragCursorUpdated event;
  event.set_operation(operation);
  return event;
}

TEST(CursorTest, NamesAreTheKeywordsOfCss) {
  EXPECT_EQ(CursorName(rpc::CURSOR_TYPE_POINTER), "pointer");
  EXPECT_EQ(CursorName(rpc::CURSOR_TYPE_NONE), "none");
  EXPECT_EQ(CursorName(rpc::CURSOR_TYPE_NESW_RESIZE), "nesw-resize");
  EXPECT_EQ(CursorName(rpc::CURSOR_TYPE_ZOOM_OUT), "zoom-out");
}

TEST(CursorTest, WhatHasNoKeywordIsTheDefault) {
  EXPECT_EQ(CursorName(rpc::CURSOR_TYPE_UNSPECIFIED), "default");
  EXPECT_EQ(CursorName(rpc::CURSOR_TYPE_AUTO), "default");
  EXPECT_EQ(CursorName(rpc::CURSOR_TYPE_CUSTOM), "default");
  EXPECT_EQ(CursorName(static_cast<rpc::CursorType>(99)), "default");
}

TEST(CursorTest, ADragHasTheCursorOfItsOperation) {
  EXPECT_EQ(CursorOf(DragThatWould(rpc::DRAG_OPERATION_COPY)).type(),
            rpc::CURSOR_TYPE_COPY);
  EXPECT_EQ(CursorOf(DragThatWould(rpc::DRAG_OPERATION_LINK)).type(),
            rpc::CURSOR_TYPE_ALIAS);
  EXPECT_EQ(CursorOf(DragThatWould(rpc::DRAG_OPERATION_MOVE)).type(),
            rpc::CURSOR_TYPE_MOVE);
  EXPECT_EQ(CursorOf(DragThatWould(rpc::DRAG_OPERATION_UNSPECIFIED)).type(),
            rpc::CURSOR_TYPE_NO_DROP);
}

TEST(CursorTest, ThePageMayChooseTheCursorOfADrag) {
  auto event = DragThatWould(rpc::DRAG_OPERATION_COPY);
  event.mutable_cursor()->set_type(rpc::CURSOR_TYPE_GRABBING);
  EXPECT_EQ(CursorOf(event).type(), rpc::CURSOR_TYPE_GRABBING);
}

}  // namespace
}  // namespace orvane::host
