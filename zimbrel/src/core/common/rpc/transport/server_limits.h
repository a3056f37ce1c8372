// How much one server takes on itself for its hosts.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_LIMITS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_LIMITS_H_

#include <cstddef>

#include "absl/time/time.h"

#include "zimbrel/src/core/common/rpc/transport/frame_limits.h"

namespace orvane {

// Each limit holds for one host, but for the number of hosts itself. What is
// beyond is refused in words that tell value and limit; other hosts notice
// nothing. The defaults are some ten times what a browser widget's host needs.
struct ServerLimits {
  // The longest frame that is sent or accepted, in bytes, its length field not
  // counted. Beyond: a call's reply becomes an error, an event does not reach
  // the host, a call to the host is not made; what is received ends the
  // connection. Less than kMinMaxFrameBytes counts as that.
  std::size_t max_frame_bytes = kDefaultMaxFrameBytes;

  // How deep messages in a payload may be nested, the payload itself not
  // counted. Beyond: as a payload that cannot be read. More than protobuf's own
  // default, 100, counts as that.
  int max_message_depth = kMaxMessageDepth;

  // Connections at a time. Beyond: the connection is told so and closed.
  std::size_t max_connections = 64;

  // Unary calls that wait for an answer. Beyond: the call fails.
  std::size_t max_calls = 1024;

  // Open streams. Beyond: the stream is refused.
  std::size_t max_streams = 1024;

  // Keys that event streams are subscribed to, all streams together. Beyond:
  // the stream ends.
  std::size_t max_subscriptions = 16384;

  // Bytes that wait for the host to read them. Once there are so many, the next
  // frame ends the connection; its host, which does not read, is not told.
  std::size_t max_queued_bytes = std::size_t{16} << 20;

  // How long a frame may take from its first byte to its last. Beyond: the
  // connection ends. Above 0.
  absl::Duration max_frame_time = absl::Seconds(10);
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_LIMITS_H_
