// The user interface of this host: lines of text.

#ifndef EXAMPLES_HOST_CONSOLE_H_
#define EXAMPLES_HOST_CONSOLE_H_

#include <memory>
#include <string>
#include <vector>

#include "absl/status/status.h"

#include "host/pixels.h"
#include "orvane/client.h"
#include "rpc/browser/browser_widget.client.h"

namespace host {

// Watches the events of a browser and answers its calls. Prints a line for
// everything that happens; a graphical host would show a window or a menu, or
// play a sound.
//
// Thread: the service thread. Lifetime: loop and connection outlive the
// console.
class Console {
 public:
  Console(orvane::EventLoop* loop, orvane::SocketClient* connection,
          BrowserId browser);
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  // Prints a line. What a terminal would obey in it is escaped.
  void Tell(const std::string& news);

  // Waits for a line that begins with `beginning`, unless such a line was
  // printed since the last Await that returned OK. Fails if the connection
  // ends, or if there is no such line within 10 s. Must not be called by code
  // that the loop runs.
  absl::Status Await(const std::string& beginning);

  // The latest picture of the view.
  const orvane::host::Picture& view() const { return view_; }

 private:
  void Watch();
  void Serve();

  // Copies a frame and returns the receipt for it. The pixels belong to the
  // host until the receipt is sent.
  rpc::FrameReceipt Receive(const rpc::PixelFrame& frame,
                            const std::string& what,
                            orvane::host::Picture* picture);

  orvane::EventLoop* const loop_;
  orvane::SocketClient* const connection_;
  rpc::BrowserWidgetRpcClient widget_;
  const BrowserId browser_;
  orvane::host::Picture view_;
  std::vector<std::string> news_;  // Since the last Await that returned OK.
  std::vector<std::unique_ptr<orvane::ClientStream>> streams_;
};

}  // namespace host

#endif  // EXAMPLES_HOST_CONSOLE_H_
