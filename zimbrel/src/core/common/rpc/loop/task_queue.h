// Tasks that wait for their turn.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_TASK_QUEUE_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_TASK_QUEUE_H_

#include <array>
#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace orvane::internal {

// Tasks in the order in which they were pushed. Unlike std::deque it allocates
// nothing in the steady state; unlike a single array it never moves what waits.
class TaskQueue {
 public:
  bool empty() const { return size_ == 0; }
  std::size_t size() const { return size_; }

  void Push(Task task) {
    const std::size_t place = next_ + size_++;
    if (place == blocks_.size() * kBlockSize) {
      blocks_.push_back(spare_ != nullptr ? std::move(spare_)
                                          : std::make_unique<Block>());
    }
    (*blocks_[place / kBlockSize])[place % kBlockSize] = std::move(task);
  }

  // The queue must not be empty.
  Task Pop() {
    Task task = std::move((*blocks_.front())[next_++]);
    --size_;
    if (next_ == kBlockSize) {
      spare_ = std::move(blocks_.front());
      blocks_.erase(blocks_.begin());
      next_ = 0;
    } else if (empty()) {
      next_ = 0;
    }
    return task;
  }

 private:
  static constexpr std::size_t kBlockSize = 128;
  using Block = std::array<Task, kBlockSize>;

  std::vector<std::unique_ptr<Block>> blocks_;
  std::unique_ptr<Block> spare_;
  std::size_t next_ = 0;  // In the first block; those before it are popped.
  std::size_t size_ = 0;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_LOOP_TASK_QUEUE_H_
