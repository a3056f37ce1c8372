// Replays a recorded session to a widget.

#ifndef TOOLS_WIDGETCTL_SESSION_RUNNER_H_
#define TOOLS_WIDGETCTL_SESSION_RUNNER_H_

#include <functional>
#include <memory>
#include <ostream>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"

#include "tools/widgetctl/session.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace widgetctl {

// Makes a connection to the widget.
using Connect =
    std::function<absl::StatusOr<std::unique_ptr<orvane::SocketClient>>()>;

struct SessionOutcome {
  bool is_as_expected;

  // Why the session could not go on, if it has lost a connection, or could not
  // make one.
  absl::Status connection;
};

// Runs the steps in order and writes their results to `transcript`. `timeout`
// limits each call and each wait for an event or a call from the widget. After
// a step whose result was not as expected the session goes on, unless the
// connection is gone.
//
// It was not as expected either if a stream ended before the session ended it,
// or if something arrived that no step expected or allowed. `loop` is that of
// the connections.
SessionOutcome RunSession(const std::vector<SessionStep>& steps,
                          absl::Duration timeout, orvane::EventLoop& loop,
                          const Connect& connect, std::ostream& transcript);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_SESSION_RUNNER_H_
