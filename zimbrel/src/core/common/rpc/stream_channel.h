// The path over which one stream's frames travel.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_CHANNEL_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_CHANNEL_H_

#include <cstdint>
#include <memory>

#include "absl/status/status.h"

namespace google::protobuf {
class Message;
}  // namespace google::protobuf

namespace rpc::transport {
class StreamMessage;
}  // namespace rpc::transport

namespace orvane {

class EventLoop;

// What a transport puts behind a channel: its end of one open stream. Written
// by transports, used through StreamChannel and AbstractStream only.
//
// Thread: the service thread. The destructor runs when the stream is destroyed,
// whether or not it was completed; no other operation follows it.
class StreamEndpoint {
 public:
  StreamEndpoint() = default;
  StreamEndpoint(const StreamEndpoint&) = delete;
  StreamEndpoint& operator=(const StreamEndpoint&) = delete;
  virtual ~StreamEndpoint() = default;

  // Sends `payload` and `call_id` of the frame to the peer; the transport fills
  // in the rest. An error means that nothing was sent: the peer is gone, or too
  // slow. Never blocks, and calls nothing back before it returns.
  virtual absl::Status Send(const rpc::transport::StreamMessage& frame) = 0;

  // Like Send, for an event about `key`. Where the method's `slow_host` option
  // allows it, the event may replace one about the same key that still waits
  // for a slow peer. `key` is borrowed for the call.
  virtual absl::Status SendEvent(const rpc::transport::StreamMessage& frame,
                                 const google::protobuf::Message& key);

  // Tells the peer that nobody waits for the answer to the call `call_id` any
  // longer. A peer that does not know of this is told nothing, as here.
  virtual void CancelCall(std::int64_t call_id);

  // Tells the peer that the stream has ended. May destroy the stream, and this
  // endpoint with it.
  virtual void Complete() = 0;

  // The loop of the service thread. Outlives the endpoint.
  virtual EventLoop& loop() = 0;
};

// A handle of one open channel. Move-only; a moved-from channel may only be
// destroyed.
class StreamChannel {
 public:
  explicit StreamChannel(std::unique_ptr<StreamEndpoint> endpoint);
  StreamChannel(StreamChannel&&) noexcept;
  StreamChannel& operator=(StreamChannel&&) = delete;
  ~StreamChannel();  // Releases the endpoint, if it is still held.

 private:
  friend class AbstractStream;

  std::unique_ptr<StreamEndpoint> endpoint_;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_CHANNEL_H_
