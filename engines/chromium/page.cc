#include "engines/chromium/page.h"

#include <algorithm>
#include <utility>

#include "absl/log/log.h"
#include "absl/strings/ascii.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_replace.h"
#include "absl/strings/str_split.h"
#include "absl/strings/string_view.h"

#include "engines/chromium/bitmap.h"
#include "engines/chromium/page_script.h"
#include "engines/chromium/view_geometry.h"
#include "zimbrel/src/core/common/rpc/printable.h"

namespace chromium {
namespace {

// What our script's world and the function through which it reports are called.
constexpr char kWorld[] = "orvane";
constexpr char kReport[] = "orvaneReport";
constexpr char kAddScript[] = "Page.addScriptToEvaluateOnNewDocument";

// A page can have any number of documents.
constexpr std::size_t kMaxWorlds = 2000;

// The engine merges what it has not drawn yet, so more would only wait.
constexpr int kMaxUnansweredMoves = 32;

// That wait for their turn, which a page that hangs keeps from coming.
constexpr std::size_t kMaxSteps = 1000;

// As our script does. The protocol's limit is twice that.
constexpr int kMaxCursorSide = 128;
constexpr std::size_t kMaxCursorImages = 64;

constexpr absl::Duration kLookInterval = absl::Milliseconds(100);

// How long the engine may take to draw a new size before it is asked again. The
// time doubles up to the longer one, since a slow engine is slow to begin
// again, too.
constexpr absl::Duration kPictureTime = absl::Milliseconds(500);
constexpr absl::Duration kLongPictureTime = absl::Seconds(8);

// After which a page that has not reacted to input counts as unresponsive.
constexpr absl::Duration kInputTime = absl::Seconds(5);

// Of a script that a host runs.
constexpr std::uint32_t kUsualScriptMs = 5000;
constexpr std::uint32_t kMaxScriptMs = 60'000;
// Beyond that, for the engine to end it.
constexpr absl::Duration kScriptGrace = absl::Seconds(1);

constexpr std::uint32_t kTabCode = 9;
constexpr int kShift = 8;  // Of the engine's modifiers.

BrowserId IdOf(std::uint64_t browser) {
  BrowserId id;
  id.set_value(browser);
  return id;
}

bool IsTab(const rpc::Key& key) {
  return key.key() == "Tab" || key.windows_key_code() == kTabCode;
}

rpc::CursorType CursorOf(const std::string& keyword) {
  const std::string name = absl::StrCat(
      "CURSOR_TYPE_",
      absl::AsciiStrToUpper(absl::StrReplaceAll(keyword, {{"-", "_"}})));
  rpc::CursorType type = rpc::CURSOR_TYPE_DEFAULT;
  if (!rpc::CursorType_Parse(name, &type) || type == rpc::CURSOR_TYPE_CUSTOM ||
      type == rpc::CURSOR_TYPE_UNSPECIFIED) {
    return rpc::CURSOR_TYPE_DEFAULT;
  }
  return type;
}

// The value of an evaluated script.
bool IsTrue(const absl::StatusOr<Json>& answer) {
  return answer.ok() && Flag(Member(*answer, "result"), "value");
}

rpc::AriaLivePoliteness PolitenessOf(const std::string& politeness) {
  if (politeness == "assertive") return rpc::ARIA_LIVE_POLITENESS_ASSERTIVE;
  if (politeness == "polite") return rpc::ARIA_LIVE_POLITENESS_POLITE;
  return rpc::ARIA_LIVE_POLITENESS_OFF;
}

// The flags of an aria-relevant attribute; ARIA's default without one.
std::uint32_t RelevantOf(const std::string& tokens) {
  std::uint32_t flags = 0;
  for (const absl::string_view token :
       absl::StrSplit(tokens, ' ', absl::SkipEmpty())) {
    if (token == "additions" || token == "all")
      flags |= rpc::ARIA_RELEVANT_FLAG_ADDITIONS;
    if (token == "removals" || token == "all")
      flags |= rpc::ARIA_RELEVANT_FLAG_REMOVALS;
    if (token == "text" || token == "all")
      flags |= rpc::ARIA_RELEVANT_FLAG_TEXT;
  }
  return flags != 0
             ? flags
             : rpc::ARIA_RELEVANT_FLAG_ADDITIONS | rpc::ARIA_RELEVANT_FLAG_TEXT;
}

// Of a script that a host has run.
rpc::EvaluateResponse OutcomeOf(const Json& answer) {
  rpc::EvaluateResponse outcome;
  const Json& thrown = Member(answer, "exceptionDetails");
  if (thrown.is_null()) {
    outcome.set_json(PrintJson(Member(Member(answer, "result"), "value")));
    return outcome;
  }
  const std::string& description =
      Text(Member(thrown, "exception"), "description");
  const Json& value = Member(Member(thrown, "exception"), "value");
  outcome.set_exception(!description.empty() ? description
                        : !value.is_null()   ? PrintJson(value)
                                             : Text(thrown, "text"));
  return outcome;
}

Json OurScript() {
  return {
      {"source", kPageScript}, {"worldName", kWorld}, {"runImmediately", true}};
}

}  // namespace

Page::Page(const Context& context, std::uint64_t browser, std::string address,
           rpc::BrowserWidgetRpc* service)
    : loop_(context.loop),
      engine_(context.engine),
      addresses_(context.addresses),
      browser_(IdOf(browser)),
      service_(service),
      dialogs_(browser_, service,
               [this](absl::string_view session, absl::string_view method,
                      Json params, orvane::OnAnswer<Json> on_answer) {
                 engine_->Call(session, method, std::move(params),
                               std::move(on_answer));
               }),
      drop_downs_(browser_, service),
      drags_(
          browser_, service,
          [this](Json params) {
            SendInput("Input.dispatchDragEvent", std::move(params));
          },
          [this](const std::string& effect, orvane::Task drop) {
            DropSilently(effect, std::move(drop));
          }),
      navigation_(
          loop_, browser_, std::move(address), addresses_, context.page_service,
          {.send =
               [this](absl::string_view method, Json params,
                      orvane::OnAnswer<Json> on_answer,
                      orvane::CallOptions options) {
                 Send(method, std::move(params), std::move(on_answer), options);
               },
           .has_dialog = [this] { return dialogs_.is_open(); },
           .replace = [this] { engine_->Replace(this); }}),
      downloads_(
          loop_, browser_, context.downloads, context.page_service,
          [this](const std::string& guid) {
            engine_->Call("", "Browser.cancelDownload", {{"guid", guid}});
          }),
      pictures_(
          loop_, browser_, service,
          [this](std::int64_t number) {
            Send("Page.screencastFrameAck", {{"sessionId", number}});
          },
          [this] {
            if (picture_timer_ == nullptr) ExpectPicture();
          }) {
  picture_time_ = kPictureTime;
  engine_->Add(this);
}

Page::~Page() { engine_->Remove(this); }

void Page::Send(absl::string_view method, Json params,
                orvane::OnAnswer<Json> on_answer, orvane::CallOptions options) {
  if (!target_.has_value()) return;
  if (!on_answer) {
    engine_->Call(target_->session, method, std::move(params));
    return;
  }
  engine_->Call(
      target_->session, method, std::move(params),
      [this, session = target_->session, on_answer = std::move(on_answer),
       alive =
           std::weak_ptr<bool>(alive_)](absl::StatusOr<Json> answer) mutable {
        if (alive.expired() || !target_.has_value()) return;
        if (target_->session == session)
          std::move(on_answer)(std::move(answer));
      },
      options);
}

void Page::Run(absl::string_view script, orvane::OnAnswer<Json> on_answer) {
  if (!target_.has_value()) return;
  const auto world =
      std::find_if(worlds_.begin(), worlds_.end(), [&](const auto& entry) {
        return entry.first.session == target_->session &&
               entry.second.frame == target_->id;
      });
  if (world == worlds_.end()) {
    if (on_answer)
      std::move(on_answer)(absl::NotFoundError("there is no document yet"));
    return;
  }
  Send("Runtime.evaluate",
       {{"expression", script},
        {"contextId", world->first.context},
        {"returnByValue", true}},
       std::move(on_answer));
}

void Page::RunIn(const World& world, absl::string_view script,
                 orvane::OnAnswer<Json> on_answer,
                 orvane::CallOptions options) {
  engine_->Call(world.session, "Runtime.evaluate",
                {{"expression", script}, {"contextId", world.context}},
                std::move(on_answer), options);
}

void Page::RunInAll(absl::string_view script) {
  for (const auto& [world, document] : worlds_) RunIn(world, script);
}

// The target

void Page::OnTarget(const Target& target) {
  target_ = target;
  SetUpSession(target.session);
  Send("Inspector.enable");
  Send("Input.setInterceptDrags", {{"enabled", true}});
  // Before the first navigation. Begun during one it would send nothing.
  StartScreencast();
  UpdateScreen();
  UpdateWindow();
  // A document that is there before the script would not be noticed.
  Send(kAddScript, OurScript(),
       [this](const absl::StatusOr<Json>&) { navigation_.Begin(target_->id); });
}

void Page::StartScreencast() {
  // Without the last frame, a page that stands still after some quick changes
  // would be seen in an old state.
  Send("Page.startScreencast",
       {{"format", "png"}, {"maxFramesInFlight", 2}, {"sendLastFrame", true}},
       [this](const absl::StatusOr<Json>&) {
         // Begun while the page goes elsewhere, it sends nothing.
         pictures_.Await();
       });
}

void Page::SetUpSession(const std::string& session) {
  const auto send = [&](absl::string_view method,
                        Json params = Json::object()) {
    engine_->Call(session, method, std::move(params));
  };
  send("Page.enable");
  send("Runtime.enable");
  send("DOM.enable");
  send("Runtime.addBinding",
       {{"name", kReport}, {"executionContextName", kWorld}});
  send("Page.setInterceptFileChooserDialog", {{"enabled", true}});
  Json patterns = Json::array();
  for (const std::string& pattern : addresses_->PatternsToCheck())
    patterns.push_back({{"urlPattern", pattern}});
  send("Fetch.enable", {{"patterns", std::move(patterns)}});
  send("Target.setAutoAttach", {{"autoAttach", true},
                                {"waitForDebuggerOnStart", false},
                                {"flatten", true},
                                {"filter", {{{"type", "iframe"}}}}});
}

void Page::OnTargetLost() {
  target_.reset();
  ForgetProcess();
  pictures_.Reset();
  navigation_.End();
  downloads_.Reset();
  is_drawn_ = false;
  newest_move_.reset();
  fingers_ = Fingers();
  held_buttons_.clear();
  held_fingers_.clear();
  native_input_.ForgetHeld();
  look_timer_.reset();
  picture_timer_.reset();
}

absl::Status Page::CheckTakesInput() const {
  if (target_.has_value() && steps_.size() < kMaxSteps) return absl::OkStatus();
  return absl::UnavailableError(absl::StrCat(
      "browser ", browser_.value(), " takes no input now: ",
      target_.has_value() ? "its page does not answer"
                          : "its engine has ended and is being started again"));
}

// The view

void Page::SetViewport(const widget_server::Viewport& viewport) {
  const widget_server::Viewport old = std::exchange(viewport_, viewport);
  if (old.is_attached && !viewport_.is_attached) {
    newest_move_.reset();
    DropWaitingInput();
    LiftAll();
    if (std::exchange(is_pointer_inside_, false)) SendMouse(MouseGone());
    ForgetDocument();
    cursor_ = {};  // The host has gone back to the default by itself.
  }
  if (!old.is_accessibility_on && viewport_.is_accessibility_on)
    RunInAll("orvaneAgent.turnAccessibilityOn()");
  if (ScreenOf(old) != ScreenOf(viewport_)) {
    UpdateScreen();
    is_placed_ = false;
  }
  if (WindowPlaceOf(old) != WindowPlaceOf(viewport_)) is_placed_ = false;
  UpdateWindow();
  if (old.has_focus && !viewport_.has_focus) LeavePage();
}

void Page::LiftAll() {
  LiftHeld();
  fingers_ = Fingers();
  native_input_.ForgetHeld();
  drags_.Cancel();
}

void Page::LiftHeld() {
  for (const std::string& button : std::exchange(held_buttons_, {})) {
    Json release = MouseReleased(rpc::MouseReleaseRequest());
    release["button"] = button;
    SendMouse(std::move(release));
  }
  if (!std::exchange(held_fingers_, {}).empty()) {
    SendInput("Input.dispatchTouchEvent",
              {{"type", "touchCancel"}, {"touchPoints", Json::array()}});
  }
}

void Page::UpdateScreen() {
  if (!target_.has_value()) return;
  Json screen = ScreenOf(viewport_);
  screen["screenId"] = target_->screen;
  screen["left"] = target_->screen_left;
  screen["top"] = 0;
  Send("Emulation.updateScreen", std::move(screen));
}

void Page::UpdateWindow() {
  if (!target_.has_value()) return;
  if (is_drawn_ && !viewport_.is_drawn_off_screen) {
    is_drawn_ = false;
    SetWindowState("minimized");
    pictures_.Rest();
    HideTooltip();
  } else if (!is_drawn_ && viewport_.is_drawn_off_screen) {
    is_drawn_ = true;
    is_placed_ = false;  // Minimised windows cannot be placed.
    pictures_.ForgetShown();
    SetWindowState("normal");
    PlaceWindow();
    // To show a window gives it the focus.
    if (!viewport_.has_focus) LeavePage();
  } else if (is_drawn_ && !is_placed_) {
    PlaceWindow();
  }
}

void Page::SetWindowState(const char* state) {
  Send("Browser.setWindowBounds",
       {{"windowId", target_->window}, {"bounds", {{"windowState", state}}}});
}

void Page::PlaceWindow() {
  is_placed_ = true;
  const WindowPlace place = WindowPlaceOf(viewport_);
  const double scale = ScaleOf(viewport_);
  pictures_.SetSize(PixelsOf(place.width, scale), PixelsOf(place.height, scale),
                    scale);
  SendPlace();
  picture_time_ = kPictureTime;
  ExpectPicture();
}

void Page::SendPlace() {
  const WindowPlace place = WindowPlaceOf(viewport_);
  Send("Browser.setWindowBounds",
       {{"windowId", target_->window},
        {"bounds",
         {{"left", target_->screen_left + std::max(place.left, 0)},
          {"top", std::max(place.top, 0)},
          {"width", place.width},
          {"height", place.height}}}});
}

// A page can resize its window, of which nobody tells, and now and then the
// engine sends no picture after a change of size. Both are put right.
void Page::ExpectPicture() {
  picture_timer_ = loop_->RunAfter(picture_time_, [this] {
    picture_timer_.reset();
    if (!target_.has_value() || !is_drawn_) return;
    const WindowPlace place = WindowPlaceOf(viewport_);
    if (pictures_.is_current() || place.width == 0 || place.height == 0) {
      picture_time_ = kPictureTime;
      return;
    }
    if (picture_time_ < kLongPictureTime) {
      picture_time_ *= 2;
      if (picture_time_ >= kLongPictureTime)
        LOG(WARNING) << "browser " << browser_.value() << " sends no pictures";
    }
    SetWindowState("normal");
    SendPlace();
    Send("Page.stopScreencast");
    StartScreencast();
    ExpectPicture();
  });
}

// The focus

void Page::Focus(const rpc::FocusRequest& event) {
  switch (event.reason()) {
    case rpc::FOCUS_REASON_MOUSE:
      return;  // The press that follows focuses what it hits.
    case rpc::FOCUS_REASON_TAB:
      EnterPageByTab(0);
      return;
    case rpc::FOCUS_REASON_BACK_TAB:
      EnterPageByTab(kShift);
      return;
    default:
      EnterPage();
  }
}

void Page::EnterPage() {
  AddScript([this] {
    Run("orvaneAgent.come()",
        [this](const absl::StatusOr<Json>&) { EndStep(); });
  });
}

void Page::EnterPageByTab(int modifiers) {
  AddScript([this, modifiers] {
    Run(modifiers == 0 ? "orvaneAgent.expectTab()"
                       : "orvaneAgent.expectBackTab()",
        [this, modifiers](const absl::StatusOr<Json>& expected) {
          if (!expected.ok()) {
            EndStep();
            return;
          }
          SendTab(modifiers, [this](const absl::StatusOr<Json>&) {
            Run("orvaneAgent.haveTabbed()",
                [this](const absl::StatusOr<Json>&) { EndStep(); });
          });
        });
  });
}

void Page::LeavePage() {
  AddScript([this] {
    if (!is_drawn_) {
      EndStep();
      return;
    }
    Run("orvaneAgent.leave()", [this](const absl::StatusOr<Json>& left) {
      if (absl::IsNotFound(left.status())) {
        EndStep();
        return;
      }
      const auto finish = [this](const absl::StatusOr<Json>&) {
        Run("orvaneAgent.left()",
            [this](const absl::StatusOr<Json>&) { EndStep(); });
      };
      // A page that does not answer, as in a dialog, may still run that script,
      // and gets the one that takes its effects back. But the Tab in between
      // would be the page's own.
      left.ok() ? SendTab(0, finish) : finish(left);
    });
  });
}

void Page::LeavePageUnlessFocused() {
  if (!is_drawn_ || viewport_.has_focus) return;
  Run("orvaneAgent.hasFocus()", [this](const absl::StatusOr<Json>& answer) {
    if (IsTrue(answer) && !viewport_.has_focus) LeavePage();
  });
}

void Page::SendTab(int modifiers, orvane::OnAnswer<Json> on_answer) {
  Json key = {{"type", "rawKeyDown"},
              {"key", "Tab"},
              {"code", "Tab"},
              {"windowsVirtualKeyCode", kTabCode},
              {"modifiers", modifiers}};
  Send("Input.dispatchKeyEvent", key);
  key["type"] = "keyUp";
  Send("Input.dispatchKeyEvent", std::move(key), std::move(on_answer));
}

void Page::OfferFocus(rpc::FocusDirection direction) {
  if (is_focus_offered_ || !viewport_.has_focus) return;
  is_focus_offered_ = true;
  rpc::TakeFocusCall call;
  call.set_direction(direction);
  service_->OnTakeFocus()(
      browser_, std::move(call),
      [this, direction, alive = std::weak_ptr<bool>(alive_)](
          const absl::StatusOr<rpc::TakeFocusResponse>& answer) {
        if (alive.expired()) return;
        is_focus_offered_ = false;
        if (answer.ok() && answer->taken()) return;
        EnterPageByTab(direction == rpc::FOCUS_DIRECTION_BACKWARD ? kShift : 0);
      },
      {});
}

// Input

void Page::AddStep(Step step) {
  steps_.push_back(std::move(step));
  BeginSteps();
}

void Page::BeginSteps() {
  if (std::exchange(is_beginning_steps_, true)) return;
  while (step_ == StepKind::kNone && !steps_.empty() && !has_dialog_ &&
         !navigation_.state().is_unresponsive()) {
    if (steps_.front().kind == StepKind::kScript && unanswered_->moves > 0)
      break;
    Step next = std::move(steps_.front());
    steps_.pop_front();
    step_ = next.kind;
    std::move(next.begin)();
  }
  is_beginning_steps_ = false;
  SendNewestMove();
}

void Page::EndStep() {
  step_ = StepKind::kNone;
  BeginSteps();
}

void Page::AddScript(orvane::Task begin) {
  // As input is refused then.
  if (!target_.has_value() || steps_.size() >= kMaxSteps) return;
  AddStep({StepKind::kScript, std::move(begin)});
}

void Page::DropWaitingInput() {
  const auto dropped = std::erase_if(
      steps_, [](const Step& step) { return step.kind == StepKind::kInput; });
  // A release may have been among it.
  if (dropped > 0) LiftHeld();
}

void Page::NoteHeld(const Json& input) {
  const std::string& type = Text(input, "type");
  if (type == "mousePressed") held_buttons_.insert(Text(input, "button"));
  if (type == "mouseReleased") held_buttons_.erase(Text(input, "button"));
  for (const Json& point : List(input, "touchPoints")) {
    const auto finger = static_cast<int>(Number(point, "id"));
    if (type == "touchStart") held_fingers_.insert(finger);
    if (type == "touchEnd") held_fingers_.erase(finger);
  }
  if (type == "touchCancel") held_fingers_.clear();
}

void Page::SendInput(const char* method, Json params,
                     orvane::OnAnswer<Json> on_answer) {
  AddStep({StepKind::kInput, [this, method, params = std::move(params),
                              on_answer = std::move(on_answer)]() mutable {
             NoteHeld(params);
             Send(method, std::move(params),
                  [this, sent = unanswered_, on_answer = std::move(on_answer)](
                      absl::StatusOr<Json> answer) mutable {
                    const bool is_present = sent == unanswered_;
                    if (is_present) TakeInputsAnswer(answer.status());
                    if (on_answer) std::move(on_answer)(std::move(answer));
                    if (is_present) EndStep();
                  },
                  {.timeout = kInputTime});
           }});
}

void Page::TakeInputsAnswer(const absl::Status& status) {
  // A page that waits for its dialog answers nothing, nor does one that is not
  // drawn.
  if (!absl::IsDeadlineExceeded(status) || has_dialog_ || !is_drawn_ ||
      navigation_.state().is_unresponsive()) {
    return;
  }
  navigation_.SetUnresponsive(true);
  // Answered as soon as the page responds, or goes.
  Send("Runtime.evaluate", {{"expression", "0"}},
       [this](const absl::StatusOr<Json>&) {
         navigation_.SetUnresponsive(false);
         BeginSteps();
       },
       {.timeout = absl::InfiniteDuration()});
}

// Keys

void Page::KeyPress(const rpc::KeyPressRequest& event) {
  if (IsTab(event.key())) {
    tab_direction_ = (event.input().modifiers() & rpc::MODIFIER_FLAG_SHIFT) != 0
                         ? rpc::FOCUS_DIRECTION_BACKWARD
                         : rpc::FOCUS_DIRECTION_FORWARD;
  }
  SendInput("Input.dispatchKeyEvent", KeyDown(event));
}

void Page::KeyRelease(const rpc::KeyReleaseRequest& event) {
  if (!IsTab(event.key())) {
    SendInput("Input.dispatchKeyEvent", KeyUp(event));
    return;
  }
  SendInput("Input.dispatchKeyEvent", KeyUp(event),
            [this, direction = tab_direction_](const absl::StatusOr<Json>&) {
              Run("orvaneAgent.hasFocus()",
                  [this, direction](const absl::StatusOr<Json>& answer) {
                    if (answer.ok() && !IsTrue(answer)) OfferFocus(direction);
                  });
            });
}

void Page::KeyType(const rpc::KeyTypeRequest& event) {
  if (event.is_system_key()) return;
  if (event.has_key()) {
    SendInput("Input.dispatchKeyEvent", KeyText(event));
  } else {
    SendInput("Input.insertText", {{"text", std::string(event.text())}});
  }
}

// The mouse

void Page::MousePress(const rpc::MousePressRequest& event) {
  pointer_ = event.pointer().position();
  SendMouse(MousePressed(event));
}

void Page::MouseRelease(const rpc::MouseReleaseRequest& event) {
  pointer_ = event.pointer().position();
  SendMouse(MouseReleased(event));
  // The press has given the page the focus, which is the host's to give.
  if (!viewport_.has_focus && event.pointer().buttons() == 0) LeavePage();
}

void Page::MouseEnter(const rpc::MouseEnterRequest& event) {
  pointer_ = event.pointer().position();
  is_pointer_inside_ = true;
  SendMove(MouseMoved(event.pointer(), event.input()));
}

void Page::MouseExit(const rpc::MouseExitRequest&) {
  is_pointer_inside_ = false;
  HideTooltip();
  SendMouse(MouseGone());
}

void Page::MouseDrag(const rpc::MouseDragRequest& event) {
  pointer_ = event.pointer().position();
  SendMove(MouseMoved(event.pointer(), event.input()));
}

void Page::MouseMove(const rpc::MouseMoveRequest& event) {
  pointer_ = event.pointer().position();
  is_pointer_inside_ = true;
  SendMove(MouseMoved(event.pointer(), event.input()));
}

void Page::MouseWheel(const rpc::MouseWheelRequest& event) {
  if (std::optional<Json> wheel =
          chromium::MouseWheel(event, viewport_.height)) {
    SendMouse(*std::move(wheel));
  }
}

void Page::SendMouse(Json command) {
  if (newest_move_.has_value()) {
    SendInput("Input.dispatchMouseEvent",
              *std::exchange(newest_move_, std::nullopt));
  }
  SendInput("Input.dispatchMouseEvent", std::move(command));
}

void Page::SendMove(Json command) {
  newest_move_ = std::move(command);
  SendNewestMove();
}

void Page::SendNewestMove() {
  // It must not overtake what was asked for before.
  if (!newest_move_.has_value() || !steps_.empty() ||
      step_ == StepKind::kScript || has_dialog_ ||
      unanswered_->moves == kMaxUnansweredMoves) {
    return;
  }
  ++unanswered_->moves;
  Send("Input.dispatchMouseEvent", *std::exchange(newest_move_, std::nullopt),
       [this, sent = unanswered_](const absl::StatusOr<Json>&) {
         --sent->moves;
         BeginSteps();
       });
}

// Touch

void Page::TouchStart(const rpc::TouchStartRequest& event) {
  if (auto command = fingers_.Start(event.changed_points(), event.input()))
    SendInput("Input.dispatchTouchEvent", *std::move(command));
}

void Page::TouchMove(const rpc::TouchMoveRequest& event) {
  if (auto command = fingers_.Move(event.changed_points(), event.input()))
    SendInput("Input.dispatchTouchEvent", *std::move(command));
}

void Page::TouchEnd(const rpc::TouchEndRequest& event) {
  if (auto command = fingers_.End(event.changed_points(), event.input()))
    SendInput("Input.dispatchTouchEvent", *std::move(command));
}

void Page::TouchCancel(const rpc::TouchCancelRequest& event) {
  if (auto command = fingers_.Cancel(event.changed_points()))
    SendInput("Input.dispatchTouchEvent", *std::move(command));
}

// Native events, which become some of the above

absl::Status Page::CheckNativeKeyEvent(
    const rpc::NativeKeyEventRequest& event) {
  return native_input_.Check(event);
}

absl::Status Page::CheckNativeMouseEvent(
    const rpc::NativeMouseEventRequest& event) {
  return NativeInput::Check(event);
}

absl::Status Page::CheckNativeTouchEvent(
    const rpc::NativeTouchEventRequest& event) {
  return NativeInput::Check(event);
}

void Page::NativeKeyEvent(const rpc::NativeKeyEventRequest& event) {
  native_input_.Take(event);
}

void Page::NativeMouseEvent(const rpc::NativeMouseEventRequest& event) {
  native_input_.Take(event, viewport_.scale_factor);
}

void Page::NativeTouchEvent(const rpc::NativeTouchEventRequest& event) {
  native_input_.Take(event, viewport_.scale_factor);
}

// Drags

void Page::DragEnter(const rpc::DragEnterRequest& event) {
  drags_.Enter(event);
}

void Page::DragOver(const rpc::DragOverRequest& event) { drags_.Over(event); }

void Page::DragLeave(const rpc::DragLeaveRequest&) { drags_.Leave(); }

void Page::DragDrop(const rpc::DragDropRequest& event) { drags_.Drop(event); }

void Page::DragEnd(const rpc::DragEndRequest& event) {
  held_buttons_.clear();  // It counts as the release.
  native_input_.ForgetButtons();
  drags_.End(event);
}

void Page::DropSilently(const std::string& effect, orvane::Task drop) {
  Run(absl::StrCat("orvaneAgent.takeDrops('", effect, "')"),
      [this, drop = std::move(drop)](const absl::StatusOr<Json>&) mutable {
        std::move(drop)();
        AddScript([this] {
          Run("orvaneAgent.takeDrops(null)",
              [this](const absl::StatusOr<Json>&) { EndStep(); });
        });
      });
}

// The page service

absl::Status Page::Go(absl::FunctionRef<absl::Status(Navigation&)> where) {
  // With a dialog open, the page would never go anywhere.
  dialogs_.Decline();
  return where(navigation_);
}

void Page::Evaluate(const rpc::EvaluateRequest& request,
                    orvane::OnAnswer<rpc::EvaluateResponse> on_answer) {
  if (!target_.has_value()) {
    loop_->Post([on_answer = std::move(on_answer)]() mutable {
      std::move(on_answer)(absl::UnavailableError("there is no page now"));
    });
    return;
  }
  const std::uint32_t time_ms =
      request.timeout_ms() == 0 ? kUsualScriptMs
                                : std::min(request.timeout_ms(), kMaxScriptMs);
  engine_->Call(
      target_->session, "Runtime.evaluate",
      {{"expression", std::string(request.script())},
       {"returnByValue", true},
       {"awaitPromise", true},
       {"timeout", time_ms}},
      [time_ms, on_answer = std::move(on_answer)](
          const absl::StatusOr<Json>& answer) mutable {
        if (absl::IsDeadlineExceeded(answer.status())) {
          std::move(on_answer)(absl::DeadlineExceededError(absl::StrCat(
              "the script has not ended within ", time_ms, " ms")));
        } else if (!answer.ok()) {
          std::move(on_answer)(answer.status());
        } else {
          std::move(on_answer)(OutcomeOf(*answer));
        }
      },
      {.timeout = absl::Milliseconds(time_ms) + kScriptGrace});
}

// What the engine tells

void Page::OnEvent(EngineEvent event) {
  if (!target_.has_value()) return;
  const bool is_main = event.session == target_->session;
  const Json& params = event.params;
  const bool opens_dialog = event.method == "Page.javascriptDialogOpening";
  if (opens_dialog) has_dialog_ = true;
  if (opens_dialog && navigation_.is_leaving() &&
      Text(params, "type") != "beforeunload") {
    dialogs_.DeclineUnasked(event);
  } else {
    dialogs_.OnEvent(event);
  }
  if (is_main) {
    navigation_.OnEvent(event);
    downloads_.OnEvent(event);
  }
  if (event.method == "Page.screencastFrame") {
    if (!is_main) return;
    pictures_.Take(std::move(event));
    LookAgain();
  } else if (event.method == "Runtime.bindingCalled") {
    const auto context =
        static_cast<std::int64_t>(Number(params, "executionContextId"));
    const std::optional<Json> report = ParseJson(Text(params, "payload"));
    if (report.has_value()) TakeReport({event.session, context}, *report);
  } else if (event.method == "Runtime.executionContextCreated") {
    const Json& context = Member(params, "context");
    if (Text(context, "name") != kWorld || worlds_.size() >= kMaxWorlds) return;
    const World world = {event.session,
                         static_cast<std::int64_t>(Number(context, "id"))};
    worlds_[world] = {Text(Member(context, "auxData"), "frameId"),
                      ++last_document_};
    if (viewport_.is_accessibility_on)
      RunIn(world, "orvaneAgent.turnAccessibilityOn()");
  } else if (event.method == "Runtime.executionContextDestroyed") {
    worlds_.erase({event.session, static_cast<std::int64_t>(
                                      Number(params, "executionContextId"))});
  } else if (event.method == "Runtime.executionContextsCleared") {
    std::erase_if(worlds_, [&](const auto& entry) {
      return entry.first.session == event.session;
    });
  } else if (event.method == "Page.domContentEventFired") {
    // The focus cannot be taken from a page that has no document yet,
    if (is_main) LeavePageUnlessFocused();
  } else if (event.method == "Page.javascriptDialogClosed") {
    has_dialog_ = false;
    // nor from one that waits for a dialog.
    LeavePageUnlessFocused();
    BeginSteps();
  } else if (event.method == "Page.frameNavigated") {
    const Json& frame = Member(params, "frame");
    if (Text(frame, "id") != target_->id) return;
    ForgetDocument();
    drags_.Forget();
    // The new document does not answer for the old one's input, nor is it to
    // get any.
    unanswered_ = std::make_shared<Unanswered>();
    if (step_ == StepKind::kInput) step_ = StepKind::kNone;
    DropWaitingInput();
    BeginSteps();
  } else if (event.method == "Target.attachedToTarget") {
    engine_->AddSession(Text(params, "sessionId"), this);
    SetUpSession(Text(params, "sessionId"));
    engine_->Call(Text(params, "sessionId"), kAddScript, OurScript());
  } else if (event.method == "Target.detachedFromTarget") {
    engine_->RemoveSession(Text(params, "sessionId"));
    std::erase_if(worlds_, [&](const auto& entry) {
      return entry.first.session == Text(params, "sessionId");
    });
  } else if (event.method == "Inspector.targetCrashed") {
    if (is_main) Recover();
  } else if (event.method == "Fetch.requestPaused") {
    CheckRequest(event);
  } else if (event.method == "Input.dragIntercepted") {
    drags_.Begin(Member(params, "data"), pointer_);
  }
}

void Page::CheckRequest(const EngineEvent& event) {
  const absl::Status status =
      addresses_->Check(Text(Member(event.params, "request"), "url"));
  const std::string& request = Text(event.params, "requestId");
  if (status.ok()) {
    engine_->Call(event.session, "Fetch.continueRequest",
                  {{"requestId", request}});
    return;
  }
  LOG_EVERY_N_SEC(WARNING, 10)
      << "browser " << browser_.value()
      << " is refused an address: " << orvane::Printable(status.message());
  engine_->Call(event.session, "Fetch.failRequest",
                {{"requestId", request}, {"errorReason", "AccessDenied"}});
}

void Page::Recover() {
  ForgetProcess();
  pictures_.ForgetShown();
  navigation_.Recover();
}

void Page::ForgetProcess() {
  worlds_.clear();
  steps_.clear();
  step_ = StepKind::kNone;
  has_dialog_ = false;
  unanswered_ = std::make_shared<Unanswered>();
  drags_.Forget();
  dialogs_.Reset();
  ForgetDocument();
  ShowCursor({});
}

void Page::TakeReport(const World& world, const Json& report) {
  const auto found = worlds_.find(world);
  if (found == worlds_.end()) return;
  const std::string& kind = Text(report, "kind");
  if (kind == "cursor" || kind == "tooltip") {
    // The engine's own pointer lies at the corner of the window.
    if (!is_pointer_inside_) return;
  }
  if (kind == "cursor") {
    pointed_at_ = world;
    TakeCursor(world, report);
  } else if (kind == "tooltip") {
    TakeTooltip(report);
  } else if (kind == "list") {
    TakeList(world, report);
  } else if (kind == "listGone") {
    drop_downs_.Close();
  } else if (kind == "color") {
    TakeColorWish(world, found->second.frame, report);
  } else if (kind == "drag") {
    drags_.TakeEffect(Text(report, "effect"));
  } else if (kind == "live") {
    TakeLiveRegion(found->second.number, report);
  } else if (kind == "focus") {
    TakeAccessibleFocus(report);
  } else if (kind == "title" && found->second.frame == target_->id) {
    navigation_.TakeTitle(report);
  } else if (kind == "icon" && found->second.frame == target_->id) {
    navigation_.TakeIcon(report);
  }
}

void Page::TakeCursor(const World& world, const Json& report) {
  wanted_cursor_ = report;
  ShownCursor cursor = {.type = CursorOf(Text(report, "cursor"))};
  const auto number =
      static_cast<std::int64_t>(std::clamp(Number(report, "image"), 0.0, 1e6));
  const auto document = worlds_.find(world);
  if (number != 0 && document != worlds_.end()) {
    const CursorImage image = {document->second.number, number};
    const auto found = cursor_images_.find(image);
    if (found == cursor_images_.end()) {
      FetchCursorImage(world, number);
    } else {
      const rpc::SizePx& size = found->second.size();
      const auto within = [&](const char* name, int side) {
        return static_cast<int>(
            std::clamp(Number(report, name), 0.0, side - 1.0));
      };
      cursor = {rpc::CURSOR_TYPE_CUSTOM, image, within("x", size.width()),
                within("y", size.height())};
    }
  }
  ShowCursor(cursor);
}

void Page::FetchCursorImage(const World& world, std::int64_t image) {
  if (std::exchange(is_fetching_cursor_, true)) return;
  engine_->Call(
      world.session, "Runtime.evaluate",
      {{"expression", absl::StrCat("orvaneAgent.cursorImage(", image, ")")},
       {"contextId", world.context},
       {"returnByValue", true}},
      [this, world, image, alive = std::weak_ptr<bool>(alive_)](
          const absl::StatusOr<Json>& answer) {
        if (alive.expired()) return;
        is_fetching_cursor_ = false;
        const auto document = worlds_.find(world);
        if (!answer.ok() || document == worlds_.end()) return;
        auto bitmap = BitmapOf(Member(Member(*answer, "result"), "value"),
                               kMaxCursorSide);
        if (!bitmap.has_value()) return;
        if (cursor_images_.size() >= kMaxCursorImages) cursor_images_.clear();
        cursor_images_.insert_or_assign({document->second.number, image},
                                        *std::move(bitmap));
        if (is_pointer_inside_ && pointed_at_ == world)
          TakeCursor(world, Json(wanted_cursor_));
      });
}

void Page::ShowCursor(const ShownCursor& cursor) {
  if (std::exchange(cursor_, cursor) == cursor) return;
  rpc::CursorChanged event;
  *event.mutable_browser_id() = browser_;
  event.mutable_cursor()->set_type(cursor.type);
  if (cursor.type == rpc::CURSOR_TYPE_CUSTOM) {
    rpc::CustomCursor& custom = *event.mutable_cursor()->mutable_custom();
    *custom.mutable_image() = cursor_images_[cursor.image];
    custom.mutable_hotspot()->set_x(cursor.x);
    custom.mutable_hotspot()->set_y(cursor.y);
  }
  service_->WhenCursorChanged()(browser_, event);
}

void Page::TakeTooltip(const Json& report) {
  const std::string& text = Text(report, "text");
  if (text.empty()) {
    HideTooltip();
    return;
  }
  if (std::exchange(tooltip_, text) == text) return;
  rpc::TooltipChanged event;
  *event.mutable_browser_id() = browser_;
  event.set_text(text);
  event.set_direction(DirectionOf(Text(report, "direction")));
  if (const auto anchor = PlaceOf(Member(report, "anchor")))
    *event.mutable_anchor() = *anchor;
  service_->WhenTooltipChanged()(browser_, event);
}

void Page::HideTooltip() {
  if (std::exchange(tooltip_, "").empty()) return;
  rpc::TooltipChanged event;
  *event.mutable_browser_id() = browser_;
  service_->WhenTooltipChanged()(browser_, event);
}

void Page::ForgetDocument() {
  HideTooltip();
  drop_downs_.Close();
}

void Page::TakeList(const World& world, const Json& report) {
  const auto list =
      static_cast<std::int64_t>(std::clamp(Number(report, "list"), 0.0, 1e9));
  if (!drop_downs_.AreServed()) {
    RunIn(world, absl::StrCat("orvaneAgent.drawList(", list, ")"));
    return;
  }
  drop_downs_.Open(report, [this, world,
                            list](std::optional<std::uint32_t> index) {
    Choose(world, absl::StrCat(
                      "orvaneAgent.chooseFromList(", list, ", ",
                      index.has_value() ? absl::StrCat(*index) : "null", ")"));
  });
}

void Page::TakeColorWish(const World& world, const std::string& frame,
                         const Json& report) {
  const auto wish =
      static_cast<std::int64_t>(std::clamp(Number(report, "color"), 0.0, 1e9));
  dialogs_.AskForColor(
      frame, report,
      [this, world, wish](const std::optional<std::string>& color) {
        Choose(world,
               absl::StrCat(
                   "orvaneAgent.chooseColor(", wish, ", ",
                   color.has_value() ? absl::StrCat("'", *color, "'") : "null",
                   ")"));
      });
}

void Page::Choose(const World& world, std::string script) {
  if (!worlds_.contains(world)) return;
  AddScript([this, world, script = std::move(script)] {
    RunIn(world, script,
          [this, sent = unanswered_, alive = std::weak_ptr<bool>(alive_)](
              const absl::StatusOr<Json>& answer) {
            if (alive.expired()) return;
            if (sent == unanswered_) TakeInputsAnswer(answer.status());
            EndStep();
          },
          {.timeout = kInputTime});
  });
}

void Page::TakeLiveRegion(std::uint64_t document, const Json& report) {
  if (!viewport_.is_accessibility_on) return;
  rpc::AriaLiveRegionChanged event;
  *event.mutable_browser_id() = browser_;
  // Regions are numbered in each document.
  event.set_region_id(document << 32 |
                      static_cast<std::uint32_t>(
                          std::clamp(Number(report, "region"), 0.0, 4e9)));
  event.set_text(Text(report, "text"));
  event.set_politeness(PolitenessOf(Text(report, "politeness")));
  event.set_priority(rpc::ARIA_LIVE_PRIORITY_NORMAL);
  event.set_is_atomic(Flag(report, "atomic"));
  event.set_relevant(RelevantOf(Text(report, "relevant")));
  event.set_is_busy(Flag(report, "busy"));
  event.set_language(Text(report, "language"));
  service_->WhenAriaLiveRegionChanged()(browser_, event);
}

void Page::TakeAccessibleFocus(const Json& report) {
  // A page can move its focus faster than any host answers.
  if (!viewport_.is_accessibility_on || is_accessible_focus_offered_) return;
  is_accessible_focus_offered_ = true;
  rpc::AccessibilityRequestFocusCall call;
  call.mutable_node();  // The engine's nodes have no names.
  if (const auto place = PlaceOf(Member(report, "place")))
    *call.mutable_bounds() = *place;
  service_->OnAccessibilityRequestFocus()(
      browser_, std::move(call),
      [this, alive = std::weak_ptr<bool>(alive_)](
          const absl::StatusOr<rpc::AccessibilityRequestFocusResponse>&) {
        if (!alive.expired()) is_accessible_focus_offered_ = false;
      },
      {});
}

// The engine does not tell that something else is under a pointer that rests.
void Page::LookAgain() {
  if (!is_pointer_inside_ || look_timer_ != nullptr) return;
  look_timer_ = loop_->RunAfter(kLookInterval, [this] {
    look_timer_.reset();
    if (!target_.has_value() || !worlds_.contains(pointed_at_)) return;
    RunIn(pointed_at_, "orvaneAgent.look()");
  });
}

}  // namespace chromium
