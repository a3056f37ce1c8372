// The server's calls that a client has not answered yet.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_SERVED_CALLS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_SERVED_CALLS_H_

#include <cstddef>
#include <cstdint>
#include <map>

#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace orvane::internal {

// Those of one callback stream. Exists as long as its handlers do.
//
// Thread: the service thread.
class ServedCalls {
 public:
  std::size_t size() const { return calls_.size(); }

  // False if there is a call with that id.
  bool Begin(std::int64_t id) { return calls_.try_emplace(id).second; }
  void End(std::int64_t id);

  bool IsGivenUp(std::int64_t id) const;

  // What runs when the call is given up, in place of what was to run before.
  void OnGivenUp(std::int64_t id, Task task);

  // Marks the call as given up and returns what is to run. Empty if there is
  // nothing, or if it has been given up before.
  Task GiveUp(std::int64_t id);

  // Does the same for all calls in turn, in the order of their ids. Empty once
  // nothing is left to run.
  Task GiveUpNext();

 private:
  struct Call {
    bool is_given_up = false;
    Task on_given_up;
  };

  std::map<std::int64_t, Call> calls_;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_SERVED_CALLS_H_
