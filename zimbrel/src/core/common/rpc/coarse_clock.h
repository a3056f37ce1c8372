// A clock for ages: cheap to read, and no more precise than a few
// milliseconds.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_COARSE_CLOCK_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_COARSE_CLOCK_H_

#include <chrono>
#include <cstdint>
#include <ctime>

namespace orvane::internal {

struct CoarseClock {
  using duration = std::chrono::nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<CoarseClock>;
  static constexpr bool is_steady = true;

  static time_point now() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return time_point(std::chrono::seconds(now.tv_sec) +
                      std::chrono::nanoseconds(now.tv_nsec));
  }
};

inline std::uint64_t MillisecondsSince(CoarseClock::time_point begin) {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(CoarseClock::now() -
                                                            begin)
          .count());
}

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_COARSE_CLOCK_H_
