// The command line of host.

#ifndef EXAMPLES_HOST_OPTIONS_H_
#define EXAMPLES_HOST_OPTIONS_H_

#include <string>

#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace host {

struct Options {
  std::string socket = orvane::DefaultSocketPath("widget");
  std::string save;  // Empty: no file is written.
};

// Ends the process instead of returning: with exit code 0 after --help and
// --version, and with 2 and a message on stderr if the command line is wrong.
Options ParseOptions(int argc, char** argv);

}  // namespace host

#endif  // EXAMPLES_HOST_OPTIONS_H_
