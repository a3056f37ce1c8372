// A page's dialogs, shown by the host.

#ifndef ENGINES_CHROMIUM_DIALOGS_H_
#define ENGINES_CHROMIUM_DIALOGS_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"

#include "engines/chromium/engine_pipe.h"
#include "engines/chromium/json.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/calling.h"

namespace chromium {

// Calls the host for each dialog and gives the engine its answer. If nobody
// serves dialogs or the call fails, a page is left on a before-unload dialog,
// and any other counts as declined.
//
// Thread: the service thread. Lifetime: the service outlives it.
class Dialogs {
 public:
  // Sends a command to a session of the page's.
  using Send =
      std::function<void(absl::string_view session, absl::string_view method,
                         Json params, orvane::OnAnswer<Json> on_answer)>;

  Dialogs(BrowserId browser, rpc::BrowserWidgetRpc* service, Send send);
  Dialogs(const Dialogs&) = delete;
  Dialogs& operator=(const Dialogs&) = delete;
  ~Dialogs();

  // Every event of the page's sessions; takes those that concern it.
  void OnEvent(const EngineEvent& event);

  // The page's place in the engine is gone, and its dialogs with it.
  void Reset();

  // Asks for a colour, which our script has reported that a document in that
  // frame wants. `choose` gets it as "#rrggbb", or nothing if none was chosen.
  void AskForColor(const std::string& frame, const Json& report,
                   std::function<void(std::optional<std::string>)> choose);

  // Declines the dialog for which the page waits, if there is one.
  void Decline();

  // In place of OnEvent, for a dialog that opens while nobody wants to know.
  void DeclineUnasked(const EngineEvent& event);

  // A dialog for which the page waits.
  bool is_open() const { return open_ != 0; }

 private:
  // What a frame shows, to tell the host who asks.
  struct Frame {
    std::string origin;
    bool is_main;
  };

  void OpenDialog(const EngineEvent& event);
  void CloseDialog(bool is_accepted, const std::string& text);
  void OpenFileDialog(const EngineEvent& event);
  void AskForFiles(const std::string& session, Json::number_integer_t node,
                   rpc::CreateWebDialogCall call);
  void CancelFiles(const std::string& session, Json::number_integer_t node);
  std::string OriginIn(const std::string& frame) const;
  rpc::CreateWebDialogCall NewCall(const std::string& frame,
                                   const std::string& origin) const;

  template <typename Then>
  orvane::CallHandle Ask(rpc::CreateWebDialogCall call, Then then);

  const BrowserId browser_;
  rpc::BrowserWidgetRpc* const service_;
  const Send send_;

  std::map<std::string, Frame> frames_;
  bool is_reloading_ = false;

  // The engine has one dialog at a time for each page.
  std::uint64_t last_number_ = 0;
  std::uint64_t open_ = 0;  // 0: none.
  std::string open_session_;
  orvane::CallHandle open_call_;
  orvane::CallHandle color_call_;

  const std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

// "https://example.com:8080" of an address; "null" where there is no origin to
// be shown.
std::string OriginOf(absl::string_view address);

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_DIALOGS_H_
