// A host's connection to a widget.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SOCKET_CLIENT_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SOCKET_CLIENT_H_

#include <cstddef>
#include <memory>
#include <string>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "google/protobuf/service.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/client_stream.h"
#include "zimbrel/src/core/common/rpc/transport/frame_limits.h"

namespace orvane {

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
// kUnimplemented. A client
// does not reconnect: the widget at the other end would be another one.
//
// Thread: the service thread of its loop. Lifetime: the loop outlives the
// client. May be destroyed at any time, also in `done` and in streams'
// handlers: what is in progress then ends with kCancelled, from inside the
// destructor.
class SocketClient final : public google::protobuf::RpcChannel {
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
  ~SocketClient() override;

  // Calls `method`, which is known at the other end by its index. All that is
  // passed is borrowed until `done` runs: exactly once, on the service thread,
  // never inside this call. A failed call leaves the response unspecified.
  //
  // With a null `done` this blocks until the call has ended. Other work of the
  // loop runs meanwhile; if the loop is stopped, the call is cancelled. A
  // blocking call inside a `done` of this client would wait for itself: it
  // fails at once with kFailedPrecondition.
  //
  // Deadlines, cancellation and status codes need a ClientController; any other
  // controller learns success and error text.
  void CallMethod(const google::protobuf::MethodDescriptor* method,
                  google::protobuf::RpcController* controller,
                  const google::protobuf::Message* request,
                  google::protobuf::Message* response,
                  google::protobuf::Closure* done) override;

  // Opens a stream of `method`. Never null: if it cannot be opened, `on_end`
  // tells why, but not inside this call.
  [[nodiscard]] std::unique_ptr<ClientStream> OpenStream(
      const google::protobuf::MethodDescriptor* method,
      ClientStreamHandlers handlers);

  // OK while the connection stands, then why it ended.
  const absl::Status& status() const;

 private:
  class Impl;

  explicit SocketClient(std::unique_ptr<Impl> impl);

  const std::unique_ptr<Impl> impl_;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SOCKET_CLIENT_H_
