// Programs under test.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_CHILD_PROCESS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_CHILD_PROCESS_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace orvane::testing {

// A program that runs as a child of the test. Two pipes hold what it writes to
// stdout and stderr until that is read. Each holds 64 KiB; the child blocks
// when one is full.
class ChildProcess {
 public:
  struct Result {
    int exit_code;       // 128 + the signal's number if one killed it.
    std::string output;  // What ReadLine has not returned.
    std::string errors;
  };

  // Starts a program: its path, then its arguments. Ends the test's process if
  // the program cannot be started.
  explicit ChildProcess(std::vector<std::string> command);
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Kills the child unless Wait was called.
  ~ChildProcess();

  // Waits for the next line of its output; returns it without the newline.
  std::string ReadLine();

  void Signal(int number) const;

  // The processes that it has started and not waited for.
  std::vector<pid_t> Children() const;

  // Waits until the child has ended. No other member may be called afterwards.
  Result Wait();

 private:
  struct Pipe {
    orvane::OwnedDescriptor read_end;
    orvane::OwnedDescriptor write_end;
  };
  static Pipe NewPipe();

  ChildProcess(std::vector<std::string> command, Pipe output, Pipe errors);

  const orvane::OwnedDescriptor output_;
  const orvane::OwnedDescriptor errors_;
  pid_t pid_ = 0;  // 0 after Wait.
};

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_CHILD_PROCESS_H_
