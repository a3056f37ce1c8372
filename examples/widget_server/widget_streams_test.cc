// The page's events and calls as a host receives them: through the typed
// client, over a pair of sockets.

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "examples/host/image.h"
#include "examples/widget_server/page_layout.h"
#include "examples/widget_server/page_picture.h"
#include "examples/widget_server/widget_service.h"
#include "host/pixels.h"
#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/in_process.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace widget_server {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using Stream = std::unique_ptr<orvane::ClientStream>;

bool Exists(const rpc::SharedMemory& memory) {
  const orvane::OwnedDescriptor object(
      ::shm_open(memory.name().c_str(), O_RDONLY, 0));
  return object.get() >= 0;
}

// Browser 1, attached off-screen at 320 x 200 DIPs, with focus and
// accessibility on, but not shown.
class WidgetStreamsTest : public ::testing::Test {
 protected:
  WidgetStreamsTest() {
    auto connected = orvane::ConnectInProcess(&loop_, &server_);
    EXPECT_TRUE(connected.ok()) << connected.status();
    connection_ = *std::move(connected);
    widget_.emplace(connection_.get());
    browser_.set_value(1);
    auto attach = New<rpc::AttachRequest>();
    attach.set_rendering_mode(rpc::RENDERING_MODE_OFF_SCREEN);
    attach.mutable_bounds()->set_width(320);
    attach.mutable_bounds()->set_height(200);
    EXPECT_TRUE(widget_->Attach(attach).ok());
    EXPECT_TRUE(widget_->GetAccessibilityToken(browser_).ok());
    EXPECT_TRUE(widget_->Focus(New<rpc::FocusRequest>()).ok());
  }

  template <typename Request>
  Request New() const {
    Request request;
    *request.mutable_browser_id() = browser_;
    return request;
  }
  template <typename Request>
  Request NewOn(ElementId element) const {
    auto request = New<Request>();
    const Rect& place = GetElement(element).place;
    request.mutable_pointer()->mutable_position()->set_x(place.x + 5);
    request.mutable_pointer()->mutable_position()->set_y(place.y + 5);
    return request;
  }
  void Move(ElementId element) {
    EXPECT_TRUE(
        widget_->ForwardMouseMove(NewOn<rpc::MouseMoveRequest>(element)).ok());
  }
  void Click(ElementId element) {
    auto press = NewOn<rpc::MousePressRequest>(element);
    press.set_button(rpc::MOUSE_BUTTON_PRIMARY);
    EXPECT_TRUE(widget_->ForwardMousePress(press).ok());
    auto release = NewOn<rpc::MouseReleaseRequest>(element);
    release.set_button(rpc::MOUSE_BUTTON_PRIMARY);
    release.set_click_count(1);
    EXPECT_TRUE(widget_->ForwardMouseRelease(release).ok());
  }
  void Type(const std::string& text) {
    auto type = New<rpc::KeyTypeRequest>();
    type.set_text(text);
    EXPECT_TRUE(widget_->ForwardKeyType(type).ok());
  }
  void Show() { EXPECT_TRUE(widget_->Show(browser_).ok()); }

  // Waits until `count` messages were received; returns the last of them.
  template <typename T>
  T Await(const std::vector<T>& received, std::size_t count = 1) {
    loop_.RunUntil([&] { return received.size() >= count; });
    return received[count - 1];
  }

  // Serves surfaces: presents each picture, and keeps a copy.
  struct Shown {
    rpc::UpdateSurfaceCall call;
    orvane::host::Picture picture;
  };
  Stream ServeSurfaces() {
    return widget_->OnUpdateSurface(
        browser_, [this](const rpc::UpdateSurfaceCall& call,
                         orvane::Responder<rpc::UpdateSurface> responder) {
          Shown& shown = shown_.emplace_back(Shown{call, {}});
          EXPECT_EQ(shown.picture.Update(call.frame()), absl::OkStatus());
          rpc::UpdateSurfaceResponse answer;
          answer.mutable_receipt()->set_frame_id(call.frame().frame_id());
          answer.mutable_receipt()->set_outcome(rpc::FRAME_OUTCOME_PRESENTED);
          EXPECT_TRUE(std::move(responder).Respond(answer).ok());
        });
  }
  static Color PixelOf(const Shown& shown, double x, double y) {
    const auto bgra = shown.picture.pixels();
    const auto width = static_cast<std::size_t>(shown.picture.width());
    const std::size_t at =
        4 * (static_cast<std::size_t>(y) * width + static_cast<std::size_t>(x));
    return {bgra[at + 2], bgra[at + 1], bgra[at]};
  }

  orvane::EventLoop loop_;
  WidgetService service_{1};
  orvane::SocketServer server_{&loop_, &service_};
  std::unique_ptr<orvane::SocketClient> connection_;
  std::optional<rpc::BrowserWidgetRpcClient> widget_;
  BrowserId browser_;
  std::vector<Shown> shown_;
};

// Events

TEST_F(WidgetStreamsTest, CursorChangedFollowsTheMouse) {
  std::vector<rpc::CursorChanged> events;
  const Stream stream = widget_->WhenCursorChanged(
      browser_, [&](const auto& event) { events.push_back(event); });
  Move(ElementId::kLink);
  const rpc::CursorChanged event = Await(events);
  EXPECT_EQ(event.browser_id().value(), 1u);
  EXPECT_EQ(event.cursor().type(), rpc::CURSOR_TYPE_POINTER);
}

TEST_F(WidgetStreamsTest, TooltipChangedTellsWhatTheMouseIsOver) {
  std::vector<rpc::TooltipChanged> events;
  const Stream stream = widget_->WhenTooltipChanged(
      browser_, [&](const auto& event) { events.push_back(event); });
  Move(ElementId::kLink);
  EXPECT_EQ(Await(events).text(), "Leads to the manual");
  EXPECT_EQ(Await(events).anchor().x(), 96);
  EXPECT_TRUE(widget_->ForwardMouseExit(New<rpc::MouseExitRequest>()).ok());
  EXPECT_EQ(Await(events, 2).text(), "");
}

TEST_F(WidgetStreamsTest, AriaLiveRegionChangedSpeaksWhatIsTyped) {
  std::vector<rpc::AriaLiveRegionChanged> events;
  const Stream stream = widget_->WhenAriaLiveRegionChanged(
      browser_, [&](const auto& event) { events.push_back(event); });
  Click(ElementId::kField);
  Type("Ada");
  const rpc::AriaLiveRegionChanged event = Await(events);
  EXPECT_EQ(event.text(), "Ada");
  EXPECT_EQ(event.politeness(), rpc::ARIA_LIVE_POLITENESS_POLITE);
  EXPECT_EQ(event.relevant(), rpc::ARIA_RELEVANT_FLAG_TEXT);
  EXPECT_NE(event.region_id(), 0u);
}

TEST_F(WidgetStreamsTest, DragCursorUpdatedTellsThatThePictureIsDragged) {
  std::vector<rpc::DragCursorUpdated> events;
  const Stream stream = widget_->WhenDragCursorUpdated(
      browser_, [&](const auto& event) { events.push_back(event); });
  auto press = NewOn<rpc::MousePressRequest>(ElementId::kPicture);
  press.set_button(rpc::MOUSE_BUTTON_PRIMARY);
  EXPECT_TRUE(widget_->ForwardMousePress(press).ok());
  auto drag = NewOn<rpc::MouseDragRequest>(ElementId::kField);
  drag.mutable_pointer()->set_buttons(rpc::MOUSE_BUTTON_FLAG_PRIMARY);
  EXPECT_TRUE(widget_->ForwardMouseDrag(drag).ok());
  const rpc::DragCursorUpdated event = Await(events);
  EXPECT_TRUE(event.began_in_page());
  EXPECT_EQ(event.operation(), rpc::DRAG_OPERATION_COPY);
}

TEST_F(WidgetStreamsTest, DropDownCreatedAndDeletedFrameTheLifeOfAList) {
  std::vector<rpc::DropDownCreated> created;
  std::vector<rpc::DropDownDeleted> deleted;
  const Stream openings = widget_->WhenDropDownCreated(
      browser_, [&](const auto& event) { created.push_back(event); });
  const Stream closings = widget_->WhenDropDownDeleted(
      browser_, [&](const auto& event) { deleted.push_back(event); });
  Click(ElementId::kList);
  EXPECT_EQ(Await(created).bounds().height(), 60);
  EXPECT_THAT(deleted, IsEmpty());
  Click(ElementId::kLink);
  EXPECT_EQ(Await(deleted).popup_id(), created[0].popup_id());
  EXPECT_TRUE(widget_->Detach(browser_).ok());
  loop_.RunUntilIdle();
  EXPECT_THAT(deleted, SizeIs(1));
}

TEST_F(WidgetStreamsTest, TheReplyPrecedesWhatFollowsFromTheCall) {
  std::vector<std::string> order;
  const Stream stream = widget_->WhenCursorChanged(
      browser_, [&](const auto&) { order.emplace_back("event"); });
  widget_->ForwardMouseMove(NewOn<rpc::MouseMoveRequest>(ElementId::kLink),
                            [&](const auto&) { order.emplace_back("reply"); });
  loop_.RunUntil([&] { return order.size() == 2; });
  EXPECT_THAT(order, ElementsAre("reply", "event"));
}

// Calls

TEST_F(WidgetStreamsTest, OnCreateWebDialogAsksForAName) {
  const Stream stream = widget_->OnCreateWebDialog(
      browser_, [](const rpc::CreateWebDialogCall& call,
                   orvane::Responder<rpc::CreateWebDialog> responder) {
        EXPECT_EQ(call.prompt().message(), "What is your name?");
        rpc::CreateWebDialogResponse answer;
        answer.set_accepted(true);
        answer.set_text("Ada");
        EXPECT_TRUE(std::move(responder).Respond(answer).ok());
      });
  std::vector<rpc::AriaLiveRegionChanged> events;
  const Stream announcements = widget_->WhenAriaLiveRegionChanged(
      browser_, [&](const auto& event) { events.push_back(event); });
  Click(ElementId::kButton);
  EXPECT_EQ(Await(events).text(), "Hello, Ada");
  EXPECT_EQ(Await(events).politeness(), rpc::ARIA_LIVE_POLITENESS_ASSERTIVE);
}

TEST_F(WidgetStreamsTest, OnShowDropdownLetsTheHostChoose) {
  const Stream stream = widget_->OnShowDropdown(
      browser_, [](const rpc::ShowDropdownCall& call,
                   orvane::Responder<rpc::ShowDropdown> responder) {
        EXPECT_EQ(call.items_size(), 3);
        rpc::ShowDropdownResponse answer;
        answer.set_accepted(true);
        answer.add_selected_indices(2);
        EXPECT_TRUE(std::move(responder).Respond(answer).ok());
      });
  std::vector<rpc::AriaLiveRegionChanged> events;
  const Stream announcements = widget_->WhenAriaLiveRegionChanged(
      browser_, [&](const auto& event) { events.push_back(event); });
  Click(ElementId::kList);
  EXPECT_EQ(Await(events).text(), "Blue");
}

TEST_F(WidgetStreamsTest, OnTakeFocusPassesTheFocusToTheHost) {
  std::vector<std::string> focused;
  const Stream reader = widget_->OnAccessibilityRequestFocus(
      browser_, [&](const rpc::AccessibilityRequestFocusCall& call,
                    const orvane::Responder<rpc::AccessibilityRequestFocus>&) {
        focused.emplace_back(call.node().token());
      });
  std::vector<rpc::TakeFocusCall> calls;
  const Stream stream = widget_->OnTakeFocus(
      browser_, [&](const rpc::TakeFocusCall& call,
                    orvane::Responder<rpc::TakeFocus> responder) {
        calls.push_back(call);
        widget_->Unfocus(browser_, [](const auto&) {});
        rpc::TakeFocusResponse answer;
        answer.set_taken(true);
        EXPECT_TRUE(std::move(responder).Respond(answer).ok());
      });
  auto focus = New<rpc::FocusRequest>();
  focus.set_reason(rpc::FOCUS_REASON_BACK_TAB);
  EXPECT_TRUE(widget_->Focus(focus).ok());
  auto tab = New<rpc::KeyPressRequest>();
  tab.mutable_key()->set_windows_key_code(9);
  EXPECT_TRUE(widget_->ForwardKeyPress(tab).ok());
  EXPECT_EQ(Await(calls).direction(), rpc::FOCUS_DIRECTION_FORWARD);
  loop_.RunUntilIdle();
  // No element has it any more, so it comes back at the first one.
  EXPECT_TRUE(widget_->Focus(New<rpc::FocusRequest>()).ok());
  EXPECT_TRUE(widget_->ForwardKeyPress(tab).ok());
  EXPECT_EQ(Await(focused, 2), ":1.1:/org/a11y/atspi/accessible/link");
  EXPECT_THAT(calls, SizeIs(1));
}

TEST_F(WidgetStreamsTest, OnAccessibilityRequestFocusNamesTheElement) {
  std::vector<rpc::AccessibilityRequestFocusCall> calls;
  const Stream stream = widget_->OnAccessibilityRequestFocus(
      browser_, [&](const rpc::AccessibilityRequestFocusCall& call,
                    const orvane::Responder<rpc::AccessibilityRequestFocus>&) {
        calls.push_back(call);
      });
  auto focus = New<rpc::FocusRequest>();
  focus.set_reason(rpc::FOCUS_REASON_TAB);
  EXPECT_TRUE(widget_->Focus(focus).ok());
  EXPECT_EQ(Await(calls).node().token(),
            ":1.1:/org/a11y/atspi/accessible/link");
}

TEST_F(WidgetStreamsTest, OnUpdateLayerCarriesTheCaret) {
  const Stream surfaces = ServeSurfaces();
  std::vector<rpc::UpdateLayerCall> calls;
  orvane::host::Picture caret;
  const Stream stream = widget_->OnUpdateLayer(
      browser_, [&](const rpc::UpdateLayerCall& call,
                    orvane::Responder<rpc::UpdateLayer> responder) {
        if (call.has_frame()) {
          EXPECT_EQ(caret.Update(call.frame()), absl::OkStatus());
        }
        calls.push_back(call);
        EXPECT_TRUE(std::move(responder).Respond({}).ok());
      });
  Show();
  Click(ElementId::kField);
  EXPECT_EQ(Await(calls).bounds().x(), CaretPlace(0).x);
  EXPECT_EQ(host::AverageColor(caret), "#202020");
  Type("ab");
  EXPECT_EQ(Await(calls, 2).bounds().x(), CaretPlace(2).x);
  EXPECT_TRUE(widget_->Unfocus(browser_).ok());
  EXPECT_TRUE(Await(calls, 3).is_removed());
}

// Pictures

TEST_F(WidgetStreamsTest, ThePixelsOfTheViewAreWhatThePageShows) {
  const Stream surfaces = ServeSurfaces();
  Show();
  const Shown shown = Await(shown_);
  EXPECT_EQ(shown.picture.width(), 320);
  EXPECT_EQ(shown.picture.height(), 200);
  const Picture page = DrawPage({.button_label = "Your name"}, 320, 200, 1);
  std::vector<std::uint8_t> expected(std::size_t{320} * 200 * 4);
  Paint(page, expected);
  EXPECT_TRUE(std::ranges::equal(shown.picture.pixels(), expected));
}

TEST_F(WidgetStreamsTest, WithoutLayersTheCaretIsInTheView) {
  const Stream surfaces = ServeSurfaces();
  Show();
  const Rect caret = CaretPlace(0);
  EXPECT_EQ(PixelOf(Await(shown_), caret.x, caret.y), kPaper);
  Click(ElementId::kField);
  EXPECT_EQ(PixelOf(Await(shown_, 2), caret.x, caret.y), kInk);
}

TEST_F(WidgetStreamsTest, AListThatNobodyServesIsAPopupOfItsOwn) {
  const Stream surfaces = ServeSurfaces();
  Show();
  Click(ElementId::kList);
  Await(shown_, 3);  // The view, its focus, the list.
  EXPECT_EQ(shown_[2].call.popup().popup_id(), 1u);
  EXPECT_EQ(shown_[2].picture.height(), 60);
  EXPECT_EQ(PixelOf(shown_[2], 90, 10), kHighlight);
}

TEST_F(WidgetStreamsTest, TheViewIsDrawnAnewAtAnotherSizeAndScale) {
  const Stream surfaces = ServeSurfaces();
  Show();
  auto bounds = New<rpc::ViewBounds>();
  bounds.mutable_bounds()->set_width(100);
  bounds.mutable_bounds()->set_height(60);
  EXPECT_TRUE(widget_->SetViewBounds(bounds).ok());
  EXPECT_EQ(Await(shown_, 2).picture.width(), 100);
  auto scale = New<rpc::SetForcedScaleFactorRequest>();
  scale.set_scale_factor(2);
  EXPECT_TRUE(widget_->SetForcedScaleFactor(scale).ok());
  EXPECT_EQ(Await(shown_, 3).picture.width(), 200);
  EXPECT_EQ(shown_[2].call.frame().scale_factor(), 2);
}

TEST_F(WidgetStreamsTest, AViewThatIsNotDrawnSendsNoPictures) {
  const Stream surfaces = ServeSurfaces();
  Show();
  Await(shown_);
  EXPECT_TRUE(widget_->Minimize(browser_).ok());
  Click(ElementId::kField);
  Type("Ada");
  loop_.RunUntilIdle();
  EXPECT_THAT(shown_, SizeIs(1));
  EXPECT_TRUE(widget_->Restore(browser_).ok());
  EXPECT_EQ(Await(shown_, 2).call.frame().frame_id(), 2u);
}

TEST_F(WidgetStreamsTest, AViewTooLargeForAFrameIsAttachedAllTheSame) {
  const Stream surfaces = ServeSurfaces();
  Show();
  Await(shown_);
  auto bounds = New<rpc::ViewBounds>();
  bounds.mutable_bounds()->set_width(20000);
  bounds.mutable_bounds()->set_height(1);
  EXPECT_TRUE(widget_->SetViewBounds(bounds).ok());
  loop_.RunUntilIdle();
  EXPECT_THAT(shown_, SizeIs(1));
}

// Ends

TEST_F(WidgetStreamsTest, AHostThatVanishesGivesItsPictureBack) {
  std::vector<rpc::UpdateSurfaceCall> calls;
  std::vector<orvane::Responder<rpc::UpdateSurface>> waiting;
  const Stream stream = widget_->OnUpdateSurface(
      browser_, [&](const rpc::UpdateSurfaceCall& call,
                    orvane::Responder<rpc::UpdateSurface> responder) {
        calls.push_back(call);
        waiting.push_back(std::move(responder));
      });
  Show();
  const rpc::SharedMemory memory = Await(calls).frame().shared_memory();
  EXPECT_TRUE(Exists(memory));
  connection_.reset();
  loop_.RunUntil([&] { return server_.connections() == 0; });
  loop_.RunUntilIdle();
  EXPECT_FALSE(Exists(memory));
}

TEST_F(WidgetStreamsTest, ADialogThatIsAnsweredAfterDetachIsAnswered) {
  std::vector<orvane::Responder<rpc::CreateWebDialog>> waiting;
  const Stream stream = widget_->OnCreateWebDialog(
      browser_, [&](const rpc::CreateWebDialogCall&,
                    orvane::Responder<rpc::CreateWebDialog> responder) {
        waiting.push_back(std::move(responder));
      });
  Click(ElementId::kButton);
  loop_.RunUntil([&] { return !waiting.empty(); });
  EXPECT_TRUE(widget_->Detach(browser_).ok());
  rpc::CreateWebDialogResponse answer;
  answer.set_accepted(true);
  EXPECT_TRUE(std::move(waiting[0]).Respond(answer).ok());
  EXPECT_FALSE(widget_->Show(browser_).ok());  // The widget goes on.
}

}  // namespace
}  // namespace widget_server
