// For tests: the keys of streams, and what subscribes to them.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_KEYS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_KEYS_H_

#include <cstdint>

#include "rpc/browser/browser_id.pb.h"
#include "rpc/event_subscription.pb.h"

namespace orvane::testing {

inline BrowserId Browser(std::uint64_t value) {
  BrowserId id;
  id.set_value(value);
  return id;
}

inline rpc::EventSubscription Subscribe(std::uint64_t browser) {
  rpc::EventSubscription request;
  *request.mutable_subscribe() = Browser(browser);
  return request;
}

inline rpc::EventSubscription Unsubscribe(std::uint64_t browser) {
  rpc::EventSubscription request;
  *request.mutable_unsubscribe() = Browser(browser);
  return request;
}

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_KEYS_H_
