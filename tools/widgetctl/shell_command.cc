#include "tools/widgetctl/shell_command.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <utility>

#include "zimbrel/src/core/common/rpc/asio_hook.h"

#include "absl/memory/memory.h"
#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "asio/buffer.hpp"
#include "asio/io_context.hpp"
#include "asio/posix/stream_descriptor.hpp"
#include "asio/read.hpp"

#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace widgetctl {

using asio::posix::stream_descriptor;
using orvane::OwnedDescriptor;

namespace {

absl::Status CannotStart(int error) {
  return absl::UnavailableError(
      absl::StrCat("the command does not start: ", std::strerror(error)));
}

// A file in memory to be read from its beginning. Unlike a pipe it takes any
// amount before anybody reads, and does not mind if nobody does.
absl::StatusOr<OwnedDescriptor> FileOf(absl::string_view text) {
  OwnedDescriptor file(::memfd_create("stdin", MFD_CLOEXEC));
  if (file.get() < 0) return CannotStart(errno);
  while (!text.empty()) {
    const ssize_t written =
        TEMP_FAILURE_RETRY(::write(file.get(), text.data(), text.size()));
    if (written < 0) return CannotStart(errno);
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  if (::lseek(file.get(), 0, SEEK_SET) != 0) return CannotStart(errno);
  return file;
}

absl::StatusOr<pid_t> Spawn(std::string command, const OwnedDescriptor& input,
                            const OwnedDescriptor& output) {
  std::string shell = "/bin/sh";
  std::string option = "-c";
  char* const words[] = {shell.data(), option.data(), command.data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input.get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, output.get(), STDOUT_FILENO);
  pid_t pid = 0;
  const int error =
      ::posix_spawn(&pid, shell.c_str(), &actions, nullptr, words, ::environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) return CannotStart(error);
  return pid;
}

absl::Status StatusOf(const siginfo_t& end) {
  if (end.si_code != CLD_EXITED) {
    return absl::UnknownError(
        absl::StrCat("the command was ended by signal ", end.si_status));
  }
  if (end.si_status == 0) return absl::OkStatus();
  return absl::UnknownError(
      absl::StrCat("the command exited with ", end.si_status));
}

}  // namespace

// Held by its owner and by the operation in progress.
class ShellCommand::Process : public std::enable_shared_from_this<Process> {
 public:
  Process(orvane::EventLoop* loop, pid_t pid, OwnedDescriptor process,
          OwnedDescriptor output, EndHandler on_end)
      : pid_(pid),
        process_(loop->io_context(), process.Release()),
        output_(loop->io_context(), output.Release()),
        on_end_(std::move(on_end)) {}

  void ReadOutput() {
    asio::async_read(
        output_, asio::dynamic_buffer(printed_),
        [self = shared_from_this()](asio::error_code, std::size_t) {
          // Whatever the error is, it is the end of the output.
          if (self->on_end_) self->AwaitExit();
        });
  }

  void Abandon() {
    if (!on_end_) return;
    on_end_ = nullptr;
    ::kill(pid_, SIGTERM);  // Not reaped yet, so this is still its id.
    asio::error_code ignored;
    output_.close(ignored);
    process_.close(ignored);
  }

 private:
  // Its stdout may be closed long before.
  void AwaitExit() {
    process_.async_wait(stream_descriptor::wait_read,
                        [self = shared_from_this()](asio::error_code) {
                          if (self->on_end_) self->End();
                        });
  }

  void End() {
    siginfo_t end{};
    ::waitid(P_PID, static_cast<id_t>(pid_), &end, WEXITED);
    const absl::Status status = StatusOf(end);
    EndHandler on_end = std::exchange(on_end_, nullptr);
    if (status.ok()) {
      std::move(on_end)(std::move(printed_));
    } else {
      std::move(on_end)(status);
    }
  }

  const pid_t pid_;
  stream_descriptor process_;  // Readable once it has exited.
  stream_descriptor output_;
  std::string printed_;
  EndHandler on_end_;  // Empty once it is over.
};

absl::StatusOr<std::unique_ptr<ShellCommand>> ShellCommand::Start(
    orvane::EventLoop* loop, const std::string& command,
    absl::string_view input, EndHandler on_end) {
  const absl::StatusOr<OwnedDescriptor> file = FileOf(input);
  if (!file.ok()) return file.status();
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return CannotStart(errno);
  OwnedDescriptor output(ends[0]);
  const OwnedDescriptor write_end(ends[1]);
  const absl::StatusOr<pid_t> pid = Spawn(command, *file, write_end);
  if (!pid.ok()) return pid.status();
  // The C library's own function has no C linkage in all releases.
  OwnedDescriptor handle(static_cast<int>(::syscall(SYS_pidfd_open, *pid, 0)));
  if (handle.get() < 0) {
    const int error = errno;
    ::kill(*pid, SIGKILL);
    TEMP_FAILURE_RETRY(::waitpid(*pid, nullptr, 0));
    return CannotStart(error);
  }
  const auto process = std::make_shared<Process>(
      loop, *pid, std::move(handle), std::move(output), std::move(on_end));
  process->ReadOutput();
  return absl::WrapUnique(new ShellCommand(process));
}

ShellCommand::ShellCommand(std::shared_ptr<Process> process)
    : process_(std::move(process)) {}

ShellCommand::~ShellCommand() { process_->Abandon(); }

}  // namespace widgetctl
