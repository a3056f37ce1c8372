// Serves services to the clients that connect to a Unix-domain socket.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SOCKET_SERVER_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SOCKET_SERVER_H_

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/time/time.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/operation_observer.h"
#include "zimbrel/src/core/common/rpc/service.h"
#include "zimbrel/src/core/common/rpc/transport/responsiveness.h"
#include "zimbrel/src/core/common/rpc/transport/server_counters.h"
#include "zimbrel/src/core/common/rpc/transport/server_limits.h"

namespace orvane {

// Carries calls and streams between clients and services. A client chooses one
// service for its connection, in its hello, by the full name. The frames of one
// client are handled in the order in which it sent them, calls and streams
// together, on the service thread. A handler may run `done` immediately, later,
// or on another thread, even after the client, the server or the loop has gone:
// the answer is then dropped. The controller tells a handler whether its client
// still waits. The controller and the messages exist until `done` has run, so a
// handler that never runs `done` leaks them.
//
// The server owns the streams that clients open. When a stream ends or its
// client disconnects, the server unsubscribes the stream from all its keys,
// completes it, which cancels the calls that the client has not answered, and
// destroys it.
//
// A client that calls or opens a method that does not exist, or sends a message
// that cannot be parsed, gets an error text, and that call or stream ends. If
// it sends bytes that are not frames, its connection ends. Other clients are
// not affected.
//
// For an orderly end, call Shutdown and destroy the server once `done` has run.
// Destroying it without Shutdown breaks off what is in progress.
//
// Thread: the service thread. Lifetime: loop and services outlive the server.
// May be destroyed at any time, also by a handler.
class SocketServer {
 public:
  SocketServer(EventLoop* loop, Service* service, ServerLimits limits = {});
  // At least one service, each of another type. The limits are for all of them
  // together.
  SocketServer(EventLoop* loop, std::vector<Service*> services,
               ServerLimits limits = {});
  SocketServer(const SocketServer&) = delete;
  SocketServer& operator=(const SocketServer&) = delete;

  // Stops listening, removes the socket file, and ends every connection: its
  // streams are completed, which the client is told, and its calls cancelled.
  // Handlers that have not answered yet are told from inside the destructor, if
  // they asked to be, and still have to run `done`. Calls to clients end with
  // kCancelled, as tasks of the loop.
  ~SocketServer();

  // Accepts clients at `path`. The folder must be private to this user, and
  // nobody else but root may be able to replace it; if it is missing, it is
  // created, but not its parent. A socket file is replaced if no server listens
  // there any more; if one does, this fails. After an error nothing is left
  // behind (see ListeningSocket::Open). Once the server listens, a second call
  // fails.
  absl::Status Listen(const std::string& path);

  // Serves whoever is behind a Unix-domain socket that the process has
  // inherited, or made:
  //
  // - a connected stream socket, such as one of a socketpair(): the client at
  //   its other end;
  // - a listening stream socket, such as a service manager passes: the clients
  //   that connect to it. Its file stays when the server ends;
  // - a connected SOCK_SEQPACKET socket: the clients whose connected stream
  //   sockets the process at its other end sends over it (see ChannelPair).
  //
  // Takes ownership of the descriptor, even on error. Fails if the peer runs as
  // another user, if too many clients are connected, or if this is not such a
  // socket.
  //
  // `on_end` runs once, as a task of the loop, when that client has left, or
  // nobody can send others over the socket any more; not after Shutdown, and
  // never for a listening socket.
  absl::Status Adopt(int descriptor, Task on_end = nullptr);

  // Stops listening, removes the socket file, completes every stream, which the
  // client is told, and refuses new calls. A connection ends when its calls
  // have been answered and its client has read everything, or when `within` has
  // passed: calls that have no answer by then fail at the client.
  //
  // `done` runs in a task of its own when no connection is left, so shortly
  // after `within` at the latest; it never runs if the server is destroyed
  // before. A second call of Shutdown does nothing, and its `done` never runs.
  void Shutdown(absl::Duration within, Task done);

  // Tells when a client hangs, and when it goes on. A client hangs that has
  // neither sent nor read anything for some time between a third of `patience`
  // and all of it; less than 3 ms count as 3 ms. By default nobody looks. The
  // connection goes on in any case, and nothing is lost but the events that are
  // replaced by later ones.
  //
  // A client that is silent is asked whether it is there, once or twice in each
  // `patience`, which wakes its process up. One that speaks protocol 1 only
  // cannot be asked: it hangs if it does not read what waits for it.
  //
  // `on_change` runs as a task of the loop, not after the connection's end, and
  // may destroy the server. Another call replaces it; with an infinite patience
  // nobody looks any more.
  void WatchClients(absl::Duration patience, OnClientResponsiveness on_change);

  // Tells `observer` of the operations of the clients that come from now on;
  // null: of none, as without this call. It outlives the server.
  void SetObserver(OperationObserver* observer);

  // The number of connected clients.
  std::size_t connections() const;

  // Counts of what has gone wrong so far.
  const ServerCounters& counters() const;

 private:
  class Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SOCKET_SERVER_H_
