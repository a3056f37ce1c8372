// For tests: a process that can be stopped and killed.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_FORKED_PROCESS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_FORKED_PROCESS_H_

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <functional>

namespace orvane::testing {

// A copy of the test's process that does one thing instead of the test. It has
// copies of all descriptors, which close when it dies, and no threads. Make it
// before the test starts threads.
class ForkedProcess {
 public:
  explicit ForkedProcess(const std::function<void()>& body) : pid_(::fork()) {
    if (pid_ != 0) return;
    body();
    ::_exit(0);
  }
  ForkedProcess(const ForkedProcess&) = delete;
  ForkedProcess& operator=(const ForkedProcess&) = delete;
  ~ForkedProcess() { Kill(); }

  // Stops it, and returns when it has stopped.
  bool Stop() const {
    ::kill(pid_, SIGSTOP);
    int status = 0;
    TEMP_FAILURE_RETRY(::waitpid(pid_, &status, WUNTRACED));
    return WIFSTOPPED(status);
  }

  // Kills it and waits until it is dead. True if it died of that.
  bool Kill() {
    if (pid_ <= 0) return false;
    ::kill(pid_, SIGKILL);
    int status = 0;
    TEMP_FAILURE_RETRY(::waitpid(pid_, &status, 0));
    pid_ = 0;
    return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
  }

 private:
  pid_t pid_;
};

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_FORKED_PROCESS_H_
