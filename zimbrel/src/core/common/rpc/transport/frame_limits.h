// The sizes of frames on a connection, the same at both of its ends.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_FRAME_LIMITS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_FRAME_LIMITS_H_

#include <cstddef>

namespace orvane {

// What one frame may take by default, in bytes, its length field not counted.
inline constexpr std::size_t kDefaultMaxFrameBytes = std::size_t{4} << 20;

// The smallest limit that can be set: room for a header and an error in words.
inline constexpr std::size_t kMinMaxFrameBytes = std::size_t{4} << 10;

// How many levels deep the messages in a frame may be nested at the most:
// protobuf's own default.
inline constexpr int kMaxMessageDepth = 100;

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_FRAME_LIMITS_H_
