// Limits on what the clients of a server may use.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_LIMITS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_LIMITS_H_

#include <cstddef>
#include <limits>

#include "absl/time/time.h"

#include "zimbrel/src/core/common/rpc/transport/frame_limits.h"

namespace orvane {

// How often something may happen: `at_once` times, and `per_second` times from
// then on. Both are above 0; an infinite `per_second` means no limit.
struct RateLimit {
  double at_once;
  double per_second;

  static constexpr RateLimit None() {
    return {1, std::numeric_limits<double>::infinity()};
  }
};

// A client that goes beyond a size or a number gets an error that tells the
// value and the limit. A client that goes beyond a rate is slowed down: the
// server reads nothing from it for a while, and nothing is lost unless it
// leaves meanwhile. Other clients are not affected.
//
// Most limits exist twice: for each client, and (`total`) for all clients of
// the server together. Half of a total number is divided evenly among
// `max_connections` clients and reserved for them, so that each gets its share
// whatever the others take.
//
// The greatest value of a number's type, an infinite duration and
// RateLimit::None() mean no limit. The defaults are about ten times what a
// graphical application needs; SECURITY.md tells what they add up to.
struct ServerLimits {
  // Frames -------------------------------------------------------------------

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

  // Bytes that wait for the client to read them. Once this many wait, the next
  // frame ends the connection; the client is not told why, since it does not
  // read.
  std::size_t max_queued_bytes = std::size_t{16} << 20;

  // How long a frame may take to arrive, from its first byte to its last. If it
  // takes longer, the connection ends. Must be above 0.
  absl::Duration max_frame_time = absl::Seconds(10);

  // Connections --------------------------------------------------------------

  // Connections at the same time. For another one, the oldest connection on
  // which nothing has come yet is closed. If there is none, the new one gets an
  // error and is closed.
  std::size_t max_connections = 64;

  // How long a client may take to say hello. If it takes longer, the connection
  // ends. Without a limit by default, because our clients say hello with their
  // first call, and connections without hello make room for others anyway.
  absl::Duration max_hello_time = absl::InfiniteDuration();

  // Calls --------------------------------------------------------------------

  // Unary calls whose handlers have not run `done`, even if they have been
  // cancelled or their client has left. Another one fails.
  std::size_t max_calls = 1024;
  std::size_t max_total_calls = 4096;

  // Bytes of the requests of those calls, serialised. A call that exceeds them
  // fails.
  std::size_t max_request_bytes = std::size_t{8} << 20;
  std::size_t max_total_request_bytes = std::size_t{32} << 20;

  // Streams ------------------------------------------------------------------

  // Open streams. Another one is refused.
  std::size_t max_streams = 1024;
  std::size_t max_total_streams = 8192;

  // How often streams are opened. The end of each costs time for every key to
  // which streams of its type are subscribed.
  RateLimit max_stream_rate = {.at_once = 4096, .per_second = 256};
  RateLimit max_total_stream_rate = {.at_once = 65536, .per_second = 4096};

  // Keys to which streams are subscribed, each counted once for each stream. A
  // stream that subscribes to another one ends.
  std::size_t max_subscriptions = 2048;
  std::size_t max_total_subscriptions = 8192;

  // Bytes of a key, serialised. A stream that subscribes to a longer one ends.
  std::size_t max_key_bytes = 256;

  // How often streams are subscribed to keys. What changes nothing, such as a
  // second subscription to the same key, does not count.
  RateLimit max_subscription_rate = {.at_once = 4096, .per_second = 64};
  RateLimit max_total_subscription_rate = {.at_once = 65536, .per_second = 256};

  // Such subscriptions of event streams in the whole life of the server. For
  // each, two small messages (about 200 bytes) stay until the process ends. A
  // stream that makes another one ends. A server that gets so far should be
  // replaced by a new process.
  std::size_t max_lifetime_subscriptions = std::size_t{1} << 20;

  // How often a callback stream takes over a key from another one. Each time is
  // logged.
  RateLimit max_takeover_rate = {.at_once = 1024, .per_second = 8};
  RateLimit max_total_takeover_rate = {.at_once = 8192, .per_second = 64};
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_LIMITS_H_
