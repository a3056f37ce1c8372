// Limits on the size of a frame, for both ends of a connection.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_FRAME_LIMITS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_FRAME_LIMITS_H_

#include <cstddef>

namespace orvane {

// The longest frame by default, in bytes, without its length field.
inline constexpr std::size_t kDefaultMaxFrameBytes = std::size_t{4} << 20;

// The smallest limit that can be set. A header and an error text fit into it.
inline constexpr std::size_t kMinMaxFrameBytes = std::size_t{4} << 10;

// How many levels deep the messages in a frame may be nested: protobuf's own
// default.
inline constexpr int kMaxMessageDepth = 100;

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_FRAME_LIMITS_H_
