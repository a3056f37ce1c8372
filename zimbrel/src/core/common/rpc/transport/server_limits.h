// Limits on what the clients of a server may use.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_LIMITS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_LIMITS_H_

#include <cstddef>

#include "absl/time/time.h"

#include "zimbrel/src/core/common/rpc/transport/frame_limits.h"

namespace orvane {

// Each limit applies to one client, except the number of connections. A client
// that goes beyond a limit gets an error that tells the value and the limit;
// other clients are not affected. The defaults are about ten times what a
// graphical application needs.
struct ServerLimits {
  // The longest frame that is sent or accepted, in bytes, without its length
  // field. A reply that is longer is replaced by an error; an event or a call
  // to the client that is longer is not sent; a frame from the client that is
  // longer ends the connection. Values below kMinMaxFrameBytes count as
  // kMinMaxFrameBytes.
  std::size_t max_frame_bytes = kDefaultMaxFrameBytes;

  // How many levels deep messages may be nested in a payload, not counting the
  // payload itself. A payload that is nested deeper is treated like one that
  // cannot be parsed. Values above protobuf's own default, 100, count as 100.
  int max_message_depth = kMaxMessageDepth;

  // Connections at the same time. Another one gets an error and is closed.
  std::size_t max_connections = 64;

  // Unary calls in progress. Another one fails.
  std::size_t max_calls = 1024;

  // Open streams. Another one is refused.
  std::size_t max_streams = 1024;

  // Keys to which event streams are subscribed, all streams together. A stream
  // that subscribes to another one ends.
  std::size_t max_subscriptions = 16384;

  // Bytes that wait for the client to read them. Once this many wait, the next
  // frame ends the connection; the client is not told why, since it does not
  // read.
  std::size_t max_queued_bytes = std::size_t{16} << 20;

  // How long a frame may take to arrive, from its first byte to its last. If it
  // takes longer, the connection ends. Must be above 0.
  absl::Duration max_frame_time = absl::Seconds(10);
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_LIMITS_H_
