// Tasks that wait for their turn.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_TASK_QUEUE_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_TASK_QUEUE_H_

#include <cstddef>
#include <utility>
#include <vector>

#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace orvane::internal {

// Tasks in the order in which they were pushed. Unlike std::deque it allocates
// nothing in the steady state.
class TaskQueue {
 public:
  bool empty() const { return next_ == tasks_.size(); }
  std::size_t size() const { return tasks_.size() - next_; }

  void Push(Task task) { tasks_.push_back(std::move(task)); }

  // The queue must not be empty.
  Task Pop() {
    Task task = std::move(tasks_[next_++]);
    if (empty()) {
      tasks_.clear();
      if (tasks_.capacity() > kKeptCapacity) tasks_.shrink_to_fit();
      next_ = 0;
    } else if (next_ >= kKeptCapacity && next_ > tasks_.size() / 2) {
      tasks_.erase(tasks_.begin(),
                   tasks_.begin() + static_cast<std::ptrdiff_t>(next_));
      next_ = 0;
    }
    return task;
  }

 private:
  static constexpr std::size_t kKeptCapacity = 1024;

  std::vector<Task> tasks_;
  std::size_t next_ = 0;  // The tasks before it have been popped.
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_TASK_QUEUE_H_
