// Signals as descriptors for which a loop can wait.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_SIGNAL_RELAY_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_SIGNAL_RELAY_H_

#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace orvane::internal {

// While it exists, a signal makes a descriptor readable instead of having its
// usual effect. If several relays have the same signal, all of them receive it.
// Thread: any, one at a time.
class SignalRelay {
 public:
  // Relays nothing if this is not the number of a signal, or the signal cannot
  // be caught.
  explicit SignalRelay(int signal_number);
  SignalRelay(SignalRelay&& other) noexcept;
  SignalRelay& operator=(SignalRelay&&) = delete;
  // The last relay of a signal restores the handler that was set before the
  // first one.
  ~SignalRelay();

  // A descriptor for an edge-triggered set, readable once a signal has arrived
  // since this object was made; -1 if it relays nothing.
  OwnedDescriptor Descriptor() const;

 private:
  int signal_number_;  // 0 if it relays nothing.
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_SIGNAL_RELAY_H_
