// The command that tells what a server is doing.

#ifndef TOOLS_WIDGETCTL_STATUS_H_
#define TOOLS_WIDGETCTL_STATUS_H_

#include <string>
#include <vector>

#include "tools/widgetctl/commands.h"

namespace widgetctl {

// For Command::run.
ExitCode Status(const Options& options, const std::vector<std::string>&);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_STATUS_H_
