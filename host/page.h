// Where a browser goes: what an address bar shows and does.

#ifndef HOST_PAGE_H_
#define HOST_PAGE_H_

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "absl/functional/any_invocable.h"
#include "absl/strings/string_view.h"

#include "rpc/browser/browser_id.pb.h"
#include "rpc/browser/page.client.h"
#include "zimbrel/src/core/common/rpc/calling.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/client_stream.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace orvane::host {

// The whole address for what a user has typed, which mostly lacks the scheme:
// "https://example.com" for "example.com", "http://" for this machine,
// "file://" for an absolute path. Blanks around it are left out.
std::string AddressOf(absl::string_view typed);

struct PageHandlers {
  // Runs when the browser shows or does something else, and with null when it
  // is not known any more because the widget has gone. Never runs if the widget
  // does not serve pages, so hide the address bar until it does.
  absl::AnyInvocable<void(const rpc::PageState*)> on_state = nullptr;

  // Runs when the page wants to open a window; returns whether the address is
  // to be loaded in place of the page. If it is null, no window opens.
  absl::AnyInvocable<bool(const rpc::OpenWindowCall&)> on_open_window = nullptr;
};

// The page service of one widget process after the other, for one browser.
//
// Thread: the service thread of the loop. Lifetime: the loop outlives the page.
// Must not be destroyed in one of its handlers.
class Page {
 public:
  Page(EventLoop* loop, std::string socket, BrowserId browser,
       PageHandlers handlers);
  Page(const Page&) = delete;
  Page& operator=(const Page&) = delete;
  ~Page();

  // Connects to the widget that listens now, in place of the one before. Call
  // it in ViewHandlers::on_connected.
  void Connect();

  // Each does nothing while the widget does not serve pages. `on_answer` tells
  // whether the address is one that pages may load; what comes of it is told by
  // `on_state`. It does not run once the page is destroyed or connects anew.
  void Load(const std::string& address,
            OnAnswer<google::protobuf::Empty> on_answer = nullptr);
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
    std::vector<std::unique_ptr<ClientStream>> streams;
  };

  EventLoop* const loop_;
  const std::string socket_;
  const BrowserId browser_;
  PageHandlers handlers_;
  std::shared_ptr<Session> session_;  // Answers hold a weak pointer.
  bool is_served_ = false;            // The widget has told its page.
};

}  // namespace orvane::host

#endif  // HOST_PAGE_H_
