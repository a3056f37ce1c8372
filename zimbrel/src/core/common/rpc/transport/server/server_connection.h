// One client's connection to a server, with its calls and streams.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_SERVER_CONNECTION_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_SERVER_CONNECTION_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string_view>
#include <vector>

#include "absl/container/flat_hash_map.h"
#include "absl/functional/any_invocable.h"
#include "absl/status/status.h"
#include "absl/time/time.h"

#include "rpc/transport/status.pb.h"
#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/coarse_clock.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/service.h"
#include "zimbrel/src/core/common/rpc/transport/responsiveness.h"
#include "zimbrel/src/core/common/rpc/transport/server/client_presence.h"
#include "zimbrel/src/core/common/rpc/transport/server/server_stream.h"
#include "zimbrel/src/core/common/rpc/transport/server_limits.h"
#include "zimbrel/src/core/common/rpc/transport/wire/frame_socket.h"
#include "zimbrel/src/core/common/rpc/transport/wire/peer_watch.h"

namespace orvane::internal {

class ServerCall;

// Thread: the service thread. Lifetime: all that is passed outlives it.
// Destroying it completes the streams, tells the client so and closes the
// connection; calls whose handlers have not answered yet are cancelled and left
// to them.
class ServerConnection final : public FrameSocket::Receiver {
 public:
  // The client chooses one of `services`, at least one. `budget` is its part of
  // the limits, and `observer` may be null. `on_end` runs once when the
  // connection has ended, called by this object, which it may destroy. The
  // destructor does not call it.
  ServerConnection(EventLoop* loop, const std::vector<Service*>& services,
                   const ServerLimits& limits,
                   std::unique_ptr<ClientBudget> budget,
                   ServerCounters* counters, OperationObserver* observer,
                   std::unique_ptr<EventLoop::Watch> socket,
                   absl::AnyInvocable<void() &&> on_end);
  ServerConnection(const ServerConnection&) = delete;
  ServerConnection& operator=(const ServerConnection&) = delete;
  ~ServerConnection() override;

  // Tells the client at the other end why it is refused, and closes the socket.
  static void Refuse(std::unique_ptr<EventLoop::Watch> socket,
                     const absl::Status& why);

  // Unsubscribes all streams from all keys. Where many connections end, this is
  // done first for all of them: a stream that ends looks at the keys of others.
  void UnsubscribeStreams();

  // Ends the streams and refuses new calls and streams. Once every call has
  // been answered and everything is written, the connection ends as if the
  // client had left.
  void ShutDown();

  // For code that waits for the end of the connection.
  const std::shared_ptr<ClientPresence>& client() const { return client_; }

  void Describe(rpc::transport::ConnectionStatus* status) const;

  // See SocketServer::WatchClients.
  void Watch(absl::Duration patience, OnClientResponsiveness on_change);

  // Whether nothing has come from the client yet.
  bool IsSilent() const;

  // Ends the connection. `why` is OK if the client has left; otherwise the
  // client is told, and the reason is logged and counted.
  void Close(const absl::Status& why);

  // Called when a handler has answered: sends the answer and removes the call
  // from the table.
  void Finish(ServerCall& call);

 private:
  void OnFrame(rpc::transport::StreamMessage& frame,
               std::string_view payload) override;
  void OnBroken(const absl::Status& why) override;
  void OnSignOfLife() override;
  void OnFull(const absl::Status& why) override;

  // The client's first frame.
  void OnHello(const rpc::transport::StreamMessage& frame,
               std::string_view payload);
  // Checks the id of a new call or stream. If it is out of order, closes the
  // connection and returns false.
  bool AcceptId(std::uint64_t id);
  void BeginCall(const rpc::transport::StreamMessage& frame,
                 std::string_view payload);
  // Counts a call against the limits, or refuses it.
  absl::Status TakeCall(std::size_t request_bytes);
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
  // Ends the remaining streams, in several tasks if there are many, and calls
  // `on_end_`.
  void FinishClosing();

  const std::shared_ptr<char> alive_ = std::make_shared<char>();
  const CoarseClock::time_point begun_ = CoarseClock::now();
  const std::uint32_t client_process_;
  const std::shared_ptr<ClientPresence> client_;
  const std::vector<Service*>& services_;
  StreamContext context_;
  // For calls that are answered on another thread.
  const std::shared_ptr<Mailbox> mailbox_;
  absl::AnyInvocable<void() &&> on_end_;
  bool has_received_hello_ = false;
  std::unique_ptr<EventLoop::Timer> hello_deadline_;  // Until then.
  std::unique_ptr<PeerWatch> watch_;  // Null unless it was asked for.
  bool is_shutting_down_ = false;
  // Calls without an answer yet. Each is owned by its handler, through `done`.
  absl::flat_hash_map<std::uint64_t, ServerCall*> calls_;
  // In the order in which they were opened, which is the order of their ends.
  std::map<std::uint64_t, std::unique_ptr<ServerStream>> streams_;
  std::uint64_t last_id_ = 0;  // Of the client's latest call or stream.
  std::unique_ptr<EventLoop::Timer> next_end_;  // Runs FinishClosing again.
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_SERVER_CONNECTION_H_
