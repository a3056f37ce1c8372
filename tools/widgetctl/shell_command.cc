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

#include "absl/memory/memory.h"
#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/time/time.h"

#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace widgetctl {

using orvane::EventLoop;
using orvane::OwnedDescriptor;

namespace {

absl::Status CannotStart(int error) {
  return absl::UnavailableError(
      absl::StrCat("cannot start the command: ", std::strerror(error)));
}

// A file in memory with this text, to be read from its beginning. Unlike a
// pipe, it can be filled before anybody reads, and need not be read at all.
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
  // A group of its own, so that what the shell starts can be ended with it.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
  pid_t pid = 0;
  const int error = ::posix_spawn(&pid, shell.c_str(), &actions, &attributes,
                                  words, ::environ);
  posix_spawnattr_destroy(&attributes);
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

class ShellCommand::Process {
 public:
  Process(EventLoop* loop, pid_t pid, std::unique_ptr<EventLoop::Watch> process,
          std::unique_ptr<EventLoop::Watch> output, EndHandler on_end)
      : loop_(loop),
        pid_(pid),
        process_(std::move(process)),
        output_(std::move(output)),
        on_end_(std::move(on_end)) {
    AwaitOutput();
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process() {
    if (on_end_) ::kill(-pid_, SIGTERM);  // Not reaped yet, so still its id.
  }

 private:
  void AwaitOutput() {
    output_->WhenReadable([this] { ReadOutput(); });
  }

  void ReadOutput() {
    std::array<char, std::size_t{64} << 10> bytes;
    const ssize_t read = TEMP_FAILURE_RETRY(
        ::read(output_->descriptor(), bytes.data(), bytes.size()));
    if (read < 0 && errno == EAGAIN) return AwaitOutput();
    if (read > 0) {
      printed_.append(bytes.data(), static_cast<std::size_t>(read));
      next_read_ =
          loop_->RunAfter(absl::ZeroDuration(), [this] { ReadOutput(); });
      return;
    }
    // The command may close its stdout long before it exits. An error counts as
    // the end of the output too.
    process_->WhenReadable([this] { End(); });
  }

  void End() {
    siginfo_t end{};
    ::waitid(P_PID, static_cast<id_t>(pid_), &end, WEXITED);
    const absl::Status status = StatusOf(end);
    EndHandler on_end = std::exchange(on_end_, nullptr);
    // on_end may destroy this object.
    if (status.ok()) {
      std::move(on_end)(std::move(printed_));
    } else {
      std::move(on_end)(status);
    }
  }

  EventLoop* const loop_;
  const pid_t pid_;
  const std::unique_ptr<EventLoop::Watch> process_;  // Readable at its exit.
  const std::unique_ptr<EventLoop::Watch> output_;
  std::unique_ptr<EventLoop::Timer> next_read_;
  std::string printed_;
  EndHandler on_end_;  // Empty once the command has ended.
};

absl::StatusOr<std::unique_ptr<ShellCommand>> ShellCommand::Start(
    EventLoop* loop, const std::string& command, absl::string_view input,
    EndHandler on_end) {
  const absl::StatusOr<OwnedDescriptor> file = FileOf(input);
  if (!file.ok()) return file.status();
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return CannotStart(errno);
  OwnedDescriptor output(ends[0]);
  const OwnedDescriptor write_end(ends[1]);
  const absl::StatusOr<pid_t> pid = Spawn(command, *file, write_end);
  if (!pid.ok()) return pid.status();
  const auto abandon = [&pid](const absl::Status& why) {
    ::kill(-*pid, SIGKILL);
    TEMP_FAILURE_RETRY(::waitpid(*pid, nullptr, 0));
    return why;
  };
  // In some releases the C library's own function has no C linkage.
  OwnedDescriptor handle(static_cast<int>(::syscall(SYS_pidfd_open, *pid, 0)));
  if (handle.get() < 0) return abandon(CannotStart(errno));
  auto process = loop->WatchDescriptor(std::move(handle));
  if (!process.ok()) return abandon(process.status());
  auto printed = loop->WatchDescriptor(std::move(output));
  if (!printed.ok()) return abandon(printed.status());
  return absl::WrapUnique(new ShellCommand(
      std::make_unique<Process>(loop, *pid, *std::move(process),
                                *std::move(printed), std::move(on_end))));
}

ShellCommand::ShellCommand(std::unique_ptr<Process> process)
    : process_(std::move(process)) {}

ShellCommand::~ShellCommand() = default;

}  // namespace widgetctl
