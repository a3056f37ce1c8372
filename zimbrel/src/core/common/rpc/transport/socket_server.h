// Serves one service to the hosts that connect to a Unix-domain socket.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SOCKET_SERVER_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SOCKET_SERVER_H_

#include <cstddef>
#include <memory>
#include <string>

#include "absl/status/status.h"
#include "absl/time/time.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/service.h"
#include "zimbrel/src/core/common/rpc/transport/server_counters.h"
#include "zimbrel/src/core/common/rpc/transport/server_limits.h"

namespace orvane {

// Carries calls and streams between hosts and a service. What one host sends is
// handled in the order in which it was sent, calls and streams together, on the
// service thread. A handler may run `done` at once, later, or from another
// thread, also when the host, the server or the loop are gone by then: the
// answer then goes nowhere. The controller tells a handler that asks whether
// its host still waits; it and the messages live until `done` has run. A
// handler that never runs `done` leaks the call.
//
// The server owns the streams that hosts open. When one ends, or its host is
// gone, the server unsubscribes it from every key that it is subscribed to,
// completes it, which cancels the calls that it has not answered, and destroys
// it.
//
// A host that calls or opens what there is not, or sends what cannot be read,
// is told so in words, and the call or stream ends; where its bytes make no
// sense as frames its connection ends. Other hosts notice nothing.
//
// An orderly end is Shutdown, then the destructor; the destructor alone is an
// abrupt one.
//
// Thread: the service thread. Lifetime: loop and service outlive the server.
// May be destroyed at any time, also by a handler.
class SocketServer {
 public:
  SocketServer(EventLoop* loop, Service* service, ServerLimits limits = {});
  SocketServer(const SocketServer&) = delete;
  SocketServer& operator=(const SocketServer&) = delete;

  // Stops listening, removes the socket file, and ends every connection: its
  // streams are completed, which the host is told, and its calls cancelled.
  // Handlers that have not answered yet are told from inside the destructor, if
  // they asked to be, and still have to run `done`. Calls to hosts end with
  // kCancelled, as tasks of the loop.
  ~SocketServer();

  // Accepts hosts at `path`, whose folder must be private to this user and is
  // made if only it is missing. Replaces a socket file that nobody listens at;
  // refuses one of a server that is alive. At most once. On error, in words,
  // nothing has changed.
  absl::Status Listen(const std::string& path);

  // Serves the host at the other end of a connected stream socket, such as one
  // of a socketpair() or an inherited one. Takes the descriptor over, also if
  // it fails: because the peer runs as another user, too many hosts are
  // connected, or it is no such socket.
  absl::Status Adopt(int descriptor);

  // Stops listening, removes the socket file, completes every stream, which the
  // host is told, and lets no call begin. A connection ends when its calls have
  // been answered and its host has read all that it was sent, or when `within`
  // is over: what is not answered then has failed for its host.
  //
  // `done` runs as a task of its own when no connection is left, so a little
  // after `within` at the latest; never if the server is destroyed before. At
  // most once: a later call does nothing, whose `done` never runs.
  void Shutdown(absl::Duration within, Task done);

  // Hosts that are connected.
  std::size_t connections() const;

  // What has gone wrong with hosts so far.
  const ServerCounters& counters() const;

 private:
  class Impl;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SOCKET_SERVER_H_
