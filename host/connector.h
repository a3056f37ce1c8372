// How a host reaches its widget.

#ifndef HOST_CONNECTOR_H_
#define HOST_CONNECTOR_H_

#include <functional>
#include <memory>
#include <string>

#include "absl/status/statusor.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace orvane::host {

// Makes a new connection at each call, or tells why it cannot:
// kPermissionDenied if trying again does not help. See also
// WidgetProcess::connector.
using Connector =
    std::function<absl::StatusOr<std::unique_ptr<SocketClient>>()>;

// Connects to the widget that listens at `path`. The loop outlives it.
inline Connector ConnectorTo(EventLoop* loop, std::string path) {
  return [loop, path = std::move(path)] {
    return SocketClient::Connect(loop, path);
  };
}

}  // namespace orvane::host

#endif  // HOST_CONNECTOR_H_
