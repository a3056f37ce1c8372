// Counts of what has gone wrong between a server and its clients.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_COUNTERS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_COUNTERS_H_

#include <cstdint>

namespace orvane {

struct ServerCounters {
  // Connections that the server refused or ended: because of what the client
  // sent, because of a limit, or because another user runs the client. The
  // reasons are logged, at most one per second.
  std::uint64_t thrown_out = 0;

  // Events that were replaced by later ones before their clients read them
  // (see SLOW_HOST_KEEP_LATEST).
  std::uint64_t replaced_events = 0;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_COUNTERS_H_
