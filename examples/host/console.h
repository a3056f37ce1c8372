// The user interface of this host: lines of text.

#ifndef EXAMPLES_HOST_CONSOLE_H_
#define EXAMPLES_HOST_CONSOLE_H_

#include <memory>
#include <string>
#include <vector>

#include "absl/status/status.h"

#include "examples/host/image.h"
#include "orvane/client.h"
#include "rpc/browser/browser_widget.client.h"

namespace host {

// Watches the events of a browser and answers its calls. Prints a line for each
// thing that happens; what is a line here is a window, a menu or a sound in a
// host with a screen.
//
// Thread: the service thread. Lifetime: loop and connection outlive the
// console.
class Console {
 public:
  Console(orvane::EventLoop* loop, orvane::SocketClient* connection,
          BrowserId browser);
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  void Tell(const std::string& news);

  // Waits for a line that begins so, unless there was one since the last Await
  // that was OK. An error if the connection ends, or nothing comes for 10 s.
  // Must not be called inside anything that the loop runs.
  absl::Status Await(const std::string& beginning);

  // The last picture of the view. Without pixels before the first.
  const Image& view() const { return view_; }

 private:
  void Watch();
  void Serve();

  // What became of a frame, whose pixels are the host's until it is answered.
  rpc::FrameReceipt Receive(const rpc::PixelFrame& frame,
                            const std::string& what, Image* image);

  orvane::EventLoop* const loop_;
  orvane::SocketClient* const connection_;
  rpc::BrowserWidgetRpcClient widget_;
  const BrowserId browser_;
  Image view_;
  std::vector<std::string> news_;  // Since the last Await that was OK.
  std::vector<std::unique_ptr<orvane::ClientStream>> streams_;
};

}  // namespace host

#endif  // EXAMPLES_HOST_CONSOLE_H_
