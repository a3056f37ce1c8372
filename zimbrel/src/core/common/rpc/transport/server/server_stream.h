// The server's side of one stream that a host has opened. Private to the
// transport.

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
#include "zimbrel/src/core/common/rpc/transport/server_limits.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"
#include "zimbrel/src/core/common/rpc/transport/wire/frame_socket.h"

namespace orvane::internal {

// What the streams of one connection share. Loop, service and limits outlive
// it.
struct StreamHome {
  EventLoop* loop;
  Service* service;
  std::shared_ptr<FrameSocket> socket;
  const ServerLimits& limits;
  ServerCounters* counters;
  std::size_t subscriptions = 0;  // Of all event streams together.
};

// Owns a stream of the service and stands between it and the host: what the
// stream takes for impossible, since it would end the process, is refused here
// in words. Remembers what the host is subscribed to, and withdraws it at the
// end as an orderly host would have done: a stream leaves keys that it shares
// with others only when it is told to.
//
// Thread: the service thread.
class ServerStream {
 public:
  // `method` is a streaming method of the service. `home` outlives the stream.
  ServerStream(StreamHome* home,
               const google::protobuf::MethodDescriptor* method,
               std::uint64_t id);
  ServerStream(const ServerStream&) = delete;
  ServerStream& operator=(const ServerStream&) = delete;

  // The host has ended the stream or is gone: withdraws what it is subscribed
  // to, completes the stream and destroys it.
  ~ServerStream();

  // Delivers a frame of the host. An error, in words for the host, means that
  // the stream was not told of it.
  absl::Status Next(rpc::transport::StreamMessage& frame);
  absl::Status Error(rpc::transport::StreamMessage& frame);

 private:
  absl::Status CheckSubscription(const std::string& payload);
  absl::Status AddKey(std::string key);
  void RemoveKey(const std::string& key);
  absl::Status CheckCallbackFrame(const std::string& payload);
  absl::Status ParseCallback(const std::string& payload);
  void Withdraw();

  StreamHome* const home_;
  const bool is_event_stream_;
  const std::unique_ptr<AbstractStream> stream_;

  // Of an event stream: the keys that it is subscribed to, serialised.
  rpc::EventSubscription subscription_;
  std::unordered_set<std::string> keys_;

  // Of a callback stream: what it sends and receives.
  const std::unique_ptr<google::protobuf::Message> callback_;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_SERVER_STREAM_H_
