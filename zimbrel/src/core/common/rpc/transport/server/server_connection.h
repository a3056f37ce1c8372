// One client's connection to a server, with its calls and streams.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_SERVER_CONNECTION_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_SERVER_CONNECTION_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string_view>

#include "absl/container/flat_hash_map.h"
#include "absl/functional/any_invocable.h"
#include "absl/status/status.h"

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/service.h"
#include "zimbrel/src/core/common/rpc/transport/server/server_stream.h"
#include "zimbrel/src/core/common/rpc/transport/server_limits.h"
#include "zimbrel/src/core/common/rpc/transport/wire/frame_socket.h"

namespace orvane::internal {

class ServerCall;

// Thread: the service thread. Lifetime: all that is passed outlives it.
// Destroying it completes the streams, tells the client so and closes the
// connection; calls whose handlers have not answered yet are cancelled and left
// to them.
class ServerConnection final : public FrameSocket::Receiver {
 public:
  // `on_end` runs once when the connection has ended, from inside this object,
  // which it may destroy. Not from inside the destructor.
  ServerConnection(EventLoop* loop, Service* service,
                   const ServerLimits& limits, ServerCounters* counters,
                   std::unique_ptr<EventLoop::Watch> socket,
                   absl::AnyInvocable<void() &&> on_end);
  ServerConnection(const ServerConnection&) = delete;
  ServerConnection& operator=(const ServerConnection&) = delete;
  ~ServerConnection() override;

  // Tells the client at the other end why there will be no connection, and
  // closes the socket.
  static void Refuse(std::unique_ptr<EventLoop::Watch> socket,
                     const absl::Status& why);

  // Ends the streams and lets nothing new begin. Once every call has been
  // answered and all is written the connection ends, as if the client had left.
  void ShutDown();

  // A handler has answered: sends the answer and forgets the call.
  void Finish(const ServerCall& call);

 private:
  void OnFrame(rpc::transport::StreamMessage& frame,
               std::string_view payload) override;
  void OnBroken(const absl::Status& why) override;
  void OnFull(const absl::Status& why) override;

  // The client's first frame.
  void OnHello(const rpc::transport::StreamMessage& frame,
               std::string_view payload);
  // The client begins a call or a stream. False if its id is out of order; then
  // this has closed the connection.
  bool AcceptId(std::uint64_t id);
  void BeginCall(const rpc::transport::StreamMessage& frame,
                 std::string_view payload);
  void CancelCall(std::uint64_t id);
  void OpenStream(const rpc::transport::StreamMessage& frame);
  void Deliver(rpc::transport::StreamMessage& frame, std::string_view payload);
  void CompleteStream(std::uint64_t id);
  // A frame came for a stream that is not open. This may close the connection.
  void RefuseFrame(std::uint64_t id);
  // False if there is no such stream.
  bool EndStream(std::uint64_t id);
  void FinishIfAllIsAnswered();
  void SendError(std::uint64_t id, const absl::Status& why);
  // Ends the connection. OK if the client has left; otherwise it is told why,
  // and the reason is logged and counted.
  void Close(const absl::Status& why);

  StreamContext context_;
  // For calls that are answered elsewhere.
  const std::shared_ptr<Mailbox> mailbox_;
  absl::AnyInvocable<void() &&> on_end_;
  bool has_said_hello_ = false;  // The client.
  bool is_shutting_down_ = false;
  // Not answered yet. Each is owned by its handler, through `done`.
  absl::flat_hash_map<std::uint64_t, ServerCall*> calls_;
  // In the order in which they were opened, which is that of their ends.
  std::map<std::uint64_t, std::unique_ptr<ServerStream>> streams_;
  std::uint64_t last_id_ = 0;  // The latest that the client has begun.
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_SERVER_CONNECTION_H_
