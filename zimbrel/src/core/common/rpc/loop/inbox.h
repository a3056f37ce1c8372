// What other threads want of a loop.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_INBOX_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_INBOX_H_

#include <atomic>
#include <vector>

#include "absl/base/thread_annotations.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/loop/task_queue.h"
#include "zimbrel/src/core/common/rpc/mutex.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace orvane::internal {

// The loop's part that any thread may use: tasks on their way to the loop's
// queue, the wish that it stops, and the means to wake it. Shared by the loop
// and by those who may outlast it.
class Inbox final : public Mailbox {
 public:
  Inbox();

  // Thread: any -----------------------------------------------------------

  bool Post(Task task) override;
  void Stop();

  // Thread: the loop's ----------------------------------------------------

  bool is_stopped() const { return is_stopped_; }
  void ForgetStop() { is_stopped_ = false; }

  // Moves the tasks to `queue`. The loop is awake from here on: who posts does
  // not wake it.
  void MoveTo(TaskQueue* queue);

  // From here on, who posts or stops wakes the loop. False if there is
  // something already, and the loop must not sleep.
  [[nodiscard]] bool FallAsleep();

  // Becomes readable, which an edge-triggered set sees once, with each Wake. It
  // is never read: nobody looks at how often that was.
  int descriptor() const { return wake_.get(); }
  void Wake();

  // Takes no tasks any more; destroys those that have come.
  void Close();

 private:
  const OwnedDescriptor wake_;
  std::atomic<bool> is_stopped_ = false;

  Mutex mutex_;
  std::vector<Task> tasks_ ABSL_GUARDED_BY(mutex_);
  bool is_asleep_ ABSL_GUARDED_BY(mutex_) = false;
  bool is_closed_ ABSL_GUARDED_BY(mutex_) = false;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_INBOX_H_
