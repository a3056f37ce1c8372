// The command that tells what a server is doing.

#ifndef TOOLS_WIDGETCTL_STATUS_H_
#define TOOLS_WIDGETCTL_STATUS_H_

#include <string>
#include <vector>

#include "rpc/transport/status.pb.h"
#include "tools/widgetctl/commands.h"

namespace widgetctl {

// For Command::run.
ExitCode Status(const Options& options, const std::vector<std::string>&);

// Some lines for a terminal.
std::string StatusInWords(const rpc::transport::ServerStatus& status);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_STATUS_H_
