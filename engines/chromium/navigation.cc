#include "engines/chromium/navigation.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <utility>

#include "absl/log/log.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"

#include "engines/chromium/bitmap.h"
#include "zimbrel/src/core/common/rpc/printable.h"

namespace chromium {
namespace {

// The longest that the engine loads.
constexpr std::size_t kMaxAddressBytes = std::size_t{2} << 20;

constexpr std::size_t kMaxTitleBytes = 4096;
constexpr std::size_t kLoggedBytes = 200;  // Of an address.
constexpr int kMaxIconSide = 64;

// Within which a page answers that no script keeps busy, and how often one that
// is to go is asked.
constexpr absl::Duration kResponseTime = absl::Seconds(3);
constexpr absl::Duration kLeavingInterval = absl::Seconds(5);

constexpr std::size_t kMaxCrashes = 3;
constexpr absl::Duration kCrashPeriod = absl::Minutes(1);
constexpr char kCrashPage[] =
    "data:text/plain,This page keeps crashing and is not loaded again.";

// What the engine says of a load that has been stopped, replaced by another
// one, or found to be a download.
constexpr char kAborted[] = "net::ERR_ABORTED";

rpc::PageSecurity SecurityOf(absl::string_view address) {
  // One whose certificate is not valid is not loaded.
  if (absl::StartsWith(address, "https:")) return rpc::PAGE_SECURITY_SECURE;
  if (absl::StartsWith(address, "http:")) return rpc::PAGE_SECURITY_INSECURE;
  return rpc::PAGE_SECURITY_LOCAL;
}

// The id of an entry that is so many steps away from the one that is shown or
// on its way.
std::optional<Json> EntryAt(const Json& history, int steps) {
  const auto& entries = List(history, "entries");
  const double index = Number(history, "currentIndex") + steps;
  if (index < 0 || index >= static_cast<double>(entries.size()))
    return std::nullopt;
  return Member(entries[static_cast<std::size_t>(index)], "id");
}

}  // namespace

Navigation::Navigation(orvane::EventLoop* loop, BrowserId browser,
                       std::string address, const Addresses* addresses,
                       rpc::PageRpc* service, Window window)
    : loop_(loop),
      browser_(std::move(browser)),
      addresses_(addresses),
      service_(service),
      window_(std::move(window)),
      shown_(std::move(address)) {
  state_.set_address(shown_);
  state_.set_is_loading(true);
}

// For hosts

absl::Status Navigation::Load(const std::string& address) {
  if (address.size() > kMaxAddressBytes) {
    return absl::InvalidArgumentError(
        absl::StrCat("the address has ", address.size(),
                     " bytes; the limit is ", kMaxAddressBytes));
  }
  if (absl::Status allowed = addresses_->Check(address); !allowed.ok())
    return allowed;
  crashes_.clear();
  if (frame_.empty()) {
    // The engine is being started again, and then loads this.
    is_stopped_ = false;
    shown_ = address;
    state_.set_address(address);
    Changed();
  } else {
    Navigate(address);
  }
  return absl::OkStatus();
}

absl::Status Navigation::Reload(bool bypass_cache) {
  crashes_.clear();
  if (!frame_.empty()) {
    LoadAgain(bypass_cache);
  } else {
    is_stopped_ = false;
    Changed();
  }
  return absl::OkStatus();
}

absl::Status Navigation::Stop() {
  if (frame_.empty()) {
    is_stopped_ = true;
    Changed();
    return absl::OkStatus();
  }
  is_stopping_ = true;
  unsent_steps_ = 0;
  WhenResponsive([this, request = ++last_request_] {
    is_stopping_ = false;
    // What has been asked for since then is not to be stopped.
    if (request == last_request_) Send("Page.stopLoading");
    LookAtHistory();
  });
  return absl::OkStatus();
}

absl::Status Navigation::GoBack() {
  if (!state_.can_go_back())
    return absl::FailedPreconditionError("there is no page to go back to");
  Go(-1);
  return absl::OkStatus();
}

absl::Status Navigation::GoForward() {
  if (!state_.can_go_forward())
    return absl::FailedPreconditionError("there is no page to go forward to");
  Go(1);
  return absl::OkStatus();
}

void Navigation::Go(int steps) {
  // Instead of a load that has been asked for before.
  is_asked_for_ = false;
  state_.set_address(shown_);
  unsent_steps_ += steps;
  SetHistory(history_index_ + steps, history_size_);
  AwaitBeginning();
  WhenResponsive([this] {
    Send("Page.getNavigationHistory", Json::object(),
         [this](const absl::StatusOr<Json>& history) {
           GoToEntry(history.ok() ? *history : Json());
         });
  });
}

void Navigation::GoToEntry(const Json& history) {
  const int steps = std::exchange(unsent_steps_, 0);
  const std::optional<Json> entry = EntryAt(history, steps);
  if (steps == 0 || !entry.has_value()) {
    HasBegun();
    return;
  }
  Send("Page.navigateToHistoryEntry", {{"entryId", *entry}},
       [this](const absl::StatusOr<Json>&) { HasBegun(); });
}

void Navigation::WhenResponsive(orvane::Task task) {
  if (state_.is_unresponsive()) {
    EndScript(std::move(task));
    return;
  }
  AskForResponse([this, task = std::move(task)](
                     const absl::StatusOr<Json>& answer) mutable {
    if (absl::IsDeadlineExceeded(answer.status())) {
      EndScript(std::move(task));
    } else {
      std::move(task)();
    }
  });
}

void Navigation::AskForResponse(orvane::OnAnswer<Json> on_answer) {
  window_.send("Runtime.evaluate", {{"expression", "0"}}, std::move(on_answer),
               {.timeout = kResponseTime});
}

void Navigation::EndScript(orvane::Task then) {
  window_.send("Runtime.terminateExecution", Json::object(),
               [this, then = std::move(then)](
                   const absl::StatusOr<Json>& answer) mutable {
                 if (!absl::IsDeadlineExceeded(answer.status())) {
                   std::move(then)();
                   return;
                 }
                 LOG(WARNING) << "browser " << browser_.value()
                              << ": its page cannot be stopped, and is ended: "
                              << orvane::Printable(shown_, kLoggedBytes);
                 window_.replace();
               },
               {.timeout = kResponseTime});
}

void Navigation::BeginLeaving() {
  ++last_request_;
  is_leaving_ = true;
  WatchLeaving();
}

void Navigation::WatchLeaving() {
  leaving_timer_ = loop_->RunAfter(kLeavingInterval, [this] {
    // A host may take its time to say whether the page may be left.
    if (window_.has_dialog()) {
      WatchLeaving();
      return;
    }
    WhenResponsive([this] {
      if (is_asked_for_ && documents_ != documents_before_load_) {
        // The engine can forget a load over one that it has begun before.
        Navigate(state_.address());
      } else if (is_leaving_) {
        WatchLeaving();
      }
    });
  });
}

void Navigation::EndLeaving() {
  is_leaving_ = false;
  leaving_timer_.reset();
}

void Navigation::Send(absl::string_view method, Json params,
                      orvane::OnAnswer<Json> on_answer) {
  // A site may take its time to answer.
  window_.send(method, std::move(params), std::move(on_answer),
               {.timeout = absl::InfiniteDuration()});
}

// Loading

void Navigation::Begin(const std::string& frame) {
  frame_ = frame;
  blank_page_ = BlankPage::kShown;
  if (std::exchange(is_stopped_, false)) {
    Changed();
  } else {
    Navigate(shown_);
  }
}

void Navigation::End() {
  frame_.clear();
  if (is_leaving_) shown_ = state_.address();
  EndLeaving();
  is_stopping_ = false;
  is_asked_for_ = false;
  awaited_beginnings_ = 0;
  unsent_steps_ = 0;
  is_loading_ = false;
  is_looking_at_history_ = false;
  ForgetDocument();
  state_.clear_error();
  SetHistory(0, 0);
  state_.set_address(shown_);
  Changed();
}

void Navigation::LoadAgain(bool bypass_cache) {
  const bool is_shown = blank_page_ != BlankPage::kShown && !is_leaving_ &&
                        !has_given_up_ && state_.error().empty();
  if (!is_shown) {
    Navigate(state_.address());
    return;
  }
  AwaitBeginning();
  WhenResponsive([this, bypass_cache] {
    Send("Page.reload", {{"ignoreCache", bypass_cache}},
         [this](const absl::StatusOr<Json>&) { HasBegun(); });
  });
}

void Navigation::AwaitBeginning() {
  BeginLeaving();
  ++awaited_beginnings_;
  Changed();
}

void Navigation::HasBegun() {
  --awaited_beginnings_;
  LookAtHistory();
  Changed();
}

void Navigation::Navigate(std::string address) {
  // The engine would not begin to load again what it is loading.
  const bool must_stop = is_leaving_;
  BeginLeaving();
  unsent_steps_ = 0;
  is_asked_for_ = true;
  documents_before_load_ = documents_;
  state_.set_address(address);
  state_.clear_error();
  Changed();
  WhenResponsive(
      [this, must_stop, address = std::move(address), load = ++last_load_] {
        if (must_stop) Send("Page.stopLoading");
        Send("Page.navigate", {{"url", address}},
             [this, load,
              documents = documents_](const absl::StatusOr<Json>& answer) {
               Finish(load, answer, documents != documents_);
             });
      });
}

void Navigation::Finish(std::uint64_t load, const absl::StatusOr<Json>& answer,
                        bool is_shown) {
  if (load != last_load_ || !is_asked_for_) return;
  // The engine has ended, which is told next.
  if (absl::IsUnavailable(answer.status())) return;
  const std::string error =
      answer.ok() ? Text(*answer, "errorText") : answer.status().ToString();
  if (error == kAborted) {
    // So it says, too, when the page's process has ended, which is told before
    // it answers anything else.
    AskForResponse([this, load](const absl::StatusOr<Json>&) {
      if (load != last_load_ || !is_asked_for_) return;
      is_asked_for_ = false;
      state_.set_address(shown_);
      Changed();
    });
    return;
  }
  if (!error.empty()) {
    LOG(WARNING) << "browser " << browser_.value() << ": "
                 << orvane::Printable(state_.address(), kLoggedBytes) << ": "
                 << orvane::Printable(error);
    state_.set_error(error);
  } else if (is_shown) {
    EndLeaving();
    state_.set_address(shown_);
  }  // Else the engine tells of the document next.
  is_asked_for_ = false;
  Changed();
}

void Navigation::Recover() {
  is_stopping_ = false;
  is_loading_ = false;
  ForgetDocument();
  const absl::Time now = absl::Now();
  while (!crashes_.empty() && crashes_.front() < now - kCrashPeriod)
    crashes_.pop_front();
  crashes_.push_back(now);
  LOG(WARNING) << "browser " << browser_.value() << ": its page has crashed: "
               << orvane::Printable(shown_, kLoggedBytes);
  has_given_up_ = crashes_.size() > kMaxCrashes;
  if (has_given_up_) {
    is_asked_for_ = false;
    EndLeaving();
    state_.set_error("the page keeps crashing");
    Fail(rpc::PAGE_FAILURE_KEEPS_CRASHING);
    Send("Page.navigate", {{"url", kCrashPage}}, nullptr);
  } else {
    Fail(rpc::PAGE_FAILURE_CRASHED);
    LoadAgain(/*bypass_cache=*/false);
  }
  Changed();
}

void Navigation::Fail(rpc::PageFailure failure) {
  rpc::PageFailed event;
  *event.mutable_browser_id() = browser_;
  event.set_failure(failure);
  service_->WhenPageFailed()(browser_, event);
}

void Navigation::SetUnresponsive(bool is_unresponsive) {
  if (state_.is_unresponsive() == is_unresponsive) return;
  state_.set_is_unresponsive(is_unresponsive);
  if (is_unresponsive) Fail(rpc::PAGE_FAILURE_UNRESPONSIVE);
  Changed();
}

// What the engine and our script tell

void Navigation::OnEvent(const EngineEvent& event) {
  const Json& params = event.params;
  const bool is_main = Text(params, "frameId") == frame_;
  if (event.method == "Page.frameNavigated") {
    const Json& frame = Member(params, "frame");
    if (Text(frame, "id") == frame_) TakeDocument(frame);
  } else if (event.method == "Page.navigatedWithinDocument") {
    if (!is_main || has_given_up_) return;
    EndLeaving();
    shown_ = CutText(Text(params, "url"), kMaxAddressBytes);
    if (!is_asked_for_) state_.set_address(shown_);
    LookAtHistory();
    Changed();
  } else if (event.method == "Page.frameStartedLoading") {
    if (!is_main) return;
    is_loading_ = true;
    Changed();
  } else if (event.method == "Page.frameStoppedLoading") {
    if (!is_main) return;
    is_loading_ = false;
    ForgetBlankPage();
    LookAtHistory();
    Changed();
  } else if (event.method == "Page.windowOpen") {
    OfferWindow(params);
  }
}

void Navigation::TakeDocument(const Json& frame) {
  ++documents_;
  is_leaving_ = false;
  // Else this may be another page than the one that was asked for.
  if (!is_asked_for_) EndLeaving();
  ForgetDocument();
  if (blank_page_ == BlankPage::kShown) blank_page_ = BlankPage::kInHistory;
  ForgetBlankPage();
  const std::string& unreachable = Text(frame, "unreachableUrl");
  const std::string address = Text(frame, "url") + Text(frame, "urlFragment");
  has_given_up_ = address == kCrashPage;
  if (has_given_up_) {
    Changed();
    return;
  }
  if (!unreachable.empty()) {
    shown_ = unreachable;
    state_.set_security(rpc::PAGE_SECURITY_LOCAL);
    if (state_.error().empty()) state_.set_error("the page cannot be loaded");
  } else {
    if (addresses_->Check(address).ok()) shown_ = address;
    state_.set_security(SecurityOf(address));
    state_.clear_error();
  }
  if (!is_asked_for_) state_.set_address(shown_);
  LookAtHistory();
  Changed();
}

void Navigation::ForgetDocument() {
  state_.clear_title();
  state_.clear_icon_id();
  state_.set_is_unresponsive(false);
  icon_.Clear();
}

void Navigation::ForgetBlankPage() {
  if (blank_page_ != BlankPage::kInHistory) return;
  blank_page_ = BlankPage::kBeingForgotten;
  Send("Page.resetNavigationHistory", Json::object(),
       [this](const absl::StatusOr<Json>& answer) {
         // The engine refuses it at some moments, so it is tried again.
         blank_page_ =
             answer.ok() ? BlankPage::kForgotten : BlankPage::kInHistory;
         LookAtHistory();
       });
}

void Navigation::LookAtHistory() {
  if (blank_page_ != BlankPage::kForgotten) return;
  // A page can change its history faster than it can be looked at.
  if (is_looking_at_history_) {
    must_look_again_ = true;
    return;
  }
  is_looking_at_history_ = true;
  must_look_again_ = false;
  Send("Page.getNavigationHistory", Json::object(),
       [this](const absl::StatusOr<Json>& history) {
         is_looking_at_history_ = false;
         if (history.ok()) {
           SetHistory(static_cast<int>(Number(*history, "currentIndex")),
                      static_cast<int>(List(*history, "entries").size()));
           Changed();
         }
         if (must_look_again_) LookAtHistory();
       });
}

void Navigation::SetHistory(int index, int size) {
  history_index_ = index;
  history_size_ = size;
  state_.set_can_go_back(index > 0);
  state_.set_can_go_forward(index + 1 < size);
}

void Navigation::OfferWindow(const Json& params) {
  const std::string address = Text(params, "url");
  // One at a time, since a page can open windows faster than anybody answers.
  if (is_window_offered_ || !addresses_->Check(address).ok()) return;
  is_window_offered_ = true;
  rpc::OpenWindowCall call;
  call.set_address(address);
  call.set_is_user_gesture(Flag(params, "userGesture"));
  service_->OnOpenWindow()(
      browser_, std::move(call),
      [this, address, alive = std::weak_ptr<bool>(alive_)](
          const absl::StatusOr<rpc::OpenWindowResponse>& answer) {
        if (alive.expired()) return;
        is_window_offered_ = false;
        if (answer.ok() && answer->load_here() && !frame_.empty())
          Navigate(address);
      },
      {});
}

void Navigation::TakeTitle(const Json& report) {
  state_.set_title(CutText(Text(report, "title"), kMaxTitleBytes));
  Changed();
}

void Navigation::TakeIcon(const Json& report) {
  icon_.Clear();
  if (auto image = BitmapOf(report, kMaxIconSide)) {
    icon_.set_icon_id(++last_icon_);
    *icon_.mutable_image() = *std::move(image);
  }
  state_.set_icon_id(icon_.icon_id());
  Changed();
}

// What hosts are told

void Navigation::Changed() {
  state_.set_is_loading((frame_.empty() && !is_stopped_) || is_asked_for_ ||
                        awaited_beginnings_ > 0 || is_loading_);
  if (!state_.is_loading()) EndLeaving();
  if (std::exchange(is_publishing_, true)) return;
  loop_->Post([this, alive = std::weak_ptr<bool>(alive_)] {
    if (!alive.expired()) Publish();
  });
}

void Navigation::Publish() {
  is_publishing_ = false;
  std::string state = state_.SerializeAsString();
  if (state == published_) return;
  published_ = std::move(state);
  rpc::PageChanged event;
  *event.mutable_browser_id() = browser_;
  *event.mutable_state() = state_;
  service_->WhenPageChanged()(browser_, event);
}

}  // namespace chromium
