#include "engines/chromium/page.h"

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/escaping.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "engines/chromium/page_fixture.h"
#include "engines/chromium/png.h"
#include "engines/chromium/x11_event_fixture.h"

namespace chromium {
namespace {

using ::testing::Contains;
using testing::Core;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using testing::Xi;
using Client = rpc::BrowserWidgetRpcClient;

// A member function of the client, of its blocking form.
template <typename Request>
using Blocking = absl::StatusOr<google::protobuf::Empty> (Client::*)(
    const Request&, orvane::CallOptions);

class PageTest : public testing::PageFixture {
 protected:
  template <typename Request>
  void Input(Blocking<Request> method, const std::string& text) {
    EXPECT_EQ(Call<Request>(method, text), absl::OkStatus());
  }

  // The latest script that was run in the page ends with this: a result or an
  // error.
  void EndScript(const std::string& member, const Json& value) {
    Json reply = {{member, value}};
    for (const Json& command : scripted_->commands()) {
      if (Text(command, "method") == "Runtime.evaluate")
        reply["id"] = Member(command, "id");
    }
    scripted_->SendMessage(reply);
    scripted_->Settle();
  }

  // The engine answers again, also what it was asked before.
  void AnswerLate(const std::string& method) {
    scripted_->ReplyTo(method, Json::object());
    for (const Json& command : scripted_->commands()) {
      if (Text(command, "method") != method) continue;
      scripted_->SendMessage(
          {{"id", Member(command, "id")}, {"result", Json::object()}});
    }
    scripted_->Settle();
  }

  void Click() {
    const std::string button = "button: MOUSE_BUTTON_PRIMARY click_count: 1";
    Input<rpc::MousePressRequest>(&Client::ForwardMousePress, button);
    Input<rpc::MouseReleaseRequest>(&Client::ForwardMouseRelease, button);
  }

  std::vector<Json> Bounds() {
    std::vector<Json> all;
    for (const Json& params : scripted_->Params("Browser.setWindowBounds"))
      all.push_back(Member(params, "bounds"));
    return all;
  }
};

// The target

TEST_F(PageTest, IsSetUpBeforeItIsNavigated) {
  std::vector<std::string> methods;
  for (const Json& command : scripted_->commands())
    methods.push_back(Text(command, "method"));
  EXPECT_THAT(
      methods,
      ElementsAre("Browser.getVersion", "Target.setDiscoverTargets",
                  "Target.createTarget", "Target.attachToTarget",
                  "Browser.getWindowForTarget", "Emulation.getScreenInfos",
                  "Page.enable", "Runtime.enable", "DOM.enable",
                  "Runtime.addBinding", "Page.setInterceptFileChooserDialog",
                  "Fetch.enable", "Target.setAutoAttach", "Inspector.enable",
                  "Input.setInterceptDrags", "Page.startScreencast",
                  "Emulation.updateScreen",
                  "Page.addScriptToEvaluateOnNewDocument", "Runtime.evaluate",
                  "Page.navigate"));
  EXPECT_THAT(scripted_->Params("Page.navigate"),
              ElementsAre(Json{{"url", "https://first.example/"}}));
}

TEST_F(PageTest, AFrameOfAnotherSiteIsSetUpToo) {
  scripted_->ForgetCommands();
  Tell("Target.attachedToTarget", {{"sessionId", "frame"}});
  std::vector<std::string> sessions;
  for (const Json& command : scripted_->commands()) {
    if (Text(command, "method") == "Page.addScriptToEvaluateOnNewDocument")
      sessions.push_back(Text(command, "sessionId"));
  }
  EXPECT_THAT(sessions, ElementsAre("frame"));
}

TEST_F(PageTest, ACrashedPageIsLoadedAgain) {
  Tell("Page.frameNavigated",
       {{"frame", {{"id", "target"}, {"url", "https://first.example/"}}}});
  Tell("Inspector.targetCrashed");
  EXPECT_THAT(scripted_->Params("Page.reload"), SizeIs(1));
}

TEST_F(PageTest, APageThatKeepsCrashingIsNot) {
  Tell("Page.frameNavigated",
       {{"frame", {{"id", "target"}, {"url", "https://first.example/"}}}});
  for (int i = 0; i < 4; ++i) Tell("Inspector.targetCrashed");
  EXPECT_THAT(scripted_->Params("Page.reload"), SizeIs(3));
  EXPECT_THAT(Text(scripted_->Params("Page.navigate").back(), "url"),
              HasSubstr("keeps crashing"));
}

TEST_F(PageTest, APageThatClosesItsWindowGetsAnother) {
  Attach();
  Show();
  Tell("Page.frameNavigated",
       {{"frame", {{"id", "target"}, {"url", "https://second.example/"}}}});
  scripted_->ForgetCommands();
  scripted_->SendEvent("Target.targetDestroyed", {{"targetId", "target"}});
  scripted_->Settle();
  EXPECT_THAT(scripted_->Params("Page.navigate"),
              ElementsAre(Json{{"url", "https://second.example/"}}));
  EXPECT_THAT(Bounds(), Contains(Json{{"windowState", "normal"}}));
}

TEST_F(PageTest, AnEngineThatEndsIsStartedAgainAndShowsWhatItShowed) {
  Attach();
  Show();
  const std::unique_ptr<testing::ScriptedEngine> old = std::move(scripted_);
  LaunchEngine();
  old->Close();
  loop_.RunUntil([this] { return !scripted_->Receive().empty(); });
  EXPECT_EQ(launches_, 2);
  EXPECT_THAT(host_->ForwardKeyType(New<rpc::KeyTypeRequest>("text: 'a'"))
                  .status()
                  .message(),
              HasSubstr("browser 1 takes no input now"));
  EXPECT_TRUE(host_->Focus(New<rpc::FocusRequest>()).ok());  // State is kept.
  AnswerTheVersion();
  scripted_->Settle();
  EXPECT_THAT(scripted_->Params("Page.navigate"), SizeIs(1));
  EXPECT_THAT(Bounds(), Contains(Json{{"windowState", "normal"}}));
  Input<rpc::KeyTypeRequest>(&Client::ForwardKeyType, "text: 'a'");
  EXPECT_THAT(scripted_->Params("Input.insertText"), SizeIs(1));
}

TEST_F(PageTest, AnEngineThatDoesNotAnswerAnyMoreIsStartedAgain) {
  auto pair = orvane::ConnectedPair();
  ASSERT_TRUE(pair.ok());
  testing::ScriptedEngine stuck(&loop_, std::move(pair->second));
  int launches = 0;
  Engine engine(
      &loop_,
      [&]() -> absl::StatusOr<LaunchedEngine> {
        if (++launches > 1) return absl::UnavailableError("no second one");
        return LaunchedEngine{nullptr, std::move(pair->first)};
      },
      "", absl::Milliseconds(10));
  loop_.Post([&] {
    stuck.SendMessage({{"id", 1}, {"result", {{"product", "Stuck/1"}}}});
  });
  ASSERT_EQ(engine.Start(), absl::OkStatus());
  loop_.RunUntil([&] { return launches == 2; });
}

// It would be started again and again, and serve nobody.
TEST_F(PageTest, AnEngineThatIsStillStartingCanBeShutDown) {
  scripted_->Close();
  LaunchEngine();
  loop_.RunUntil([this] { return launches_ == 2; });
  bool is_over = false;
  engine_.Shutdown(absl::Seconds(60), [&] { is_over = true; });
  AnswerTheVersion();
  scripted_->Settle();
  EXPECT_THAT(scripted_->Params("Target.createTarget"), IsEmpty());
  scripted_->Close();
  loop_.RunUntil([&] { return is_over; });
}

TEST_F(PageTest, AnEngineThatLacksACommandDoesNotStart) {
  struct Nobody final : Engine::Client {
    void OnTarget(const Target&) override { ADD_FAILURE(); }
    void OnEvent(EngineEvent) override {}
    void OnTargetLost() override {}
  } client;
  auto pair = orvane::ConnectedPair();
  ASSERT_TRUE(pair.ok());
  testing::ScriptedEngine old(&loop_, std::move(pair->second));
  old.DoesNotKnow("Emulation.getScreenInfos");
  Engine engine(&loop_, [&]() -> absl::StatusOr<LaunchedEngine> {
    return LaunchedEngine{nullptr, std::move(pair->first)};
  });
  engine.Add(&client);
  loop_.Post([&] { old.Settle(); });
  EXPECT_THAT(engine.Start().message(),
              HasSubstr("no Emulation.getScreenInfos"));
}

TEST_F(PageTest, WhatIsNotAllowedIsNotLoaded) {
  Tell("Fetch.requestPaused",
       {{"requestId", "r1"}, {"request", {{"url", "file:///etc/passwd"}}}});
  Tell("Fetch.requestPaused",
       {{"requestId", "r2"}, {"request", {{"url", "https://a.example/"}}}});
  EXPECT_THAT(
      scripted_->Params("Fetch.failRequest"),
      ElementsAre(Json{{"requestId", "r1"}, {"errorReason", "AccessDenied"}}));
  EXPECT_THAT(scripted_->Params("Fetch.continueRequest"),
              ElementsAre(Json{{"requestId", "r2"}}));
}

// The view

TEST_F(PageTest, AWindowIsRefused) {
  const auto result = host_->Attach(New<rpc::AttachRequest>(
      "rendering_mode: RENDERING_MODE_WINDOWED"
      " parent_window { platform: PLATFORM_X11 handle: 5 }"));
  ASSERT_TRUE(result.ok()) << result.status();
  EXPECT_FALSE(result->attached());
  EXPECT_THAT(std::string(result->refusal()), HasSubstr("off-screen"));
}

TEST_F(PageTest, AnAttachedViewIsHiddenUntilItIsShown) {
  Attach();
  EXPECT_THAT(Bounds(), IsEmpty());
  Show();
  EXPECT_THAT(
      Bounds(),
      ElementsAre(
          Json{{"windowState", "normal"}},
          Json{{"left", 0}, {"top", 0}, {"width", 320}, {"height", 200}}));
}

TEST_F(PageTest, TheEngineDrawsIntoNoWindow) {
  Attach();
  const auto window = host_->GetChromiumWindowHandle(browser_);
  ASSERT_TRUE(window.ok()) << window.status();
  EXPECT_EQ(window->handle(), 0u);
}

TEST_F(PageTest, AViewIsDrawnOnlyWhileItIsShownAndNotMinimised) {
  Attach();
  Show();
  scripted_->ForgetCommands();
  EXPECT_TRUE(host_->Minimize(browser_).ok());
  EXPECT_TRUE(host_->Hide(browser_).ok());
  EXPECT_TRUE(host_->Restore(browser_).ok());
  scripted_->Settle();
  EXPECT_THAT(Bounds(), ElementsAre(Json{{"windowState", "minimized"}}));
}

TEST_F(PageTest, BoundsOfAHiddenViewWaitForIt) {
  Attach();
  Input<rpc::ViewBounds>(&Client::SetViewBounds,
                         "bounds { width: 640.4 height: 480 }"
                         " screen_bounds { x: 100 y: 50 }");
  EXPECT_THAT(Bounds(), IsEmpty());
  Show();
  EXPECT_THAT(
      Bounds(),
      Contains(
          Json{{"left", 100}, {"top", 50}, {"width", 640}, {"height", 480}}));
}

TEST_F(PageTest, PicturesThatDoNotComeAreAskedForAgain) {
  Attach();
  Show();
  scripted_->ForgetCommands();
  loop_.RunUntil([this] {
    scripted_->Settle();
    return !scripted_->Params("Page.startScreencast").empty();
  });
  EXPECT_THAT(scripted_->Params("Page.stopScreencast"), SizeIs(1));
  EXPECT_THAT(
      Bounds(),
      ElementsAre(
          Json{{"windowState", "normal"}},
          Json{{"left", 0}, {"top", 0}, {"width", 320}, {"height", 200}}));
}

// Pictures that are asked for while the page goes elsewhere never come, and the
// one of the page before may still be on its way.
TEST_F(PageTest, APictureFromBeforeItWasAskedForAgainDoesNotCount) {
  Attach();
  Show();
  Json asked;
  loop_.RunUntil([&] {
    for (const Json& command : scripted_->Receive()) {
      if (Text(command, "method") == "Page.startScreencast") asked = command;
    }
    return !asked.is_null();
  });
  scripted_->SendEvent("Page.screencastFrame",
                       {{"data", Png(320, 200, 255, 255, 255)},
                        {"sessionId", 1},
                        {"metadata", Json::object()}},
                       "session");
  scripted_->SendMessage({{"id", Member(asked, "id")},
                          {"sessionId", "session"},
                          {"result", Json::object()}});
  scripted_->Settle();
  scripted_->ForgetCommands();
  loop_.RunUntil([this] {
    scripted_->Settle();
    return !scripted_->Params("Page.startScreencast").empty();
  });
}

TEST_F(PageTest, ADisplayBecomesThePagesScreen) {
  scripted_->ForgetCommands();
  Input<rpc::Display>(
      &Client::SetDisplay,
      "display_id: 1 bounds { width: 1280 height: 800 }"
      " pixel_bounds { x: 10 width: 2560 height: 1600 }"
      " pixel_work_area { x: 10 y: 60 width: 2560 height: 1500 }"
      " scale_factor: 2 rotation_deg: 90");
  EXPECT_THAT(scripted_->Params("Emulation.updateScreen"),
              ElementsAre(Json{
                  {"screenId", "screen"},
                  {"left", 0},
                  {"top", 0},
                  {"width", 2560},
                  {"height", 1600},
                  {"devicePixelRatio", 2.0},
                  {"rotation", 90},
                  {"colorDepth", 24},
                  {"isInternal", false},
                  {"workAreaInsets",
                   {{"left", 0}, {"top", 60}, {"right", 0}, {"bottom", 40}}}}));
}

TEST_F(PageTest, ADisplayThatCannotBeIsBoundedToWhatTheEngineTakes) {
  scripted_->ForgetCommands();
  Input<rpc::Display>(&Client::SetDisplay,
                      "bounds { width: 1e308 height: 1e308 } scale_factor: inf"
                      " color_depth_bits: 4294967295 rotation_deg: 4294967295");
  const std::vector<Json> screens = scripted_->Params("Emulation.updateScreen");
  ASSERT_THAT(screens, SizeIs(1));
  EXPECT_EQ(Number(screens[0], "devicePixelRatio"), 8);
  EXPECT_EQ(Number(screens[0], "colorDepth"), 24);
  EXPECT_EQ(Number(screens[0], "rotation"), 180);
}

TEST_F(PageTest, AHugeViewIsCutToWhatTheEngineDraws) {
  Attach();
  Input<rpc::ViewBounds>(&Client::SetViewBounds,
                         "bounds { width: 1e9 height: 1e9 }");
  Show();
  EXPECT_THAT(Bounds(),
              Contains(Json{
                  {"left", 0}, {"top", 0}, {"width", 8192}, {"height", 3906}}));
}

TEST_F(PageTest, ADetachedViewIsHiddenAndNothingIsHeldAnyMore) {
  Attach();
  Show();
  Input<rpc::TouchStartRequest>(&Client::ForwardTouchStart,
                                "changed_points { id: 1 }");
  Input<rpc::MousePressRequest>(
      &Client::ForwardMousePress,
      "button: MOUSE_BUTTON_SECONDARY click_count: 1");
  scripted_->ForgetCommands();
  EXPECT_TRUE(host_->Detach(browser_).ok());
  scripted_->Settle();
  ASSERT_THAT(scripted_->Params("Input.dispatchMouseEvent"), SizeIs(1));
  EXPECT_EQ(Text(scripted_->Params("Input.dispatchMouseEvent")[0], "button"),
            "right");
  EXPECT_THAT(Bounds(), ElementsAre(Json{{"windowState", "minimized"}}));
  ASSERT_THAT(scripted_->Params("Input.dispatchTouchEvent"), SizeIs(1));
  EXPECT_EQ(Text(scripted_->Params("Input.dispatchTouchEvent")[0], "type"),
            "touchCancel");
}

// The focus

TEST_F(PageTest, AShownViewHasNoFocusUntilTheHostGivesIt) {
  Attach();
  TellOfDocument();
  Show();
  EXPECT_THAT(Scripts(),
              ElementsAre("orvaneAgent.leave()", "orvaneAgent.left()"));
}

TEST_F(PageTest, AFocusThatCouldNotBeTakenWithoutADocumentIsTakenLater) {
  Attach();
  Show();
  EXPECT_THAT(Scripts(), IsEmpty());
  TellOfDocument();
  scripted_->ForgetCommands();
  scripted_->ReplyTo("Runtime.evaluate",
                     {{"result", {{"type", "boolean"}, {"value", true}}}});
  Tell("Page.domContentEventFired");
  EXPECT_THAT(Scripts(),
              ElementsAre("orvaneAgent.hasFocus()", "orvaneAgent.leave()",
                          "orvaneAgent.left()"));
}

TEST_F(PageTest, TheFocusComesAndGoes) {
  Attach();
  TellOfDocument();
  Show();
  scripted_->ForgetCommands();
  Input<rpc::FocusRequest>(&Client::Focus, "reason: FOCUS_REASON_WINDOW");
  EXPECT_THAT(Scripts(), ElementsAre("orvaneAgent.come()"));
  scripted_->ForgetCommands();
  EXPECT_TRUE(host_->Unfocus(browser_).ok());
  scripted_->Settle();
  EXPECT_THAT(Scripts(),
              ElementsAre("orvaneAgent.leave()", "orvaneAgent.left()"));
  EXPECT_THAT(scripted_->Params("Input.dispatchKeyEvent"), SizeIs(2));
}

TEST_F(PageTest, AFocusThatADialogKeptIsTakenOnceItIsClosed) {
  Attach();
  TellOfDocument();
  Show();
  scripted_->ForgetCommands();
  scripted_->ReplyTo("Runtime.evaluate",
                     {{"result", {{"type", "boolean"}, {"value", true}}}});
  Tell("Page.javascriptDialogClosed");
  EXPECT_THAT(Scripts(),
              ElementsAre("orvaneAgent.hasFocus()", "orvaneAgent.leave()",
                          "orvaneAgent.left()"));
}

TEST_F(PageTest, APageThatDoesNotLetGoIsSentNoTab) {
  Attach();
  TellOfDocument();
  scripted_->NeverReplyTo("Runtime.evaluate");
  Show();
  ASSERT_THAT(Scripts(), ElementsAre("orvaneAgent.leave()"));
  EndScript("error", {{"code", -32000}, {"message", "no"}});
  EXPECT_THAT(Scripts(),
              ElementsAre("orvaneAgent.leave()", "orvaneAgent.left()"));
  EXPECT_THAT(scripted_->Params("Input.dispatchKeyEvent"), IsEmpty());
}

TEST_F(PageTest, TheFocusLeavesOnceThePageHasGotTheClick) {
  Attach();
  TellOfDocument();
  Show();
  scripted_->ForgetCommands();
  scripted_->NeverReplyTo("Input.dispatchMouseEvent");
  Click();
  ASSERT_THAT(Scripts(), IsEmpty());
  AnswerLate("Input.dispatchMouseEvent");
  EXPECT_THAT(Scripts(),
              ElementsAre("orvaneAgent.leave()", "orvaneAgent.left()"));
}

// The page is inert while the focus leaves, so a move would find nothing there.
TEST_F(PageTest, TheFocusLeavesOnceThePageHasGotTheMove) {
  Attach();
  TellOfDocument();
  Show();
  Input<rpc::FocusRequest>(&Client::Focus, "reason: FOCUS_REASON_WINDOW");
  scripted_->ForgetCommands();
  scripted_->NeverReplyTo("Input.dispatchMouseEvent");
  Input<rpc::MouseMoveRequest>(&Client::ForwardMouseMove, "");
  EXPECT_TRUE(host_->Unfocus(browser_).ok());
  scripted_->Settle();
  ASSERT_THAT(Scripts(), IsEmpty());
  AnswerLate("Input.dispatchMouseEvent");
  EXPECT_THAT(Scripts(),
              ElementsAre("orvaneAgent.leave()", "orvaneAgent.left()"));
}

TEST_F(PageTest, TheFocusDoesNotWaitForADocumentThatIsGone) {
  Attach();
  TellOfDocument();
  Show();
  scripted_->ForgetCommands();
  scripted_->NeverReplyTo("Input.dispatchMouseEvent");
  Click();
  scripted_->ReplyTo("Input.dispatchMouseEvent", Json::object());
  Tell("Page.frameNavigated",
       {{"frame", {{"id", "target"}, {"url", "https://next.example/"}}}});
  EXPECT_THAT(Scripts(),
              ElementsAre("orvaneAgent.leave()", "orvaneAgent.left()"));
}

TEST_F(PageTest, ATabOutOfThePageAsksTheHostToTakeTheFocus) {
  Attach();
  TellOfDocument();
  Show();
  Input<rpc::FocusRequest>(&Client::Focus, "reason: FOCUS_REASON_MOUSE");
  std::vector<rpc::FocusDirection> directions;
  const auto serving = host_->OnTakeFocus(
      browser_, [&](const rpc::TakeFocusCall& call,
                    orvane::Responder<rpc::TakeFocus> responder) {
        directions.push_back(call.direction());
        rpc::TakeFocusResponse answer;
        answer.set_taken(true);
        EXPECT_TRUE(std::move(responder).Respond(answer).ok());
      });
  scripted_->ReplyTo("Runtime.evaluate",
                     {{"result", {{"type", "boolean"}, {"value", false}}}});
  // Shift comes up first.
  Input<rpc::KeyPressRequest>(&Client::ForwardKeyPress,
                              "key { key: 'Tab' } input { modifiers: 8 }");
  Input<rpc::KeyReleaseRequest>(&Client::ForwardKeyRelease,
                                "key { key: 'Tab' }");
  Input<rpc::KeyPressRequest>(&Client::ForwardKeyPress, "key { key: 'Tab' }");
  Input<rpc::KeyReleaseRequest>(&Client::ForwardKeyRelease,
                                "key { key: 'Tab' }");
  EXPECT_THAT(directions, ElementsAre(rpc::FOCUS_DIRECTION_BACKWARD,
                                      rpc::FOCUS_DIRECTION_FORWARD));
}

TEST_F(PageTest, ATabWithinThePageDoesNot) {
  Attach();
  TellOfDocument();
  Show();
  Input<rpc::FocusRequest>(&Client::Focus, "");
  int calls = 0;
  const auto serving = host_->OnTakeFocus(
      browser_, [&](const rpc::TakeFocusCall&,
                    orvane::Responder<rpc::TakeFocus>) { ++calls; });
  scripted_->ReplyTo("Runtime.evaluate",
                     {{"result", {{"type", "boolean"}, {"value", true}}}});
  Input<rpc::KeyReleaseRequest>(&Client::ForwardKeyRelease,
                                "key { key: 'Tab' }");
  EXPECT_EQ(calls, 0);
}

TEST_F(PageTest, AFocusThatNobodyTakesStartsOverInThePage) {
  Attach();
  TellOfDocument();
  Show();
  Input<rpc::FocusRequest>(&Client::Focus, "reason: FOCUS_REASON_MOUSE");
  scripted_->ReplyTo("Runtime.evaluate",
                     {{"result", {{"type", "boolean"}, {"value", false}}}});
  scripted_->ForgetCommands();
  Input<rpc::KeyReleaseRequest>(&Client::ForwardKeyRelease,
                                "key { key: 'Tab' }");
  EXPECT_THAT(Scripts(),
              ElementsAre("orvaneAgent.hasFocus()", "orvaneAgent.expectTab()",
                          "orvaneAgent.haveTabbed()"));
}

// Input

TEST_F(PageTest, InputReachesTheEngineInOrder) {
  Attach();
  scripted_->ForgetCommands();
  Input<rpc::MouseMoveRequest>(&Client::ForwardMouseMove, "");
  Input<rpc::MousePressRequest>(&Client::ForwardMousePress,
                                "button: MOUSE_BUTTON_PRIMARY click_count: 1");
  Input<rpc::KeyPressRequest>(&Client::ForwardKeyPress, "key { key: 'a' }");
  Input<rpc::KeyTypeRequest>(&Client::ForwardKeyType,
                             "key { key: 'a' } text: 'a'");
  Input<rpc::KeyReleaseRequest>(&Client::ForwardKeyRelease, "key { key: 'a' }");
  Input<rpc::MouseWheelRequest>(&Client::ForwardMouseWheel, "delta_y: 1");
  Input<rpc::MouseExitRequest>(&Client::ForwardMouseExit, "");
  std::vector<std::string> types;
  for (const Json& command : scripted_->commands())
    types.push_back(Text(Member(command, "params"), "type"));
  EXPECT_THAT(types, ElementsAre("mouseMoved", "mousePressed", "rawKeyDown",
                                 "char", "keyUp", "mouseWheel", "mouseMoved"));
}

TEST_F(PageTest, NativeInputReachesTheEngineAsOtherInputDoes) {
  Attach();
  scripted_->ForgetCommands();
  const auto event = [](const std::string& payload) {
    return "event { platform: PLATFORM_X11 payload: '" +
           absl::CHexEscape(payload) + "' }";
  };
  Input<rpc::NativeKeyEventRequest>(
      &Client::ForwardNativeKeyEvent,
      event(Core(testing::kKeyPress, {.detail = 38})));
  Input<rpc::NativeMouseEventRequest>(
      &Client::ForwardNativeMouseEvent,
      event(Core(testing::kButtonPress, {.detail = 1, .x = 5, .y = 6})));
  Input<rpc::NativeTouchEventRequest>(&Client::ForwardNativeTouchEvent,
                                      event(Xi(testing::kTouchBegin)));
  std::vector<std::string> types;
  for (const Json& command : scripted_->commands())
    types.push_back(Text(Member(command, "params"), "type"));
  EXPECT_THAT(types,
              ElementsAre("rawKeyDown", "char", "mousePressed", "touchStart"));
}

TEST_F(PageTest, NativeInputThatCannotBeReadIsRefusedInWords) {
  Attach();
  scripted_->ForgetCommands();
  const std::string motion = absl::CHexEscape(Core(testing::kMotion));
  EXPECT_EQ(
      Call<rpc::NativeTouchEventRequest>(
          static_cast<Blocking<rpc::NativeTouchEventRequest>>(
              &Client::ForwardNativeTouchEvent),
          "event { platform: PLATFORM_X11 payload: '" + motion + "' }")
          .message(),
      "the event is of type 6; touch events are of type 35 (XInput 2) and "
      "evtype 18 to 20");
  EXPECT_EQ(
      Call<rpc::NativeMouseEventRequest>(
          static_cast<Blocking<rpc::NativeMouseEventRequest>>(
              &Client::ForwardNativeMouseEvent),
          "event { platform: PLATFORM_WINDOWS payload: '" + motion + "' }")
          .message(),
      "the event is of PLATFORM_WINDOWS; this widget runs on "
      "PLATFORM_X11");
  EXPECT_THAT(scripted_->commands(), IsEmpty());
}

TEST_F(PageTest, InputWaitsWhileTheFocusMoves) {
  Attach();
  TellOfDocument();
  Show();
  scripted_->NeverReplyTo("Runtime.evaluate");
  scripted_->ForgetCommands();
  Input<rpc::FocusRequest>(&Client::Focus, "reason: FOCUS_REASON_TAB");
  Input<rpc::KeyPressRequest>(&Client::ForwardKeyPress, "key { key: 'a' }");
  Input<rpc::MouseMoveRequest>(&Client::ForwardMouseMove, "");
  ASSERT_THAT(Scripts(), ElementsAre("orvaneAgent.expectTab()"));
  EXPECT_THAT(scripted_->Params("Input.dispatchKeyEvent"), IsEmpty());
  EXPECT_THAT(scripted_->Params("Input.dispatchMouseEvent"), IsEmpty());
  scripted_->ReplyTo("Runtime.evaluate", Json::object());
  EndScript("result", Json::object());
  std::vector<std::string> keys;
  for (const Json& params : scripted_->Params("Input.dispatchKeyEvent"))
    keys.push_back(Text(params, "key"));
  EXPECT_THAT(keys, ElementsAre("Tab", "Tab", "a"));
  EXPECT_THAT(scripted_->Params("Input.dispatchMouseEvent"), SizeIs(1));
}

// The engine drops what comes while a page waits for its dialog, which may open
// at a press.
TEST_F(PageTest, ThePageGetsTheReleaseOnceItHasGotThePress) {
  Attach();
  scripted_->NeverReplyTo("Input.dispatchMouseEvent");
  Click();
  EXPECT_THAT(scripted_->Params("Input.dispatchMouseEvent"), SizeIs(1));
  AnswerLate("Input.dispatchMouseEvent");
  EXPECT_THAT(scripted_->Params("Input.dispatchMouseEvent"), SizeIs(2));
}

TEST_F(PageTest, InputWaitsForTheEndOfADialog) {
  Attach();
  Tell("Page.javascriptDialogOpening",
       {{"url", "https://a.example/"}, {"type", "alert"}});
  Click();
  Input<rpc::MouseMoveRequest>(&Client::ForwardMouseMove, "");
  EXPECT_THAT(scripted_->Params("Input.dispatchMouseEvent"), IsEmpty());
  Tell("Page.javascriptDialogClosed");
  EXPECT_THAT(scripted_->Params("Input.dispatchMouseEvent"), SizeIs(3));
}

TEST_F(PageTest, InputThatWaitsGoesWithItsPage) {
  Attach();
  Tell("Page.javascriptDialogOpening",
       {{"url", "https://a.example/"}, {"type", "alert"}});
  Click();
  Tell("Page.frameNavigated", {{"frame", {{"id", "target"}}}});
  Tell("Page.javascriptDialogClosed");
  EXPECT_THAT(scripted_->Params("Input.dispatchMouseEvent"), IsEmpty());
}

TEST_F(PageTest, InputThatWaitsGoesWithItsHostAndNothingStaysHeld) {
  Attach();
  Input<rpc::TouchStartRequest>(&Client::ForwardTouchStart,
                                "changed_points { id: 1 }");
  const std::string button = "button: MOUSE_BUTTON_PRIMARY click_count: 1";
  Input<rpc::MousePressRequest>(&Client::ForwardMousePress, button);
  Tell("Page.javascriptDialogOpening",
       {{"url", "https://a.example/"}, {"type", "alert"}});
  Input<rpc::MouseReleaseRequest>(&Client::ForwardMouseRelease, button);
  Input<rpc::TouchEndRequest>(&Client::ForwardTouchEnd,
                              "changed_points { id: 1 }");
  Click();
  Input<rpc::MouseMoveRequest>(&Client::ForwardMouseMove, "");
  EXPECT_TRUE(host_->Detach(browser_).ok());
  scripted_->ForgetCommands();
  Tell("Page.javascriptDialogClosed");
  std::vector<std::string> types;
  for (const char* const method :
       {"Input.dispatchMouseEvent", "Input.dispatchTouchEvent"}) {
    for (const Json& params : scripted_->Params(method))
      types.push_back(Text(params, "type"));
  }
  // The movement leads out of the page.
  EXPECT_THAT(types, ElementsAre("mouseReleased", "mouseMoved", "touchCancel"));
}

TEST_F(PageTest, APageThatDoesNotAnswerIsSentNoMoreInput) {
  Attach();
  TellOfDocument();
  Show();
  scripted_->NeverReplyTo("Runtime.evaluate");
  Input<rpc::FocusRequest>(&Client::Focus, "");
  constexpr std::size_t kHeld = 1000;
  std::vector<absl::Status> statuses;
  const auto press = New<rpc::KeyPressRequest>("key { key: 'a' }");
  for (std::size_t i = 0; i <= kHeld; ++i) {
    host_->ForwardKeyPress(
        press, [&](const absl::StatusOr<google::protobuf::Empty>& answer) {
          statuses.push_back(answer.status());
        });
  }
  loop_.RunUntil([&] { return statuses.size() == kHeld + 1; });
  EXPECT_EQ(statuses[kHeld - 1], absl::OkStatus());
  EXPECT_EQ(statuses[kHeld].message(),
            "browser 1 takes no input now: its page does not answer");
}

TEST_F(PageTest, TextWithoutAKeyIsInserted) {
  Attach();
  Input<rpc::KeyTypeRequest>(&Client::ForwardKeyType, "text: '漢字'");
  EXPECT_THAT(scripted_->Params("Input.insertText"),
              ElementsAre(Json{{"text", "漢字"}}));
}

TEST_F(PageTest, ASystemKeyEntersNothing) {
  Attach();
  Input<rpc::KeyTypeRequest>(&Client::ForwardKeyType,
                             "key { key: 'a' } text: 'a' is_system_key: true");
  EXPECT_THAT(scripted_->Params("Input.dispatchKeyEvent"), IsEmpty());
}

TEST_F(PageTest, OfMovesThatAHungPageDoesNotTakeTheNewestWaits) {
  Attach();
  scripted_->NeverReplyTo("Input.dispatchMouseEvent");
  for (int x = 0; x < 40; ++x) {
    Input<rpc::MouseMoveRequest>(
        &Client::ForwardMouseMove,
        "pointer { position { x: " + std::to_string(x) + " } }");
  }
  EXPECT_THAT(scripted_->Params("Input.dispatchMouseEvent"), SizeIs(32));
  // A press does not overtake it.
  Input<rpc::MousePressRequest>(&Client::ForwardMousePress,
                                "button: MOUSE_BUTTON_PRIMARY click_count: 1");
  AnswerLate("Input.dispatchMouseEvent");
  const auto sent = scripted_->Params("Input.dispatchMouseEvent");
  ASSERT_THAT(sent, SizeIs(34));
  EXPECT_EQ(Number(sent[32], "x"), 39);
  EXPECT_EQ(Text(sent[33], "type"), "mousePressed");
}

TEST_F(PageTest, MovesDoNotWaitForADocumentThatIsGone) {
  Attach();
  scripted_->NeverReplyTo("Input.dispatchMouseEvent");
  for (int x = 0; x < 40; ++x)
    Input<rpc::MouseMoveRequest>(&Client::ForwardMouseMove, "");
  scripted_->ForgetCommands();
  Tell("Page.frameNavigated",
       {{"frame", {{"id", "target"}, {"url", "https://next.example/"}}}});
  EXPECT_THAT(scripted_->Params("Input.dispatchMouseEvent"), SizeIs(1));
}

class PageDragTest : public PageTest {
 protected:
  PageDragTest() {
    Attach();
    TellOfDocument();
    Input<rpc::MousePressRequest>(
        &Client::ForwardMousePress,
        "button: MOUSE_BUTTON_PRIMARY click_count: 1 "
        "pointer { position { x: 7 y: 8 } buttons: 1 }");
  }
  void Watch() {
    watching_ = host_->WhenDragCursorUpdated(
        browser_, [this](const rpc::DragCursorUpdated& event) {
          told_.push_back(event);
        });
    loop_.RunUntilIdle();
  }
  void BeginDrag(const Json& items = Json::array(), int mask = 17) {
    scripted_->ForgetCommands();
    Tell("Input.dragIntercepted", {{"data",
                                    {{"items", items},
                                     {"files", {"/etc/passwd"}},
                                     {"dragOperationsMask", mask}}}});
  }
  static Json Item(const std::string& value) {
    return {{"mimeType", "text/plain"}, {"data", value}};
  }
  std::vector<std::string> Sent() {
    std::vector<std::string> types;
    for (const Json& params : scripted_->Params("Input.dispatchDragEvent"))
      types.push_back(Text(params, "type"));
    scripted_->ForgetCommands();
    return types;
  }

  std::unique_ptr<orvane::ClientStream> watching_;
  std::vector<rpc::DragCursorUpdated> told_;
};

TEST_F(PageDragTest, OneThatNoHostWillDragIsEndedAtOnce) {
  BeginDrag();
  EXPECT_THAT(Sent(), ElementsAre("dragEnter", "dragOver", "dragCancel"));
  // The host learns that there is none.
  const Blocking<rpc::DragEndRequest> end = &Client::ForwardDragEnd;
  EXPECT_FALSE(Call<rpc::DragEndRequest>(end).ok());
}

TEST_F(PageDragTest, OneIsTheHostsToDrag) {
  Watch();
  BeginDrag();
  const Json enter = scripted_->Params("Input.dispatchDragEvent")[0];
  EXPECT_EQ(Number(enter, "x"), 7);
  EXPECT_EQ(Number(enter, "y"), 8);
  EXPECT_THAT(Sent(), ElementsAre("dragEnter", "dragOver"));
  ASSERT_THAT(told_, SizeIs(1));
  EXPECT_TRUE(told_[0].began_in_page());
  Report({{"kind", "drag"}, {"effect", "move"}});
  ASSERT_THAT(told_, SizeIs(2));
  EXPECT_TRUE(told_[1].began_in_page());
  EXPECT_EQ(told_[1].operation(), rpc::DRAG_OPERATION_MOVE);
  Input<rpc::DragOverRequest>(&Client::ForwardDragOver, "");
  EXPECT_THAT(Sent(), ElementsAre("dragOver", "dragOver"));
  Input<rpc::DragLeaveRequest>(&Client::ForwardDragLeave, "");
  EXPECT_THAT(Sent(), ElementsAre("dragOver"));
  Input<rpc::DragEnterRequest>(&Client::ForwardDragEnter, "");
  EXPECT_THAT(Sent(), ElementsAre("dragEnter", "dragOver"));
}

TEST_F(PageDragTest, ItsFirstEventTellsWhatIsDragged) {
  Watch();
  BeginDrag({Item("Ada"),
             {{"mimeType", "text/html"},
              {"data", "<b>Ada</b>"},
              {"baseURL", "https://a.example/"}},
             {{"mimeType", ""}, {"data", "of no type"}},
             "no item"});
  Report({{"kind", "drag"}, {"effect", "move"}});
  ASSERT_THAT(told_, SizeIs(2));
  EXPECT_EQ(told_[0].allowed_operations(), 17u);
  ASSERT_THAT(told_[0].items(), SizeIs(2));
  EXPECT_EQ(told_[0].items(0).text().mime_type(), "text/plain");
  EXPECT_EQ(told_[0].items(0).text().value(), "Ada");
  EXPECT_EQ(told_[0].items(1).text().mime_type(), "text/html");
  EXPECT_EQ(told_[0].items(1).text().value(), "<b>Ada</b>");
  EXPECT_EQ(told_[0].items(1).text().base_url(), "https://a.example/");
  EXPECT_THAT(told_[1].items(), IsEmpty());
  EXPECT_EQ(told_[1].allowed_operations(), 0u);
}

TEST_F(PageDragTest, AMaskThatIsNegativeAllowsAllOperations) {
  Watch();
  BeginDrag(Json::array({Item("Ada")}), -1);
  ASSERT_THAT(told_, SizeIs(1));
  EXPECT_EQ(told_[0].allowed_operations(), 1u + 2 + 16);
}

TEST_F(PageDragTest, WhatIsTooMuchIsDraggedInThePageAlone) {
  Watch();
  for (const Json::array_t& items :
       {Json::array_t(2, Item(std::string(1 << 20, 'a'))),
        Json::array_t(101, Item("a"))}) {
    told_.clear();
    BeginDrag(items);
    ASSERT_THAT(told_, SizeIs(1));
    EXPECT_TRUE(told_[0].began_in_page());
    EXPECT_THAT(told_[0].items(), IsEmpty());
    EXPECT_EQ(told_[0].allowed_operations(), 0u);
    Input<rpc::DragEndRequest>(&Client::ForwardDragEnd, "");
  }
  BeginDrag(Json::array_t(100, Item("a")));
  EXPECT_THAT(told_.back().items(), SizeIs(100));
}

TEST_F(PageDragTest, OneThatIsDroppedInThePageHasEnded) {
  Watch();
  BeginDrag();
  Sent();
  Input<rpc::DragDropRequest>(&Client::ForwardDragDrop, "");
  EXPECT_THAT(Sent(), ElementsAre("drop"));
  Input<rpc::DragEndRequest>(&Client::ForwardDragEnd,
                             "operation: DRAG_OPERATION_MOVE");
  EXPECT_THAT(Sent(), IsEmpty());
}

TEST_F(PageDragTest, OneThatIsDroppedNowhereIsCancelled) {
  Watch();
  BeginDrag();
  Sent();
  Input<rpc::DragEndRequest>(&Client::ForwardDragEnd, "");
  EXPECT_THAT(Sent(), ElementsAre("dragCancel"));
}

TEST_F(PageDragTest, OfOneThatIsDroppedElsewhereThePageLearnsTheOperation) {
  Watch();
  BeginDrag();
  Input<rpc::DragLeaveRequest>(&Client::ForwardDragLeave, "");
  Sent();
  Input<rpc::DragEndRequest>(&Client::ForwardDragEnd,
                             "operation: DRAG_OPERATION_MOVE");
  EXPECT_THAT(Scripts(), ElementsAre("orvaneAgent.takeDrops('move')",
                                     "orvaneAgent.takeDrops(null)"));
  EXPECT_THAT(Sent(), ElementsAre("dragEnter", "dragOver", "drop"));
}

TEST_F(PageDragTest, OneGoesWithItsView) {
  Watch();
  BeginDrag();
  Sent();
  EXPECT_TRUE(host_->Detach(browser_).ok());
  scripted_->Settle();
  EXPECT_THAT(Sent(), ElementsAre("dragOver", "dragCancel"));
}

// Cursor and tooltip

class PageReportsTest : public PageTest {
 protected:
  PageReportsTest() {
    Attach();
    TellOfDocument();
    Input<rpc::MouseEnterRequest>(&Client::ForwardMouseEnter, "");
    loop_.RunUntilIdle();
  }

  std::vector<rpc::CursorType> cursors_;
  std::vector<rpc::TooltipChanged> tooltips_;
  std::unique_ptr<orvane::ClientStream> cursor_stream_ =
      host_->WhenCursorChanged(browser_, [this](const auto& event) {
        cursors_.push_back(event.cursor().type());
      });
  std::unique_ptr<orvane::ClientStream> tooltip_stream_ =
      host_->WhenTooltipChanged(
          browser_, [this](const auto& event) { tooltips_.push_back(event); });
};

TEST_F(PageReportsTest, AnImageIsACursorOnceItIsThere) {
  std::vector<rpc::CursorChanged> events;
  cursor_stream_ = host_->WhenCursorChanged(
      browser_,
      [&](const rpc::CursorChanged& event) { events.push_back(event); });
  loop_.RunUntilIdle();
  scripted_->ReplyTo(
      "Runtime.evaluate",
      {{"result",
        {{"value",
          {{"width", 2},
           {"height", 1},
           {"pixels", absl::Base64Escape(std::string("\xff\x00\x00\x80"
                                                     "\x00\x00\x00\x00",
                                                     8))}}}}}});
  Report({{"kind", "cursor"},
          {"cursor", "pointer"},
          {"image", 3},
          {"x", 5},
          {"y", -1}});
  ASSERT_THAT(events, SizeIs(2));
  EXPECT_EQ(events[0].cursor().type(), rpc::CURSOR_TYPE_POINTER);
  EXPECT_EQ(events[1].cursor().type(), rpc::CURSOR_TYPE_CUSTOM);
  const rpc::CustomCursor& custom = events[1].cursor().custom();
  EXPECT_EQ(custom.image().size().width(), 2);
  EXPECT_EQ(custom.image().pixels().substr(0, 4),
            std::string("\x80\x00\x00\x80", 4));
  EXPECT_EQ(custom.hotspot().x(), 1);  // Inside the image.
  EXPECT_EQ(custom.hotspot().y(), 0);
  // It is fetched once.
  scripted_->ForgetCommands();
  Report({{"kind", "cursor"}, {"cursor", "pointer"}, {"image", 3}});
  EXPECT_THAT(Scripts(), IsEmpty());
}

TEST_F(PageReportsTest, AnImageThatIsNoneLeavesTheKeyword) {
  scripted_->ReplyTo("Runtime.evaluate", {{"result", {{"value", nullptr}}}});
  Report({{"kind", "cursor"}, {"cursor", "pointer"}, {"image", 3}});
  EXPECT_THAT(cursors_, ElementsAre(rpc::CURSOR_TYPE_POINTER));
}

TEST_F(PageReportsTest, EveryKeywordIsACursor) {
  Report({{"kind", "cursor"}, {"cursor", "pointer"}});
  Report({{"kind", "cursor"}, {"cursor", "nesw-resize"}});
  Report({{"kind", "cursor"}, {"cursor", "nesw-resize"}});  // No change.
  Report({{"kind", "cursor"}, {"cursor", "all-scroll"}});
  Report({{"kind", "cursor"}, {"cursor", "custom"}});
  EXPECT_THAT(
      cursors_,
      ElementsAre(rpc::CURSOR_TYPE_POINTER, rpc::CURSOR_TYPE_NESW_RESIZE,
                  rpc::CURSOR_TYPE_ALL_SCROLL, rpc::CURSOR_TYPE_DEFAULT));
}

TEST_F(PageReportsTest, ATooltipIsShownWhereItBelongsAndHidden) {
  Report({{"kind", "tooltip"},
          {"text", "Hello"},
          {"direction", "rtl"},
          {"anchor", {{"x", 1}, {"y", 2}, {"width", 3}, {"height", 4}}}});
  Report({{"kind", "tooltip"}, {"text", ""}});
  ASSERT_THAT(tooltips_, SizeIs(2));
  EXPECT_EQ(tooltips_[0].text(), "Hello");
  EXPECT_EQ(tooltips_[0].direction(), rpc::TEXT_DIRECTION_RIGHT_TO_LEFT);
  EXPECT_EQ(tooltips_[0].anchor().width(), 3);
  EXPECT_EQ(tooltips_[1].text(), "");
}

TEST_F(PageReportsTest, ATooltipIsToldOnce) {
  Report({{"kind", "tooltip"}, {"text", "Hello"}});
  Report({{"kind", "tooltip"}, {"text", "Hello"}});
  EXPECT_THAT(tooltips_, SizeIs(1));
}

TEST_F(PageReportsTest, ThePointerTakesTheTooltipWithIt) {
  Report({{"kind", "tooltip"}, {"text", "Hello"}});
  Input<rpc::MouseExitRequest>(&Client::ForwardMouseExit, "");
  ASSERT_THAT(tooltips_, SizeIs(2));
  EXPECT_EQ(tooltips_[1].text(), "");
}

TEST_F(PageReportsTest, WhatTheEnginesOwnPointerIsOverIsNotTold) {
  Input<rpc::MouseExitRequest>(&Client::ForwardMouseExit, "");
  Report({{"kind", "tooltip"}, {"text", "Hello"}});
  Report({{"kind", "cursor"}, {"cursor", "wait"}});
  EXPECT_THAT(tooltips_, IsEmpty());
  EXPECT_THAT(cursors_, IsEmpty());
}

TEST_F(PageReportsTest, ANewPageHidesTheTooltipOfTheOld) {
  Report({{"kind", "tooltip"}, {"text", "Hello"}});
  Tell("Page.frameNavigated",
       {{"frame", {{"id", "target"}, {"url", "https://a.example/"}}}});
  ASSERT_THAT(tooltips_, SizeIs(2));
  EXPECT_EQ(tooltips_[1].text(), "");
}

TEST_F(PageReportsTest, ACrashHidesTheTooltipAndResetsTheCursor) {
  Report({{"kind", "tooltip"}, {"text", "Hello"}});
  Report({{"kind", "cursor"}, {"cursor", "wait"}});
  Tell("Inspector.targetCrashed");
  EXPECT_THAT(cursors_,
              ElementsAre(rpc::CURSOR_TYPE_WAIT, rpc::CURSOR_TYPE_DEFAULT));
  EXPECT_THAT(tooltips_, SizeIs(2));
}

// Drop-downs

class PageListsTest : public PageReportsTest {
 protected:
  void Serve() {
    serving_ = host_->OnShowDropdown(
        browser_, [this](const rpc::ShowDropdownCall& call,
                         orvane::Responder<rpc::ShowDropdown> responder) {
          calls_.push_back(call);
          responders_.push_back(std::move(responder));
        });
    loop_.RunUntilIdle();
  }
  void OpenList() {
    Report({{"kind", "list"},
            {"list", 4},
            {"anchor", {{"x", 1}, {"y", 2}, {"width", 3}, {"height", 4}}},
            {"fontSize", 13.5},
            {"items",
             {{{"type", "option"}, {"label", "One"}},
              {{"type", "group"}, {"label", "G"}},
              {{"type", "option"},
               {"label", "Two"},
               {"group", 1},
               {"selected", true}},
              {{"type", "option"}, {"disabled", true}}}}});
  }
  void Answer(const std::string& text) {
    EXPECT_TRUE(
        std::move(responders_.at(0))
            .Respond(orvane::testing::Parsed<rpc::ShowDropdownResponse>(text))
            .ok());
    scripted_->ForgetCommands();
    scripted_->Settle();
  }

  std::vector<std::uint64_t> created_;
  std::vector<std::uint64_t> deleted_;
  std::unique_ptr<orvane::ClientStream> created_stream_ =
      host_->WhenDropDownCreated(browser_, [this](const auto& event) {
        created_.push_back(event.popup_id());
      });
  std::unique_ptr<orvane::ClientStream> deleted_stream_ =
      host_->WhenDropDownDeleted(browser_, [this](const auto& event) {
        deleted_.push_back(event.popup_id());
      });
  std::unique_ptr<orvane::ClientStream> serving_;
  std::vector<rpc::ShowDropdownCall> calls_;
  std::vector<orvane::Responder<rpc::ShowDropdown>> responders_;
};

TEST_F(PageListsTest, AListThatNobodyServesIsDrawnInThePage) {
  scripted_->ForgetCommands();
  OpenList();
  EXPECT_THAT(Scripts(), ElementsAre("orvaneAgent.drawList(4)"));
  EXPECT_THAT(created_, IsEmpty());
}

TEST_F(PageListsTest, TheHostsChoiceIsThePages) {
  Serve();
  OpenList();
  ASSERT_THAT(calls_, SizeIs(1));
  EXPECT_EQ(calls_[0].anchor().width(), 3);
  EXPECT_EQ(calls_[0].font_size_dip(), 13.5);
  ASSERT_EQ(calls_[0].items_size(), 4);
  EXPECT_EQ(calls_[0].items(1).type(), rpc::DROP_DOWN_ITEM_TYPE_GROUP);
  EXPECT_EQ(calls_[0].items(2).group_index(), 1u);
  EXPECT_EQ(calls_[0].selected_index(), 2u);
  EXPECT_THAT(created_, ElementsAre(calls_[0].popup_id()));
  EXPECT_THAT(deleted_, IsEmpty());
  Answer("accepted: true selected_indices: 0");
  EXPECT_THAT(Scripts(), ElementsAre("orvaneAgent.chooseFromList(4, 0)"));
  EXPECT_EQ(deleted_, created_);
}

TEST_F(PageListsTest, InputThatFollowsAChoiceWaitsUntilThePageHasIt) {
  Serve();
  OpenList();
  scripted_->NeverReplyTo("Runtime.evaluate");
  Answer("accepted: true selected_indices: 0");
  ASSERT_THAT(Scripts(), ElementsAre("orvaneAgent.chooseFromList(4, 0)"));
  Click();
  EXPECT_THAT(scripted_->Params("Input.dispatchMouseEvent"), IsEmpty());
  EndScript("result", Json::object());
  EXPECT_THAT(scripted_->Params("Input.dispatchMouseEvent"), SizeIs(2));
}

TEST_F(PageListsTest, WhatCannotBeChosenIsNot) {
  for (const char* const answer :
       {"accepted: true selected_indices: 1",
        "accepted: true selected_indices: 3",
        "accepted: true selected_indices: 4", "accepted: true",
        "accepted: true selected_indices: 0 selected_indices: 2",
        "accepted: false selected_indices: 0"}) {
    Serve();
    OpenList();
    Answer(answer);
    EXPECT_THAT(Scripts(), ElementsAre("orvaneAgent.chooseFromList(4, null)"))
        << answer;
    responders_.clear();
  }
  EXPECT_EQ(deleted_, created_);
}

TEST_F(PageListsTest, AListGoesWithItsPage) {
  Serve();
  for (int i = 0; i < 3; ++i) {
    OpenList();
    if (i == 0) Tell("Inspector.targetCrashed");
    if (i == 1) Report({{"kind", "listGone"}});
    if (i == 2) {
      EXPECT_TRUE(host_->Detach(browser_).ok());
    }
    TellOfDocument();
  }
  EXPECT_THAT(created_, SizeIs(3));
  EXPECT_EQ(deleted_, created_);
}

// Drags

TEST_F(PageReportsTest, TheHostLearnsWhatADropWouldDo) {
  std::vector<rpc::DragOperation> operations;
  const auto watching = host_->WhenDragCursorUpdated(
      browser_,
      [&](const auto& event) { operations.push_back(event.operation()); });
  Input<rpc::DragEnterRequest>(
      &Client::ForwardDragEnter,
      "items { text { mime_type: 'text/plain' value: 'v' } }"
      " items { file { path: '/nowhere' } } allowed_operations: 1"
      " position { x: 5 y: 6 }");
  Report({{"kind", "drag"}, {"effect", "copy"}});
  Report({{"kind", "drag"}, {"effect", "copy"}});
  Report({{"kind", "drag"}, {"effect", "move"}});  // Not allowed.
  Input<rpc::DragDropRequest>(&Client::ForwardDragDrop,
                              "allowed_operations: 1");
  Report({{"kind", "drag"}, {"effect", "copy"}});  // Late.
  EXPECT_THAT(operations, ElementsAre(rpc::DRAG_OPERATION_COPY,
                                      rpc::DRAG_OPERATION_UNSPECIFIED));
  const auto sent = scripted_->Params("Input.dispatchDragEvent");
  ASSERT_THAT(sent, SizeIs(3));
  EXPECT_EQ(Text(sent[0], "type"), "dragEnter");
  EXPECT_EQ(Member(sent[0], "data"),
            (Json{{"items", {{{"mimeType", "text/plain"}, {"data", "v"}}}},
                  {"files", Json::array()},
                  {"dragOperationsMask", 1}}));
  EXPECT_EQ(Text(sent[1], "type"), "dragOver");
  EXPECT_EQ(Text(sent[2], "type"), "drop");
}

TEST_F(PageReportsTest, ADragThatLeavesIsCancelledOutside) {
  Input<rpc::DragEnterRequest>(&Client::ForwardDragEnter, "");
  scripted_->ForgetCommands();
  Input<rpc::DragLeaveRequest>(&Client::ForwardDragLeave, "");
  const auto sent = scripted_->Params("Input.dispatchDragEvent");
  ASSERT_THAT(sent, SizeIs(2));
  EXPECT_LT(Number(sent[0], "x"), 0);
  EXPECT_EQ(Text(sent[1], "type"), "dragCancel");
}

// Accessibility

TEST_F(PageReportsTest, LiveRegionsAreToldOnceAccessibilityIsOn) {
  std::vector<rpc::AriaLiveRegionChanged> events;
  const auto watching = host_->WhenAriaLiveRegionChanged(
      browser_, [&](const auto& event) { events.push_back(event); });
  const Json report = {{"kind", "live"},         {"region", 2},
                       {"text", "Hi"},           {"politeness", "assertive"},
                       {"relevant", "removals"}, {"language", "fr"}};
  Report(report);
  EXPECT_THAT(events, IsEmpty());
  scripted_->ForgetCommands();
  EXPECT_TRUE(host_->GetAccessibilityToken(browser_)->token().empty());
  scripted_->Settle();
  EXPECT_THAT(Scripts(), ElementsAre("orvaneAgent.turnAccessibilityOn()"));
  Report(report);
  ASSERT_THAT(events, SizeIs(1));
  EXPECT_NE(events[0].region_id(), 0u);
  EXPECT_EQ(events[0].text(), "Hi");
  EXPECT_EQ(events[0].politeness(), rpc::ARIA_LIVE_POLITENESS_ASSERTIVE);
  EXPECT_EQ(events[0].relevant(), rpc::ARIA_RELEVANT_FLAG_REMOVALS);
  EXPECT_EQ(events[0].language(), "fr");
}

TEST_F(PageReportsTest, TheAccessibleFocusIsOfferedOneAtATime) {
  std::vector<double> places;
  const auto serving = host_->OnAccessibilityRequestFocus(
      browser_, [&](const rpc::AccessibilityRequestFocusCall& call,
                    orvane::Responder<rpc::AccessibilityRequestFocus> answer) {
        places.push_back(call.bounds().x());
        EXPECT_TRUE(std::move(answer).Respond({}).ok());
      });
  EXPECT_TRUE(host_->GetAccessibilityToken(browser_).ok());
  Report({{"kind", "focus"}, {"place", {{"x", 1}}}});
  Report({{"kind", "focus"}, {"place", {{"x", 2}}}});
  EXPECT_THAT(places, ElementsAre(1, 2));
}

TEST_F(PageReportsTest, WhatAPageMakesUpHurtsNobody) {
  Report("text");
  Report(Json::array({1, 2}));
  Report({{"kind", 7}});
  Report({{"kind", "cursor"}, {"cursor", {{"a", 1}}}});
  Report({{"kind", "tooltip"}, {"text", "T"}, {"anchor", {{"x", "?"}}}});
  Report({{"kind", "cursor"}, {"cursor", "wait"}}, /*context=*/99);
  Tell("Runtime.bindingCalled", {{"payload", "{"}, {"executionContextId", 5}});
  EXPECT_THAT(cursors_, IsEmpty());
  ASSERT_THAT(tooltips_, SizeIs(1));
  EXPECT_EQ(tooltips_[0].anchor().x(), 0);
}

}  // namespace
}  // namespace chromium
