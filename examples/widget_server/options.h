// What the command line of widget_server asks for.

#ifndef EXAMPLES_WIDGET_SERVER_OPTIONS_H_
#define EXAMPLES_WIDGET_SERVER_OPTIONS_H_

#include <string>

#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace widget_server {

inline constexpr int kMaxBrowsers = 100;

struct Options {
  std::string socket = orvane::DefaultSocketPath("widget");
  int browsers = 3;  // From 1 to kMaxBrowsers.
};

// Returns only if there is something to serve. After --help or --version it
// ends the process with exit code 0, after wrong use with 2 and words on the
// standard error.
Options ParseOptions(int argc, char** argv);

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_OPTIONS_H_
