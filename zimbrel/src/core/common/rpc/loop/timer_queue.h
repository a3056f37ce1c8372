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

  // If a timer is due, posts a task that runs the earliest and sees to the
  // next. So timers take turns with other tasks.
  void PostDue();

  // Sees to it that descriptor() becomes readable, which an edge-triggered set
  // sees once, when the earliest timer is due. It is never read. May become
  // readable for nothing after a timer was dropped.
  void SetAlarm();
  int descriptor() const { return alarm_.get(); }

 private:
  class Handle;

  struct Entry {
    Task task;
    Handle* handle;
  };
  // By their times, those of one time in the order in which they were added.
  using Entries = std::multimap<std::int64_t, Entry>;

  bool IsDue() const;
  void RunNext();

  EventLoop* const loop_;
  const OwnedDescriptor alarm_;
  Entries entries_;
  std::int64_t alarm_time_;  // kNever unless it is to come.
  bool is_posted_ = false;   // RunNext.
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_TIMER_QUEUE_H_
