// What the command line of host asks for.

#ifndef EXAMPLES_HOST_OPTIONS_H_
#define EXAMPLES_HOST_OPTIONS_H_

#include <string>

#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace host {

struct Options {
  std::string socket = orvane::DefaultSocketPath("widget");
  std::string save;  // Empty: no file is written.
};

// Returns only if there is something to do. After --help or --version it ends
// the process with exit code 0, after wrong use with 2 and words on the
// standard error.
Options ParseOptions(int argc, char** argv);

}  // namespace host

#endif  // EXAMPLES_HOST_OPTIONS_H_
