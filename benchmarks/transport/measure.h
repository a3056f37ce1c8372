// Common to all programs that measure a stack: the command line, two pinned
// processes, a clock, and one line of results.
//
// Each program is a host that starts itself once more as a server. Both map one
// Meter, so an operation may begin in one process and end in the other. Uses
// the standard library only, since it is linked with every stack.

#ifndef BENCHMARKS_TRANSPORT_MEASURE_H_
#define BENCHMARKS_TRANSPORT_MEASURE_H_

#include <sys/types.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace benchmarks {

enum class Figure {
  // Calls with `payload_bytes` both ways, `in_flight` at a time.
  kUnary,
  // Like kUnary, with a payload in the request only.
  kUpload,
  // Mouse moves, 1,000 a second from each host; each is answered.
  kStorm,
  // Events as fast as the hosts take them, one subscription for each host.
  kEvents,
  // Calls from the server to the host.
  kCallback,
  // Pictures of 1920 x 1080 pixels, from the server's memory to the host's.
  kSurface,
  // Tasks that `in_flight` threads of the host post to its main thread.
  kPosts,
  // A host that is connected and has nothing to do.
  kIdle,
};

enum class Pinning {
  kSame,    // Both processes on one core.
  kAcross,  // Each on a core of its own.
};

struct Options {
  Figure figure = Figure::kUnary;
  // Which interface of a library to use, if it has several; see each program.
  std::string interface;
  std::size_t payload_bytes = 0;
  int in_flight = 1;
  int hosts = 1;  // Connections, all from one process.
  Pinning pinning = Pinning::kSame;
  std::chrono::milliseconds duration{500};
  std::chrono::microseconds spin{0};  // For both ends, if the stack can spin.
  // Where the server listens, in a folder that is private to this run.
  std::string socket_path;
};

// The size of a surface update: 1920 x 1080 pixels of four bytes.
inline constexpr std::size_t kPictureBytes = std::size_t{1920} * 1080 * 4;

// The time between two mouse moves of one host.
inline constexpr std::int64_t kStormPeriodNs = 1'000'000;

// Events are sent in bursts that the host asks for, eight at a time, so that
// the server always has some to send but never more than the host can take.
inline constexpr int kBurst = 256;
inline constexpr int kBurstsInFlight = 8;

// Nanoseconds of the machine's monotonic clock.
std::int64_t Now();

// Sleeps until that time.
void SleepUntil(std::int64_t time_ns);

// The memory in bytes that the process does not share with others; 0 if the
// system does not tell.
std::int64_t PrivateBytes(pid_t process);

// Counts operations and their times, from the end of a warm-up until the
// duration is over. Lies in memory shared by both processes.
//
// Thread: any, of both processes.
class Meter {
 public:
  // Call it when an operation that began at `begun_ns` has ended. False once
  // the measurement is over.
  bool Ended(std::int64_t begun_ns);

  // Like Ended above, for several operations whose times are not recorded.
  bool Ended(int operations);

  // For kIdle: counts for the duration, which it sleeps, how often the host's
  // other threads wake up, and their processor time. Thread: one of the host's
  // that does nothing else.
  void WatchIdleHost();

  bool is_done() const { return phase_ == Phase::kDone; }

  // Counts the processor time of a further process that the server needs. Call
  // it before SetReady.
  void AlsoMeasure(pid_t helper) { helper_ = helper; }

  // Call it when the server listens.
  void SetReady() { is_ready_ = true; }

  // For Run, in the host, before the first operation:
  void Start(const Options& options, pid_t server, std::int64_t spawned_ns);
  bool is_ready() const { return is_ready_; }
  // For Run, in the server:
  void CountAllocations();
  // For Run, in the host, after the last operation:
  void Print() const;

 private:
  enum class Phase { kWarmUp, kBeginning, kMeasuring, kEnding, kDone };

  // What both processes have used so far.
  struct Usage {
    std::int64_t time_ns;
    std::int64_t cpu_ns;  // Of both processes, and of the helper.
    std::uint64_t server_allocations;
  };

  // What the host's threads have done so far, but for the calling one.
  struct Activity {
    std::int64_t cpu_ns;
    std::int64_t wake_ups;
  };
  Activity HostActivity() const;

  Usage UsageNow() const;
  bool Advance(std::int64_t now, int operations);

  // Set before the first operation.
  std::atomic<bool> is_ready_;
  pid_t host_;
  pid_t server_;
  pid_t helper_;  // 0: none.
  std::int64_t spawned_ns_;
  Figure figure_;
  std::int64_t duration_ns_;
  bool counts_allocations_;

  std::atomic<std::uint64_t> server_allocations_;
  std::atomic<std::int64_t> first_ended_ns_;
  std::atomic<Phase> phase_;
  // Written between two phases, by the thread that changes the phase.
  Usage begin_;
  Usage end_;
  Activity idle_;  // For kIdle only.
  std::int64_t server_private_bytes_;

  std::atomic<std::int64_t> operations_;
  std::atomic<std::size_t> samples_;
  std::array<std::uint32_t, std::size_t{1} << 21> sample_ns_;
};

// The two sides of a stack.
struct Sides {
  // Listens, calls SetReady, and serves until the process is killed. In a
  // figure where the server calls, it ends its process once Ended is false.
  void (*serve)(const Options& options, Meter& meter);

  // Connects and operates until Ended is false. In a figure where the server
  // calls, answers until the connection ends.
  void (*drive)(const Options& options, Meter& meter);
};

// The `main` of each program: runs one figure and prints its values as one line
// of JSON. The command line, in which only the figure is required:
//
//   FIGURE --interface NAME --payload-bytes N --in-flight N --hosts N
//          --pin same|across --duration-ms N --spin-us N
//          --count-allocations LIBRARY
//
// LIBRARY is the one built from count_allocations.cc. With
//
//   FIGURE --interface NAME --socket PATH --core N
//
// it is only the server, for a host in another language, until that ends.
int Run(int argc, char** argv, const Sides& sides);

// Prints `why` to stderr and ends the process with exit code 1.
[[noreturn]] void Fail(const std::string& why);

}  // namespace benchmarks

#endif  // BENCHMARKS_TRANSPORT_MEASURE_H_
