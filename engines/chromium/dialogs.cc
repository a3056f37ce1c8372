#include "engines/chromium/dialogs.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <system_error>
#include <utility>

#include "absl/log/log.h"
#include "absl/strings/ascii.h"
#include "absl/strings/match.h"
#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "absl/strings/str_split.h"
#include "absl/strings/string_view.h"
#include "absl/strings/strip.h"

#include "zimbrel/src/core/common/rpc/printable.h"

namespace chromium {
namespace {

// A page can have any number of frames. Those beyond have no origin to show.
constexpr std::size_t kMaxFrames = 1000;
constexpr std::size_t kMaxTextBytes = std::size_t{64} << 10;
constexpr std::size_t kMaxFilters = 100;
constexpr int kMaxColors = 100;
constexpr std::uint32_t kWhite = 0xffffff;

std::string Cut(std::string text) {
  return CutText(std::move(text), kMaxTextBytes);
}

// An attribute in the engine's flat list of names and values. Null if it is not
// there.
const std::string* FindAttribute(const Json::array_t& attributes,
                                 absl::string_view name) {
  for (std::size_t i = 0; i + 1 < attributes.size(); i += 2) {
    const auto* const found = attributes[i].get_ptr<const std::string*>();
    if (found != nullptr && *found == name)
      return attributes[i + 1].get_ptr<const std::string*>();
  }
  return nullptr;
}

// "#rrggbb", as pages write it.
std::optional<std::uint32_t> ColorOf(absl::string_view text) {
  std::uint32_t color = 0;
  if (text.size() != 7 || text[0] != '#' ||
      !absl::SimpleHexAtoi(text.substr(1), &color)) {
    return std::nullopt;
  }
  return color;
}

// Empty if the answer names files that the page can have.
std::string FindFault(const rpc::CreateWebDialogResponse& answer,
                      rpc::FileDialogMode mode) {
  const bool is_one = mode != rpc::FILE_DIALOG_MODE_OPEN_MULTIPLE;
  if (answer.file_paths().empty() ||
      (is_one && answer.file_paths_size() != 1)) {
    return absl::StrCat(answer.file_paths_size(), " files were chosen");
  }
  for (const auto& text : answer.file_paths()) {
    const std::filesystem::path path{std::string(text)};
    std::error_code error;
    const bool is_folder = std::filesystem::is_directory(path, error);
    if (!path.is_absolute() || !std::filesystem::exists(path, error) ||
        is_folder != (mode == rpc::FILE_DIALOG_MODE_OPEN_DIRECTORY)) {
      return absl::StrCat("'", orvane::Printable(std::string(text)),
                          "' was chosen");
    }
  }
  return "";
}

}  // namespace

std::string OriginOf(absl::string_view address) {
  const std::size_t end_of_scheme = address.find("://");
  if (end_of_scheme == absl::string_view::npos) return "null";
  const absl::string_view scheme = address.substr(0, end_of_scheme);
  if (scheme == "file") return "file://";
  if (scheme != "http" && scheme != "https") return "null";
  absl::string_view host = address.substr(end_of_scheme + 3);
  host = host.substr(0, host.find_first_of("/?#"));
  // Without an '@' this cuts nothing, since npos + 1 is 0.
  host = host.substr(host.find('@') + 1);
  return absl::StrCat(scheme, "://", host);
}

Dialogs::Dialogs(BrowserId browser, rpc::BrowserWidgetRpc* service, Send send)
    : browser_(std::move(browser)), service_(service), send_(std::move(send)) {}

Dialogs::~Dialogs() {
  open_call_.Cancel();
  color_call_.Cancel();
}

void Dialogs::Reset() {
  open_ = 0;
  std::exchange(open_call_, {}).Cancel();
  std::exchange(color_call_, {}).Cancel();
  frames_.clear();
  is_reloading_ = false;
}

void Dialogs::OnEvent(const EngineEvent& event) {
  const Json& params = event.params;
  if (event.method == "Page.javascriptDialogOpening") {
    OpenDialog(event);
  } else if (event.method == "Page.javascriptDialogClosed") {
    open_ = 0;
    std::exchange(open_call_, {}).Cancel();
  } else if (event.method == "Page.fileChooserOpened") {
    OpenFileDialog(event);
  } else if (event.method == "Page.frameNavigated") {
    const Json& frame = Member(params, "frame");
    const std::string& id = Text(frame, "id");
    if (frames_.size() < kMaxFrames || frames_.contains(id)) {
      frames_[id] = {OriginOf(Text(frame, "url")),
                     Text(frame, "parentId").empty()};
    }
  } else if (event.method == "Page.frameDetached") {
    if (Text(params, "reason") != "swap")
      frames_.erase(Text(params, "frameId"));
  } else if (event.method == "Page.frameStartedNavigating") {
    is_reloading_ = absl::StrContains(Text(params, "navigationType"), "reload");
  } else if (event.method == "Page.frameRequestedNavigation") {
    is_reloading_ = Text(params, "reason") == "reload";
  }
}

rpc::CreateWebDialogCall Dialogs::NewCall(const std::string& frame,
                                          const std::string& origin) const {
  rpc::CreateWebDialogCall call;
  call.set_origin(origin);
  for (const auto& [id, shown] : frames_) {
    if (shown.is_main && id != frame && shown.origin != origin)
      call.set_is_embedded_cross_origin(true);
  }
  return call;
}

// Runs `then` with a pointer to the answer, which is null unless the host has
// accepted the dialog, and with whether the host has answered at all.
template <typename Then>
orvane::CallHandle Dialogs::Ask(rpc::CreateWebDialogCall call, Then then) {
  return service_->OnCreateWebDialog()(
      browser_, std::move(call),
      [then = std::move(then), alive = std::weak_ptr<bool>(alive_)](
          const absl::StatusOr<rpc::CreateWebDialogResponse>& answer) {
        if (alive.expired()) return;
        then(answer.ok() && answer->accepted() ? &*answer : nullptr,
             answer.ok());
      },
      {});
}

void Dialogs::OpenDialog(const EngineEvent& event) {
  const Json& params = event.params;
  const std::string& type = Text(params, "type");
  const std::string message = Cut(Text(params, "message"));
  rpc::CreateWebDialogCall call =
      NewCall(Text(params, "frameId"), OriginOf(Text(params, "url")));
  const bool is_before_unload = type == "beforeunload";
  if (is_before_unload) {
    call.mutable_before_unload()->set_is_reload(is_reloading_);
  } else if (type == "confirm") {
    call.mutable_confirm()->set_message(message);
  } else if (type == "prompt") {
    call.mutable_prompt()->set_message(message);
    call.mutable_prompt()->set_default_text(Cut(Text(params, "defaultPrompt")));
  } else {
    call.mutable_alert()->set_message(message);
  }
  open_ = ++last_number_;
  open_session_ = event.session;
  open_call_ =
      Ask(std::move(call),
          [this, number = open_, is_before_unload](
              const rpc::CreateWebDialogResponse* answer, bool is_answered) {
            if (open_ != number) return;
            CloseDialog(answer != nullptr || (is_before_unload && !is_answered),
                        answer == nullptr ? "" : std::string(answer->text()));
          });
}

void Dialogs::Decline() {
  if (!is_open()) return;
  std::exchange(open_call_, {}).Cancel();
  CloseDialog(false, "");
}

void Dialogs::DeclineUnasked(const EngineEvent& event) {
  open_session_ = event.session;
  CloseDialog(false, "");
}

void Dialogs::CloseDialog(bool is_accepted, const std::string& text) {
  open_ = 0;
  send_(open_session_, "Page.handleJavaScriptDialog",
        {{"accept", is_accepted}, {"promptText", text}}, nullptr);
}

void Dialogs::OpenFileDialog(const EngineEvent& event) {
  const Json& node = Member(event.params, "backendNodeId");
  // What a picker function of the page's opened has failed there already.
  if (!node.is_number_integer()) return;
  const auto id = node.get<Json::number_integer_t>();
  const std::string frame = Text(event.params, "frameId");
  rpc::CreateWebDialogCall call = NewCall(frame, OriginIn(frame));
  const bool is_multiple = Text(event.params, "mode") == "selectMultiple";
  call.mutable_file()->set_mode(is_multiple
                                    ? rpc::FILE_DIALOG_MODE_OPEN_MULTIPLE
                                    : rpc::FILE_DIALOG_MODE_OPEN);
  send_(event.session, "DOM.describeNode", {{"backendNodeId", id}},
        [this, session = event.session, id, call = std::move(call),
         alive = std::weak_ptr<bool>(alive_)](
            const absl::StatusOr<Json>& described) mutable {
          if (alive.expired() || !described.ok()) return;
          const auto& attributes =
              List(Member(*described, "node"), "attributes");
          rpc::FileDialog& file = *call.mutable_file();
          if (FindAttribute(attributes, "webkitdirectory") != nullptr)
            file.set_mode(rpc::FILE_DIALOG_MODE_OPEN_DIRECTORY);
          if (const std::string* accept = FindAttribute(attributes, "accept")) {
            for (const absl::string_view filter :
                 absl::StrSplit(Cut(*accept), ',', absl::SkipWhitespace())) {
              if (file.accept_filters_size() == kMaxFilters) break;
              file.add_accept_filters(
                  std::string(absl::StripAsciiWhitespace(filter)));
            }
          }
          AskForFiles(session, id, std::move(call));
        });
}

std::string Dialogs::OriginIn(const std::string& frame) const {
  const auto found = frames_.find(frame);
  return found == frames_.end() ? "null" : found->second.origin;
}

void Dialogs::AskForColor(
    const std::string& frame, const Json& report,
    std::function<void(std::optional<std::string>)> choose) {
  std::exchange(color_call_, {}).Cancel();
  rpc::CreateWebDialogCall call = NewCall(frame, OriginIn(frame));
  call.mutable_color()->set_initial_color_rgb(
      ColorOf(Text(report, "value")).value_or(0));
  for (const Json& suggested : List(report, "suggested")) {
    if (call.color().suggested_colors_rgb_size() == kMaxColors) break;
    const auto* const text = suggested.get_ptr<const std::string*>();
    if (const auto color = ColorOf(text == nullptr ? "" : *text))
      call.mutable_color()->add_suggested_colors_rgb(*color);
  }
  color_call_ = Ask(std::move(call),
                    [choose = std::move(choose)](
                        const rpc::CreateWebDialogResponse* answer, bool) {
                      if (answer == nullptr || answer->color_rgb() > kWhite) {
                        choose(std::nullopt);
                      } else {
                        choose(absl::StrFormat("#%06x", answer->color_rgb()));
                      }
                    });
}

void Dialogs::AskForFiles(const std::string& session,
                          Json::number_integer_t node,
                          rpc::CreateWebDialogCall call) {
  const rpc::FileDialogMode mode = call.file().mode();
  Ask(std::move(call), [this, session, node, mode](
                           const rpc::CreateWebDialogResponse* answer, bool) {
    if (answer == nullptr) {
      CancelFiles(session, node);
      return;
    }
    if (const std::string fault = FindFault(*answer, mode); !fault.empty()) {
      LOG(WARNING) << "a file dialog counts as cancelled, since " << fault;
      CancelFiles(session, node);
      return;
    }
    Json files = Json::array();
    for (const auto& path : answer->file_paths())
      files.push_back(std::string(path));
    send_(session, "DOM.setFileInputFiles",
          {{"files", std::move(files)}, {"backendNodeId", node}}, nullptr);
  });
}

// The engine has no command for it. What it does in the page is an event.
void Dialogs::CancelFiles(const std::string& session,
                          Json::number_integer_t node) {
  send_(session, "DOM.resolveNode", {{"backendNodeId", node}},
        [this, session, alive = std::weak_ptr<bool>(alive_)](
            const absl::StatusOr<Json>& resolved) {
          if (alive.expired() || !resolved.ok()) return;
          send_(session, "Runtime.callFunctionOn",
                {{"objectId", Text(Member(*resolved, "object"), "objectId")},
                 {"functionDeclaration",
                  "function() { this.dispatchEvent("
                  "new Event('cancel', { bubbles: true })); }"}},
                nullptr);
        });
}

}  // namespace chromium
