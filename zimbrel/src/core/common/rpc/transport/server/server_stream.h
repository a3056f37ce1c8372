// The server's side of one stream that a client has opened.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_SERVER_STREAM_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_SERVER_STREAM_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>

#include "absl/status/status.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "rpc/event_subscription.pb.h"
#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/abstract_stream.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/service.h"
#include "zimbrel/src/core/common/rpc/transport/server_counters.h"
#include "zimbrel/src/core/common/rpc/transport/server_limits.h"
#include "zimbrel/src/core/common/rpc/transport/wire/frame_socket.h"

namespace orvane::internal {

// What the streams of a connection share. Outlives them, and everything that it
// points to outlives it.
struct StreamContext {
  EventLoop* loop;
  Service* service;
  std::shared_ptr<FrameSocket> socket;
  const ServerLimits& limits;
  ServerCounters* counters;
  std::size_t subscriptions = 0;  // Of all event streams together.
};

// Owns a stream of the service and checks what the client sends on it: a frame
// that would end the process is refused here with an error. Remembers the keys
// to which the client is subscribed and unsubscribes it at the end, since a
// stream leaves a key that it shares with other streams only when it is
// unsubscribed.
//
// Thread: the service thread.
class ServerStream {
 public:
  // `method` is a streaming method of the service. `context` outlives the
  // stream.
  ServerStream(StreamContext* context,
               const google::protobuf::MethodDescriptor* method,
               std::uint64_t id);
  ServerStream(const ServerStream&) = delete;
  ServerStream& operator=(const ServerStream&) = delete;

  // The client has ended the stream or is gone: unsubscribes it from what is
  // left, completes the stream and destroys it.
  ~ServerStream();

  // Passes a frame of the client to the stream. An error, whose text is for the
  // client, means that the stream has not received it.
  absl::Status Next(rpc::transport::StreamMessage& frame);
  absl::Status Error(rpc::transport::StreamMessage& frame);

 private:
  absl::Status CheckSubscription(const std::string& payload);
  absl::Status AddKey(std::string key);
  void RemoveKey(const std::string& key);
  absl::Status CheckCallbackFrame(const std::string& payload);
  absl::Status ParseCallback(const std::string& payload);
  void UnsubscribeFromAll();

  StreamContext* const context_;
  const bool is_event_stream_;
  const std::unique_ptr<AbstractStream> stream_;

  // Of an event stream: the keys that it is subscribed to, serialised.
  rpc::EventSubscription subscription_;
  std::unordered_set<std::string> keys_;

  // Of a callback stream: the message into which frames are parsed.
  const std::unique_ptr<google::protobuf::Message> callback_;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_SERVER_STREAM_H_
