#include "zimbrel/src/core/common/rpc/transport/client/server_watch.h"

#include <utility>

#include "absl/time/clock.h"

namespace orvane::internal {

ServerWatch::ServerWatch(EventLoop* loop, absl::Duration patience,
                         Callbacks callbacks)
    : loop_(loop), period_(patience / 3), callbacks_(std::move(callbacks)) {
  LookLater();
}

void ServerWatch::LookLater() {
  next_ = absl::Now() + period_;
  next_look_ = loop_->RunAfter(period_, [this] { Look(); });
}

void ServerWatch::Look() {
  // If this process has been busy itself, the server may have had no time.
  const bool is_late = absl::Now() > next_ + period_ / 2;
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

void ServerWatch::Recover() {
  is_hung_ = false;
  recovery_ = loop_->RunAfter(absl::ZeroDuration(),
                              [this] { callbacks_.on_change(true); });
}

}  // namespace orvane::internal
