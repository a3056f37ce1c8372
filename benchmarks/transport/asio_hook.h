// The throw hook that Asio needs when exceptions are off. Every file that
// includes Asio includes this header first.

#ifndef BENCHMARKS_TRANSPORT_ASIO_HOOK_H_
#define BENCHMARKS_TRANSPORT_ASIO_HOOK_H_

#include "absl/log/log.h"
#include "asio/detail/throw_exception.hpp"

namespace asio::detail {

// Called only by operations without an error_code, and only if the system
// refuses what every loop needs, such as a descriptor for its wake-ups.
template <typename Exception>
void throw_exception(const Exception& exception) {
  LOG(FATAL) << "Asio: " << exception.what();
}

}  // namespace asio::detail

#endif  // BENCHMARKS_TRANSPORT_ASIO_HOOK_H_
