// For tests: replaces the C library's functions that make, read and write
// sockets by ones that can be made to take few bytes at a time and to fail.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_FAULTY_SOCKETS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_FAULTY_SOCKETS_H_

#include <cstddef>
#include <string>

namespace orvane::testing {

struct SocketFaults {
  // The most that one send takes. The next one then fails with EAGAIN, so that
  // these bytes arrive by themselves.
  std::size_t max_bytes = static_cast<std::size_t>(-1);

  // If this is n, every n-th call fails with EINTR; 0: none does.
  int interrupt_every = 0;

  // How many of the next sends fail with `send_error`.
  int failing_sends = 0;
  int send_error = 0;

  // How many of the next accepts fail with EMFILE, as if no descriptor were
  // left. A test cannot really use them up, since the sanitizers need some.
  int failing_accepts = 0;

  // If this is n, the n-th of the calls that make a server listen fails with
  // ENOSPC: mkdir, open, flock, socket, bind, chmod, listen, epoll_ctl; 0: none
  // does.
  int failing_setup = 0;
};

// From now on, for all sockets of the process.
void SetSocketFaults(const SocketFaults& faults);

// How many calls have failed with EINTR since faults were set.
int InterruptedCalls();

// Record collects what is sent on a descriptor from then on; Recorded returns
// it and stops.
void Record(int descriptor);
std::string Recorded(int descriptor);

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_FAULTY_SOCKETS_H_
