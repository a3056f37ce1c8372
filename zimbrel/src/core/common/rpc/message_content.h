// Messages as keys: by what they say, not by where they lie.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_MESSAGE_CONTENT_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_MESSAGE_CONTENT_H_

#include <cstddef>

#include "google/protobuf/message.h"

namespace orvane {

// Two messages have equal content if they are of one type and their
// deterministic serialisations are the same bytes. So presence, unknown fields
// and the bits of a NaN count; the order in which a map was filled does not. A
// message equals every copy of it.
//
// Both functors read the messages only, but protobuf caches sizes inside them:
// do not use one message from two threads at once. Nothing is allocated for
// messages whose serialisation fits 256 bytes, maps aside, which protobuf
// sorts.

// Not noexcept, on purpose: libstdc++ then keeps each key's hash in its node
// instead of serialising stored keys again during look-ups.
struct MessageHash {
  std::size_t operator()(const google::protobuf::Message* message) const;
};

struct MessageEqual {
  bool operator()(const google::protobuf::Message* left,
                  const google::protobuf::Message* right) const;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_MESSAGE_CONTENT_H_
