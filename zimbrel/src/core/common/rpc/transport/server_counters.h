// Counts of what has gone wrong between a server and its clients.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_COUNTERS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_COUNTERS_H_

#include <cstdint>
#include <map>
#include <string>

#include "absl/status/status.h"

namespace orvane {

struct ServerCounters {
  struct Refusals {
    std::uint64_t count = 0;
    std::string latest_reason;
  };

  // Connections that the server refused or ended: because of what the client
  // sent, because of a limit, or because another user runs the client. The
  // reasons are logged, at most one per second.
  std::uint64_t refused = 0;

  // The same by the code of the reason.
  std::map<absl::StatusCode, Refusals> refusals;

  // Events that were replaced by later ones before their clients read them
  // (see SLOW_HOST_KEEP_LATEST).
  std::uint64_t replaced_events = 0;

  // Counts a connection that is refused or ended.
  void Refuse(const absl::Status& why) {
    ++refused;
    Refusals& alike = refusals[why.code()];
    ++alike.count;
    alike.latest_reason = std::string(why.message());
  }
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_COUNTERS_H_
