// Replays a recorded session to a widget.

#ifndef TOOLS_WIDGETCTL_SESSION_RUNNER_H_
#define TOOLS_WIDGETCTL_SESSION_RUNNER_H_

#include <ostream>
#include <vector>

#include "absl/time/time.h"

#include "tools/widgetctl/session.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace widgetctl {

// Runs the steps in order and writes their results to `transcript`. `timeout`
// limits each call and each wait for an event or a call from the widget. After
// a step whose result was not as expected the session goes on, unless the
// connection is gone.
//
// Returns whether everything was as expected. It was not if a stream ended
// before the session ended it, or if something arrived that no step expected.
// `loop` is the client's.
bool RunSession(const std::vector<SessionStep>& steps, absl::Duration timeout,
                orvane::EventLoop& loop, orvane::SocketClient& client,
                std::ostream& transcript);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_SESSION_RUNNER_H_
