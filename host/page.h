// Where a browser goes: what an address bar shows and does.

#ifndef HOST_PAGE_H_
#define HOST_PAGE_H_

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "absl/functional/any_invocable.h"
#include "absl/strings/string_view.h"

#include "host/connector.h"
#include "host/pixels.h"
#include "rpc/browser/browser_id.pb.h"
#include "rpc/browser/page.client.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/client_stream.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace orvane::host {

// The whole address for what a user has typed, which mostly lacks the scheme:
// "https://example.com" for "example.com", "http://" for this machine,
// "file://" for an absolute path. Blanks around it are left out.
std::string AddressOf(absl::string_view typed);

struct PageHandlers {
  // Runs when the browser shows or does something else or ProblemText() has
  // changed, and with null when the page is not known any more because the
  // widget has gone. Never runs if the widget does not serve pages, so hide the
  // address bar until it does.
  absl::AnyInvocable<void(const rpc::PageState*)> on_state = nullptr;

  // Runs when the page has another icon, of at most 64 pixels a side, and with
  // null when it has none any more. The picture is valid during the call.
  absl::AnyInvocable<void(const Picture*)> on_icon = nullptr;

  // Runs when the page wants to open a window; returns whether the address is
  // to be loaded in place of the page. If it is null, no window opens.
  absl::AnyInvocable<bool(const rpc::OpenWindowCall&)> on_open_window = nullptr;

  // Runs when the page offers a file; returns the absolute path, in UTF-8, to
  // save it at, or an empty one if it is not wanted. What is there is replaced:
  // CreateNewFile makes a new one. At most 64 files are saved at a time; what
  // is offered beyond that is refused without asking. If this is null, no file
  // is saved.
  absl::AnyInvocable<std::string(const rpc::DownloadCall&)> on_download =
      nullptr;

  // Runs as a file is saved at that path, at last with
  // DOWNLOAD_STATUS_COMPLETED or DOWNLOAD_STATUS_FAILED: exactly once, also if
  // the widget goes before. The error is any text of the widget's.
  absl::AnyInvocable<void(const std::string& path, const rpc::DownloadChanged&)>
      on_download_changed = nullptr;
};

// The page service of one widget process after the other, for one browser.
//
// Thread: the service thread of the loop. Lifetime: the loop outlives the page.
// Must not be destroyed in one of its handlers.
class Page {
 public:
  Page(Connector connect, BrowserId browser, PageHandlers handlers);
  Page(const Page&) = delete;
  Page& operator=(const Page&) = delete;
  ~Page();

  // Connects to the widget that listens now, in place of the one before. Call
  // it in ViewHandlers::on_connected.
  void Connect();

  // Why the page is not what the user expects, as a sentence to be shown: it
  // cannot be loaded, has crashed, does not respond, or its address was
  // refused. Printable; at most 300 bytes of it are the widget's. Empty if all
  // is well.
  std::string ProblemText() const;

  // Each does nothing while the widget does not serve pages. What comes of it
  // is told by `on_state`.
  void Load(const std::string& address);
  void Reload();
  void Stop();
  void GoBack();
  void GoForward();

 private:
  // What belongs to one widget process. Destroyed from the bottom up.
  struct Session {
    explicit Session(std::unique_ptr<SocketClient> new_connection)
        : connection(std::move(new_connection)), client(connection.get()) {}

    const std::unique_ptr<SocketClient> connection;
    rpc::PageRpcClient client;
    std::optional<rpc::PageState> state;  // None: not told, or not any more.
    // What has happened to the page at this address, or to what the user asked
    // for in its place.
    std::string problem;
    bool is_asked_for_icon = false;                  // Has not answered yet.
    std::map<std::uint64_t, std::string> downloads;  // Paths, until they end.
    std::unique_ptr<ClientStream> offers;            // Of downloads.
    std::vector<std::unique_ptr<ClientStream>> streams;
  };

  bool is_served() const { return session_ && session_->state.has_value(); }
  void OnState(const rpc::PageState& state);
  void OnFailure(rpc::PageFailure failure);
  void OnEnd();
  void TellState();
  void UpdateIcon();
  void TellIcon(const Picture* icon);
  void ServeDownloads();
  std::string PathOf(const rpc::DownloadCall& call);
  void OnDownloadChanged(const rpc::DownloadChanged& event);
  void EndDownloads();

  const Connector connect_;
  const BrowserId browser_;
  PageHandlers handlers_;
  std::shared_ptr<Session> session_;  // Answers hold a weak pointer.
  bool has_icon_ = false;             // As told to `on_icon`.
};

}  // namespace orvane::host

#endif  // HOST_PAGE_H_
