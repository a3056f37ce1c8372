// The server's side of one stream that a client has opened.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_SERVER_STREAM_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_SERVER_STREAM_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <string>

#include "absl/status/status.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/abstract_stream.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/operation_observer.h"
#include "zimbrel/src/core/common/rpc/service.h"
#include "zimbrel/src/core/common/rpc/transport/server/client_budget.h"
#include "zimbrel/src/core/common/rpc/transport/server/observed_callbacks.h"
#include "zimbrel/src/core/common/rpc/transport/server/stream_request.h"
#include "zimbrel/src/core/common/rpc/transport/server_counters.h"
#include "zimbrel/src/core/common/rpc/transport/server_limits.h"
#include "zimbrel/src/core/common/rpc/transport/wire/frame_socket.h"

namespace orvane::internal {

// What the streams of a connection share. Outlives them, and everything that it
// points to outlives it.
struct StreamContext {
  EventLoop* loop;
  Service* service;  // The one that the client has chosen.
  std::shared_ptr<FrameSocket> socket;
  std::uint32_t protocol;  // The one that both ends speak.
  const ServerLimits& limits;
  OperationObserver* observer;  // May be null.
  ServerCounters* counters;
  std::shared_ptr<ClientBudget> budget;

  // Counts something that the client has done. If the client does that too
  // often, nothing is read from it for a while.
  void Count(Done what) { socket->Pause(budget->Count(what)); }
};

// Owns a stream of the service and checks what the client sends on it: a frame
// that would end the process is refused here with an error. A subscription is
// not passed on as it came: the stream gets one with the known fields of its
// key, and only if it changes something, since streams may keep what they get.
// Remembers the keys to which the client is subscribed and unsubscribes it at
// the end, since a stream leaves a key that it shares with other streams only
// when it is unsubscribed.
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

  // How many keys the client is subscribed to.
  std::size_t subscriptions() const { return keys_.size(); }

  // Unsubscribes the stream from all its keys. The destructor does that too. A
  // stream that ends looks at all keys of its type, whoever is subscribed to
  // them, so where many streams end, this is called first for all of them.
  void UnsubscribeFromAll();

  // Passes what a frame of the client asks for to the stream. An error, whose
  // text is for the client, means that the stream has not received it.
  absl::Status Next(rpc::transport::StreamMessage& frame);
  absl::Status Error(rpc::transport::StreamMessage& frame);

 private:
  // Reads `request_`, or refuses the frame.
  absl::Status Read(const rpc::transport::StreamMessage& frame);

  absl::Status Subscribe(const std::string& key);
  // Counts one more key against the limits, or refuses it.
  absl::Status TakeSubscription();
  void Unsubscribe(const std::string& key);
  // Has the service's stream do it.
  void Pass(StreamRequest::Action action, const std::string& key);

  // Whether a call under the key of `request_` may wait on this stream. If so,
  // `frame` is made to name the key as the stream knows it.
  bool MayConcernCall(rpc::transport::StreamMessage& frame);
  void LetContinuationsRun();
  void EndObservedCall(const rpc::transport::StreamMessage& frame,
                       absl::StatusCode code);

  // The type of what the client sends.
  const google::protobuf::Descriptor* Type() const;

  StreamContext* const context_;
  const std::unique_ptr<ObservedCallbacks> observed_;  // May be null.
  const std::unique_ptr<AbstractStream> stream_;
  StreamRequest request_;  // The latest of the client.
  // The keys to which the client is subscribed, as StreamRequest::key() returns
  // them. On a callback stream also keys that another stream has taken over or
  // unsubscribed since. Not a hash table, since a client could choose keys with
  // equal hashes.
  std::set<std::string> keys_;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_SERVER_STREAM_H_
