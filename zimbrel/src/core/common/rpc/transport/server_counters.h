// What has gone wrong with a server's clients so far.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_COUNTERS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_COUNTERS_H_

#include <cstdint>

namespace orvane {

struct ServerCounters {
  // Connections that the server ended: because of what their clients sent, a
  // limit, or another user's id. The log has the reasons, one a second at most.
  std::uint64_t thrown_out = 0;

  // Events that were replaced by later ones before their clients read them
  // (see SLOW_HOST_KEEP_LATEST).
  std::uint64_t replaced_events = 0;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_COUNTERS_H_
