// The commands of widgetctl.

#ifndef TOOLS_WIDGETCTL_COMMANDS_H_
#define TOOLS_WIDGETCTL_COMMANDS_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "absl/strings/string_view.h"
#include "absl/time/time.h"
#include "absl/types/span.h"
#include "google/protobuf/descriptor.h"

#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace widgetctl {

// The exit codes of the program.
enum ExitCode : int {
  kOk = 0,
  kFailed = 1,  // A call or a stream failed, or a session was not as expected.
  kUsage = 2,   // Also unknown names, wrong JSON and unreadable files.
  kNoConnection = 3,  // Also if the widget has ended the connection or stream.
};

// Prints `why` to stderr and returns `code`.
ExitCode Fail(ExitCode code, absl::string_view why);

struct Options {
  // The services to describe and call, at least one; in the generated pool. A
  // command is about the one that has its method, else about the first.
  std::vector<const google::protobuf::ServiceDescriptor*> services;
  std::string socket = orvane::DefaultSocketPath("widget");
  absl::Duration timeout = absl::Seconds(5);  // Of each wait; above 0.

  // For `watch` and `serve`.
  std::optional<int> count = std::nullopt;  // Above 0.
  std::optional<std::string> reply = std::nullopt;
  std::optional<std::string> fail = std::nullopt;
  std::optional<std::string> command = std::nullopt;

  // For `status`.
  bool watches = false;

  // For `trace` and `status`.
  bool json = false;

  // For `trace`. Empty: all methods, all browsers.
  bool no_payloads = false;
  std::vector<std::string> methods = {};
  std::optional<std::uint64_t> browser = std::nullopt;

  // For `record`: see RecorderOptions.
  std::vector<std::string> varying = {};
  bool has_text = false;
};

struct Command {
  absl::string_view name;
  absl::string_view arguments;  // Their names, as help shows them.
  absl::string_view options;    // Those of this command, as help shows them.
  std::size_t min_arguments;
  std::size_t max_arguments;
  absl::string_view summary;
  absl::string_view details;

  // The number of arguments must be within the two bounds above. Prints results
  // to stdout and errors to stderr.
  ExitCode (*run)(const Options& options,
                  const std::vector<std::string>& arguments);
};

absl::Span<const Command> Commands();

// "call METHOD [JSON]".
std::string Synopsis(const Command& command);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_COMMANDS_H_
