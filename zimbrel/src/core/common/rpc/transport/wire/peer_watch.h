// Finds out that a server hangs.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_SERVER_WATCH_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_SERVER_WATCH_H_

#include <cstdint>
#include <memory>

#include "absl/functional/any_invocable.h"
#include "absl/time/time.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace orvane::internal {

// Looks three times in each `patience` whether something has come. If not, it
// asks the server, and if nothing has come at the next look either, the server
// hangs. So a server that stops is found out within `patience`.
//
// Thread: the service thread. The callbacks may destroy the watch.
class ServerWatch {
 public:
  struct Callbacks {
    // Sends something that the server answers at once. False if that is not
    // possible now.
    absl::AnyInvocable<bool()> ask;

    // Whether bytes have come that have not been read, since this process was
    // busy itself.
    absl::AnyInvocable<bool()> has_input;

    // Runs as a task of its own after each change.
    absl::AnyInvocable<void(bool responds)> on_change;
  };

  ServerWatch(EventLoop* loop, absl::Duration patience, Callbacks callbacks);
  ServerWatch(const ServerWatch&) = delete;
  ServerWatch& operator=(const ServerWatch&) = delete;

  // Called with each frame that comes.
  void Heard() {
    ++heard_;
    if (is_hung_) Recover();
  }

 private:
  void LookLater();
  void Look();
  void Recover();

  EventLoop* const loop_;
  const absl::Duration period_;
  absl::Time next_;  // When the next look is due.
  Callbacks callbacks_;
  std::uint64_t heard_ = 0;       // Frames.
  std::uint64_t seen_heard_ = 0;  // At the last look.
  bool has_asked_ = false;        // At the last look.
  bool is_hung_ = false;
  std::unique_ptr<EventLoop::Timer> next_look_;
  std::unique_ptr<EventLoop::Timer> recovery_;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_SERVER_WATCH_H_
