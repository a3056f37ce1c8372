#include "zimbrel/src/core/common/rpc/transport/client_watch.h"

#include <utility>

#include "absl/memory/memory.h"

#include "zimbrel/src/core/common/rpc/current_loop.h"
#include "zimbrel/src/core/common/rpc/transport/server/client_presence.h"
#include "zimbrel/src/core/common/rpc/transport/server/server_call.h"

namespace orvane {

std::unique_ptr<ClientWatch> ClientWatch::Make(
    google::protobuf::RpcController* controller, Task task) {
  const auto* const call = dynamic_cast<internal::ServerCall*>(controller);
  if (call == nullptr) return nullptr;
  return absl::WrapUnique(new ClientWatch(call->client(), std::move(task)));
}

ClientWatch::ClientWatch(
    const std::shared_ptr<internal::ClientPresence>& client, Task task)
    : client_(client), task_(std::make_shared<Task>(std::move(task))) {
  if (client == nullptr) {
    internal::PostIfKept(*CurrentLoop(), task_);
  } else {
    id_ = client->Add(task_);
  }
}

ClientWatch::~ClientWatch() {
  if (const auto client = client_.lock()) client->Remove(id_);
}

}  // namespace orvane
