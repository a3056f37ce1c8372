// Whole sessions: what the host does, and what the page sees of it.

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "engines/chromium/real_engine_fixture.h"
#include "engines/chromium/x11_event_fixture.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace chromium {
namespace {

using ::orvane::host::Picture;
using testing::AddressOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::kBegin;
using ::testing::Not;
using testing::Stream;
using ::testing::UnorderedElementsAre;

class RealEngineTest : public testing::RealEngineFixture {};

// Pictures

TEST_F(RealEngineTest, ThePageIsSeenInItsColours) {
  Open(
      "<div style='position:absolute;left:100px;top:50px;width:100px;"
      "height:100px;background:rgb(255,0,128)'></div>");
  AwaitColor(150, 100, 0xff0080);
  EXPECT_EQ(picture_.width(), 320);
  EXPECT_EQ(picture_.height(), 200);
  EXPECT_EQ(PixelAt(10, 10), 0x008000u);
  EXPECT_EQ(PixelAt(99, 100), 0x008000u);
  EXPECT_EQ(PixelAt(100, 100), 0xff0080u);
}

TEST_F(RealEngineTest, OnlyWhatHasChangedIsDamaged) {
  Open(
      "<div onclick='this.style.background=`blue`' style='position:absolute;"
      "left:130px;top:70px;width:50px;height:50px;background:red'></div>");
  AwaitColor(150, 100, 0xff0000);
  Click(150, 100);
  AwaitColor(150, 100, 0x0000ff);
  ASSERT_THAT(frame_.damage(), Not(IsEmpty()));
  for (const rpc::RectPx& rect : frame_.damage()) {
    EXPECT_GE(rect.x(), 128);
    EXPECT_LE(rect.x() + rect.width(), 192);
    EXPECT_GE(rect.y(), 64);
    EXPECT_LE(rect.y() + rect.height(), 128);
  }
}

TEST_F(RealEngineTest, LayersOfThePageAreInThePictureOfTheView) {
  Open(
      "<dialog style='margin:0;border:0;padding:0;left:100px;top:50px;"
      "width:100px;height:100px;background:rgb(255,0,128);"
      "will-change:transform'></dialog><script>onclick = () =>"
      "  document.querySelector('dialog').showModal()</script>");
  int layers = 0;
  const auto serving = widget_->OnUpdateLayer(
      browser_, [&](const rpc::UpdateLayerCall&,
                    orvane::Responder<rpc::UpdateLayer>) { ++layers; });
  Click(10, 10);
  AwaitColor(150, 100, 0xff0080);
  EXPECT_EQ(layers, 0);
}

TEST_F(RealEngineTest, AnotherSizeIsLaidOutAndDrawn) {
  Open(
      "<script>addEventListener('resize', () =>"
      "  tell(`${innerWidth} x ${innerHeight}`));</script>");
  EXPECT_TRUE(widget_
                  ->SetViewBounds(
                      New<rpc::ViewBounds>("bounds { width: 400 height: 300 }"))
                  .ok());
  AwaitTold("400 x 300");  // It may tell the size before, too.
  AwaitPicture([](const Picture& picture) {
    return picture.width() == 400 && picture.height() == 300;
  });
}

TEST_F(RealEngineTest, ADisplaysScaleIsThePages) {
  Open(
      "<script>matchMedia('(resolution: 2dppx)').addEventListener('change',"
      "  () => tell(`${devicePixelRatio} of ${screen.width}`));</script>");
  EXPECT_TRUE(widget_
                  ->SetDisplay(New<rpc::Display>(
                      "display_id: 1 scale_factor: 2"
                      " bounds { width: 1280 height: 800 }"
                      " pixel_bounds { width: 2560 height: 1600 }"))
                  .ok());
  EXPECT_EQ(Told(), "2 of 1280");
  AwaitPicture([](const Picture& picture) {
    return picture.width() == 640 && picture.height() == 400;
  });
  EXPECT_EQ(frame_.scale_factor(), 2);
}

TEST_F(RealEngineTest, AHiddenPageKnowsThatItIs) {
  Open(
      "<script>document.addEventListener('visibilitychange', () =>"
      "  tell(document.visibilityState));</script>");
  EXPECT_TRUE(widget_->Hide(browser_).ok());
  EXPECT_EQ(Told(), "hidden");
  picture_ = Picture();
  EXPECT_TRUE(widget_->Show(browser_).ok());
  EXPECT_EQ(Told(), "visible");
  AwaitColor(10, 10, 0x008000);
}

// Input

TEST_F(RealEngineTest, AHiddenViewTakesNoMemoryForPictures) {
  const auto count_of_pictures = [this] {
    const std::string prefix = absl::StrCat("orvane-pixels-", ServerPid(), "-");
    return std::ranges::count_if(
        std::filesystem::directory_iterator("/dev/shm"), [&](const auto& file) {
          return absl::StartsWith(file.path().filename().string(), prefix);
        });
  };
  Open("");
  EXPECT_GT(count_of_pictures(), 0);
  EXPECT_TRUE(widget_->Hide(browser_).ok());
  while (count_of_pictures() > 0) loop_.RunUntilIdle();
}

TEST_F(RealEngineTest, AClickIsOne) {
  Open(
      "<script>tellOf('click', (e) => [e.clientX, e.clientY, e.button,"
      "  e.detail, e.isTrusted].join());</script>");
  Click(30, 40);
  EXPECT_EQ(Told(), "30,40,0,1,true");
}

TEST_F(RealEngineTest, MovesTellWhereAndWhatIsHeld) {
  Open(
      "<script>tellOf('mousemove', (e) =>"
      "  [e.clientX, e.clientY, e.buttons, e.shiftKey].join());</script>");
  EXPECT_TRUE(widget_
                  ->ForwardMouseMove(New<rpc::MouseMoveRequest>(
                      At(11, 12) + "input { modifiers: 8 }"))
                  .ok());
  AwaitTold("11,12,0,true");  // The engine makes up one at 0, 0 before.
}

TEST_F(RealEngineTest, TheWheelScrolls) {
  Open(
      "<div style='height:5000px'></div><script>"
      "tellOf('scrollend', () => scrollY > 0 ? 'down' : 'up');</script>");
  EXPECT_TRUE(
      widget_
          ->ForwardMouseWheel(New<rpc::MouseWheelRequest>(
              At(50, 50) + "delta_y: 3 delta_mode: WHEEL_DELTA_MODE_LINE"))
          .ok());
  EXPECT_EQ(Told(), "down");
}

TEST_F(RealEngineTest, KeysAreSeenAndTextIsEntered) {
  Open(
      "<input id=i autofocus><script>tellOf('keydown', (e) =>"
      "  [e.key, e.code, e.keyCode, e.shiftKey].join());"
      "tellOf('keyup', () => i.value);</script>");
  Focus("PROGRAMMATIC");
  Click(20, 10);
  const std::string key = "key: 'a' code: 'KeyA' windows_key_code: 65";
  Press(key);
  EXPECT_EQ(Told(), "a,KeyA,65,false");
  Type("a", "key { " + key + " }");
  Release(key);
  EXPECT_EQ(Told(), "a");
  Type("\xe6\xbc\xa2");
  Release(key);
  EXPECT_EQ(Told(), "a\xe6\xbc\xa2");
}

TEST_F(RealEngineTest, EnterPressesWhatHasTheFocus) {
  Open("<button autofocus onclick='tell(`pressed`)'>B</button>");
  Focus("TAB");
  Press("key: 'Enter'");
  Type("\\r", "key { key: 'Enter' }");
  EXPECT_EQ(Told(), "pressed");
}

TEST_F(RealEngineTest, FingersAreSeen) {
  Open(
      "<script>const list = (e) => e.type + [...e.changedTouches].map((t) =>"
      "  [t.clientX, t.clientY].join()).join(' ');"
      "tellOf('touchstart', list); tellOf('touchend', list);</script>");
  EXPECT_TRUE(widget_
                  ->ForwardTouchStart(New<rpc::TouchStartRequest>(
                      "changed_points { id: 77 position { x: 5 y: 6 } }"))
                  .ok());
  EXPECT_EQ(Told(), "touchstart5,6");
  EXPECT_TRUE(widget_
                  ->ForwardTouchEnd(New<rpc::TouchEndRequest>(
                      "changed_points { id: 77 position { x: 5 y: 6 } }"))
                  .ok());
  EXPECT_EQ(Told(), "touchend5,6");
}

// Input as X11 delivered it

template <typename Request>
Request NativeEvent(const BrowserId& browser, const std::string& payload) {
  Request request;
  *request.mutable_browser_id() = browser;
  request.mutable_event()->set_platform(rpc::PLATFORM_X11);
  request.mutable_event()->set_payload(payload);
  return request;
}

TEST_F(RealEngineTest, ANativeKeyPressTypes) {
  Open(
      "<input id=i autofocus><script>tellOf('keydown', (e) =>"
      "  [e.key, e.code, e.keyCode, e.shiftKey].join());"
      "tellOf('keyup', () => i.value);</script>");
  Focus("PROGRAMMATIC");
  Click(20, 10);
  const auto send = [this](std::int32_t type) {
    const auto request = NativeEvent<rpc::NativeKeyEventRequest>(
        browser_, testing::Core(type, {.detail = 38, .state = 1}));
    EXPECT_TRUE(widget_->ForwardNativeKeyEvent(request).ok());
  };
  send(testing::kKeyPress);
  EXPECT_EQ(Told(), "A,KeyA,65,true");
  send(testing::kKeyRelease);
  EXPECT_EQ(Told(), "A");
}

TEST_F(RealEngineTest, ANativeMousePressClicks) {
  Open(
      "<button style='position:absolute;left:20px;top:30px;width:50px;"
      "height:50px' onclick='tell([event.detail, event.clientX].join())'>");
  for (const auto type : {testing::kButtonPress, testing::kButtonRelease}) {
    const auto request = NativeEvent<rpc::NativeMouseEventRequest>(
        browser_, testing::Core(type, {.detail = 1, .x = 40, .y = 50}));
    EXPECT_TRUE(widget_->ForwardNativeMouseEvent(request).ok());
  }
  EXPECT_EQ(Told(), "1,40");
}

TEST_F(RealEngineTest, ANativeTouchIsSeen) {
  Open(
      "<script>for (const type of ['touchstart', 'touchmove', 'touchend'])"
      "  tellOf(type, (e) => e.type + [...e.changedTouches].map((t) =>"
      "    [t.clientX, t.clientY].join()).join(' '));</script>");
  const auto send = [this](std::int32_t type, double x) {
    const auto request = NativeEvent<rpc::NativeTouchEventRequest>(
        browser_, testing::Xi(type, {.detail = 1234, .x = x, .y = 6}));
    EXPECT_TRUE(widget_->ForwardNativeTouchEvent(request).ok());
  };
  send(testing::kTouchBegin, 5);
  EXPECT_EQ(Told(), "touchstart5,6");
  send(testing::kTouchUpdate, 50);
  EXPECT_EQ(Told(), "touchmove50,6");
  send(testing::kTouchEnd, 50);
  EXPECT_EQ(Told(), "touchend50,6");
}

// Focus

TEST_F(RealEngineTest, ThePageHasTheFocusWhileTheHostSaysSo) {
  Open(
      "<script>onfocus = () => document.body.style.background = 'blue';"
      "onblur = () => document.body.style.background = 'red';</script>");
  AwaitColor(10, 10, 0xff0000);  // The engine's own focus is taken back.
  Focus("WINDOW");
  AwaitColor(10, 10, 0x0000ff);
  EXPECT_TRUE(widget_->Unfocus(browser_).ok());
  AwaitColor(10, 10, 0xff0000);
}

TEST_F(RealEngineTest, TabLeadsThroughThePageAndOut) {
  Open(
      "<button>A</button><button>B</button><script>"
      "addEventListener('focusin', (e) => tell(e.target.innerText));"
      "</script>");
  std::vector<rpc::FocusDirection> directions;
  const Stream serving = widget_->OnTakeFocus(
      browser_, [&](const rpc::TakeFocusCall& call,
                    orvane::Responder<rpc::TakeFocus> responder) {
        directions.push_back(call.direction());
        rpc::TakeFocusResponse answer;
        answer.set_taken(true);
        EXPECT_TRUE(std::move(responder).Respond(answer).ok());
      });
  Focus("TAB");
  EXPECT_EQ(Told(), "A");
  const std::string tab = "key: 'Tab' code: 'Tab' windows_key_code: 9";
  Press(tab);
  Release(tab);
  EXPECT_EQ(Told(), "B");
  EXPECT_THAT(directions, IsEmpty());
  Press(tab);
  Release(tab);
  loop_.RunUntil([&] { return !directions.empty(); });
  EXPECT_THAT(directions, ElementsAre(rpc::FOCUS_DIRECTION_FORWARD));
}

TEST_F(RealEngineTest, TabLeadsInByTheFirstElementAndShiftTabByTheLast) {
  Open(
      "<button>A</button><button autofocus>B</button><button>C</button>"
      "<script>addEventListener('focusin', (e) => tell(e.target.innerText));"
      "</script>");
  Focus("TAB");
  AwaitTold("A");
  EXPECT_TRUE(widget_->Unfocus(browser_).ok());
  Focus("BACK_TAB");
  AwaitTold("C");
}

// Cursor and tooltip

TEST_F(RealEngineTest, CursorAndTooltipFollowThePointer) {
  Open(
      "<div title='A tip' style='width:100px;height:100px;cursor:wait'>"
      "</div>");
  std::vector<rpc::CursorType> cursors;
  std::vector<std::string> tips;
  const Stream watching = widget_->WhenCursorChanged(
      browser_, [&](const rpc::CursorChanged& event) {
        cursors.push_back(event.cursor().type());
      });
  const Stream listening = widget_->WhenTooltipChanged(
      browser_, [&](const rpc::TooltipChanged& event) {
        tips.emplace_back(event.text());
      });
  Move(50, 50);
  // The engine merges moves until it draws, so the next one has to wait.
  loop_.RunUntil([&] { return !cursors.empty() && !tips.empty(); });
  Move(200, 150);
  loop_.RunUntil([&] { return cursors.size() >= 2 && tips.size() >= 2; });
  EXPECT_THAT(cursors,
              ElementsAre(rpc::CURSOR_TYPE_WAIT, rpc::CURSOR_TYPE_DEFAULT));
  EXPECT_THAT(tips, ElementsAre("A tip", ""));
}

TEST_F(RealEngineTest, ACursorCanBeAnImage) {
  const std::string image = AddressOf(
      "<svg xmlns='http://www.w3.org/2000/svg' width='4' height='2'>"
      "<rect width='4' height='2' fill='red'/></svg>",
      "image/svg+xml");
  Open("<div style='width:100px;height:100px;cursor:url(" + image +
       ") 3 1, help'></div>");
  std::vector<rpc::Cursor> cursors;
  const Stream watching = widget_->WhenCursorChanged(
      browser_, [&](const rpc::CursorChanged& event) {
        cursors.push_back(event.cursor());
      });
  Move(50, 50);
  loop_.RunUntil([&] {
    return !cursors.empty() && cursors.back().type() == rpc::CURSOR_TYPE_CUSTOM;
  });
  const rpc::CustomCursor& custom = cursors.back().custom();
  EXPECT_EQ(custom.image().size().width(), 4);
  EXPECT_EQ(custom.image().size().height(), 2);
  EXPECT_EQ(custom.hotspot().x(), 3);
  EXPECT_EQ(custom.hotspot().y(), 1);
  EXPECT_EQ(custom.image().pixels().substr(0, 4),
            std::string("\xff\x00\x00\xff", 4));
}

// Drop-downs

constexpr char kSelect[] =
    "<select onchange='tell(`chose ` + this.value)' style='position:absolute;"
    "left:10px;top:10px;width:100px;height:20px'>"
    "<option>One<option selected>Two<option>Three</select>";

TEST_F(RealEngineTest, AListIsShownByTheHost) {
  Open(kSelect);
  std::vector<std::string> labels;
  const Stream serving = widget_->OnShowDropdown(
      browser_, [&](const rpc::ShowDropdownCall& call,
                    orvane::Responder<rpc::ShowDropdown> responder) {
        EXPECT_EQ(call.anchor().x(), 10);
        EXPECT_EQ(call.anchor().width(), 100);
        EXPECT_EQ(call.selected_index(), 1u);
        for (const rpc::DropDownItem& item : call.items())
          labels.emplace_back(item.label());
        rpc::ShowDropdownResponse answer;
        answer.set_accepted(true);
        answer.add_selected_indices(2);
        EXPECT_TRUE(std::move(responder).Respond(answer).ok());
      });
  Focus("MOUSE");
  Click(50, 20);
  EXPECT_EQ(Told(), "chose Three");
  EXPECT_THAT(labels, ElementsAre("One", "Two", "Three"));
}

TEST_F(RealEngineTest, AListThatNobodyServesIsDrawnInThePage) {
  Open(std::string(kSelect) +
       "<style>option { background: rgb(0,0,255); height: 30px }</style>");
  EXPECT_EQ(PixelAt(90, 50), 0x008000u);
  Focus("MOUSE");
  Click(50, 20);
  AwaitColor(90, 50, 0x0000ff);  // The first option, below the element.
  Click(90, 50);
  EXPECT_EQ(Told(), "chose One");
}

// Drags

TEST_F(RealEngineTest, WhatIsDroppedReachesThePage) {
  Open(
      "<div id=d style='width:100px;height:100px'></div><script>"
      "d.ondragover = (e) => { e.preventDefault();"
      "  e.dataTransfer.dropEffect = 'copy'; };"
      "d.ondrop = (e) => { e.preventDefault();"
      "  tell(e.dataTransfer.getData('text/plain')); };</script>");
  std::vector<rpc::DragOperation> operations;
  const Stream watching = widget_->WhenDragCursorUpdated(
      browser_, [&](const rpc::DragCursorUpdated& event) {
        operations.push_back(event.operation());
      });
  const std::string item =
      "items { text { mime_type: 'text/plain' value: 'hello' } }"
      " allowed_operations: 1 ";
  ASSERT_TRUE(widget_
                  ->ForwardDragEnter(New<rpc::DragEnterRequest>(
                      item + "position { x: 200 y: 150 }"))
                  .ok());
  loop_.RunUntil([&] { return operations.size() == 1; });
  EXPECT_EQ(operations.back(), rpc::DRAG_OPERATION_UNSPECIFIED);
  ASSERT_TRUE(widget_
                  ->ForwardDragOver(New<rpc::DragOverRequest>(
                      "allowed_operations: 1 position { x: 50 y: 50 }"))
                  .ok());
  loop_.RunUntil([&] { return operations.size() == 2; });
  EXPECT_EQ(operations.back(), rpc::DRAG_OPERATION_COPY);
  ASSERT_TRUE(widget_
                  ->ForwardDragDrop(New<rpc::DragDropRequest>(
                      item + "position { x: 50 y: 50 }"))
                  .ok());
  EXPECT_EQ(Told(), "hello");
}

TEST_F(RealEngineTest, ATextThatIsDroppedOnAFieldIsEntered) {
  Open("<input id=i style='width:100px;height:100px' oninput='tell(i.value)'>");
  rpc::DragOperation operation = rpc::DRAG_OPERATION_UNSPECIFIED;
  const Stream watching = widget_->WhenDragCursorUpdated(
      browser_, [&](const rpc::DragCursorUpdated& event) {
        operation = event.operation();
      });
  const std::string drag =
      "items { text { mime_type: 'text/plain' value: 'hello' } }"
      " allowed_operations: 1 position { x: 50 y: 50 }";
  ASSERT_TRUE(widget_->ForwardDragEnter(New<rpc::DragEnterRequest>(drag)).ok());
  loop_.RunUntil([&] { return operation == rpc::DRAG_OPERATION_COPY; });
  ASSERT_TRUE(widget_->ForwardDragDrop(New<rpc::DragDropRequest>(drag)).ok());
  EXPECT_EQ(Told(), "hello");
}

// A page that drags something.
class RealDragTest : public RealEngineTest {
 protected:
  // Returns once the page drags what is there.
  void Drag(int from_x, int y) {
    if (watching_ == nullptr) {
      watching_ = widget_->WhenDragCursorUpdated(
          browser_, [this](const rpc::DragCursorUpdated& event) {
            updates_.push_back(event);
          });
    }
    updates_.clear();
    EXPECT_TRUE(widget_
                    ->ForwardMousePress(New<rpc::MousePressRequest>(
                        At(from_x, y, "buttons: 1") +
                        "button: MOUSE_BUTTON_PRIMARY click_count: 1"))
                    .ok());
    // Until it is one: the engine wants some movement.
    for (int step = 2; updates_.empty(); step = step % 20 + 2) {
      EXPECT_TRUE(widget_
                      ->ForwardMouseDrag(New<rpc::MouseDragRequest>(
                          At(from_x + step, y, "buttons: 1")))
                      .ok());
    }
    EXPECT_TRUE(updates_[0].began_in_page());
  }

  // Of what is dragged.
  std::string TextOf(const std::string& mime_type) const {
    for (const rpc::DragItem& item : updates_[0].items()) {
      if (item.text().mime_type() == mime_type)
        return std::string(item.text().value());
    }
    return "nothing of that type";
  }

  // What another program does with it.
  void DropElsewhere(const std::string& operation) {
    EXPECT_TRUE(widget_->ForwardDragLeave(New<rpc::DragLeaveRequest>()).ok());
    EXPECT_TRUE(widget_
                    ->ForwardDragEnd(New<rpc::DragEndRequest>(
                        "operation: DRAG_OPERATION_" + operation))
                    .ok());
  }

  Stream watching_;
  std::vector<rpc::DragCursorUpdated> updates_;
};

TEST_F(RealDragTest, ADragOfThePagesIsDraggedByTheHost) {
  Open(
      "<div id=s draggable=true style='width:50px;height:50px'></div>"
      "<div id=t style='position:absolute;left:100px;top:100px;width:50px;"
      "height:50px'></div><script>"
      "s.ondragstart = (e) => e.dataTransfer.setData('text/plain', 'mine');"
      "s.ondragend = (e) => tell('end ' + e.dataTransfer.dropEffect);"
      "t.ondragover = (e) => { e.preventDefault();"
      "  e.dataTransfer.dropEffect = 'copy'; };"
      "t.ondrop = (e) => { e.preventDefault();"
      "  tell('drop ' + e.dataTransfer.getData('text/plain')); };"
      "onclick = () => tell('click');</script>");
  Drag(20, 20);
  ASSERT_TRUE(widget_
                  ->ForwardDragOver(New<rpc::DragOverRequest>(
                      "allowed_operations: 19 position { x: 120 y: 120 }"))
                  .ok());
  loop_.RunUntil(
      [&] { return updates_.back().operation() == rpc::DRAG_OPERATION_COPY; });
  ASSERT_TRUE(widget_
                  ->ForwardDragDrop(
                      New<rpc::DragDropRequest>("position { x: 120 y: 120 }"))
                  .ok());
  ASSERT_TRUE(widget_
                  ->ForwardDragEnd(New<rpc::DragEndRequest>(
                      "operation: DRAG_OPERATION_COPY"))
                  .ok());
  EXPECT_EQ(Told(), "drop mine");
  EXPECT_EQ(Told(), "end copy");
  Drag(20, 20);
  DropElsewhere("MOVE");
  EXPECT_EQ(Told(), "end move");
  // And the page takes clicks again.
  Click(60, 60);
  EXPECT_EQ(Told(), "click");
}

TEST_F(RealDragTest, ALinkIsDraggedOutOfThePage) {
  Open(
      "<a href='https://a.example/?q=1' style='display:block;width:100px;"
      "height:50px'>Manual</a><script>"
      "ondragend = (e) => tell('end ' + e.dataTransfer.dropEffect);</script>");
  Drag(20, 10);
  EXPECT_EQ(TextOf("text/uri-list"), "https://a.example/?q=1");
  EXPECT_EQ(TextOf("text/plain"), "https://a.example/?q=1");
  EXPECT_NE(updates_[0].allowed_operations() & rpc::DRAG_OPERATION_COPY, 0u);
  EXPECT_NE(updates_[0].allowed_operations() & rpc::DRAG_OPERATION_LINK, 0u);
  DropElsewhere("COPY");
  EXPECT_EQ(Told(), "end copy");
}

TEST_F(RealDragTest, SelectedTextIsDraggedOutOfThePage) {
  Open(
      "<p style='margin:0;font:30px monospace'>tea <b>for</b> Ada</p><script>"
      "getSelection().selectAllChildren(document.querySelector('p'));"
      "ondragend = (e) => tell('end ' + e.dataTransfer.dropEffect);</script>");
  Drag(20, 15);
  EXPECT_EQ(TextOf("text/plain"), "tea for Ada");
  EXPECT_THAT(TextOf("text/html"), ::testing::HasSubstr(">for</b>"));
  EXPECT_NE(updates_[0].allowed_operations() & rpc::DRAG_OPERATION_COPY, 0u);
  DropElsewhere("COPY");
  EXPECT_EQ(Told(), "end copy");
}

// Accessibility

TEST_F(RealEngineTest, LiveRegionsAndTheFocusAreTold) {
  Open(
      "<button id=b>B</button><div id=live aria-live=polite></div><script>"
      "b.onclick = () => { live.textContent = 'Saved'; };</script>");
  std::vector<double> heights;
  const Stream serving = widget_->OnAccessibilityRequestFocus(
      browser_, [&](const rpc::AccessibilityRequestFocusCall& call,
                    orvane::Responder<rpc::AccessibilityRequestFocus> answer) {
        heights.push_back(call.bounds().height());
        EXPECT_TRUE(std::move(answer).Respond({}).ok());
      });
  Focus("MOUSE");
  Click(5, 5);
  EXPECT_EQ(Told(), "Saved");
  loop_.RunUntil([&] { return !heights.empty(); });
  EXPECT_GT(heights[0], 0);
}

// Dialogs

TEST_F(RealEngineTest, AnswersOfDialogsReachThePage) {
  Open(
      "<script>addEventListener('click', () => setTimeout(() =>"
      "  tell(prompt('Name?', 'Ada') + confirm('Sure?'))));</script>");
  answer_.set_accepted(true);
  answer_.set_text("Grace");
  Click(5, 5);
  EXPECT_EQ(Told(), "Gracetrue");
  ASSERT_EQ(asked_.size(), 2u);
  EXPECT_EQ(asked_[0].prompt().message(), "Name?");
  EXPECT_EQ(asked_[0].prompt().default_text(), "Ada");
  EXPECT_EQ(asked_[0].origin(), "null");
  EXPECT_EQ(asked_[1].confirm().message(), "Sure?");
}

TEST_F(RealEngineTest, ClicksAroundDialogsAreWhole) {
  Open(
      "<script>for (const type of ['mousedown', 'mouseup', 'click'])"
      "  addEventListener(type, () => { tell(type); alert(type); });"
      "</script>");
  answer_.set_accepted(true);
  constexpr int kClicks = 3;
  for (int i = 0; i < kClicks; ++i) Click(5, 5);
  for (int i = 0; i < kClicks; ++i) {
    for (const char* const type : {"mousedown", "mouseup", "click"})
      EXPECT_EQ(Told(), type);
  }
  EXPECT_EQ(asked_.size(), std::size_t{3 * kClicks});
}

TEST_F(RealEngineTest, DialogsThatNobodyServesAreDeclined) {
  Open(
      "<script>addEventListener('click', () => setTimeout(() => {"
      "  document.body.style.background = confirm('?') ? 'blue' : 'red';"
      "}));</script>");
  dialogs_.reset();
  Click(5, 5);
  AwaitColor(10, 10, 0xff0000);
}

TEST_F(RealEngineTest, AChosenFileReachesThePage) {
  const std::string path = files_.path() + "/chosen.txt";
  std::ofstream(path) << "12345";
  LetTheEngineReadFiles();
  Open(
      "<input type=file accept='.txt, image/*' style='width:200px'"
      " onchange='tell(this.files[0].name + this.files[0].size)'>");
  answer_.set_accepted(true);
  answer_.add_file_paths(path);
  Click(20, 10);
  EXPECT_EQ(Told(), "chosen.txt5");
  ASSERT_EQ(asked_.size(), 1u);
  EXPECT_EQ(asked_[0].file().mode(), rpc::FILE_DIALOG_MODE_OPEN);
  EXPECT_THAT(asked_[0].file().accept_filters(),
              ElementsAre(".txt", "image/*"));
}

TEST_F(RealEngineTest, AFileDialogThatIsDeclinedIsCancelled) {
  Open("<input type=file oncancel='tell(`cancelled`)' style='width:200px'>");
  Click(20, 10);
  EXPECT_EQ(Told(), "cancelled");
}

TEST_F(RealEngineTest, AColourIsChosenByTheHost) {
  Open(
      "<input type=color value='#102030' oninput='tell(this.value)'"
      " style='width:100px;height:40px'>");
  answer_.set_accepted(true);
  answer_.set_color_rgb(0x0a0b0c);
  Click(20, 20);
  EXPECT_EQ(Told(), "#0a0b0c");
  ASSERT_EQ(asked_.size(), 1u);
  EXPECT_EQ(asked_[0].color().initial_color_rgb(), 0x102030u);
}

// Addresses

TEST_F(RealEngineTest, FilesAreSeenOnlyBelowTheirFolder) {
  const std::filesystem::path pages = files_.path() + "/pages";
  std::filesystem::create_directory(pages);
  const char picture[] =
      "<svg xmlns='http://www.w3.org/2000/svg' width='9' height='9'/>";
  std::ofstream(pages / "inside.svg") << picture;
  std::ofstream(files_.path() + "/outside.svg") << picture;
  std::ofstream(pages / "page.html")
      << kBegin
      << "<script>const load = (name) => {"
         "  const image = new Image();"
         "  image.onload = () => tell(name + ' loaded');"
         "  image.onerror = () => tell(name + ' refused');"
         "  image.src = name; };"
         "onclick = () => { load('inside.svg'); load('../outside.svg'); };"
         "</script>";
  LetTheEngineReadFiles();
  OpenAddress("file://" + (pages / "page.html").string(),
              {"--files=" + pages.string()});
  AwaitPage();
  Click(5, 5);
  const std::string first = Told();
  EXPECT_THAT(
      (std::vector{first, Told()}),
      UnorderedElementsAre("inside.svg loaded", "../outside.svg refused"));
}

// A recorded session

TEST_F(RealEngineTest, PlaysTheRecordedSession) {
  std::filesystem::copy_file(EXAMPLES "/pages/order.html",
                             files_.path() + "/order.html");
  LetTheEngineReadFiles();
  Start("file://" + files_.path() + "/order.html",
        {"--files=" + files_.path()});
  // Input for a page that is not there yet would be lost.
  loop_.RunUntil([this] { return state_.title() == "Order tea"; });
  const auto played =
      orvane::testing::ChildProcess({WIDGETCTL, "--socket=" + socket(), "run",
                                     EXAMPLES "/pages/order.session"})
          .Wait();
  EXPECT_EQ(played.exit_code, 0) << played.output << played.errors;
}

// Failures

TEST_F(RealEngineTest, AnEngineThatIsKilledComesBackWithItsPage) {
  Open("");
  AwaitColor(10, 10, 0x008000);
  picture_ = Picture();
  ASSERT_EQ(::kill(EnginePid(), SIGKILL), 0);
  AwaitColor(10, 10, 0x008000);
}

TEST_F(RealEngineTest, TheEngineDiesWithTheProgram) {
  Open("");
  pollfd engine = {static_cast<int>(::syscall(SYS_pidfd_open, EnginePid(), 0)),
                   POLLIN, 0};
  ASSERT_GE(engine.fd, 0);
  const orvane::OwnedDescriptor closed(engine.fd);
  server_->Signal(SIGKILL);
  EXPECT_EQ(::poll(&engine, 1, -1), 1);
}

TEST_F(RealEngineTest, ASignalEndsBothInOrder) {
  Open("");
  server_->Signal(SIGTERM);
  EXPECT_EQ(server_->Wait().exit_code, 0);
}

TEST_F(RealEngineTest, TheEngineIsSandboxedAndNeverRoot) {
  Open("");
  const std::string folder = "/proc/" + absl::StrCat(EnginePid());
  struct stat owner = {};
  ASSERT_EQ(::stat(folder.c_str(), &owner), 0);
  EXPECT_NE(owner.st_uid, 0u);
  std::ifstream file(folder + "/cmdline");
  const std::string arguments((std::istreambuf_iterator<char>(file)), {});
  EXPECT_EQ(arguments.find("no-sandbox"), std::string::npos) << arguments;
}

}  // namespace
}  // namespace chromium
