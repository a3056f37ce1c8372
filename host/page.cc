#include "host/page.h"

#include <utility>

#include "absl/status/statusor.h"
#include "absl/strings/ascii.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "google/protobuf/empty.pb.h"

#include "zimbrel/src/core/common/rpc/transport/responder.h"

namespace orvane::host {

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

Page::Page(EventLoop* loop, std::string socket, BrowserId browser,
           PageHandlers handlers)
    : loop_(loop),
      socket_(std::move(socket)),
      browser_(std::move(browser)),
      handlers_(std::move(handlers)) {}

Page::~Page() = default;

void Page::Connect() {
  session_ = nullptr;
  is_served_ = false;
  auto connection = SocketClient::Connect(loop_, socket_);
  if (!connection.ok()) return;  // It has gone again, as View tells.
  session_ = std::make_shared<Session>(*std::move(connection));
  const auto show = [this](const rpc::PageState& state) {
    is_served_ = true;
    if (handlers_.on_state) handlers_.on_state(&state);
  };
  session_->streams.push_back(session_->client.WhenPageChanged(
      browser_, [show](const rpc::PageChanged& event) { show(event.state()); },
      [this](const absl::Status&) {
        if (std::exchange(is_served_, false) && handlers_.on_state)
          handlers_.on_state(nullptr);
      }));
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
  session_->client.GetPage(browser_,
                           [show](const absl::StatusOr<rpc::PageState>& state) {
                             if (state.ok()) show(*state);
                           });
}

void Page::Load(const std::string& address,
                OnAnswer<google::protobuf::Empty> on_answer) {
  if (!is_served_) return;
  rpc::LoadRequest request;
  *request.mutable_browser_id() = browser_;
  request.set_address(address);
  session_->client.Load(
      request,
      [session = std::weak_ptr(session_), on_answer = std::move(on_answer)](
          const absl::StatusOr<google::protobuf::Empty>& to) mutable {
        if (on_answer && !session.expired()) std::move(on_answer)(to);
      });
}

void Page::Reload() {
  if (!is_served_) return;
  rpc::ReloadRequest request;
  *request.mutable_browser_id() = browser_;
  session_->client.Reload(request, nullptr);
}

void Page::Stop() {
  if (is_served_) session_->client.Stop(browser_, nullptr);
}

void Page::GoBack() {
  if (is_served_) session_->client.GoBack(browser_, nullptr);
}

void Page::GoForward() {
  if (is_served_) session_->client.GoForward(browser_, nullptr);
}

}  // namespace orvane::host
