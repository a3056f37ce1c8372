// This project's code may throw, although the libraries are compiled without
// exceptions.

#include <stdexcept>

#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

static_assert(__cplusplus > 202002L);

namespace {

bool Throws() {
  try {
    throw std::runtime_error("caught below");
  } catch (const std::runtime_error&) {
    return true;
  }
}

[[maybe_unused]] const bool throws = Throws();

}  // namespace
