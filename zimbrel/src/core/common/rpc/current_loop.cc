#include "zimbrel/src/core/common/rpc/current_loop.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "absl/log/log.h"

#include "zimbrel/src/core/common/rpc/mutex.h"

namespace orvane {
namespace {

// Nearly everything happens inside a task, so that this nearly always answers.
constinit thread_local EventLoop* running = nullptr;

struct LivingLoops {
  Mutex mutex;
  std::vector<const internal::LoopThread*> in_order ABSL_GUARDED_BY(mutex);
};

// Never destroyed: loops may be static.
LivingLoops& Loops() {
  static auto& loops = *new LivingLoops;
  return loops;
}

bool ThereAreLoops() {
  LivingLoops& loops = Loops();
  const MutexLock lock(loops.mutex);
  return !loops.in_order.empty();
}

// Of the calling thread, never used again; above 0.
std::uint64_t ThreadNumber() {
  static constinit std::atomic<std::uint64_t> threads = 0;
  constinit static thread_local std::uint64_t number = 0;
  if (number == 0) number = ++threads;
  return number;
}

[[noreturn]] void DieOffServiceThread(absl::string_view operation) {
  LOG(FATAL) << operation
             << " on a thread that is not the service thread; EventLoop::Post "
                "and Mailbox::Post lead there";
}

}  // namespace

EventLoop* CurrentLoop() {
  if (running != nullptr) return running;
  LivingLoops& loops = Loops();
  const MutexLock lock(loops.mutex);
  EventLoop* latest = nullptr;
  for (const auto* const thread : loops.in_order) {
    if (thread->IsHere()) latest = thread->loop();
  }
  return latest;
}

namespace internal {

void CheckServiceThread(absl::string_view operation) {
  if (CurrentLoop() == nullptr && ThereAreLoops())
    DieOffServiceThread(operation);
}

LoopThread::LoopThread(EventLoop* loop) : loop_(loop), maker_(ThreadNumber()) {
  LivingLoops& loops = Loops();
  const MutexLock lock(loops.mutex);
  loops.in_order.push_back(this);
}

LoopThread::~LoopThread() {
  LivingLoops& loops = Loops();
  const MutexLock lock(loops.mutex);
  loops.in_order.erase(
      std::find(loops.in_order.begin(), loops.in_order.end(), this));
}

bool LoopThread::IsHere() const {
  const std::thread::id runner = runner_.load(std::memory_order_relaxed);
  if (runner != std::thread::id()) return runner == std::this_thread::get_id();
  const std::uint64_t here = ThreadNumber();
  return here == maker_ || here == last_runner_.load(std::memory_order_relaxed);
}

void LoopThread::Check(absl::string_view operation) const {
  if (running == loop_) return;  // Nearly always, and the cheapest to ask.
  if (!IsHere()) DieOffServiceThread(operation);
}

LoopThread::RunScope::RunScope(LoopThread* thread)
    : thread_(thread),
      is_outermost_(!thread->IsRunningHere()),
      outer_(std::exchange(running, thread->loop_)) {
  if (!is_outermost_) return;
  const std::thread::id here = std::this_thread::get_id();
  std::thread::id nobody;
  if (!thread->runner_.compare_exchange_strong(nobody, here,
                                               std::memory_order_relaxed))
    LOG(FATAL) << "an EventLoop is run while another thread is running it";
  thread->last_runner_.store(ThreadNumber(), std::memory_order_relaxed);
}

LoopThread::RunScope::~RunScope() {
  running = outer_;
  if (is_outermost_)
    thread_->runner_.store(std::thread::id(), std::memory_order_relaxed);
}

}  // namespace internal
}  // namespace orvane
