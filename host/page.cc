#include "host/page.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "absl/status/statusor.h"
#include "absl/strings/ascii.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "google/protobuf/empty.pb.h"

#include "zimbrel/src/core/common/rpc/printable.h"
#include "zimbrel/src/core/common/rpc/transport/responder.h"

namespace orvane::host {
namespace {

constexpr std::size_t kMaxReasonBytes = 300;
constexpr std::size_t kMaxDownloads = 64;
constexpr int kMaxIconSide = 64;  // Of rpc::PageIcon.

}  // namespace

std::string AddressOf(absl::string_view typed) {
  typed = absl::StripAsciiWhitespace(typed);
  if (absl::StartsWith(typed, "/")) return absl::StrCat("file://", typed);
  if (absl::StrContains(typed, "://") || absl::StartsWith(typed, "about:") ||
      absl::StartsWith(typed, "data:")) {
    return std::string(typed);
  }
  const absl::string_view host = typed.substr(0, typed.find_first_of(":/"));
  const bool is_this_machine = host == "localhost" || host == "127.0.0.1";
  return absl::StrCat(is_this_machine ? "http://" : "https://", typed);
}

Page::Page(Connector connect, BrowserId browser, PageHandlers handlers)
    : connect_(std::move(connect)),
      browser_(std::move(browser)),
      handlers_(std::move(handlers)) {}

Page::~Page() = default;

void Page::Connect() {
  OnEnd();
  session_ = nullptr;
  auto connection = connect_();
  if (!connection.ok()) return;  // It has gone again, as View tells.
  session_ = std::make_shared<Session>(*std::move(connection));
  session_->streams.push_back(session_->client.WhenPageChanged(
      browser_,
      [this](const rpc::PageChanged& event) { OnState(event.state()); },
      [this](const absl::Status&) { OnEnd(); }));
  session_->streams.push_back(session_->client.WhenPageFailed(
      browser_,
      [this](const rpc::PageFailed& event) { OnFailure(event.failure()); }));
  if (handlers_.on_open_window) {
    session_->streams.push_back(session_->client.OnOpenWindow(
        browser_, [this](const rpc::OpenWindowCall& call,
                         Responder<rpc::OpenWindow> responder) {
          rpc::OpenWindowResponse answer;
          answer.set_load_here(handlers_.on_open_window(call));
          // Fails only if the widget has gone.
          std::move(responder).Respond(answer).IgnoreError();
        }));
  }
  if (handlers_.on_download) ServeDownloads();
  session_->client.GetPage(browser_,
                           [this, session = std::weak_ptr(session_)](
                               const absl::StatusOr<rpc::PageState>& state) {
                             if (state.ok() && !session.expired())
                               OnState(*state);
                           });
}

// What the widget tells

void Page::OnState(const rpc::PageState& state) {
  if (is_served() && session_->state->address() != state.address())
    session_->problem.clear();
  const std::uint64_t icon_before =
      is_served() ? session_->state->icon_id() : 0;
  session_->state = state;
  TellState();
  if (state.icon_id() != icon_before) UpdateIcon();
}

void Page::OnFailure(rpc::PageFailure failure) {
  if (!is_served()) return;
  if (failure == rpc::PAGE_FAILURE_CRASHED) {
    session_->problem = "The page has crashed and was loaded again.";
  } else if (failure == rpc::PAGE_FAILURE_KEEPS_CRASHING) {
    session_->problem = "The page keeps crashing and is not loaded again.";
  } else {
    return;  // The state tells whether the page responds.
  }
  TellState();
}

void Page::OnEnd() {
  EndDownloads();
  if (!is_served()) return;
  session_->state.reset();
  session_->problem.clear();
  TellState();
  TellIcon(nullptr);
}

void Page::TellState() {
  if (handlers_.on_state)
    handlers_.on_state(is_served() ? &*session_->state : nullptr);
}

// Asks for one icon at a time, however often a page changes it.
void Page::UpdateIcon() {
  if (!handlers_.on_icon) return;
  const std::uint64_t icon_id = session_->state->icon_id();
  if (icon_id == 0) {
    TellIcon(nullptr);
    return;
  }
  if (std::exchange(session_->is_asked_for_icon, true)) return;
  session_->client.GetPageIcon(
      browser_, [this, icon_id, session = std::weak_ptr(session_)](
                    const absl::StatusOr<rpc::PageIcon>& answer) {
        if (session.expired() || !is_served()) return;
        session_->is_asked_for_icon = false;
        if (session_->state->icon_id() != icon_id) {
          UpdateIcon();
          return;
        }
        Picture icon;
        const bool is_fit =
            answer.ok() && icon.Update(answer->image()).ok() &&
            std::max(icon.width(), icon.height()) <= kMaxIconSide;
        TellIcon(is_fit ? &icon : nullptr);
      });
}

void Page::TellIcon(const Picture* icon) {
  const bool had_icon = std::exchange(has_icon_, icon != nullptr);
  if (had_icon || icon != nullptr) handlers_.on_icon(icon);
}

std::string Page::ProblemText() const {
  if (!is_served()) return "";
  if (session_->state->is_unresponsive()) return "The page does not respond.";
  if (!session_->problem.empty() || session_->state->error().empty())
    return session_->problem;
  return absl::StrCat("The page cannot be loaded: ",
                      Printable(session_->state->error(), kMaxReasonBytes));
}

// Files that the page offers

void Page::ServeDownloads() {
  session_->streams.push_back(session_->client.WhenDownloadChanged(
      browser_,
      [this](const rpc::DownloadChanged& event) { OnDownloadChanged(event); },
      [this](const absl::Status&) {
        // Nobody would tell what becomes of further ones.
        session_->offers = nullptr;
        EndDownloads();
      }));
  session_->offers = session_->client.OnDownload(
      browser_, [this](const rpc::DownloadCall& call,
                       Responder<rpc::Download> responder) {
        rpc::DownloadResponse answer;
        answer.set_path(PathOf(call));
        // Fails only if the widget has gone.
        std::move(responder).Respond(answer).IgnoreError();
      });
}

std::string Page::PathOf(const rpc::DownloadCall& call) {
  auto& downloads = session_->downloads;
  if (downloads.size() == kMaxDownloads || call.download_id() == 0 ||
      downloads.contains(call.download_id())) {
    return "";
  }
  const std::string path = handlers_.on_download(call);
  if (!path.empty()) downloads.emplace(call.download_id(), path);
  return path;
}

void Page::OnDownloadChanged(const rpc::DownloadChanged& event) {
  const auto found = session_->downloads.find(event.download_id());
  if (found == session_->downloads.end()) return;
  const bool has_ended = event.status() == rpc::DOWNLOAD_STATUS_COMPLETED ||
                         event.status() == rpc::DOWNLOAD_STATUS_FAILED;
  if (!has_ended && event.status() != rpc::DOWNLOAD_STATUS_IN_PROGRESS) return;
  const std::string path = found->second;
  if (has_ended) session_->downloads.erase(found);
  if (handlers_.on_download_changed) handlers_.on_download_changed(path, event);
}

void Page::EndDownloads() {
  if (session_ == nullptr) return;
  rpc::DownloadChanged event;
  event.set_status(rpc::DOWNLOAD_STATUS_FAILED);
  event.set_error("the browser has ended");
  while (!session_->downloads.empty()) {
    event.set_download_id(session_->downloads.begin()->first);
    OnDownloadChanged(event);
  }
}

// What the user wants

void Page::Load(const std::string& address) {
  if (!is_served()) return;
  session_->problem.clear();
  rpc::LoadRequest request;
  *request.mutable_browser_id() = browser_;
  request.set_address(address);
  session_->client.Load(
      request, [this, session = std::weak_ptr(session_)](
                   const absl::StatusOr<google::protobuf::Empty>& answer) {
        if (answer.ok() || session.expired() || !is_served()) return;
        session_->problem =
            absl::StrCat("The address cannot be loaded: ",
                         Printable(answer.status().message(), kMaxReasonBytes));
        TellState();
      });
}

void Page::Reload() {
  if (!is_served()) return;
  session_->problem.clear();
  rpc::ReloadRequest request;
  *request.mutable_browser_id() = browser_;
  session_->client.Reload(request, nullptr);
}

void Page::Stop() {
  if (is_served()) session_->client.Stop(browser_, nullptr);
}

void Page::GoBack() {
  if (is_served()) session_->client.GoBack(browser_, nullptr);
}

void Page::GoForward() {
  if (is_served()) session_->client.GoForward(browser_, nullptr);
}

}  // namespace orvane::host
