// The descriptors for which a loop waits.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_EPOLL_SET_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_EPOLL_SET_H_

#include <memory>
#include <unordered_set>

#include "absl/status/statusor.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace orvane::internal {

// An edge-triggered set of descriptors, itself a descriptor that is readable
// while one of them has something new. Another system's kind of set, such as a
// kqueue, would be another class of this shape. Thread: the loop's.
class EpollSet {
 public:
  enum class Waiting { kNo, kYes };

  // `loop` runs the tasks of the watches.
  explicit EpollSet(EventLoop* loop);

  // Posts the tasks that wait for descriptors that are ready. With kYes, blocks
  // until at least one is ready or the wait is interrupted.
  void Look(Waiting waiting);

  absl::StatusOr<std::unique_ptr<EventLoop::Watch>> Watch(
      OwnedDescriptor descriptor);

  // Adds a descriptor that only ends the wait when it becomes readable. It must
  // outlive the set.
  void AddWaker(int descriptor);

  int descriptor() const { return set_.get(); }

  // Whether nothing is watched.
  bool empty() const { return watched_.empty(); }

  // Closes all that is watched and destroys the tasks unrun. What still has a
  // handle of one may only destroy it.
  void Drop();

 private:
  class Watched;
  class WatchHandle;

  EventLoop* const loop_;
  const OwnedDescriptor set_;
  std::unordered_set<Watched*> watched_;  // Those that are open.
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_EPOLL_SET_H_
