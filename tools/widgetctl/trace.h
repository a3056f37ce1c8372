// The command that shows what hosts and a widget say to each other.

#ifndef TOOLS_WIDGETCTL_TRACE_H_
#define TOOLS_WIDGETCTL_TRACE_H_

#include <functional>
#include <string>
#include <vector>

#include "absl/functional/any_invocable.h"
#include "absl/status/status.h"

#include "tools/widgetctl/commands.h"
#include "tools/widgetctl/interceptor.h"

namespace widgetctl {

// For Command::run. The argument is the path where hosts connect.
ExitCode Trace(const Options& options, const std::vector<std::string>& path);

// Also for `record`: intercepts until SIGINT, SIGTERM or SIGHUP what hosts that
// connect to `path` and the widget at `options.socket` say. `on_listening` runs
// first; its error is told, and ends this. So does `is_output_lost`, unless it
// is empty, which is asked again and again. Fails if nobody can connect to
// `path`, or if the widget is to listen there.
ExitCode Intercept(const Options& options, const std::string& path,
                   bool wants_payloads, Listener* listener,
                   const std::function<absl::Status()>& on_listening,
                   absl::AnyInvocable<bool()> is_output_lost);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_TRACE_H_
