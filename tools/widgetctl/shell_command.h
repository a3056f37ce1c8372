// Shell commands that answer calls.

#ifndef TOOLS_WIDGETCTL_SHELL_COMMAND_H_
#define TOOLS_WIDGETCTL_SHELL_COMMAND_H_

#include <memory>
#include <string>

#include "absl/functional/any_invocable.h"
#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace widgetctl {

// A command that /bin/sh runs, in a process group of its own, while the loop
// goes on. It shares our stderr.
//
// Thread: the service thread. Lifetime: the loop outlives it.
class ShellCommand {
 public:
  // Runs once, when the command has exited and its stdout is closed: with what
  // it printed, or with an error that tells how it failed. May destroy the
  // ShellCommand.
  using EndHandler =
      absl::AnyInvocable<void(absl::StatusOr<std::string> printed) &&>;

  // Starts the command, which can read `input` from its stdin. After an error
  // nothing has been started.
  static absl::StatusOr<std::unique_ptr<ShellCommand>> Start(
      orvane::EventLoop* loop, const std::string& command,
      absl::string_view input, EndHandler on_end);

  ShellCommand(const ShellCommand&) = delete;
  ShellCommand& operator=(const ShellCommand&) = delete;

  // If the command has not ended, sends SIGTERM to the shell and to all that it
  // has started in its process group, but does not wait for their end. `on_end`
  // does not run afterwards.
  ~ShellCommand();

 private:
  class Process;

  explicit ShellCommand(std::unique_ptr<Process> process);

  const std::unique_ptr<Process> process_;
};

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_SHELL_COMMAND_H_
