// The pointer over a widget whose page begins drags of its own.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "examples/widget_server/page.h"
#include "examples/widget_server/page_layout.h"
#include "examples/widget_server/widget_service.h"
#include "host/pointer.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"
#include "zimbrel/src/core/common/rpc/testing/link.h"

namespace orvane::host {
namespace {

using widget_server::ElementId;

// Keeps the name of the latest input of a drag's kinds.
class WatchedPage final : public widget_server::Page {
 public:
  using Page::Page;

  void MouseMove(const rpc::MouseMoveRequest& event) override {
    latest_ = "MouseMove";
    Page::MouseMove(event);
  }
  void DragOver(const rpc::DragOverRequest& event) override {
    latest_ = "DragOver";
    Page::DragOver(event);
  }

  const std::string& latest() const { return latest_; }

 private:
  std::string latest_;
};

class PointerWidgetTest : public ::testing::Test {
 protected:
  PointerWidgetTest() {
    rpc::AttachRequest attach;
    *attach.mutable_browser_id() = kBrowser;
    attach.set_rendering_mode(rpc::RENDERING_MODE_OFF_SCREEN);
    attach.mutable_bounds()->set_width(480);
    attach.mutable_bounds()->set_height(320);
    EXPECT_TRUE(calls_.client().Attach(attach).ok());
  }

  static PointerSample On(ElementId element, bool is_held = false) {
    const widget_server::Rect& place = GetElement(element).place;
    PointerSample sample;
    sample.pointer.mutable_position()->set_x(place.x + 5);
    sample.pointer.mutable_position()->set_y(place.y + 5);
    if (is_held) sample.pointer.set_buttons(rpc::MOUSE_BUTTON_FLAG_PRIMARY);
    return sample;
  }
  void PressOn(ElementId element) {
    pointer_.Press(On(element), rpc::MOUSE_BUTTON_PRIMARY);
  }
  void ReleaseOn(ElementId element) {
    pointer_.Release(On(element), rpc::MOUSE_BUTTON_PRIMARY);
  }
  const widget_server::Input& input() {
    loop_.RunUntilIdle();
    return (*(*service_.FindWidget(kBrowser))->view())->input();
  }
  const std::string& latest() {
    loop_.RunUntilIdle();
    return page_->latest();
  }

  const BrowserId kBrowser = testing::Browser(1);
  EventLoop loop_;
  std::shared_ptr<WatchedPage> page_;
  widget_server::WidgetService service_{
      {1}, [this](std::uint64_t browser, rpc::BrowserWidgetRpc* service) {
        page_ = std::make_shared<WatchedPage>(browser, service);
        return page_;
      }};
  SocketServer server_{&loop_, &service_};
  const std::unique_ptr<SocketClient> connection_ =
      testing::Connect(&loop_, server_);
  InputCalls calls_{connection_.get(), kBrowser};
  Pointer pointer_{&calls_};
};

TEST_F(PointerWidgetTest, APictureIsDraggedToTheField) {
  PressOn(ElementId::kPicture);
  pointer_.Move(On(ElementId::kLink, true));
  loop_.RunUntilIdle();
  EXPECT_TRUE(pointer_.is_page_dragging());
  pointer_.Move(On(ElementId::kField, true));
  EXPECT_EQ(latest(), "DragOver");
  ReleaseOn(ElementId::kField);
  EXPECT_EQ(latest(), "MouseMove");
  EXPECT_FALSE(input().has_drag_begun_in_page());
  EXPECT_NE(page_->look().text, "");
}

// All is sent before the widget's news can arrive.
TEST_F(PointerWidgetTest, AReleaseThatCrossesTheNewsLeavesNoDragBehind) {
  PressOn(ElementId::kPicture);
  pointer_.Move(On(ElementId::kLink, true));
  ReleaseOn(ElementId::kLink);
  EXPECT_FALSE(input().has_drag_begun_in_page());
  EXPECT_FALSE(pointer_.is_page_dragging());

  PressOn(ElementId::kPicture);
  pointer_.Move(On(ElementId::kLink, true));
  loop_.RunUntilIdle();
  EXPECT_TRUE(pointer_.is_page_dragging());
}

}  // namespace
}  // namespace orvane::host
