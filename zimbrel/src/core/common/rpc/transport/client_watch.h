// Learning that a client has gone, for a service that keeps something for it,
// such as a view that is attached to its window.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_WATCH_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_WATCH_H_

#include <cstdint>
#include <memory>

#include "google/protobuf/service.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace orvane {

namespace internal {
class ClientPresence;
class ServerCall;
}  // namespace internal

// Waits for the end of a client's connection; destroying it ends the waiting.
//
// Thread: the service thread. May outlive the server.
class ClientWatch {
 public:
  // `controller` is the one of a call that has no answer yet. When the
  // connection has ended over which that call came, `task` runs once, as a task
  // of the loop; also if the client has given the call up already. Null if the
  // call did not come over a connection.
  static std::unique_ptr<ClientWatch> Make(
      google::protobuf::RpcController* controller, Task task);

  ClientWatch(const ClientWatch&) = delete;
  ClientWatch& operator=(const ClientWatch&) = delete;
  ~ClientWatch();

 private:
  ClientWatch(const internal::ServerCall& call, Task task);

  const std::weak_ptr<internal::ClientPresence> client_;
  const std::shared_ptr<Task> task_;
  std::uint64_t id_ = 0;  // Of the task, where the client's are listed.
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_WATCH_H_
