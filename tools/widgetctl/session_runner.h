// Playing a recorded session to a widget.

#ifndef TOOLS_WIDGETCTL_SESSION_RUNNER_H_
#define TOOLS_WIDGETCTL_SESSION_RUNNER_H_

#include <ostream>
#include <vector>

#include "absl/time/time.h"

#include "tools/widgetctl/session.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace widgetctl {

// Takes the steps one after the other and writes down what came of them: makes
// each call, and waits for each event or call of the widget, with this timeout.
// Goes on after one that was not as expected, unless the connection is gone.
//
// True if all was as expected, which is to say also that no stream ended before
// the session ended it, and that nothing had arrived by the end that the
// session did not expect. `loop` is that of the client.
bool RunSession(const std::vector<SessionStep>& steps, absl::Duration timeout,
                orvane::EventLoop& loop, orvane::SocketClient& client,
                std::ostream& transcript);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_SESSION_RUNNER_H_
