#include "zimbrel/src/core/common/rpc/current_loop.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "absl/log/log.h"

#include "zimbrel/src/core/common/rpc/mutex.h"

namespace orvane {

using internal::running;

constinit thread_local const internal::LoopThread* internal::running = nullptr;

namespace {

constinit std::atomic<int> living_loops = 0;
constinit std::atomic<int> servers = 0;  // Of all loops.

struct LivingLoops {
  Mutex mutex;
  std::vector<internal::LoopThread*> in_order ABSL_GUARDED_BY(mutex);
};

// Never destroyed: loops may be static.
LivingLoops& Loops() {
  static auto& loops = *new LivingLoops;
  return loops;
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
             << " on a thread that is not the service thread; use "
                "EventLoop::Post or Mailbox::Post";
}

// The latest loop that has the calling thread as its service thread, among
// those with at least that many servers; null if there is none.
EventLoop* LatestHere(int min_servers) {
  LivingLoops& loops = Loops();
  const MutexLock lock(loops.mutex);
  EventLoop* latest = nullptr;
  for (const auto* const thread : loops.in_order) {
    if (thread->servers() >= min_servers && thread->IsHere())
      latest = thread->loop();
  }
  return latest;
}

void CountServer(const EventLoop* loop, int change) {
  servers += change;
  LivingLoops& loops = Loops();
  const MutexLock lock(loops.mutex);
  for (auto* const thread : loops.in_order) {
    if (thread->loop() == loop) thread->CountServer(change);
  }
}

}  // namespace

EventLoop* CurrentLoop() {
  return running != nullptr ? running->loop() : LatestHere(0);
}

namespace internal {

void SearchServiceThread(absl::string_view operation) {
  const int min_servers = servers > 0 ? 1 : 0;
  if (running != nullptr && running->servers() >= min_servers) return;
  if (living_loops > 0 && LatestHere(min_servers) == nullptr)
    DieOffServiceThread(operation);
}

EventLoop* ServingLoop() {
  if (running != nullptr && running->servers() > 0) return running->loop();
  EventLoop* const serving = LatestHere(1);
  return serving != nullptr ? serving : CurrentLoop();
}

bool IsServiceThreadOf(const EventLoop* loop) {
  if (running != nullptr && running->loop() == loop) return true;
  LivingLoops& loops = Loops();
  const MutexLock lock(loops.mutex);
  return std::any_of(loops.in_order.begin(), loops.in_order.end(),
                     [loop](const auto* thread) {
                       return thread->loop() == loop && thread->IsHere();
                     });
}

ServingScope::ServingScope(const EventLoop* loop) : loop_(loop) {
  CheckServiceThread("A further SocketServer");
  CountServer(loop_, 1);
}

ServingScope::~ServingScope() { CountServer(loop_, -1); }

LoopThread::LoopThread(EventLoop* loop) : loop_(loop), maker_(ThreadNumber()) {
  ++living_loops;
  LivingLoops& loops = Loops();
  const MutexLock lock(loops.mutex);
  loops.in_order.push_back(this);
}

LoopThread::~LoopThread() {
  LivingLoops& loops = Loops();
  const MutexLock lock(loops.mutex);
  loops.in_order.erase(
      std::find(loops.in_order.begin(), loops.in_order.end(), this));
  --living_loops;
}

bool LoopThread::IsHere() const {
  const std::thread::id runner = runner_.load(std::memory_order_relaxed);
  if (runner != std::thread::id()) return runner == std::this_thread::get_id();
  const std::uint64_t here = ThreadNumber();
  return here == maker_ || here == last_runner_.load(std::memory_order_relaxed);
}

void LoopThread::Check(absl::string_view operation) const {
  if (running == this) return;  // Nearly always, and the cheapest to ask.
  if (!IsHere()) DieOffServiceThread(operation);
}

LoopThread::RunScope::RunScope(LoopThread* thread)
    : thread_(thread),
      is_outermost_(!thread->IsRunningHere()),
      outer_(std::exchange(running, thread)) {
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
