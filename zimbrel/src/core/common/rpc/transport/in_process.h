// A server and a client in one process, connected by real sockets: for tests.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_IN_PROCESS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_IN_PROCESS_H_

#include <memory>

#include "absl/status/statusor.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

namespace orvane {

// A client of `server`, connected to it by a pair of sockets. `loop` may be the
// server's own; a blocking call then runs the server too. With another loop,
// call this function on a thread that is the service thread of both, as the one
// that has made them is. Fails only if the system does, for example if no
// descriptor is left.
absl::StatusOr<std::unique_ptr<SocketClient>> ConnectInProcess(
    EventLoop* loop, SocketServer* server, ClientOptions options = {});

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_IN_PROCESS_H_
