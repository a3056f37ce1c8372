#include "host/view.h"

#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

namespace orvane::host {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Records the names of its calls, and attaches unless it has a refusal.
class AttachingWidget final : public rpc::BrowserWidgetRpc {
 public:
  void CallMethod(const google::protobuf::MethodDescriptor* method,
                  google::protobuf::RpcController* controller,
                  const google::protobuf::Message* request,
                  google::protobuf::Message* response,
                  google::protobuf::Closure* done) override {
    calls.push_back(method->name());
    if (failing.contains(method->name())) controller->SetFailed("it cannot");
    if (method->name() == "SetDisplay")
      display = static_cast<const rpc::Display&>(*request);
    if (const auto* const enter =
            dynamic_cast<const rpc::DragEnterRequest*>(request)) {
      dragged_items = enter->items_size();
    }
    if (auto* const result = dynamic_cast<rpc::AttachResult*>(response)) {
      const auto& bounds =
          static_cast<const rpc::AttachRequest*>(request)->bounds();
      result->set_attached(refusal.empty());
      result->set_refusal(refusal);
      result->mutable_size()->set_width(bounds.width());
      result->mutable_size()->set_height(bounds.height());
      if (nonsense.has_value()) *result = *nonsense;
    }
    done->Run();
  }

  std::vector<std::string> calls;
  std::set<std::string> failing;
  std::string refusal;
  rpc::Display display;
  int dragged_items = 0;                      // Of the latest DragEnter.
  std::optional<rpc::AttachResult> nonsense;  // The answer to Attach.
};

class ViewTest : public ::testing::Test {
 protected:
  void StartWidget() {
    server_.emplace(&loop_, &widget_);
    EXPECT_EQ(server_->Listen(socket_), absl::OkStatus());
  }
  void KillWidget() { server_.reset(); }
  void Await(ViewState state) {
    loop_.RunUntil([this, state] { return view_->state() == state; });
  }
  // Attached, with nothing recorded so far.
  void Attach() {
    StartWidget();
    view_->SetBounds(Bounds(320, 200), std::nullopt);
    Await(ViewState::kAttached);
    Calls();
  }
  std::vector<std::string> Calls() {
    loop_.RunUntilIdle();
    return std::exchange(widget_.calls, {});
  }
  static rpc::RectDip Bounds(double width, double height) {
    rpc::RectDip bounds;
    bounds.set_width(width);
    bounds.set_height(height);
    return bounds;
  }
  static PointerSample At(double x, double y) {
    PointerSample sample;
    sample.pointer.mutable_position()->set_x(x);
    sample.pointer.mutable_position()->set_y(y);
    return sample;
  }

  // Attached, and the toolkit drags what the page drags.
  void BeginPageDrag() {
    Attach();
    DragInPage();
    EXPECT_TRUE(view_->pointer()->is_toolkit_dragging());
  }
  void DragInPage() {
    view_->pointer()->Press(At(1, 2), rpc::MOUSE_BUTTON_PRIMARY);
    rpc::DragCursorUpdated event;
    event.mutable_browser_id()->set_value(7);
    event.set_began_in_page(true);
    event.set_allowed_operations(rpc::DRAG_OPERATION_COPY);
    rpc::DragText& text = *event.add_items()->mutable_text();
    text.set_mime_type("text/plain");
    text.set_value("Ada");
    orvane::Publish<rpc::DragCursorUpdated>(testing::Browser(7), event);
    Calls();
  }

  const orvane::testing::TemporaryFolder folder_;
  const std::string socket_ = folder_.path() + "/widget.sock";
  EventLoop loop_;
  AttachingWidget widget_;
  std::optional<SocketServer> server_;
  std::vector<ViewState> states_;
  int connected_ = 0;                       // How often on_connected has run.
  std::function<void()> while_connecting_;  // In its first run.
  int scenes_ = 0;                          // How often on_scene has run.
  rpc::CursorType cursor_ = rpc::CURSOR_TYPE_UNSPECIFIED;
  std::string tooltip_;
  std::string node_that_can_be_reached_;
  bool has_other_controls_ = true;
  rpc::FocusDirection focus_left_ = rpc::FOCUS_DIRECTION_UNSPECIFIED;
  rpc::DragOperation drop_operation_ = rpc::DRAG_OPERATION_UNSPECIFIED;
  std::string dragged_;  // By the toolkit, for the page.
  std::optional<View> view_{
      std::in_place, &loop_,
      ViewOptions{.connect = ConnectorTo(&loop_, socket_),
                  .browser = testing::Browser(7),
                  .first_retry = absl::Milliseconds(1),
                  .last_retry = absl::Milliseconds(2)},
      ViewHandlers{
          .on_connected =
              [this](rpc::BrowserWidgetRpcClient&) {
                EXPECT_THAT(
                    states_,
                    ::testing::Not(::testing::Contains(ViewState::kAttached)));
                ++connected_;
                if (while_connecting_) std::exchange(while_connecting_, {})();
              },
          .on_state = [this](ViewState state) { states_.push_back(state); },
          .on_scene = [this] { ++scenes_; },
          .on_cursor =
              [this](const rpc::Cursor& cursor) { cursor_ = cursor.type(); },
          .on_tooltip =
              [this](absl::string_view text) { tooltip_ = std::string(text); },
          .on_take_focus =
              [this](rpc::FocusDirection direction) {
                focus_left_ = direction;
                return has_other_controls_;
              },
          .on_accessibility_focus =
              [this](const rpc::AccessibilityRequestFocusCall& call) {
                return call.node().token() == node_that_can_be_reached_;
              },
          .on_drop_operation =
              [this](rpc::DragOperation operation) {
                drop_operation_ = operation;
              },
          .on_page_drag =
              [this](const std::vector<rpc::DragItem>& items, std::uint32_t) {
                dragged_ = std::string(items[0].text().value());
                return true;
              }}};
};

TEST_F(ViewTest, AViewAttachesOnceItHasASize) {
  StartWidget();
  Await(ViewState::kConnected);
  EXPECT_THAT(Calls(), IsEmpty());
  EXPECT_EQ(view_->pointer(), nullptr);
  view_->SetBounds(Bounds(320, 200), std::nullopt);
  Await(ViewState::kAttached);
  EXPECT_THAT(Calls(), ElementsAre("Attach"));
  EXPECT_EQ(view_->attached().size().width(), 320);
  EXPECT_NE(view_->pointer(), nullptr);
  EXPECT_EQ(view_->status(), absl::OkStatus());
  EXPECT_EQ(connected_, 1);
}

TEST_F(ViewTest, WhatTheWindowWantsIsToldInOrderOnceThereIsAWidget) {
  view_->Focus(rpc::FOCUS_REASON_TAB);
  view_->SetShown(true);
  view_->SetBounds(Bounds(320, 200), std::nullopt);
  view_->SetDisplay({});
  loop_.RunUntil([this] { return !view_->status().ok(); });
  EXPECT_EQ(view_->state(), ViewState::kWaiting);
  StartWidget();
  Await(ViewState::kAttached);
  EXPECT_THAT(Calls(), ElementsAre("SetDisplay", "Attach", "Show", "Focus"));
  EXPECT_THAT(states_, ElementsAre(ViewState::kWaiting, ViewState::kConnected,
                                   ViewState::kAttached));
}

TEST(NewDisplayTest, ADisplayIsAsLargeAsTheToolkitSays) {
  const rpc::Display display = NewDisplay(1280, 720, 1.5);
  EXPECT_EQ(display.bounds().width(), 1280);
  EXPECT_EQ(display.work_area().height(), 720);
  EXPECT_EQ(display.pixel_bounds().width(), 1920);
  EXPECT_EQ(display.pixel_bounds().height(), 1080);
  EXPECT_EQ(display.scale_factor(), 1.5);
}

TEST_F(ViewTest, WhatChangesNothingIsNotTold) {
  Attach();
  for (int time = 0; time < 2; ++time) {
    view_->SetBounds(Bounds(400, 300), std::nullopt);
    view_->SetShown(true);
    view_->SetMinimized(true);
    view_->SetMinimized(true);
    view_->SetMinimized(false);
    view_->Focus(rpc::FOCUS_REASON_MOUSE);
    view_->SetDisplay({});
  }
  EXPECT_THAT(Calls(),
              ElementsAre("SetViewBounds", "Show", "Minimize", "Restore",
                          "Focus", "SetDisplay", "Minimize", "Restore"));
  view_->Unfocus();
  view_->Unfocus();
  view_->SetShown(false);
  EXPECT_THAT(Calls(), ElementsAre("Unfocus", "Hide"));
}

TEST_F(ViewTest, AViewComesBackWithTheNextWidget) {
  Attach();
  view_->SetShown(true);
  states_.clear();
  KillWidget();
  Await(ViewState::kWaiting);
  EXPECT_EQ(view_->pointer(), nullptr);
  EXPECT_EQ(view_->client(), nullptr);
  EXPECT_FALSE(view_->status().ok());
  view_->SetBounds(Bounds(400, 300), std::nullopt);
  EXPECT_THAT(states_, ElementsAre(ViewState::kWaiting));
  states_.clear();
  Calls();
  StartWidget();
  Await(ViewState::kAttached);
  EXPECT_THAT(Calls(), ElementsAre("Attach", "Show"));
  EXPECT_EQ(view_->attached().size().width(), 400);
  EXPECT_EQ(connected_, 2);
}

TEST_F(ViewTest, AWidgetMayGoWhileTheWindowOpensItsStreams) {
  while_connecting_ = [this] {
    KillWidget();
    loop_.RunUntil([this] { return view_->client() == nullptr; });
  };
  view_->SetBounds(Bounds(320, 200), std::nullopt);
  StartWidget();
  loop_.RunUntil([this] { return connected_ == 1; });
  EXPECT_THAT(states_, ElementsAre(ViewState::kWaiting));
  StartWidget();
  Await(ViewState::kAttached);
  EXPECT_EQ(connected_, 2);
}

TEST_F(ViewTest, ARefusalIsToldInWords) {
  widget_.refusal = "no such mode";
  StartWidget();
  view_->SetBounds(Bounds(320, 200), std::nullopt);
  Await(ViewState::kRefused);
  EXPECT_EQ(view_->status().message(), "no such mode");
}

TEST_F(ViewTest, AfterARefusalItTriesAgainByItself) {
  widget_.failing = {"Attach"};
  StartWidget();
  view_->SetBounds(Bounds(320, 200), std::nullopt);
  Await(ViewState::kRefused);
  EXPECT_EQ(view_->status().message(), "it cannot");
  loop_.RunUntil([this] { return widget_.calls.size() >= 3; });
  EXPECT_EQ(view_->state(), ViewState::kRefused);
  widget_.failing.clear();
  Await(ViewState::kAttached);
  EXPECT_THAT(states_, ElementsAre(ViewState::kConnected, ViewState::kRefused,
                                   ViewState::kAttached));
}

TEST_F(ViewTest, ABrowserThatIsAttachedElsewhereCanBeTakenOver) {
  widget_.failing = {"Attach"};
  StartWidget();
  view_->SetBounds(Bounds(320, 200), std::nullopt);
  Await(ViewState::kRefused);
  widget_.failing.clear();
  view_->TakeOver();
  Await(ViewState::kAttached);
  EXPECT_THAT(Calls(), ::testing::Contains("Detach"));
}

TEST_F(ViewTest, OneThatIsRefusedTakesNothingFromAnotherHost) {
  widget_.failing = {"Attach"};
  StartWidget();
  view_->SetBounds(Bounds(320, 200), std::nullopt);
  Await(ViewState::kRefused);
  view_->Detach();
  EXPECT_EQ(view_->state(), ViewState::kConnected);
  EXPECT_THAT(Calls(), ::testing::Each("Attach"));
}

TEST_F(ViewTest, DetachingCancelsInputFirst) {
  Attach();
  view_->Focus(rpc::FOCUS_REASON_MOUSE);
  view_->pointer()->Press(At(1, 2), rpc::MOUSE_BUTTON_PRIMARY);
  view_->touch()->Start({}, 1, {});
  KeySample key;
  key.keysym = 'a';
  view_->keyboard()->Press(key);
  Calls();
  view_->Detach();
  EXPECT_EQ(view_->state(), ViewState::kConnected);
  EXPECT_THAT(Calls(), ElementsAre("ForwardMouseRelease", "ForwardMouseExit",
                                   "ForwardTouchCancel", "ForwardKeyRelease",
                                   "Unfocus", "Detach"));
  view_->SetBounds(Bounds(320, 200), std::nullopt);
  Await(ViewState::kAttached);
  EXPECT_THAT(Calls(), ElementsAre("Attach"));
}

TEST_F(ViewTest, AViewMayBeDetachedWhileItAttaches) {
  StartWidget();
  Await(ViewState::kConnected);
  view_->SetBounds(Bounds(320, 200), std::nullopt);
  view_->Detach();
  EXPECT_THAT(Calls(), ElementsAre("Attach", "Detach"));
  EXPECT_EQ(view_->state(), ViewState::kConnected);
}

TEST_F(ViewTest, AViewMayComeBackWhileItAttaches) {
  StartWidget();
  Await(ViewState::kConnected);
  view_->SetBounds(Bounds(320, 200), std::nullopt);
  view_->Detach();
  view_->SetBounds(Bounds(400, 300), std::nullopt);
  Await(ViewState::kAttached);
  EXPECT_THAT(Calls(), ElementsAre("Attach", "SetViewBounds"));
}

TEST_F(ViewTest, HidingTakesThePointerAway) {
  Attach();
  view_->SetShown(true);
  view_->pointer()->Press(At(1, 2), rpc::MOUSE_BUTTON_PRIMARY);
  Calls();
  view_->SetShown(false);
  EXPECT_THAT(Calls(),
              ElementsAre("ForwardMouseRelease", "ForwardMouseExit", "Hide"));
}

TEST_F(ViewTest, AScaleFactorThatIsNoneIsOne) {
  Attach();
  rpc::Display display;
  display.set_scale_factor(std::numeric_limits<double>::quiet_NaN());
  view_->SetDisplay(display);
  view_->SetDisplay(display);
  EXPECT_THAT(Calls(), ElementsAre("SetDisplay"));
  EXPECT_EQ(widget_.display.scale_factor(), 1);
}

TEST_F(ViewTest, ASizeThatIsNoneIsEmpty) {
  constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
  StartWidget();
  for (int time = 0; time < 2; ++time)
    view_->SetBounds(Bounds(kNan, -1), std::nullopt);
  Await(ViewState::kAttached);
  EXPECT_EQ(view_->attached().size().width(), 0);
  EXPECT_EQ(view_->attached().size().height(), 0);
  view_->SetBounds(Bounds(-std::numeric_limits<double>::infinity(), kNan),
                   std::nullopt);
  EXPECT_THAT(Calls(), ElementsAre("Attach"));
}

TEST_F(ViewTest, WhatAWidgetSaysOfTheSizeIsNotBelievedIfItIsNonsense) {
  constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
  widget_.nonsense.emplace();
  widget_.nonsense->set_attached(true);
  widget_.nonsense->mutable_size()->set_width(kNan);
  widget_.nonsense->mutable_size()->set_height(-1);
  widget_.nonsense->set_scale_factor(kNan);
  Attach();
  EXPECT_EQ(view_->attached().size().width(), 320);
  EXPECT_EQ(view_->attached().size().height(), 200);
  EXPECT_EQ(view_->attached().scale_factor(), 1);
  view_->pointer()->Move(At(1, 2));
  EXPECT_THAT(Calls(), ElementsAre("ForwardMouseEnter", "ForwardMouseMove"));
}

// A widget with narrow limits refuses a stream, and goes on.
TEST_F(ViewTest, AStreamThatIsRefusedIsNotTakenForAWidgetThatShutsDown) {
  server_.emplace(&loop_, &widget_, ServerLimits{.max_streams = 1});
  EXPECT_EQ(server_->Listen(socket_), absl::OkStatus());
  loop_.RunUntil([this] { return states_.size() >= 2; });
  EXPECT_THAT(states_, ElementsAre(ViewState::kConnected, ViewState::kWaiting));
  EXPECT_TRUE(absl::IsResourceExhausted(view_->status())) << view_->status();
}

TEST_F(ViewTest, TheWindowSaysWhyThereIsNoPage) {
  EXPECT_EQ(view_->StateText(), "Waiting for the browser");
  loop_.RunUntil([this] { return !view_->status().ok(); });
  EXPECT_THAT(view_->StateText(),
              ::testing::StartsWith("Waiting for the browser: "));
  widget_.refusal = "no\nroom";
  StartWidget();
  view_->SetBounds(Bounds(320, 200), std::nullopt);
  Await(ViewState::kRefused);
  EXPECT_EQ(view_->StateText(),
            "The browser does not come into this window: no\\nroom");
  widget_.refusal.clear();
  view_->TakeOver();
  Await(ViewState::kAttached);
  EXPECT_EQ(view_->StateText(), "");
}

TEST_F(ViewTest, TheSceneIsServedAndItsLastPictureStays) {
  Attach();
  rpc::UpdateSurfaceCall call;
  rpc::PixelFrame& frame = *call.mutable_frame();
  frame.mutable_size()->set_width(1);
  frame.mutable_size()->set_height(1);
  frame.set_stride_bytes(4);
  frame.set_format(rpc::PIXEL_FORMAT_BGRA_8888_PREMULTIPLIED);
  frame.set_inline_pixels("bgra");
  Call<rpc::UpdateSurface>(testing::Browser(7), call);
  loop_.RunUntil([this] { return scenes_ == 1; });
  KillWidget();
  Await(ViewState::kWaiting);
  EXPECT_EQ(view_->scene().items().size(), 1u);
}

TEST_F(ViewTest, CursorAndTooltipAreThoseOfThePageWhileItIsThere) {
  Attach();
  rpc::CursorChanged cursor;
  cursor.mutable_cursor()->set_type(rpc::CURSOR_TYPE_POINTER);
  Publish<rpc::CursorChanged>(testing::Browser(7), cursor);
  rpc::TooltipChanged tooltip;
  tooltip.set_text("Leads to the manual");
  Publish<rpc::TooltipChanged>(testing::Browser(7), tooltip);
  loop_.RunUntilIdle();
  EXPECT_EQ(cursor_, rpc::CURSOR_TYPE_POINTER);
  EXPECT_EQ(tooltip_, "Leads to the manual");
  view_->Detach();
  EXPECT_EQ(cursor_, rpc::CURSOR_TYPE_UNSPECIFIED);
  EXPECT_EQ(tooltip_, "");
}

TEST_F(ViewTest, AFocusThatAControlTakesHasLeftThePageBeforeTheAnswer) {
  Attach();
  view_->Focus(rpc::FOCUS_REASON_TAB);
  Calls();
  const auto leave = [this](rpc::FocusDirection direction) {
    rpc::TakeFocusCall call;
    call.set_direction(direction);
    std::optional<bool> taken;
    Call<rpc::TakeFocus>(testing::Browser(7), call,
                         [&](const absl::StatusOr<rpc::TakeFocusResponse>& to) {
                           taken = to->taken();
                           widget_.calls.push_back("answer");
                         });
    loop_.RunUntilIdle();
    return taken;
  };
  has_other_controls_ = false;
  EXPECT_EQ(leave(rpc::FOCUS_DIRECTION_FORWARD), false);
  EXPECT_EQ(focus_left_, rpc::FOCUS_DIRECTION_FORWARD);
  EXPECT_THAT(Calls(), ElementsAre("answer"));
  has_other_controls_ = true;
  EXPECT_EQ(leave(rpc::FOCUS_DIRECTION_BACKWARD), true);
  EXPECT_THAT(Calls(), ElementsAre("Unfocus", "answer"));
}

TEST_F(ViewTest, TheWindowDecidesAboutTheAccessibilityFocus) {
  Attach();
  const auto ask = [this] {
    rpc::AccessibilityRequestFocusCall call;
    call.mutable_node()->set_token("link");
    std::optional<bool> focused;
    Call<rpc::AccessibilityRequestFocus>(
        testing::Browser(7), call,
        [&](const absl::StatusOr<rpc::AccessibilityRequestFocusResponse>& to) {
          focused = to->focused();
        });
    loop_.RunUntilIdle();
    return focused;
  };
  EXPECT_EQ(ask(), false);
  node_that_can_be_reached_ = "link";
  EXPECT_EQ(ask(), true);
}

TEST_F(ViewTest, WhatADropWouldDoIsTold) {
  Attach();
  view_->drop_target()->Enter(At(1, 2), rpc::DRAG_OPERATION_COPY, {});
  rpc::DragCursorUpdated event;
  event.set_operation(rpc::DRAG_OPERATION_COPY);
  Publish<rpc::DragCursorUpdated>(testing::Browser(7), event);
  loop_.RunUntilIdle();
  EXPECT_EQ(drop_operation_, rpc::DRAG_OPERATION_COPY);
  KillWidget();
  Await(ViewState::kWaiting);
  EXPECT_EQ(view_->drop_target(), nullptr);
}

TEST_F(ViewTest, AViewMayEndAtAnyTime) {
  StartWidget();
  view_->SetBounds(Bounds(320, 200), std::nullopt);
  Await(ViewState::kConnected);
  view_.reset();
  loop_.RunUntilIdle();
  EXPECT_THAT(states_, ElementsAre(ViewState::kConnected));
}

// The story
// --------------------------------------------------------------------

// What a widget that has just been started may be told, one call after another.
class Story {
 public:
  void Tell(const std::string& call) {
    SCOPED_TRACE(call);
    if (call == "SetDisplay") return;
    if (call == "Attach") {
      Change(&is_attached_, true);
    } else if (call == "Detach") {
      *this = Story();
    } else {
      EXPECT_TRUE(is_attached_);
      if (call == "Show") Change(&is_shown_, true);
      if (call == "Hide") Change(&is_shown_, false);
      if (call == "Minimize") Change(&is_minimized_, true);
      if (call == "Restore") Change(&is_minimized_, false);
      if (call == "Focus") Change(&has_focus_, true);
      if (call == "Unfocus") has_focus_ = false;
      if (call == "ForwardMousePress") Change(&is_pressed_, true);
      if (call == "ForwardMouseRelease") Change(&is_pressed_, false);
      if (call == "ForwardKeyPress") is_key_down_ = true;  // Or repeated.
      if (call == "ForwardKeyRelease") Change(&is_key_down_, false);
    }
    // Input is taken back before the view is hidden or loses the focus.
    EXPECT_FALSE(is_pressed_ && (call == "Hide" || call == "Minimize"));
    EXPECT_FALSE(is_key_down_ && call == "Unfocus");
  }

  bool is_attached_ = false;
  bool is_shown_ = false;
  bool is_minimized_ = false;
  bool has_focus_ = false;

 private:
  static void Change(bool* what, bool value) {
    EXPECT_NE(std::exchange(*what, value), value);
  }

  bool is_pressed_ = false;
  bool is_key_down_ = false;
};

TEST_F(ViewTest, WhateverTheWindowDoesTheCallsFitEachOther) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const auto below = [&random](unsigned end) {
    return std::uniform_int_distribution<unsigned>(0, end - 1)(random);
  };
  Story story;
  const auto tell_story = [&] {
    for (const std::string& call : Calls()) story.Tell(call);
  };
  bool is_shown = false;
  bool is_minimized = false;
  bool has_focus = false;
  StartWidget();
  for (int step = 0; step < 3000 && !HasFailure(); ++step) {
    states_.clear();
    switch (below(10)) {
      case 0:
        view_->SetBounds(Bounds(below(3), below(3)), std::nullopt);
        break;
      case 1:
        is_shown = below(2) == 0;
        view_->SetShown(is_shown);
        break;
      case 2:
        is_minimized = below(2) == 0;
        view_->SetMinimized(is_minimized);
        break;
      case 3:
        has_focus = true;
        view_->Focus(rpc::FOCUS_REASON_MOUSE);
        break;
      case 4:
        has_focus = false;
        view_->Unfocus();
        break;
      case 5:
        if (below(4) != 0) break;
        has_focus = false;
        view_->Detach();
        break;
      case 6:
        if (below(9) != 0) break;
        tell_story();
        KillWidget();
        story = Story();
        if (below(2) == 0) loop_.RunUntilIdle();
        StartWidget();
        break;
      case 7:
        if (view_->pointer() != nullptr)
          view_->pointer()->Press(At(0, 0), rpc::MOUSE_BUTTON_PRIMARY);
        break;
      case 8: {
        KeySample key;
        key.keysym = 'a';
        if (view_->keyboard() != nullptr) view_->keyboard()->Press(key);
        break;
      }
      default:
        tell_story();
    }
  }
  view_->SetBounds(Bounds(3, 3), std::nullopt);
  Await(ViewState::kAttached);
  tell_story();
  EXPECT_TRUE(story.is_attached_);
  EXPECT_EQ(story.is_shown_, is_shown);
  EXPECT_EQ(story.is_minimized_, is_minimized);
  EXPECT_EQ(story.has_focus_, has_focus);
}

// Drags of the page's that the toolkit drags

TEST_F(ViewTest, ADragOfThePagesIsHandedToTheToolkit) {
  BeginPageDrag();
  EXPECT_EQ(dragged_, "Ada");
  view_->EndPageDrag(rpc::DRAG_OPERATION_COPY);
  EXPECT_FALSE(view_->pointer()->is_toolkit_dragging());
  EXPECT_THAT(Calls(), ElementsAre("ForwardDragEnd", "ForwardMouseExit"));
  view_->EndPageDrag(rpc::DRAG_OPERATION_COPY);
  EXPECT_THAT(Calls(), IsEmpty());
}

TEST_F(ViewTest, AToolkitsDragLeavesTheViewBeforeItEnds) {
  BeginPageDrag();
  view_->drop_target()->Enter(At(3, 4), rpc::DRAG_OPERATION_COPY, {});
  view_->EndPageDrag(rpc::DRAG_OPERATION_UNSPECIFIED);
  EXPECT_THAT(Calls(), ElementsAre("ForwardDragEnter", "ForwardDragLeave",
                                   "ForwardDragEnd", "ForwardMouseExit"));
  view_->drop_target()->Leave({});
  EXPECT_THAT(Calls(), IsEmpty());
}

// The user may drag from one tab to another.
TEST_F(ViewTest, AToolkitsDragGoesOnWhileItsViewIsHidden) {
  BeginPageDrag();
  view_->SetShown(true);
  view_->SetShown(false);
  EXPECT_TRUE(view_->pointer()->is_toolkit_dragging());
  EXPECT_THAT(Calls(), ElementsAre("Show", "Hide"));
  view_->EndPageDrag(rpc::DRAG_OPERATION_COPY);
  EXPECT_THAT(Calls(), ElementsAre("ForwardDragEnd", "ForwardMouseExit"));
}

TEST_F(ViewTest, AToolkitsDragIsNotThePagesAnyMoreOnceTheViewIsDetached) {
  BeginPageDrag();
  view_->Detach();
  view_->EndPageDrag(rpc::DRAG_OPERATION_COPY);
  EXPECT_THAT(Calls(), ElementsAre("ForwardDragEnd", "ForwardMouseExit",
                                   "Unfocus", "Detach"));
  view_->SetBounds(Bounds(320, 200), std::nullopt);
  Await(ViewState::kAttached);
  DragInPage();
  EXPECT_TRUE(view_->pointer()->is_toolkit_dragging());
}

TEST_F(ViewTest, AToolkitsDragMayOutliveTheWidget) {
  BeginPageDrag();
  states_.clear();
  KillWidget();
  Await(ViewState::kWaiting);
  view_->EndPageDrag(rpc::DRAG_OPERATION_COPY);
  StartWidget();
  Await(ViewState::kAttached);
  Calls();
  view_->EndPageDrag(rpc::DRAG_OPERATION_COPY);
  EXPECT_THAT(Calls(), IsEmpty());
  DragInPage();
  EXPECT_TRUE(view_->pointer()->is_toolkit_dragging());
}

TEST_F(ViewTest, AViewMayEndWhileTheToolkitDrags) {
  BeginPageDrag();
  view_->drop_target()->Enter(At(3, 4), rpc::DRAG_OPERATION_COPY, {});
  view_.reset();
  EXPECT_THAT(Calls(), ElementsAre("ForwardDragEnter"));
}

// Such as one in another tab.
TEST_F(ViewTest, AnotherViewGetsTheItemsOfAPagesDrag) {
  BeginPageDrag();
  View other(
      &loop_,
      {.connect = ConnectorTo(&loop_, socket_), .browser = testing::Browser(8)},
      {});
  other.SetBounds(Bounds(320, 200), std::nullopt);
  loop_.RunUntil([&] { return other.state() == ViewState::kAttached; });
  Calls();
  std::vector<rpc::DragItem> items(1);
  items[0].mutable_text()->set_mime_type("text/plain");
  other.drop_target()->Enter(At(3, 4), rpc::DRAG_OPERATION_COPY, items);
  EXPECT_THAT(Calls(), ElementsAre("ForwardDragEnter"));
  EXPECT_EQ(widget_.dragged_items, 1);
  view_->drop_target()->Enter(At(3, 4), rpc::DRAG_OPERATION_COPY, items);
  Calls();
  EXPECT_EQ(widget_.dragged_items, 0);
}

}  // namespace
}  // namespace orvane::host
