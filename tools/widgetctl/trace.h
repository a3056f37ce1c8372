// The command that shows what hosts and a widget say to each other.

#ifndef TOOLS_WIDGETCTL_TRACE_H_
#define TOOLS_WIDGETCTL_TRACE_H_

#include <string>
#include <vector>

#include "tools/widgetctl/commands.h"

namespace widgetctl {

// For Command::run. The argument is the path where hosts connect.
ExitCode Trace(const Options& options, const std::vector<std::string>& path);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_TRACE_H_
