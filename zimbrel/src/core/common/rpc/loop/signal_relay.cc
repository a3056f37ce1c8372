#include "zimbrel/src/core/common/rpc/loop/signal_relay.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "absl/base/thread_annotations.h"
#include "absl/log/log.h"

#include "zimbrel/src/core/common/rpc/mutex.h"

namespace orvane::internal {
namespace {

// An event counter for each signal that was ever relayed. It is never closed:
// the handler may be about to write to it when the last relay is destroyed.
std::array<std::atomic<int>, NSIG> counters;

// The process whose signals are counted. A child process shares the counters
// until it runs another program.
std::atomic<pid_t> process = 0;

constinit Mutex mutex;

struct Relayed {
  int relays = 0;
  struct sigaction before {};
};
std::array<Relayed, NSIG> relayed ABSL_GUARDED_BY(mutex);

extern "C" void CountSignal(int signal_number) {
  if (::getpid() != process) return;
  const int error = errno;
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(
      counters[static_cast<std::size_t>(signal_number)], &one, sizeof one);
  errno = error;
}

}  // namespace

SignalRelay::SignalRelay(int signal_number) : signal_number_(0) {
  if (signal_number <= 0 || signal_number >= NSIG) return;
  const auto index = static_cast<std::size_t>(signal_number);
  const MutexLock lock(mutex);
  if (counters[index] == 0) {
    const int counter = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (counter < 0)
      PLOG(FATAL) << "event loop: cannot create a descriptor for signals";
    counters[index] = counter;
  }
  // Drops the signals that came before this relay.
  std::uint64_t count = 0;
  [[maybe_unused]] const ssize_t read =
      ::read(counters[index], &count, sizeof count);
  if (relayed[index].relays == 0) {
    process = ::getpid();
    struct sigaction relay {};
    relay.sa_handler = CountSignal;
    relay.sa_flags = SA_RESTART;
    ::sigfillset(&relay.sa_mask);
    if (::sigaction(signal_number, &relay, &relayed[index].before) != 0) return;
  }
  ++relayed[index].relays;
  signal_number_ = signal_number;
}

SignalRelay::SignalRelay(SignalRelay&& other) noexcept
    : signal_number_(std::exchange(other.signal_number_, 0)) {}

SignalRelay::~SignalRelay() {
  if (signal_number_ == 0) return;
  const MutexLock lock(mutex);
  Relayed& mine = relayed[static_cast<std::size_t>(signal_number_)];
  if (--mine.relays > 0) return;
  ::sigaction(signal_number_, &mine.before, nullptr);
}

OwnedDescriptor SignalRelay::Descriptor() const {
  if (signal_number_ == 0) return OwnedDescriptor(-1);
  const int counter = counters[static_cast<std::size_t>(signal_number_)];
  OwnedDescriptor copy(::fcntl(counter, F_DUPFD_CLOEXEC, 0));
  if (copy.get() < 0)
    PLOG(FATAL) << "event loop: cannot create a descriptor for signals";
  return copy;
}

}  // namespace orvane::internal
