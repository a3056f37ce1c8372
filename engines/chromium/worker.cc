#include "engines/chromium/worker.h"

#include <utility>

namespace chromium {

Worker::Worker() : thread_([this] { Run(); }) {}

Worker::~Worker() {
  {
    const std::lock_guard lock(mutex_);
    is_over_ = true;
  }
  changed_.notify_one();
  thread_.join();
}

void Worker::Post(orvane::Task task) {
  {
    const std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  changed_.notify_one();
}

void Worker::Run() {
  std::unique_lock lock(mutex_);
  while (true) {
    changed_.wait(lock, [this] { return is_over_ || !tasks_.empty(); });
    if (is_over_) return;
    orvane::Task task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    std::move(task)();
    lock.lock();
  }
}

}  // namespace chromium
