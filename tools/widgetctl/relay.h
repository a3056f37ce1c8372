// Passes on what a host and a widget send each other.

#ifndef TOOLS_WIDGETCTL_RELAY_H_
#define TOOLS_WIDGETCTL_RELAY_H_

#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

#include "absl/strings/string_view.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace widgetctl {

enum class Side { kHost, kWidget };

// Copies bytes and descriptors from each side to the other, unchanged, as fast
// as the other side reads. An end is passed on too: a side that has closed its
// connection is closed for the other one, once that has been sent everything.
//
// Thread: the service thread. Lifetime: the loop outlives the relay. One that
// is destroyed breaks the connection off.
class Relay {
 public:
  struct Handlers {
    // Runs with bytes that a side has sent, once they have been passed on as
    // far as the other side takes them. Must not destroy the relay.
    std::function<void(Side from, absl::string_view bytes)> on_bytes;

    // Runs as a task of its own when both sides have ended.
    orvane::Task on_end;
  };

  // Both are connected stream sockets.
  Relay(orvane::EventLoop* loop, std::unique_ptr<orvane::EventLoop::Watch> host,
        std::unique_ptr<orvane::EventLoop::Watch> widget, Handlers handlers);
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

 private:
  static constexpr std::size_t kBufferBytes = std::size_t{64} << 10;

  // Where the bytes of one side go. What has been read is written before more
  // is read.
  struct Direction {
    Side from;
    orvane::EventLoop::Watch* source;
    orvane::EventLoop::Watch* sink;
    std::array<char, kBufferBytes> buffer;
    absl::string_view unsent;                          // In the buffer.
    std::vector<orvane::OwnedDescriptor> descriptors;  // Go with `unsent`.
    bool has_ended = false;
  };

  void Pump(Direction& direction);
  bool Read(Direction& direction);
  void Write(Direction& direction);
  void End(Direction& direction);

  orvane::EventLoop* const loop_;
  const std::unique_ptr<orvane::EventLoop::Watch> host_;
  const std::unique_ptr<orvane::EventLoop::Watch> widget_;
  Handlers handlers_;
  Direction to_widget_;
  Direction to_host_;

  // Tasks hold a weak pointer to it, so that they find out that this object is
  // gone.
  const std::shared_ptr<Relay*> self_ = std::make_shared<Relay*>(this);
};

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_RELAY_H_
