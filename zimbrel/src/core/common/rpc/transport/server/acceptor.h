// Where a server's clients come from.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_ACCEPTOR_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_ACCEPTOR_H_

#include <functional>
#include <memory>

#include "absl/time/time.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace orvane::internal {

// Takes one client in each task, so that a crowd of new ones does not delay
// those that are connected. Clients for which no descriptor is left are tried
// again later.
//
// Thread: the service thread. Lifetime: the loop outlives the acceptor, which
// its callbacks may destroy.
class Acceptor {
 public:
  enum class Source {
    // The clients that connect to a listening socket.
    kListening,

    // A connected socket of type SOCK_SEQPACKET. Another process sends the
    // clients' sockets over it, one with each message.
    kChannel,
  };

  using OnClient = std::function<void(OwnedDescriptor client)>;

  // `on_end` runs once the other process has closed the channel.
  Acceptor(EventLoop* loop, Source source,
           std::unique_ptr<EventLoop::Watch> socket, OnClient on_client,
           Task on_end = nullptr);
  Acceptor(const Acceptor&) = delete;
  Acceptor& operator=(const Acceptor&) = delete;

 private:
  void Await();
  void AcceptNext();
  void AcceptAfter(absl::Duration pause);

  EventLoop* const loop_;
  const Source source_;
  std::unique_ptr<EventLoop::Watch> socket_;  // Null after the end.
  const std::shared_ptr<const OnClient> on_client_;
  Task on_end_;
  std::unique_ptr<EventLoop::Timer> next_;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_ACCEPTOR_H_
