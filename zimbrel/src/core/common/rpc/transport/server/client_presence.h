// Whether a client is there, for whoever waits for it to go.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_CLIENT_PRESENCE_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_CLIENT_PRESENCE_H_

#include <cstdint>
#include <map>
#include <memory>

#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace orvane::internal {

// What runs `task` unless it has been destroyed by then.
Task IfKept(std::weak_ptr<Task> task);

// Exists as long as the connection of the client. Its end posts the tasks, in
// the order in which they were added.
//
// Thread: the service thread.
class ClientPresence {
 public:
  explicit ClientPresence(EventLoop* loop) : loop_(loop) {}
  ClientPresence(const ClientPresence&) = delete;
  ClientPresence& operator=(const ClientPresence&) = delete;
  ~ClientPresence();

  EventLoop& loop() const { return *loop_; }

  // Returns the number by which the task can be removed.
  std::uint64_t Add(const std::weak_ptr<Task>& task);
  void Remove(std::uint64_t id) { tasks_.erase(id); }

 private:
  EventLoop* const loop_;
  std::uint64_t last_id_ = 0;
  std::map<std::uint64_t, std::weak_ptr<Task>> tasks_;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_CLIENT_PRESENCE_H_
