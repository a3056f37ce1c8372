#include "zimbrel/src/core/common/rpc/testing/faulty_sockets.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <map>
#include <set>

namespace orvane::testing {
namespace {

struct State {
  SocketFaults faults;
  int calls = 0;
  int interrupted = 0;
  std::set<int> full;  // Took bytes with the last call.
  std::map<int, std::string> recorded;
};

State& TheState() {
  static State state;
  return state;
}

bool IsInterrupted() {
  State& state = TheState();
  if (state.faults.interrupt_every == 0) return false;
  if (++state.calls % state.faults.interrupt_every != 0) return false;
  ++state.interrupted;
  return true;
}

std::size_t Allowed(std::size_t bytes) {
  return std::min(bytes, TheState().faults.max_bytes);
}

// What this send fails with; 0: it does not.
int SendError(int descriptor) {
  SocketFaults& faults = TheState().faults;
  if (faults.failing_sends > 0) {
    --faults.failing_sends;
    return faults.send_error;
  }
  if (faults.max_bytes == SocketFaults().max_bytes) return 0;
  // Each second one, so that what was sent before arrives by itself.
  const auto [place, is_new] = TheState().full.insert(descriptor);
  if (is_new) return 0;
  TheState().full.erase(place);
  return EAGAIN;
}

// Makes the call unless it is the one that fails.
template <typename... Arguments>
int SetUp(long call, Arguments... arguments) {
  int& failing = TheState().faults.failing_setup;
  if (failing > 0 && --failing == 0) {
    errno = ENOSPC;
    return -1;
  }
  return static_cast<int>(::syscall(call, arguments...));
}

}  // namespace

void SetSocketFaults(const SocketFaults& faults) {
  TheState().faults = faults;
  TheState().calls = 0;
  TheState().interrupted = 0;
  TheState().full.clear();
}

int InterruptedCalls() { return TheState().interrupted; }

void Record(int descriptor) { TheState().recorded[descriptor].clear(); }

std::string Recorded(int descriptor) {
  return TheState().recorded.extract(descriptor).mapped();
}

}  // namespace orvane::testing

extern "C" {

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
ssize_t recv(int descriptor, void* bytes, std::size_t size, int flags) {
  if (orvane::testing::IsInterrupted()) {
    errno = EINTR;
    return -1;
  }
  return ::syscall(SYS_recvfrom, descriptor, bytes, size, flags, nullptr,
                   nullptr);
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
ssize_t send(int descriptor, const void* bytes, std::size_t size, int flags) {
  if (orvane::testing::IsInterrupted()) {
    errno = EINTR;
    return -1;
  }
  if (const int error = orvane::testing::SendError(descriptor); error != 0) {
    errno = error;
    return -1;
  }
  const ssize_t sent =
      ::syscall(SYS_sendto, descriptor, bytes, orvane::testing::Allowed(size),
                flags, nullptr, 0);
  auto& recorded = orvane::testing::TheState().recorded;
  if (const auto to = recorded.find(descriptor);
      to != recorded.end() && sent > 0) {
    to->second.append(static_cast<const char*>(bytes),
                      static_cast<std::size_t>(sent));
  }
  return sent;
}

int accept4(int descriptor, sockaddr* address, socklen_t* length, int flags) {
  int& failing = orvane::testing::TheState().faults.failing_accepts;
  if (failing > 0) {
    --failing;
    errno = EMFILE;
    return -1;
  }
  return static_cast<int>(
      ::syscall(SYS_accept4, descriptor, address, length, flags));
}

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)

int mkdir(const char* path, mode_t mode) noexcept {
  return orvane::testing::SetUp(SYS_mkdirat, AT_FDCWD, path, mode);
}

int open(const char* path, int flags, ...) {
  std::va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  return orvane::testing::SetUp(SYS_openat, AT_FDCWD, path, flags, mode);
}

int flock(int descriptor, int operation) noexcept {
  return orvane::testing::SetUp(SYS_flock, descriptor, operation);
}

int socket(int domain, int type, int protocol) noexcept {
  return orvane::testing::SetUp(SYS_socket, domain, type, protocol);
}

int bind(int descriptor, const sockaddr* address, socklen_t length) noexcept {
  return orvane::testing::SetUp(SYS_bind, descriptor, address, length);
}

int chmod(const char* path, mode_t mode) noexcept {
  return orvane::testing::SetUp(SYS_fchmodat, AT_FDCWD, path, mode);
}

int listen(int descriptor, int waiting) noexcept {
  return orvane::testing::SetUp(SYS_listen, descriptor, waiting);
}

int epoll_ctl(int set, int operation, int descriptor,
              epoll_event* event) noexcept {
  return orvane::testing::SetUp(SYS_epoll_ctl, set, operation, descriptor,
                                event);
}

// NOLINTEND(readability-inconsistent-declaration-parameter-name)

}  // extern "C"
