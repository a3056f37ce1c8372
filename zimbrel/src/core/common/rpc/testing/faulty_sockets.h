// For tests: a system whose sockets move few bytes at a time and are
// interrupted, and that refuses to make them. What links this has it in place
// of the C library's functions.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_FAULTY_SOCKETS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_FAULTY_SOCKETS_H_

#include <cstddef>
#include <string>

namespace orvane::testing {

struct SocketFaults {
  // What one send takes at the most. The next one then finds no room, so that
  // these bytes arrive by themselves.
  std::size_t max_bytes = static_cast<std::size_t>(-1);

  // Every so-many-th call fails with EINTR; 0: none.
  int interrupt_every = 0;

  // So many sends fail with `send_error`.
  int failing_sends = 0;
  int send_error = 0;

  // So many times accept fails with EMFILE, as if no descriptor were left. The
  // sanitizers need some, so they cannot be used up in earnest.
  int failing_accepts = 0;

  // The so-many-th of the calls that make a server listen fails with ENOSPC:
  // mkdir, open, flock, socket, bind, chmod, listen, epoll_ctl; 0: none.
  int failing_setup = 0;
};

// From now on, for all sockets of the process.
void SetSocketFaults(const SocketFaults& faults);

// How many calls have failed so since faults were set.
int InterruptedCalls();

// Collects what is sent on a descriptor from now on, until it is asked for.
void Record(int descriptor);
std::string Recorded(int descriptor);

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_FAULTY_SOCKETS_H_
