#include "engines/chromium/engine_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"
#include "absl/strings/strip.h"

#include "zimbrel/src/core/common/rpc/printable.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace chromium {
namespace {

// The engine reads from the first and writes to the second.
constexpr int kEngineReads = 3;
constexpr int kEngineWrites = 4;
// Carries a StartError if the program cannot be started; closed if it can.
constexpr int kStartError = 5;
// Where descriptors wait for their place out of the way of those above.
constexpr int kAside = 10;

constexpr std::size_t kKeptOutputBytes = 4096;

// What an engine that has closed its pipe has to exit by itself.
constexpr int kTimeToExitMs = 200;

// Each site has processes of its own. Pages open no windows, which nobody would
// see. Colours stay as pages give them. The engine fetches nothing by itself.
constexpr std::array kArguments = {
    "--remote-debugging-pipe",        "--disable-gpu",
    "--block-new-web-contents",       "--site-per-process",
    "--force-color-profile=srgb",     "--mute-audio",
    "--disable-background-networking"};

constexpr std::array kEnvironment = {"PATH",        "HOME",       "LANG",
                                     "TZ",          "http_proxy", "https_proxy",
                                     "all_proxy",   "no_proxy",   "HTTP_PROXY",
                                     "HTTPS_PROXY", "ALL_PROXY",  "NO_PROXY"};

std::vector<std::string> EnvironmentToPass() {
  std::vector<std::string> environment;
  for (const char* const name : kEnvironment) {
    if (const char* const value = std::getenv(name); value != nullptr)
      environment.push_back(absl::StrCat(name, "=", value));
  }
  return environment;
}

// For exec: pointers into the strings, and a null.
std::vector<char*> PointersTo(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  pointers.reserve(strings.size() + 1);
  for (std::string& string : strings) pointers.push_back(string.data());
  pointers.push_back(nullptr);
  return pointers;
}

struct StartError {
  int error;  // An errno.
  bool is_about_profile;
};

// What the child needs, made before the fork: between fork and exec only calls
// are allowed that take no lock and no memory.
struct Launch {
  const char* path;
  char* const* arguments;
  char* const* environment;
  const char* profile;  // Null if there is none.
  int pipe;
  int output;
  int start_error;
  pid_t parent;
};

// The system calls themselves, since the library's functions of the same names
// would lock.
bool DropRoot() {
  return ::syscall(SYS_setgroups, 0, nullptr) == 0 &&
         ::syscall(SYS_setresgid, kUnprivilegedUser, kUnprivilegedUser,
                   kUnprivilegedUser) == 0 &&
         ::syscall(SYS_setresuid, kUnprivilegedUser, kUnprivilegedUser,
                   kUnprivilegedUser) == 0;
}

bool ArrangeDescriptors(Launch& launch) {
  const int pipe = ::fcntl(launch.pipe, F_DUPFD, kAside);
  const int output = ::fcntl(launch.output, F_DUPFD, kAside);
  const int start_error = ::fcntl(launch.start_error, F_DUPFD, kAside);
  const int nothing = ::open("/dev/null", O_RDONLY);
  if (pipe < 0 || output < 0 || start_error < 0 || nothing < 0) return false;
  launch.start_error = start_error;
  return ::dup2(nothing, STDIN_FILENO) >= 0 &&
         ::dup2(output, STDOUT_FILENO) >= 0 &&
         ::dup2(output, STDERR_FILENO) >= 0 &&
         ::dup2(pipe, kEngineReads) >= 0 && ::dup2(pipe, kEngineWrites) >= 0 &&
         ::dup3(start_error, kStartError, O_CLOEXEC) >= 0 &&
         ::syscall(SYS_close_range, kStartError + 1, ~0U, 0) == 0;
}

// The engine says nothing of a folder that it cannot write to, and keeps
// nothing there. It makes one that does not exist.
bool CanKeepProfile(const char* folder) {
  return folder == nullptr || ::access(folder, R_OK | W_OK | X_OK) == 0 ||
         errno == ENOENT;
}

[[noreturn]] void BecomeTheEngine(Launch launch) {
  // Signals as a new program expects them.
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  ::signal(SIGPIPE, SIG_DFL);
  // A group of its own, so that all of it can be killed, and Ctrl+C at the
  // terminal is for this program alone.
  ::setpgid(0, 0);
  StartError failure = {};
  if (ArrangeDescriptors(launch)) {
    launch.start_error = kStartError;
    if (::geteuid() != 0 || DropRoot()) {
      // After the change of user, which takes it back.
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      failure.is_about_profile = !CanKeepProfile(launch.profile);
      if (!failure.is_about_profile && ::getppid() == launch.parent)
        ::execve(launch.path, launch.arguments, launch.environment);
    }
  }
  failure.error = errno;
  [[maybe_unused]] const ssize_t written =
      ::write(launch.start_error, &failure, sizeof failure);
  ::_exit(127);
}

struct Pipe {
  orvane::OwnedDescriptor read_end;
  orvane::OwnedDescriptor write_end;
};

absl::StatusOr<Pipe> NewPipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
    return absl::ResourceExhaustedError(
        absl::StrCat("no pipe for the engine: ", std::strerror(errno)));
  }
  return Pipe{orvane::OwnedDescriptor(ends[0]),
              orvane::OwnedDescriptor(ends[1])};
}

std::string LastLine(absl::string_view text) {
  text = absl::StripTrailingAsciiWhitespace(text);
  return orvane::Printable(text.substr(text.find_last_of('\n') + 1));
}

}  // namespace

absl::StatusOr<std::unique_ptr<EngineProcess>> EngineProcess::Start(
    orvane::EventLoop* loop, const EngineCommand& command) {
  auto sockets = orvane::ConnectedPair();
  if (!sockets.ok()) return sockets.status();
  auto output = NewPipe();
  if (!output.ok()) return output.status();
  auto start_error = NewPipe();
  if (!start_error.ok()) return start_error.status();

  std::vector<std::string> words = {command.path};
  words.insert(words.end(), kArguments.begin(), kArguments.end());
  if (!command.profile.empty())
    words.push_back("--user-data-dir=" + command.profile);
  std::vector<std::string> environment = EnvironmentToPass();
  const std::vector<char*> argument_pointers = PointersTo(words);
  const std::vector<char*> environment_pointers = PointersTo(environment);
  const Launch launch = {
      command.path.c_str(),
      argument_pointers.data(),
      environment_pointers.data(),
      command.profile.empty() ? nullptr : command.profile.c_str(),
      sockets->second.get(),
      output->write_end.get(),
      start_error->write_end.get(),
      ::getpid()};

  const pid_t pid = ::fork();
  if (pid < 0) {
    return absl::ResourceExhaustedError(
        absl::StrCat("no process for the engine: ", std::strerror(errno)));
  }
  if (pid == 0) BecomeTheEngine(launch);
  std::unique_ptr<EngineProcess> process(
      new EngineProcess(pid, std::move(sockets->first)));

  // The last copy but the child's, so that what follows ends when the child has
  // become the engine.
  { const auto closed = std::move(start_error->write_end); }
  StartError failure = {};
  if (TEMP_FAILURE_RETRY(::read(start_error->read_end.get(), &failure,
                                sizeof failure)) == sizeof failure) {
    if (failure.is_about_profile) {
      return absl::PermissionDeniedError(absl::StrCat(
          "the engine cannot keep its profile at ", command.profile, ": ",
          std::strerror(failure.error),
          ::geteuid() == 0
              ? absl::StrCat("; it runs as user ", kUnprivilegedUser)
              : ""));
    }
    return absl::NotFoundError(absl::StrCat("no engine at ", command.path, ": ",
                                            std::strerror(failure.error)));
  }
  auto watch = loop->WatchDescriptor(std::move(output->read_end));
  if (!watch.ok()) return watch.status();
  process->output_ = *std::move(watch);
  process->ReadOutput();
  return process;
}

EngineProcess::EngineProcess(pid_t pid, orvane::OwnedDescriptor pipe)
    : pid_(pid), pipe_(std::move(pipe)) {}

EngineProcess::~EngineProcess() {
  int status = 0;
  Kill(&status);
}

void EngineProcess::ReadOutput() {
  std::array<char, kKeptOutputBytes> bytes;
  while (true) {
    const ssize_t count = TEMP_FAILURE_RETRY(
        ::read(output_->descriptor(), bytes.data(), bytes.size()));
    if (count < 0 && errno == EAGAIN) {
      output_->WhenReadable([this] { ReadOutput(); });
    }
    if (count <= 0) return;
    last_output_.append(bytes.data(), static_cast<std::size_t>(count));
    if (last_output_.size() > kKeptOutputBytes)
      last_output_.erase(0, last_output_.size() - kKeptOutputBytes);
  }
}

std::string EngineProcess::End() {
  int status = 0;
  // What is killed now may have been about to exit, with a code that tells more
  // than the signal does.
  pollfd ended = {static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)), POLLIN,
                  0};
  const orvane::OwnedDescriptor closed(ended.fd);
  ::poll(&ended, 1, kTimeToExitMs);
  Kill(&status);
  if (output_ != nullptr) ReadOutput();
  const std::string line = LastLine(last_output_);
  return absl::StrCat(
      WIFSIGNALED(status)
          ? absl::StrCat("was killed by signal ", WTERMSIG(status))
          : absl::StrCat("ended with exit code ", WEXITSTATUS(status)),
      line.empty() ? "" : ", having written: ", line);
}

void EngineProcess::Kill(int* status) {
  if (pid_ == 0) return;
  ::kill(-pid_, SIGKILL);
  TEMP_FAILURE_RETRY(::waitpid(std::exchange(pid_, 0), status, 0));
}

}  // namespace chromium
