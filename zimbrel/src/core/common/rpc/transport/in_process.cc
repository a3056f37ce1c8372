#include "zimbrel/src/core/common/rpc/transport/in_process.h"

#include <utility>

#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace orvane {

absl::StatusOr<std::unique_ptr<SocketClient>> ConnectInProcess(
    EventLoop* loop, SocketServer* server, ClientOptions options) {
  absl::StatusOr<std::pair<OwnedDescriptor, OwnedDescriptor>> ends =
      ConnectedPair();
  if (!ends.ok()) return ends.status();
  if (absl::Status adopted = server->Adopt(ends->first.Release());
      !adopted.ok()) {
    return adopted;
  }
  return SocketClient::Adopt(loop, ends->second.Release(), options);
}

}  // namespace orvane
