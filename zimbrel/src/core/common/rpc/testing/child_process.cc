#include "zimbrel/src/core/common/rpc/testing/child_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <utility>

#include "absl/log/log.h"

namespace orvane::testing {
namespace {

bool ReadByte(const orvane::OwnedDescriptor& from, char* byte) {
  return TEMP_FAILURE_RETRY(::read(from.get(), byte, 1)) == 1;
}

std::string ReadAll(const orvane::OwnedDescriptor& from) {
  std::string all;
  for (char byte = 0; ReadByte(from, &byte);) all += byte;
  return all;
}

int WaitFor(pid_t pid) {
  int status = 0;
  TEMP_FAILURE_RETRY(::waitpid(pid, &status, 0));
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

// Close-on-exec: the child inherits only the copies of the write ends that it
// gets as stdout and stderr. So its output ends when it does.
ChildProcess::Pipe ChildProcess::NewPipe() {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0)
    LOG(FATAL) << "no pipe: " << std::strerror(errno);
  return {orvane::OwnedDescriptor(ends[0]), orvane::OwnedDescriptor(ends[1])};
}

ChildProcess::ChildProcess(std::vector<std::string> command)
    : ChildProcess(std::move(command), NewPipe(), NewPipe()) {}

ChildProcess::ChildProcess(std::vector<std::string> command, Pipe output,
                           Pipe errors)
    : output_(std::move(output.read_end)), errors_(std::move(errors.read_end)) {
  std::vector<char*> words;
  words.reserve(command.size() + 1);
  for (std::string& word : command) words.push_back(word.data());
  words.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, output.write_end.get(),
                                   STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errors.write_end.get(),
                                   STDERR_FILENO);
  const int error = ::posix_spawn(&pid_, words.front(), &actions, nullptr,
                                  words.data(), ::environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0)
    LOG(FATAL) << words.front() << " does not start: " << std::strerror(error);
}

ChildProcess::~ChildProcess() {
  if (pid_ == 0) return;
  Signal(SIGKILL);
  WaitFor(pid_);
}

std::string ChildProcess::ReadLine() {
  std::string line;
  for (char byte = 0; ReadByte(output_, &byte) && byte != '\n';) line += byte;
  return line;
}

void ChildProcess::Signal(int number) const { ::kill(pid_, number); }

std::vector<pid_t> ChildProcess::Children() const {
  const std::string id = std::to_string(pid_);
  std::ifstream children("/proc/" + id + "/task/" + id + "/children");
  if (!children) LOG(FATAL) << "the system does not tell a process's children";
  return {std::istream_iterator<pid_t>(children), {}};
}

ChildProcess::Result ChildProcess::Wait() {
  std::string output = ReadAll(output_);
  std::string errors = ReadAll(errors_);
  return {WaitFor(std::exchange(pid_, 0)), std::move(output),
          std::move(errors)};
}

}  // namespace orvane::testing
