// Tasks and requests for a loop from other threads.

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

// The part of a loop that any thread may use: takes tasks for the loop's queue,
// asks the loop to stop, and wakes it. Shared by the loop and by objects that
// may outlive it.
class Inbox final : public Mailbox {
 public:
  Inbox();

  // Thread: any -----------------------------------------------------------

  bool Post(Task task) override;
  void Stop();

  // Thread: the loop's ----------------------------------------------------

  bool is_stopped() const { return is_stopped_; }
  // Unless it is closed.
  void ForgetStop();

  // Moves the tasks to `queue`. The loop is awake from now on, so Post need not
  // wake it.
  void MoveTo(TaskQueue* queue);

  // From now on, Post and Stop wake the loop. False if there are tasks already
  // or the loop is stopped: it must not sleep then.
  [[nodiscard]] bool FallAsleep();

  // Each Wake makes it readable, which an edge-triggered set reports once. It
  // is never read, since it does not matter how often the loop was woken.
  int descriptor() const { return wake_.get(); }
  void Wake();

  // Refuses tasks from now on, and destroys those that have not been moved. The
  // loop counts as stopped.
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
