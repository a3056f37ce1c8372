// A host's connection to a widget.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SOCKET_CLIENT_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SOCKET_CLIENT_H_

#include <cstddef>
#include <memory>
#include <string>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "zimbrel/src/core/common/rpc/calling.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/client/client_call.h"
#include "zimbrel/src/core/common/rpc/transport/client_stream.h"
#include "zimbrel/src/core/common/rpc/transport/frame_limits.h"

namespace orvane {

namespace internal {
class ClientConnection;
}  // namespace internal

struct ClientOptions {
  // The longest frame that is sent or accepted, its length field not counted.
  // Less than kMinMaxFrameBytes counts as that.
  std::size_t max_frame_bytes = kDefaultMaxFrameBytes;

  // Once this many bytes wait for the widget to read them, calls and messages
  // on streams fail with kResourceExhausted.
  std::size_t max_queued_bytes = std::size_t{64} << 20;
};

// Calls the unary methods of the service at the other end of a Unix-domain
// socket, and opens its streams: one service, that of the method used first.
// Calls and what is sent on streams reach the widget in the order in which they
// are made; answers come in any order.
//
// When the connection ends, for whatever reason, every call in progress and
// every stream ends with kUnavailable, and so does each later one; with
// kFailedPrecondition if the widget has another service there, or a version of
// it that does not fit, which no later try will mend. A widget may have more
// methods than this end knows of, or fewer: then those that it lacks fail with
// kUnimplemented. A client does not reconnect: the widget at the other end
// would be another one.
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
  // queue of connections is full. Errors are kUnavailable where nobody listens,
  // and kPermissionDenied where another user does.
  static absl::StatusOr<std::unique_ptr<SocketClient>> Connect(
      EventLoop* loop, const std::string& path, ClientOptions options = {});

  // Takes over a connected stream socket instead, such as one of a
  // socketpair(), and closes it also on failure.
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
  // - kUnknown: the handler failed the call, or the server does not serve it.
  // - kUnimplemented: the service at the other end has no such method.
  // - kInvalidArgument: the method is a stream, or of another service than the
  //   connection's, or the request could not be read.
  // - kResourceExhausted: the request or the response does not fit a frame.
  // - kDeadlineExceeded, kCancelled: the call was given up, here; its handler
  //   learns of it if it asked.
  // - kUnavailable: the connection is gone; the call may have been served.
  // - kInternal: the response could not be read.
  CallHandle Call(
      const google::protobuf::MethodDescriptor* method,
      const google::protobuf::Message& request,
      OnAnswer<std::unique_ptr<google::protobuf::Message>> on_answer = nullptr,
      CallOptions options = {});

  // The same, but blocks until the call has ended. Other work of the loop runs
  // meanwhile. May be called anywhere on the service thread, also inside a task
  // or a handler of something else, but fails at once
  //
  // - with kFailedPrecondition inside a continuation or handler of this client,
  //   where it would wait for itself;
  // - with kCancelled once the loop is stopped;
  // - with the reason if the request cannot be sent.
  //
  // A blocking call that another task makes meanwhile returns before this one.
  absl::StatusOr<std::unique_ptr<google::protobuf::Message>> CallAndWait(
      const google::protobuf::MethodDescriptor* method,
      const google::protobuf::Message& request, CallOptions options = {});

  // Opens a stream of `method`. Never null: if it cannot be opened, `on_end`
  // tells why, but not inside this call.
  [[nodiscard]] std::unique_ptr<ClientStream> OpenStream(
      const google::protobuf::MethodDescriptor* method,
      ClientStreamHandlers handlers);

  // OK while the connection stands, then why it ended.
  const absl::Status& status() const;

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

  explicit SocketClient(std::unique_ptr<internal::ClientConnection> connection);

  const std::unique_ptr<internal::ClientConnection> connection_;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SOCKET_CLIENT_H_
