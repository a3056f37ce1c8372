#include "zimbrel/src/core/common/rpc/transport/client_watch.h"

#include <utility>

#include "absl/memory/memory.h"

#include "zimbrel/src/core/common/rpc/current_loop.h"
#include "zimbrel/src/core/common/rpc/transport/server/client_presence.h"
#include "zimbrel/src/core/common/rpc/transport/server/server_call.h"

namespace orvane {

std::unique_ptr<ClientWatch> ClientWatch::Make(
    google::protobuf::RpcController* controller, Task task) {
  internal::CheckServiceThread("ClientWatch::Make");
  const auto* const call = dynamic_cast<internal::ServerCall*>(controller);
  if (call == nullptr) return nullptr;
  return absl::WrapUnique(new ClientWatch(*call, std::move(task)));
}

ClientWatch::ClientWatch(const internal::ServerCall& call, Task task)
    : client_(call.client()), task_(std::make_shared<Task>(std::move(task))) {
  if (const auto client = client_.lock()) {
    id_ = client->Add(task_);
  } else {
    call.mailbox().Post(internal::IfKept(task_));
  }
}

ClientWatch::~ClientWatch() {
  const auto client = client_.lock();
  if (client == nullptr) return;
  client->loop().CheckServiceThread("~ClientWatch");
  client->Remove(id_);
}

}  // namespace orvane
