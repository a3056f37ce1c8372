// Tasks that wait for their time.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_TIMER_QUEUE_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_TIMER_QUEUE_H_

#include <cstdint>
#include <map>
#include <memory>

#include "absl/time/time.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace orvane::internal {

// The timers of a loop, and an alarm for the earliest. Thread: the loop's.
class TimerQueue {
 public:
  // `loop` runs the tasks.
  explicit TimerQueue(EventLoop* loop);

  bool empty() const { return entries_.empty(); }

  // Destroys all tasks unrun; their handles may stay or go.
  void Drop();

  std::unique_ptr<EventLoop::Timer> Add(absl::Duration delay, Task task);

  // Posts tasks until there is one for each timer that is due. Each runs the
  // earliest timer that is due by then.
  void PostDue();

  // Makes descriptor() become readable when the earliest timer is due, which an
  // edge-triggered set reports once. It is never read. If a timer was dropped,
  // it may become readable although no timer is due.
  void SetAlarm();
  int descriptor() const { return alarm_.get(); }

 private:
  class Handle;

  struct Entry {
    Task task;
    Handle* handle;
  };
  // Sorted by time; timers of the same time in the order in which they were
  // added.
  using Entries = std::multimap<std::int64_t, Entry>;

  bool IsDue() const;
  void RunNext();

  EventLoop* const loop_;
  const OwnedDescriptor alarm_;
  Entries entries_;
  std::int64_t alarm_time_;  // kNever if no alarm is set.
  int posted_ = 0;           // Tasks that have not run yet.
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_TIMER_QUEUE_H_
