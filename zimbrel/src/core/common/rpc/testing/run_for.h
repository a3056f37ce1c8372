// For tests of what does not happen within some time.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_RUN_FOR_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_RUN_FOR_H_

#include "absl/time/time.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace orvane::testing {

inline void RunFor(EventLoop& loop, absl::Duration time) {
  bool is_over = false;
  const auto end = loop.RunAfter(time, [&is_over] { is_over = true; });
  ASSERT_TRUE(loop.RunUntil([&is_over] { return is_over; }));
}

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_RUN_FOR_H_
