// A client's connection to a server.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SOCKET_CLIENT_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SOCKET_CLIENT_H_

#include <cstddef>
#include <memory>
#include <string>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/calling.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/operation_observer.h"
#include "zimbrel/src/core/common/rpc/transport/client/client_call.h"
#include "zimbrel/src/core/common/rpc/transport/client_stream.h"
#include "zimbrel/src/core/common/rpc/transport/frame_limits.h"
#include "zimbrel/src/core/common/rpc/transport/responsiveness.h"

namespace orvane {

namespace internal {
class ClientConnection;
}  // namespace internal

struct ClientOptions {
  // The longest frame that is sent or accepted, in bytes, without its length
  // field. Values below kMinMaxFrameBytes count as kMinMaxFrameBytes.
  std::size_t max_frame_bytes = kDefaultMaxFrameBytes;

  // Once this many bytes wait for the server to read them, calls and messages
  // on streams fail with kResourceExhausted.
  std::size_t max_queued_bytes = std::size_t{64} << 20;

  // Calls of the server that wait for answers on one stream. Another one fails,
  // and no handler runs.
  std::size_t max_served_calls = 1024;

  // Is told of the operations of this connection; null: nobody. It outlives the
  // client.
  OperationObserver* observer = nullptr;
};

// Calls the unary methods of the service at the other end of a Unix-domain
// socket, and opens its streams. A connection is for one service, that of the
// method used first. Calls and messages on streams reach the server in the
// order in which they are made; answers arrive in any order.
//
// When the connection ends, for whatever reason, every call in progress and
// every stream ends with kUnavailable, and so does each later one. If the
// server has another service, or an incompatible version of it, they end with
// kFailedPrecondition instead, and trying again does not help. The server may
// have more methods than this end knows, or fewer: calls of methods that it
// lacks fail with kUnimplemented. A client does not reconnect, since it might
// reach a new process, which knows nothing of what was done in the old one.
//
// Thread: the service thread of its loop. Lifetime: the loop outlives the
// client. May be destroyed at any time, also in continuations and in streams'
// handlers. When the destructor returns, everything has ended: what was in
// progress with kCancelled, and what was about to end with its own reason. No
// callback runs later. A call or stream that a callback begins meanwhile ends
// there too, with kCancelled; one that begins another each time would keep the
// destructor from returning.
class SocketClient {
 public:
  // Connects to a server that listens at `path`. Blocks only while the server's
  // queue of connections is full. kUnavailable if no server listens there,
  // kPermissionDenied if the server belongs to another user.
  static absl::StatusOr<std::unique_ptr<SocketClient>> Connect(
      EventLoop* loop, const std::string& path, ClientOptions options = {});

  // Uses a connected stream socket instead, such as one of a socketpair().
  // Takes ownership of it, even on error.
  static absl::StatusOr<std::unique_ptr<SocketClient>> Adopt(
      EventLoop* loop, int descriptor, ClientOptions options = {});

  SocketClient(const SocketClient&) = delete;
  SocketClient& operator=(const SocketClient&) = delete;
  ~SocketClient();

  // Calls a unary method and returns at once. `method` belongs to a service
  // that is compiled into the program; the server knows it by its index.
  // `request` is borrowed for the call. How a call ends:
  //
  // - OK, with a message of the method's output type.
  // - kUnknown: the handler failed the call, or the server has no handler.
  // - kUnimplemented: the service at the other end has no such method.
  // - kInvalidArgument: the method is a stream, or belongs to another service
  //   than the connection's, or the request could not be parsed.
  // - kResourceExhausted: the request or the response does not fit a frame, or
  //   too much waits to be sent or answered.
  // - kDeadlineExceeded, kCancelled: this end gave the call up; the handler
  //   learns of it if it asked to be told.
  // - kUnavailable: the connection is gone; the server may have handled the
  //   call.
  // - kInternal: the response could not be parsed.
  CallHandle Call(
      const google::protobuf::MethodDescriptor* method,
      const google::protobuf::Message& request,
      OnAnswer<std::unique_ptr<google::protobuf::Message>> on_answer = nullptr,
      CallOptions options = {});

  // Like Call, but blocks until the call has ended. Other work of the loop runs
  // meanwhile. May be called anywhere on the service thread, also inside a task
  // or a handler of another object, but fails at once
  //
  // - with kFailedPrecondition inside a continuation or handler of this client,
  //   where it would wait for itself;
  // - with kCancelled once the loop is stopped;
  // - with the reason if the request cannot be sent.
  //
  // If another task makes a blocking call meanwhile, that one returns first.
  absl::StatusOr<std::unique_ptr<google::protobuf::Message>> CallAndWait(
      const google::protobuf::MethodDescriptor* method,
      const google::protobuf::Message& request, CallOptions options = {});

  // Opens a stream of `method`. Never returns null: if the stream cannot be
  // opened, `on_end` tells why, after this function has returned.
  [[nodiscard]] std::unique_ptr<ClientStream> OpenStream(
      const google::protobuf::MethodDescriptor* method,
      ClientStreamHandlers handlers);

  // Tells when the server hangs, and when it goes on. A server hangs that has
  // handled nothing for some time between a third of `patience` and all of it;
  // less than 3 ms count as 3 ms. By default nobody looks. The connection goes
  // on in any case, and nothing is lost.
  //
  // A server that has nothing to say is asked whether it is there, once or
  // twice in each `patience`, which wakes its process up; one that speaks
  // protocol 1 only cannot be asked. One whose handler blocks counts as one
  // that hangs; one that answers a call late does not.
  //
  // `on_change` runs as a task of the loop, not after the connection's end, and
  // may destroy the client. Another call replaces it; with an infinite patience
  // nobody looks any more.
  void WatchServer(absl::Duration patience, OnResponsiveness on_change);

  // OK while the connection exists, then the reason why it ended.
  const absl::Status& status() const;

  const ClientOptions& options() const { return options_; }

  // What the server takes from this client. Known from the first answer on; no
  // field is set before, nor if the server does not tell. Once it is known,
  // what is longer than the server's longest frame fails with
  // kResourceExhausted. Until then it ends the connection. Valid as long as the
  // client.
  const rpc::transport::Limits& server_limits() const;

 private:
  // For generated clients.
  friend void internal::BeginCall(
      SocketClient* client, const google::protobuf::MethodDescriptor* method,
      const google::protobuf::Message& request,
      std::shared_ptr<internal::ClientCall> call, const CallOptions& options);
  friend void internal::BeginCallAndWait(
      SocketClient* client, const google::protobuf::MethodDescriptor* method,
      const google::protobuf::Message& request,
      const std::shared_ptr<internal::ClientCall>& call,
      const CallOptions& options);

  SocketClient(const ClientOptions& options,
               std::unique_ptr<internal::ClientConnection> connection);

  const ClientOptions options_;
  const std::unique_ptr<internal::ClientConnection> connection_;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SOCKET_CLIENT_H_
