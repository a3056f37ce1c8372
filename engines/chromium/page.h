// A browser whose page a real engine draws.

#ifndef ENGINES_CHROMIUM_PAGE_H_
#define ENGINES_CHROMIUM_PAGE_H_

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>

#include "absl/functional/function_ref.h"
#include "absl/status/status.h"
#include "absl/strings/string_view.h"
#include "absl/time/time.h"

#include "engines/chromium/addresses.h"
#include "engines/chromium/dialogs.h"
#include "engines/chromium/downloads.h"
#include "engines/chromium/drags.h"
#include "engines/chromium/drop_downs.h"
#include "engines/chromium/engine.h"
#include "engines/chromium/engine_pipe.h"
#include "engines/chromium/input_commands.h"
#include "engines/chromium/json.h"
#include "engines/chromium/native_input.h"
#include "engines/chromium/navigation.h"
#include "engines/chromium/picture_sender.h"
#include "examples/widget_server/abstract_page.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/browser/page.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace chromium {

// What the host does becomes commands to the engine, and what the engine and
// the script in the page tell becomes events and calls to the host.
//
// The page lives in a target of the engine's, which may be lost and made anew
// at any time. What the host has set is kept here and set again.
//
// Thread: the service thread. Lifetime: loop, engine, addresses and services
// outlive the page.
class Page final : public widget_server::AbstractPage, public Engine::Client {
 public:
  struct Context {
    orvane::EventLoop* loop;
    Engine* engine;
    const Addresses* addresses;
    rpc::PageRpc* page_service;  // For events and calls.
    std::string downloads;       // The folder that the engine downloads into.
  };

  // `address` must be allowed.
  Page(const Context& context, std::uint64_t browser, std::string address,
       rpc::BrowserWidgetRpc* service);
  ~Page() override;

  // From the host.
  absl::Status CheckTakesInput() const override;
  void SetViewport(const widget_server::Viewport& viewport) override;
  void Focus(const rpc::FocusRequest& event) override;
  void KeyPress(const rpc::KeyPressRequest& event) override;
  void KeyRelease(const rpc::KeyReleaseRequest& event) override;
  void KeyType(const rpc::KeyTypeRequest& event) override;
  void MousePress(const rpc::MousePressRequest& event) override;
  void MouseRelease(const rpc::MouseReleaseRequest& event) override;
  void MouseEnter(const rpc::MouseEnterRequest& event) override;
  void MouseExit(const rpc::MouseExitRequest& event) override;
  void MouseDrag(const rpc::MouseDragRequest& event) override;
  void MouseMove(const rpc::MouseMoveRequest& event) override;
  void MouseWheel(const rpc::MouseWheelRequest& event) override;
  absl::Status CheckNativeKeyEvent(
      const rpc::NativeKeyEventRequest& event) override;
  absl::Status CheckNativeMouseEvent(
      const rpc::NativeMouseEventRequest& event) override;
  absl::Status CheckNativeTouchEvent(
      const rpc::NativeTouchEventRequest& event) override;
  void NativeKeyEvent(const rpc::NativeKeyEventRequest& event) override;
  void NativeMouseEvent(const rpc::NativeMouseEventRequest& event) override;
  void NativeTouchEvent(const rpc::NativeTouchEventRequest& event) override;
  void TouchStart(const rpc::TouchStartRequest& event) override;
  void TouchMove(const rpc::TouchMoveRequest& event) override;
  void TouchEnd(const rpc::TouchEndRequest& event) override;
  void TouchCancel(const rpc::TouchCancelRequest& event) override;
  void DragEnter(const rpc::DragEnterRequest& event) override;
  void DragOver(const rpc::DragOverRequest& event) override;
  void DragLeave(const rpc::DragLeaveRequest& event) override;
  void DragDrop(const rpc::DragDropRequest& event) override;
  void DragEnd(const rpc::DragEndRequest& event) override;
  bool HasBegunDrag() const override { return drags_.has_begun_in_page(); }

  // From the host, by the page service.
  //
  // Tells the page where to go.
  absl::Status Go(absl::FunctionRef<absl::Status(Navigation&)> where);
  void Evaluate(const rpc::EvaluateRequest& request,
                orvane::OnAnswer<rpc::EvaluateResponse> on_answer);
  const Navigation& navigation() const { return navigation_; }

  // From the engine.
  void OnTarget(const Target& target) override;
  void OnEvent(EngineEvent event) override;
  void OnTargetLost() override;

 private:
  // Where our script runs in a document: apart from the page's own scripts.
  struct World {
    std::string session;
    std::int64_t context = 0;

    bool operator==(const World& other) const = default;
    bool operator<(const World& other) const {
      return std::tie(session, context) <
             std::tie(other.session, other.context);
    }
  };

  // By document, and by number there.
  using CursorImage = std::pair<std::uint64_t, std::int64_t>;

  // What was sent to the present document.
  struct Unanswered {
    int moves = 0;
  };

  enum class StepKind { kNone, kInput, kScript };

  struct Step {
    StepKind kind;
    orvane::Task begin;
  };

  struct ShownCursor {
    rpc::CursorType type = rpc::CURSOR_TYPE_DEFAULT;
    CursorImage image = {};  // Of a custom one, as are the next.
    int x = 0;
    int y = 0;

    bool operator==(const ShownCursor& other) const = default;
  };

  struct Document {
    std::string frame;
    std::uint64_t number;  // Among those that this page has had.
  };

  // Sends a command to the target. Does nothing, and drops the continuation,
  // without a target; drops it also if the target is gone by the reply.
  void Send(absl::string_view method, Json params = Json::object(),
            orvane::OnAnswer<Json> on_answer = nullptr,
            orvane::CallOptions options = {.timeout = absl::Seconds(10)});
  void SetUpSession(const std::string& session);
  void StartScreencast();

  // Run a script in our world of one document or of all.
  void RunIn(const World& world, absl::string_view script,
             orvane::OnAnswer<Json> on_answer = nullptr,
             orvane::CallOptions options = {.timeout = absl::Seconds(10)});
  void RunInAll(absl::string_view script);
  // In the main frame's document. kNotFound, at once, if there is none yet.
  void Run(absl::string_view script,
           orvane::OnAnswer<Json> on_answer = nullptr);

  // The view.
  void UpdateScreen();
  void UpdateWindow();
  void PlaceWindow();
  void SendPlace();
  void SetWindowState(const char* state);
  void ExpectPicture();
  // So that nothing is held down for the next host.
  void LiftAll();
  void LiftHeld();

  // The focus.
  void EnterPage();
  void EnterPageByTab(int modifiers);
  void LeavePage();
  // The host has not given the focus that a page may have taken by itself.
  void LeavePageUnlessFocused();
  void SendTab(int modifiers, orvane::OnAnswer<Json> on_answer);
  void OfferFocus(rpc::FocusDirection direction);

  // Input, in the order of the calls. The engine lets input and scripts
  // overtake each other and drops input while a dialog is open. So input is
  // sent step by step, once the page has got the one before and has no dialog;
  // a script that input must not overtake is a step, too.
  void AddStep(Step step);
  void AddScript(orvane::Task begin);
  void BeginSteps();
  void EndStep();
  void SendInput(const char* method, Json params,
                 orvane::OnAnswer<Json> on_answer = nullptr);
  // What was meant for a page, or comes from a host, that is gone.
  void DropWaitingInput();
  void NoteHeld(const Json& input);
  void SendMouse(Json command);
  void SendMove(Json command);
  void SendNewestMove();
  void DropSilently(const std::string& effect, orvane::Task drop);
  void TakeInputsAnswer(const absl::Status& status);

  // What the engine tells.
  void TakeReport(const World& world, const Json& report);
  void TakeCursor(const World& world, const Json& report);
  void FetchCursorImage(const World& world, std::int64_t image);
  void ShowCursor(const ShownCursor& cursor);
  void TakeTooltip(const Json& report);
  void HideTooltip();
  void TakeList(const World& world, const Json& report);
  void TakeColorWish(const World& world, const std::string& frame,
                     const Json& report);
  // Tells the page what the host has chosen. Input that follows finds it there.
  void Choose(const World& world, std::string script);
  void TakeLiveRegion(std::uint64_t document, const Json& report);
  void TakeAccessibleFocus(const Json& report);
  void ForgetDocument();  // What the page showed is gone.
  void ForgetProcess();   // All that the page's process knew is gone.
  void LookAgain();
  void Recover();
  void CheckRequest(const EngineEvent& event);

  orvane::EventLoop* const loop_;
  Engine* const engine_;
  const Addresses* const addresses_;
  const BrowserId browser_;
  rpc::BrowserWidgetRpc* const service_;

  // What the host has set.
  widget_server::Viewport viewport_;

  // Where the page is.
  std::optional<Target> target_;
  std::map<World, Document> worlds_;
  std::uint64_t last_document_ = 0;

  // What the engine was told last of the view.
  bool is_drawn_ = false;
  bool is_placed_ = false;
  std::unique_ptr<orvane::EventLoop::Timer> picture_timer_;
  absl::Duration picture_time_;  // Of the timer.

  std::deque<Step> steps_;           // That are not begun yet.
  StepKind step_ = StepKind::kNone;  // The one that has begun and not ended.
  bool is_beginning_steps_ = false;
  bool has_dialog_ = false;  // The page waits for its end.
  // Shared with the continuations.
  std::shared_ptr<Unanswered> unanswered_ = std::make_shared<Unanswered>();
  std::optional<Json> newest_move_;  // That waits for the others' answers.
  bool is_pointer_inside_ = false;
  rpc::PointDip pointer_;  // Where it was last.
  Fingers fingers_;
  // What the engine has been told of, by its names for buttons. The host may
  // hold more, or less, while input waits.
  std::set<std::string> held_buttons_;
  std::set<int> held_fingers_;
  NativeInput native_input_{this};
  bool is_focus_offered_ = false;
  // Of the latest Tab that was pressed. Shift may come up before it.
  rpc::FocusDirection tab_direction_ = rpc::FOCUS_DIRECTION_FORWARD;
  bool is_accessible_focus_offered_ = false;

  ShownCursor cursor_;               // By the host.
  Json wanted_cursor_;               // The latest report of one.
  bool is_fetching_cursor_ = false;  // A page can ask faster than that.
  std::map<CursorImage, rpc::Bitmap> cursor_images_;
  std::string tooltip_;  // Empty if none is shown.
  World pointed_at_;     // Whose document had the pointer last.
  std::unique_ptr<orvane::EventLoop::Timer> look_timer_;

  const std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  Dialogs dialogs_;
  DropDowns drop_downs_;
  Drags drags_;
  Navigation navigation_;
  Downloads downloads_;
  PictureSender pictures_;
};

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_PAGE_H_
