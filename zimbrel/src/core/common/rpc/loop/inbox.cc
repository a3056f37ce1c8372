#include "zimbrel/src/core/common/rpc/loop/inbox.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

#include "absl/log/log.h"

namespace orvane::internal {

Inbox::Inbox() : wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (wake_.get() < 0)
    PLOG(FATAL) << "event loop: cannot create the descriptor that wakes it";
}

bool Inbox::Post(Task task) {
  bool wakes = false;
  {
    const MutexLock lock(mutex_);
    if (is_closed_) return false;
    tasks_.push_back(std::move(task));
    wakes = std::exchange(is_asleep_, false);
  }
  if (wakes) Wake();
  return true;
}

void Inbox::Stop() {
  bool wakes = false;
  {
    const MutexLock lock(mutex_);
    is_stopped_ = true;
    wakes = std::exchange(is_asleep_, false);
  }
  if (wakes) Wake();
}

void Inbox::ForgetStop() {
  const MutexLock lock(mutex_);
  is_stopped_ = is_closed_;
}

void Inbox::MoveTo(TaskQueue* queue) {
  const MutexLock lock(mutex_);
  is_asleep_ = false;
  for (Task& task : tasks_) queue->Push(std::move(task));
  tasks_.clear();
}

bool Inbox::FallAsleep() {
  const MutexLock lock(mutex_);
  is_asleep_ = tasks_.empty() && !is_stopped_;
  return is_asleep_;
}

void Inbox::Wake() {
  const std::uint64_t one = 1;
  // Can fail only if the loop has been woken 2^64 times.
  [[maybe_unused]] const ssize_t written =
      ::write(wake_.get(), &one, sizeof one);
}

void Inbox::Close() {
  std::vector<Task> unrun;  // Destroyed after the lock: that may post.
  const MutexLock lock(mutex_);
  is_closed_ = true;
  is_stopped_ = true;
  unrun.swap(tasks_);
}

}  // namespace orvane::internal
