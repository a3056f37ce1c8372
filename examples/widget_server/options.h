// The command line of widget_server.

#ifndef EXAMPLES_WIDGET_SERVER_OPTIONS_H_
#define EXAMPLES_WIDGET_SERVER_OPTIONS_H_

#include "examples/widget_server/endpoints.h"

namespace widget_server {

inline constexpr int kMaxBrowsers = 100;

struct Options {
  Endpoints endpoints;
  int browsers = 3;  // From 1 to kMaxBrowsers.
};

// Ends the process instead of returning: with exit code 0 after --help and
// --version, and with 2 and a message on stderr if the command line is wrong.
Options ParseOptions(int argc, char** argv);

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_OPTIONS_H_
