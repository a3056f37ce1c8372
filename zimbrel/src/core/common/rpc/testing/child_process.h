// Programs under test.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_CHILD_PROCESS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_CHILD_PROCESS_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace orvane::testing {

// A program that runs as a child of the test. What it writes waits in two pipes
// until it is read, and has to fit there: 64 KiB each.
class ChildProcess {
 public:
  struct Result {
    int exit_code;       // 128 and the signal's number if one killed it.
    std::string output;  // What ReadLine has left.
    std::string errors;
  };

  // Starts a program: its path, then its arguments. Ends the test's process if
  // that is impossible.
  explicit ChildProcess(std::vector<std::string> command);
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Kills the child if nobody has waited for its end.
  ~ChildProcess();

  // Waits for the next line of its output; returns it without the line's end.
  std::string ReadLine();

  void Signal(int number) const;

  // Waits for its end. At most once, and the last call.
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
  pid_t pid_ = 0;  // 0 once it has ended.
};

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_CHILD_PROCESS_H_
