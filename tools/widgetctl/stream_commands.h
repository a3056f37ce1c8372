// The commands that keep a stream open.

#ifndef TOOLS_WIDGETCTL_STREAM_COMMANDS_H_
#define TOOLS_WIDGETCTL_STREAM_COMMANDS_H_

#include <string>
#include <vector>

#include "tools/widgetctl/commands.h"

namespace widgetctl {

// For Command::run. The arguments are a method and a key.
ExitCode Watch(const Options& options,
               const std::vector<std::string>& method_and_key);
ExitCode Serve(const Options& options,
               const std::vector<std::string>& method_and_key);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_STREAM_COMMANDS_H_
