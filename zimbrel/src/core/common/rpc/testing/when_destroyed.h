// For tests: something that happens when a task or a continuation is destroyed.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_WHEN_DESTROYED_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_WHEN_DESTROYED_H_

#include <functional>
#include <memory>
#include <utility>

namespace orvane::testing {

// For a callable to hold: runs `what` when the last copy is destroyed.
inline std::shared_ptr<void> WhenDestroyed(std::function<void()> what) {
  return {nullptr, [what = std::move(what)](void*) { what(); }};
}

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_WHEN_DESTROYED_H_
