#include "zimbrel/src/core/common/rpc/transport/wire/peer_watch.h"

#include <algorithm>
#include <utility>

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/transport/wire/handshake.h"

namespace orvane::internal {

using rpc::transport::StreamMessage;
using std::chrono::steady_clock;

namespace {

// Less says nothing about a peer, and would keep both ends busy.
constexpr absl::Duration kMinPatience = absl::Milliseconds(3);

}  // namespace

PeerWatch::PeerWatch(EventLoop* loop, absl::Duration patience,
                     Callbacks callbacks)
    : loop_(loop),
      period_(std::max(patience, kMinPatience) / 3),
      callbacks_(std::move(callbacks)) {
  LookLater();
}

void PeerWatch::LookLater() {
  latest_look_ = steady_clock::now();
  next_look_ = loop_->RunAfter(period_, [this] { Look(); });
}

void PeerWatch::Look() {
  // If this process has been busy itself, the peer may have had no time.
  const bool is_late =
      absl::FromChrono(steady_clock::now() - latest_look_) > 1.5 * period_;
  LookLater();
  const bool is_alive =
      is_late || heard_ != seen_heard_ || callbacks_.has_input();
  seen_heard_ = heard_;
  if (is_alive) {
    has_asked_ = false;
  } else if (!has_asked_) {
    has_asked_ = callbacks_.ask();
  } else if (!is_hung_) {
    is_hung_ = true;
    callbacks_.on_change(false);
  }
}

void PeerWatch::Recover() {
  is_hung_ = false;
  recovery_ = loop_->RunAfter(absl::ZeroDuration(),
                              [this] { callbacks_.on_change(true); });
}

bool Ask(FrameSocket& socket, std::uint32_t protocol) {
  if (socket.stalled_since().has_value()) return true;
  if (protocol < kSecondProtocol) return false;
  StreamMessage ping;
  ping.set_kind(StreamMessage::KIND_PING);
  return socket.Send(ping).ok();
}

void AnswerPing(FrameSocket& socket) {
  StreamMessage pong;
  pong.set_kind(StreamMessage::KIND_PONG);
  socket.Send(pong).IgnoreError();  // Fails if too much waits for the peer.
}

}  // namespace orvane::internal
