// Finds out that the process at the other end of a connection hangs.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_PEER_WATCH_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_PEER_WATCH_H_

#include <chrono>
#include <cstdint>
#include <memory>

#include "absl/functional/any_invocable.h"
#include "absl/time/time.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/wire/frame_socket.h"

namespace orvane::internal {

// Looks three times in each `patience` whether there was a sign of life. If
// not, it asks the peer, and if there is none at the next look either, the peer
// hangs. So a peer that stops is found out within `patience`.
//
// Thread: the service thread. The callbacks may destroy the watch.
class PeerWatch {
 public:
  struct Callbacks {
    // Whether the peer has something to answer or to read now. Sends it a
    // question if need be and possible.
    absl::AnyInvocable<bool()> ask;

    // Whether bytes have come that have not been read, since this process was
    // busy itself.
    absl::AnyInvocable<bool()> has_input;

    // Runs as a task of its own after each change.
    absl::AnyInvocable<void(bool responds)> on_change;
  };

  PeerWatch(EventLoop* loop, absl::Duration patience, Callbacks callbacks);
  PeerWatch(const PeerWatch&) = delete;
  PeerWatch& operator=(const PeerWatch&) = delete;

  // Called at each sign of life.
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
  std::chrono::steady_clock::time_point latest_look_;
  Callbacks callbacks_;
  std::uint64_t heard_ = 0;       // Signs of life.
  std::uint64_t seen_heard_ = 0;  // At the last look.
  bool has_asked_ = false;        // At the last look.
  bool is_hung_ = false;
  std::unique_ptr<EventLoop::Timer> next_look_;
  std::unique_ptr<EventLoop::Timer> recovery_;
};

// Makes sure that the peer has something to read. False if it cannot be asked,
// since it speaks an older protocol.
bool Ask(FrameSocket& socket, std::uint32_t protocol);

// Answers a frame of kind KIND_PING.
void AnswerPing(FrameSocket& socket);

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_PEER_WATCH_H_
