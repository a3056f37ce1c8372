// A thread for what takes too long for the service thread.

#ifndef ENGINES_CHROMIUM_WORKER_H_
#define ENGINES_CHROMIUM_WORKER_H_

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace chromium {

// Runs tasks one after the other. Thread: any.
class Worker {
 public:
  Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;
  ~Worker();  // Waits for the task in progress and drops the others unrun.

  void Post(orvane::Task task);

 private:
  void Run();

  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<orvane::Task> tasks_;  // Guarded by mutex_, as is the next.
  bool is_over_ = false;
  std::thread thread_;  // Last, since it uses those above.
};

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_WORKER_H_
