// Signals as something to wait for.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_SIGNAL_RELAY_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_SIGNAL_RELAY_H_

#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace orvane::internal {

// While it lives, a signal makes a descriptor readable instead of doing what it
// would do. Several relays may have the same signal, and see it all. Thread:
// any, one at a time.
class SignalRelay {
 public:
  // Numbers that are no signals, and those that cannot be caught, relay
  // nothing.
  explicit SignalRelay(int signal_number);
  SignalRelay(SignalRelay&& other) noexcept;
  SignalRelay& operator=(SignalRelay&&) = delete;
  // The last one of a signal restores what there was before the first.
  ~SignalRelay();

  // A descriptor for an edge-triggered set, readable once a signal has come
  // since this object was made; -1 if that cannot be.
  OwnedDescriptor Descriptor() const;

 private:
  int signal_number_;  // 0: holds none.
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_SIGNAL_RELAY_H_
