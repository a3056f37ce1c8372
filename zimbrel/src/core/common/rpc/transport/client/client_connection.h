// One client's connection to a server, with its calls and streams.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_CLIENT_CONNECTION_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_CLIENT_CONNECTION_H_

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string_view>

#include "absl/container/flat_hash_map.h"
#include "absl/status/status.h"
#include "absl/time/time.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/operation_observer.h"
#include "zimbrel/src/core/common/rpc/transport/client_stream.h"
#include "zimbrel/src/core/common/rpc/transport/responsiveness.h"
#include "zimbrel/src/core/common/rpc/transport/wire/frame_socket.h"
#include "zimbrel/src/core/common/rpc/transport/wire/peer_watch.h"

namespace orvane::internal {

class ClientCall;
class ClientStreamState;

// Thread: the service thread. Lifetime: the loop outlives it. Destroying it
// closes the connection and ends all calls and streams with kCancelled, from
// inside the destructor. Callbacks may destroy it.
class ClientConnection final : public FrameSocket::Receiver {
 public:
  // `observer` may be null.
  ClientConnection(EventLoop* loop, std::unique_ptr<EventLoop::Watch> socket,
                   const FrameLimits& limits, OperationObserver* observer);
  ClientConnection(const ClientConnection&) = delete;
  ClientConnection& operator=(const ClientConnection&) = delete;
  ~ClientConnection() override;

  // Sends the request and keeps the call in a table until it ends. If the
  // request cannot be sent, the call ends with the reason in a task of its own.
  void BeginCall(const google::protobuf::MethodDescriptor& method,
                 const google::protobuf::Message& request,
                 std::shared_ptr<ClientCall> call, absl::Duration timeout);

  // Like BeginCall, but runs the loop until the call has ended. It ends at once
  // if the request cannot be sent, with kFailedPrecondition inside a callback
  // of this connection, and with kCancelled if the loop is stopped.
  void BeginCallAndWait(const google::protobuf::MethodDescriptor& method,
                        const google::protobuf::Message& request,
                        const std::shared_ptr<ClientCall>& call,
                        absl::Duration timeout);

  // Tells the server that nobody waits for the answer of a call, and ends it
  // with kCancelled in a task of its own. Does nothing if the id is unknown.
  void CancelCall(std::uint64_t id);

  // See SocketClient::OpenStream.
  std::unique_ptr<ClientStream> OpenStream(
      const google::protobuf::MethodDescriptor& method,
      ClientStreamHandlers handlers);

  // See SocketClient::WatchServer.
  void WatchServer(absl::Duration patience, OnResponsiveness on_change);

  // OK while the connection exists, then the reason why it ended.
  const absl::Status& status() const;

  // See SocketClient::server_limits.
  const rpc::transport::Limits& server_limits() const;

 private:
  void OnFrame(rpc::transport::StreamMessage& frame,
               std::string_view payload) override;
  void OnBroken(const absl::Status& why) override;
  void OnSignOfLife() override;
  void OnFull(const absl::Status& why) override;

  // Sends the hello when a service is used for the first time; the connection
  // is for that service only. An error means that the connection cannot be
  // used, or not for this service.
  absl::Status BindTo(const google::protobuf::ServiceDescriptor& service);
  void OnHello(std::string_view payload);
  // OK unless the hellos of both ends are known and incompatible.
  absl::Status CompareHellos() const;

  absl::Status SendRequest(std::uint64_t id,
                           const google::protobuf::MethodDescriptor& method,
                           const google::protobuf::Message& request,
                           absl::Duration timeout);
  void Observe(const google::protobuf::MethodDescriptor& method,
               const google::protobuf::Message& request,
               ClientCall& call) const;
  void EndCall(const rpc::transport::StreamMessage& frame,
               std::string_view payload);
  // Ends a call that the server may still be handling.
  void AbandonCall(std::uint64_t id, const absl::Status& why);
  // Removes the call from the table and returns it; null if it is not there.
  std::shared_ptr<ClientCall> TakeCall(std::uint64_t id);

  void Deliver(const rpc::transport::StreamMessage& frame,
               std::string_view payload);
  // The server does not wait any longer for the answer to its call.
  void GiveUpServedCall(const rpc::transport::StreamMessage& frame);
  void EndStream(std::uint64_t id, const absl::Status& why);
  // Removes the stream from the table and tells the server that it has ended.
  void CompleteStream(std::uint64_t id);

  // Tells the server that a call or a stream has ended, unless the connection
  // has ended.
  void SendEnd(rpc::transport::StreamMessage::Kind kind, std::uint64_t id);

  // Ends the connection and everything in progress with `why`. This object may
  // have been destroyed when it returns.
  void Close(absl::Status why);

  // Queues the ends, with `why`, of everything in progress: first the calls,
  // then the streams, each in the order in which they were begun.
  void QueueEnds(const absl::Status& why);
  // Runs `end` in a task of its own, or in the destructor if that comes first.
  void EndSoon(Task end);
  // Runs the queued ends. This object may have been destroyed when it returns.
  void RunEnds();

  void ListCall(std::uint64_t id,
                const google::protobuf::MethodDescriptor& method,
                std::shared_ptr<ClientCall> call, absl::Duration timeout);
  bool IsInsideACallback() const;

  // See PeerWatch::Callbacks.
  bool AskWhetherItIsThere();
  Responsiveness Describe(bool responds) const;

  // Outlives the connection, so that code that runs a callback can see
  // afterwards whether the callback has destroyed the connection.
  struct Callbacks {
    int running = 0;  // Except inside OnFrame; see FrameSocket::in_batch().
    bool connection_is_gone = false;
  };
  class CallbackScope;

  EventLoop* const loop_;
  OperationObserver* const observer_;
  const std::shared_ptr<FrameSocket> socket_;
  const std::shared_ptr<Callbacks> callbacks_ = std::make_shared<Callbacks>();
  std::deque<Task> ends_;
  std::unique_ptr<EventLoop::Timer> run_ends_;  // Null unless it is scheduled.
  absl::Status status_;
  // Set by BindTo.
  const google::protobuf::ServiceDescriptor* service_ = nullptr;
  // Set by OnHello.
  std::optional<rpc::transport::Hello> server_hello_;
  std::unique_ptr<PeerWatch> watch_;  // Null unless it was asked for.
  std::uint64_t last_id_ = 0;
  absl::flat_hash_map<std::uint64_t, std::shared_ptr<ClientCall>> calls_;
  absl::flat_hash_map<std::uint64_t, std::shared_ptr<ClientStreamState>>
      streams_;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_CLIENT_CONNECTION_H_
