// The command that writes what hosts and a widget say to each other into a
// session file.

#ifndef TOOLS_WIDGETCTL_RECORD_H_
#define TOOLS_WIDGETCTL_RECORD_H_

#include <string>
#include <vector>

#include "tools/widgetctl/commands.h"

namespace widgetctl {

// For Command::run. The arguments are the file and, optionally, the path where
// hosts connect.
ExitCode Record(const Options& options,
                const std::vector<std::string>& file_and_path);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_RECORD_H_
