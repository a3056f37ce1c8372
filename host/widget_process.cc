#include "host/widget_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <utility>

#include "absl/strings/str_cat.h"
#include "absl/time/clock.h"

#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace orvane::host {
namespace {

constexpr int kInherited = 3;

int OpenProcess(pid_t pid) {
  return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

// Starts a program that inherits the standard outputs and `channel`.
absl::StatusOr<pid_t> StartProgram(std::vector<std::string> command,
                                   int channel) {
  command.insert(command.end(), {"--descriptor", absl::StrCat(kInherited)});
  std::vector<char*> words;
  words.reserve(command.size() + 1);
  for (std::string& word : command) words.push_back(word.data());
  words.push_back(nullptr);

  posix_spawn_file_actions_t files;
  ::posix_spawn_file_actions_init(&files);
  ::posix_spawn_file_actions_adddup2(&files, channel, kInherited);
  ::posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null",
                                     O_RDONLY, 0);
  ::posix_spawn_file_actions_addclosefrom_np(&files, kInherited + 1);
  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP |
                                              POSIX_SPAWN_SETSIGMASK |
                                              POSIX_SPAWN_SETSIGDEF);
  ::posix_spawnattr_setpgroup(&attributes, 0);
  sigset_t signals;
  ::sigemptyset(&signals);
  ::posix_spawnattr_setsigmask(&attributes, &signals);
  ::sigfillset(&signals);
  ::posix_spawnattr_setsigdefault(&attributes, &signals);

  pid_t pid = 0;
  const int error = ::posix_spawnp(&pid, words.front(), &files, &attributes,
                                   words.data(), ::environ);
  ::posix_spawnattr_destroy(&attributes);
  ::posix_spawn_file_actions_destroy(&files);
  if (error == 0) return pid;
  return absl::ErrnoToStatus(
      error, absl::StrCat("the widget cannot be started: ", command.front()));
}

absl::Status EndInWords(const siginfo_t& end) {
  switch (end.si_code) {
    case CLD_EXITED:
      return absl::UnavailableError(
          absl::StrCat("the widget exited with code ", end.si_status));
    case CLD_KILLED:
    case CLD_DUMPED:
      return absl::UnavailableError(
          absl::StrCat("the widget was ended by signal ", end.si_status, ", ",
                       ::strsignal(end.si_status)));
    default:  // Somebody else in this process has waited for it.
      return absl::UnavailableError("the widget has ended");
  }
}

}  // namespace

absl::StatusOr<std::unique_ptr<WidgetProcess>> WidgetProcess::Start(
    EventLoop* loop, WidgetProcessOptions options, OnState on_state) {
  loop->CheckServiceThread("WidgetProcess::Start");
  if (options.command.empty())
    return absl::InvalidArgumentError("the widget's command is empty");
  std::unique_ptr<WidgetProcess> process(
      new WidgetProcess(loop, std::move(options), std::move(on_state)));
  if (absl::Status status = process->Spawn(); !status.ok()) return status;
  return process;
}

WidgetProcess::WidgetProcess(EventLoop* loop, WidgetProcessOptions options,
                             OnState on_state)
    : loop_(loop),
      options_(std::move(options)),
      on_state_(std::make_shared<const OnState>(std::move(on_state))),
      pause_(options_.first_pause) {}

WidgetProcess::~WidgetProcess() {
  loop_->CheckServiceThread("~WidgetProcess");
  if (!running_.has_value()) return;
  Kill();
  TEMP_FAILURE_RETRY(::waitpid(running_->pid, nullptr, 0));
}

absl::StatusOr<std::unique_ptr<SocketClient>> WidgetProcess::Connect(
    ClientOptions options) {
  loop_->CheckServiceThread("WidgetProcess::Connect");
  if (state_ != WidgetProcessState::kRunning) {
    return why_.ok() ? absl::UnavailableError("the widget has been told to end")
                     : why_;
  }
  absl::StatusOr<OwnedDescriptor> connection =
      ConnectThrough(running_->channel.get());
  if (!connection.ok()) return connection.status();
  return SocketClient::Adopt(loop_, connection->Release(), options);
}

void WidgetProcess::Restart() {
  loop_->CheckServiceThread("WidgetProcess::Restart");
  pause_ = absl::ZeroDuration();
  if (state_ == WidgetProcessState::kRunning) {
    Kill();
  } else if (state_ == WidgetProcessState::kPausing) {
    StartLater();
  }
}

void WidgetProcess::Stop(absl::Duration within, Task done) {
  loop_->CheckServiceThread("WidgetProcess::Stop");
  switch (state_) {
    case WidgetProcessState::kRunning:
      stopped_ = std::move(done);
      Signal(SIGTERM);
      timer_ = loop_->RunAfter(within, [this] { Kill(); });
      SetState(WidgetProcessState::kEnding, absl::OkStatus());
      break;
    case WidgetProcessState::kPausing:
      timer_.reset();
      TellStopped(std::move(done));
      SetState(WidgetProcessState::kEnded, absl::OkStatus());
      break;
    case WidgetProcessState::kEnding:
    case WidgetProcessState::kEnded:
      break;
  }
}

absl::Status WidgetProcess::Spawn() {
  absl::StatusOr<DescriptorPair> channel = ChannelPair();
  if (!channel.ok()) return channel.status();
  const absl::StatusOr<pid_t> pid =
      StartProgram(options_.command, channel->second.get());
  if (!pid.ok()) return pid.status();
  absl::StatusOr<std::unique_ptr<EventLoop::Watch>> process =
      loop_->WatchDescriptor(OwnedDescriptor(OpenProcess(*pid)));
  if (!process.ok()) {
    ::kill(*pid, SIGKILL);
    ::waitpid(*pid, nullptr, 0);
    return process.status();
  }
  running_.emplace(Running{*pid, std::move(channel->first), *std::move(process),
                           absl::Now()});
  running_->process->WhenReadable([this] { OnEnd(); });
  return absl::OkStatus();
}

void WidgetProcess::Signal(int number) {
  ::syscall(SYS_pidfd_send_signal, running_->process->descriptor(), number,
            nullptr, 0);
}

// With all that it has started, such as the program behind a script. The group
// keeps its number until the process has been waited for.
void WidgetProcess::Kill() { ::kill(-running_->pid, SIGKILL); }

void WidgetProcess::OnEnd() {
  siginfo_t end = {};
  if (::waitid(P_PIDFD, static_cast<id_t>(running_->process->descriptor()),
               &end,
               WEXITED | WNOHANG) == 0 &&
      end.si_pid == 0) {  // It has not ended yet.
    running_->process->WhenReadable([this] { OnEnd(); });
    return;
  }
  if (absl::Now() - running_->begun > options_.last_pause &&
      pause_ > options_.first_pause) {
    pause_ = options_.first_pause;
  }
  running_.reset();
  timer_.reset();
  if (state_ == WidgetProcessState::kEnding) {
    TellStopped(std::move(stopped_));
    SetState(WidgetProcessState::kEnded, EndInWords(end));
  } else {
    Pause(EndInWords(end));
  }
}

void WidgetProcess::Pause(const absl::Status& why) {
  // Whatever the reason is, trying again later may help.
  const absl::Status told = absl::UnavailableError(
      absl::StrCat(why.message(), "; it is started again ",
                   pause_ > absl::ZeroDuration()
                       ? absl::StrCat("in ", absl::FormatDuration(pause_))
                       : "at once"));
  StartLater();
  SetState(WidgetProcessState::kPausing, told);
}

void WidgetProcess::StartLater() {
  timer_ = loop_->RunAfter(pause_, [this] {
    const absl::Status status = Spawn();
    status.ok() ? SetState(WidgetProcessState::kRunning, status)
                : Pause(status);
  });
  pause_ =
      std::max(std::min(2 * pause_, options_.last_pause), options_.first_pause);
}

void WidgetProcess::SetState(WidgetProcessState state,
                             const absl::Status& why) {
  state_ = state;
  why_ = why;
  const auto on_state = on_state_;  // It may destroy this object.
  if (*on_state) (*on_state)(state, absl::Status(why));
}

void WidgetProcess::TellStopped(Task done) {
  loop_->Post(
      [alive = std::weak_ptr(on_state_), done = std::move(done)]() mutable {
        if (!alive.expired() && done) std::move(done)();
      });
}

}  // namespace orvane::host
