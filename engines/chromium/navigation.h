// Where a page is, and where it goes.

#ifndef ENGINES_CHROMIUM_NAVIGATION_H_
#define ENGINES_CHROMIUM_NAVIGATION_H_

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "absl/time/time.h"

#include "engines/chromium/addresses.h"
#include "engines/chromium/engine_pipe.h"
#include "engines/chromium/json.h"
#include "rpc/browser/page.rpc.h"
#include "zimbrel/src/core/common/rpc/calling.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace chromium {

// Keeps what hosts are told of the page up to date, and publishes it when it
// has changed. What happens in one turn of the loop makes one event.
//
// Thread: the service thread. Lifetime: loop, addresses and service outlive it.
class Navigation {
 public:
  // The page's place in the engine.
  struct Window {
    // Sends a command to the page's main session. Without one, and if the page
    // is lost before the reply, the continuation does not run.
    std::function<void(absl::string_view method, Json params,
                       orvane::OnAnswer<Json> on_answer,
                       orvane::CallOptions options)>
        send;

    // Whether the page waits for the answer to a dialog.
    std::function<bool()> has_dialog;

    // Ends the page, however busy it is. End and Begin follow.
    std::function<void()> replace;
  };

  // `address` is allowed.
  Navigation(orvane::EventLoop* loop, BrowserId browser, std::string address,
             const Addresses* addresses, rpc::PageRpc* service, Window window);
  Navigation(const Navigation&) = delete;
  Navigation& operator=(const Navigation&) = delete;

  // For hosts. An error is for them.
  absl::Status Load(const std::string& address);
  absl::Status Reload(bool bypass_cache);
  absl::Status Stop();
  absl::Status GoBack();
  absl::Status GoForward();
  const rpc::PageState& state() const { return state_; }
  const rpc::PageIcon& icon() const { return icon_; }

  // A host has asked the page to go or to stop, and it has not done so yet.
  bool is_leaving() const { return is_leaving_ || is_stopping_; }

  // There is a blank target for the page, with that main frame. Loads the
  // address in it.
  void Begin(const std::string& frame);

  // The target is gone.
  void End();

  // The page's process has ended: loads the page again or, after several times
  // within a minute, shows one that says so.
  void Recover();

  // An event of the main session.
  void OnEvent(const EngineEvent& event);

  // Our script has reported the title or the icon.
  void TakeTitle(const Json& report);
  void TakeIcon(const Json& report);

  // The page has not reacted to input for some time, or does so again.
  void SetUnresponsive(bool is_unresponsive);

 private:
  // The one with which each target begins, and to which nobody wants to go
  // back.
  enum class BlankPage { kShown, kInHistory, kBeingForgotten, kForgotten };

  // Runs it when no script keeps the page from following. A page that is told
  // to go elsewhere while it hangs would never come back. So a script that goes
  // on is ended, and a page whose script cannot be ended is replaced.
  void WhenResponsive(orvane::Task task);
  void EndScript(orvane::Task then);
  // kDeadlineExceeded if the page does not respond.
  void AskForResponse(orvane::OnAnswer<Json> on_answer);

  // The host has asked for another page. Scripts of the old one may hang then,
  // too.
  void BeginLeaving();
  void WatchLeaving();
  void EndLeaving();

  void Send(absl::string_view method, Json params = Json::object(),
            orvane::OnAnswer<Json> on_answer = nullptr);

  void Navigate(std::string address);
  // Loads the address that hosts are told. The engine would load the page that
  // it shows, which is another one while that address is on its way.
  void LoadAgain(bool bypass_cache);
  // From the command to the engine until it has told what it loads, if
  // anything.
  void AwaitBeginning();
  void HasBegun();
  // `is_shown`: the page has got a document meanwhile.
  void Finish(std::uint64_t load, const absl::StatusOr<Json>& answer,
              bool is_shown);
  void Go(int steps);
  void GoToEntry(const Json& history);
  void TakeDocument(const Json& frame);
  void OfferWindow(const Json& params);
  void ForgetDocument();
  void ForgetBlankPage();
  void LookAtHistory();
  void SetHistory(int index, int size);
  void Fail(rpc::PageFailure failure);

  // The state may have changed.
  void Changed();
  void Publish();

  orvane::EventLoop* const loop_;
  const BrowserId browser_;
  const Addresses* const addresses_;
  rpc::PageRpc* const service_;
  const Window window_;

  std::string frame_;  // The main one. Empty while there is no target.
  std::string shown_;  // The address of the page.
  std::uint64_t last_load_ = 0;
  bool is_asked_for_ = false;       // The latest load is not finished yet.
  std::uint64_t last_request_ = 0;  // Of a host to go or to stop.
  bool is_leaving_ = false;         // The present page is to go.
  bool is_stopping_ = false;        // Its script is to end.
  bool is_stopped_ = false;         // The next target is to stay blank.
  std::unique_ptr<orvane::EventLoop::Timer> leaving_timer_;
  // It takes the engine a moment to tell that it loads something.
  int awaited_beginnings_ = 0;
  bool is_loading_ = false;      // As it tells.
  std::uint64_t documents_ = 0;  // That the page has had.
  std::uint64_t documents_before_load_ = 0;
  BlankPage blank_page_ = BlankPage::kShown;
  bool has_given_up_ = false;  // The page that is shown says that it crashes.
  std::deque<absl::Time> crashes_;  // The latest.

  // Where the page is or, while it goes through its history, is to be.
  int history_index_ = 0;
  int history_size_ = 0;
  int unsent_steps_ = 0;  // The engine has not been told of these.
  bool is_looking_at_history_ = false;
  bool must_look_again_ = false;
  bool is_window_offered_ = false;

  rpc::PageState state_;
  std::string published_;  // The state of the latest event, serialised.
  bool is_publishing_ = false;
  rpc::PageIcon icon_;
  std::uint64_t last_icon_ = 0;
  const std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_NAVIGATION_H_
