// Where a widget's hosts come from, and what is logged of them.

#ifndef EXAMPLES_WIDGET_SERVER_ENDPOINTS_H_
#define EXAMPLES_WIDGET_SERVER_ENDPOINTS_H_

#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "absl/time/time.h"

#include "orvane/server.h"

namespace widget_server {

struct Endpoints {
  std::string socket = "";       // A path. Empty: none was given.
  std::vector<int> descriptors;  // Of inherited sockets.

  // A host that neither answers nor reads for so long is logged.
  absl::Duration patience = absl::InfiniteDuration();
};

// What --descriptor and --patience take on the command line.
absl::StatusOr<int> ParseDescriptor(absl::string_view text);
absl::StatusOr<absl::Duration> ParsePatience(absl::string_view text);

// Adds those that a service manager passes (see TakeInheritedSockets).
void AddInheritedSockets(Endpoints* endpoints);

// Serves the hosts of the inherited sockets and those that connect to `socket`.
// If neither is given, it listens at the default path. Returns in words where.
//
// `on_abandoned` runs once nobody can connect any more: every inherited socket
// has been left by the process at its other end. Never if the server listens.
absl::StatusOr<std::string> Serve(const Endpoints& endpoints,
                                  orvane::SocketServer* server,
                                  orvane::Task on_abandoned);

}  // namespace widget_server

#endif  // EXAMPLES_WIDGET_SERVER_ENDPOINTS_H_
