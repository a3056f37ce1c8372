#include "examples/widget_server/endpoints.h"

#include <cmath>
#include <memory>
#include <utility>

#include "absl/log/log.h"
#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"

#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace widget_server {
namespace {

void LogResponsiveness(const rpc::transport::ConnectionStatus& host,
                       bool responds) {
  LOG(WARNING) << "the host in process " << host.process_id() << " ("
               << host.service() << ") "
               << (responds ? "goes on"
                            : "hangs: it neither answers nor reads");
}

}  // namespace

absl::StatusOr<int> ParseDescriptor(absl::string_view text) {
  int descriptor = 0;
  if (absl::SimpleAtoi(text, &descriptor) && descriptor >= 0) return descriptor;
  return absl::InvalidArgumentError(absl::StrCat(
      "--descriptor takes the number of an inherited socket, not '", text,
      "'"));
}

absl::StatusOr<absl::Duration> ParsePatience(absl::string_view text) {
  double seconds = 0;
  if (absl::SimpleAtod(text, &seconds) && seconds > 0 && std::isfinite(seconds))
    return absl::Seconds(seconds);
  return absl::InvalidArgumentError(
      absl::StrCat("--patience takes seconds, not '", text, "'"));
}

void AddInheritedSockets(Endpoints* endpoints) {
  for (orvane::OwnedDescriptor& socket : orvane::TakeInheritedSockets())
    endpoints->descriptors.push_back(socket.Release());
}

absl::StatusOr<std::string> Serve(const Endpoints& endpoints,
                                  orvane::SocketServer* server,
                                  orvane::Task on_abandoned) {
  server->WatchClients(endpoints.patience, LogResponsiveness);
  const std::vector<int>& inherited = endpoints.descriptors;
  std::string path = endpoints.socket;
  if (path.empty() && inherited.empty())
    path = orvane::DefaultSocketPath("widget");

  struct Left {
    std::size_t count;
    orvane::Task on_abandoned;
  };
  const auto left = std::make_shared<Left>(
      Left{inherited.size() + (path.empty() ? 0 : 1), std::move(on_abandoned)});
  for (const int descriptor : inherited) {
    absl::Status adopted = server->Adopt(descriptor, [left] {
      if (--left->count == 0) std::move(left->on_abandoned)();
    });
    if (!adopted.ok()) return adopted;
  }
  if (path.empty()) {
    return absl::StrCat("serves ", inherited.size(), " inherited socket",
                        inherited.size() == 1 ? "" : "s");
  }
  if (absl::Status listens = server->Listen(path); !listens.ok())
    return listens;
  return absl::StrCat("listens at ", path);
}

}  // namespace widget_server
