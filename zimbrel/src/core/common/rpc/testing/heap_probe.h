// For tests: what the program does with its heap. Linking it replaces the
// global operators new and delete.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_HEAP_PROBE_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_HEAP_PROBE_H_

#include <cstddef>
#include <vector>

namespace orvane::testing::heap_probe {

// Blocks allocated so far, and those of them that are still there. Thread: any,
// but figures mean something only while other threads rest.
std::size_t Allocations();
std::size_t LiveBlocks();

// Notes when `block`, the address of one that is alive, is freed. At most 16
// blocks at a time. Thread: one at a time.
void Watch(const void* block);

// The watched blocks that have been freed since the last call, in that order.
std::vector<const void*> TakeFreed();

}  // namespace orvane::testing::heap_probe

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_HEAP_PROBE_H_
