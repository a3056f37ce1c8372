// For tests: how many files and sockets this process has open.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_OPEN_DESCRIPTORS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_OPEN_DESCRIPTORS_H_

#include <cstddef>
#include <filesystem>
#include <iterator>

namespace orvane::testing {

inline std::ptrdiff_t OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                       {});
}

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_OPEN_DESCRIPTORS_H_
