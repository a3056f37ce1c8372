// What widgetctl can do.

#ifndef TOOLS_WIDGETCTL_COMMANDS_H_
#define TOOLS_WIDGETCTL_COMMANDS_H_

#include <cstddef>
#include <string>
#include <vector>

#include "absl/strings/string_view.h"
#include "absl/time/time.h"
#include "absl/types/span.h"
#include "google/protobuf/descriptor.h"

#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace widgetctl {

// What the program exits with.
enum ExitCode : int {
  kOk = 0,
  kFailed = 1,  // A call failed, or a session was not as expected.
  kUsage = 2,   // Unknown names, wrong JSON and unreadable files among it.
  kNoConnection = 3,
};

struct Options {
  // The service to talk about and to, of the generated pool.
  const google::protobuf::ServiceDescriptor* service;
  std::string socket = orvane::DefaultSocketPath("widget");
  absl::Duration timeout = absl::Seconds(5);  // Of each call; above 0.
};

struct Command {
  absl::string_view name;
  absl::string_view arguments;  // Their names, as help shows them.
  std::size_t min_arguments;
  std::size_t max_arguments;
  absl::string_view summary;
  absl::string_view details;

  // There are as many arguments as it allows. Results go to stdout, words about
  // what is wrong to stderr.
  ExitCode (*run)(const Options& options,
                  const std::vector<std::string>& arguments);
};

absl::Span<const Command> Commands();

// "call METHOD [JSON]".
std::string Synopsis(const Command& command);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_COMMANDS_H_
