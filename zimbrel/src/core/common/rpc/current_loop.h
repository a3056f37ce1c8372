// Which event loop a thread belongs to, and which thread is a loop's service
// thread.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_CURRENT_LOOP_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_CURRENT_LOOP_H_

#include <atomic>
#include <cstdint>
#include <thread>

#include "absl/base/thread_annotations.h"
#include "absl/strings/string_view.h"

namespace orvane {

class EventLoop;

// The loop that the calling thread is running, the innermost if it is running
// several. If it is running none, the latest loop that has it as its service
// thread; null if no loop has. Thread: any.
EventLoop* CurrentLoop();

namespace internal {

// A role, not a lock: clang's thread-safety analysis takes it that whoever has
// called one of the checks is the service thread from there on.
class ABSL_LOCKABLE ServiceThread {};
inline constexpr ServiceThread kServiceThread{};

// For operations that cannot tell which loop they belong to; those that can
// call EventLoop::CheckServiceThread. Ends the process with a fatal log entry,
// which names `operation`, unless the calling thread is the service thread of
// the loop that has a server. While no loop has one, that of any loop will do.
// A process without a loop has no service thread, so that nothing is checked
// there. Thread: any.
inline void CheckServiceThread(absl::string_view operation)
    ABSL_ASSERT_EXCLUSIVE_LOCK(kServiceThread);

// The loop that has a server and the calling thread as its service thread; the
// one that the thread is running, if there are several. Without any, what
// CurrentLoop tells. Thread: any.
EventLoop* ServingLoop();

// Whether the calling thread is the service thread of that loop, which may be
// gone. Thread: any.
bool IsServiceThreadOf(const EventLoop* loop);

// Lives as long as a server of the loop. What is published and called finds its
// streams in tables that the process has once, so all servers have to be on one
// thread: making one beside those of another thread ends the process with a
// fatal log entry. Thread: the service thread.
class ServingScope {
 public:
  explicit ServingScope(const EventLoop* loop);
  ServingScope(const ServingScope&) = delete;
  ServingScope& operator=(const ServingScope&) = delete;
  ~ServingScope();

 private:
  const EventLoop* const loop_;
};

// The part of an event loop that knows its service thread: the thread that is
// running the loop; while none is, the one that ran it last, and the one that
// made it, which sets up what belongs to the loop and takes it down again.
//
// Thread: any, but RunScope. Lifetime: CurrentLoop knows the loop as long as
// this lives.
class LoopThread {
 public:
  class RunScope;

  // The calling thread makes the loop.
  explicit LoopThread(EventLoop* loop);
  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;
  ~LoopThread();

  EventLoop* loop() const { return loop_; }

  // How many servers the loop has.
  int servers() const { return servers_.load(std::memory_order_relaxed); }
  void CountServer(int change) {
    servers_.fetch_add(change, std::memory_order_relaxed);
  }

  // Whether the calling thread is running the loop.
  bool IsRunningHere() const {
    return runner_.load(std::memory_order_relaxed) ==
           std::this_thread::get_id();
  }

  // Whether the calling thread is the service thread.
  bool IsHere() const;

  // Ends the process with a fatal log entry unless it is.
  void Check(absl::string_view operation) const
      ABSL_ASSERT_EXCLUSIVE_LOCK(kServiceThread);

 private:
  EventLoop* const loop_;
  // Relaxed: each thread looks for itself only.
  std::atomic<std::thread::id> runner_;  // None while nobody runs the loop.
  // Numbers of our own, since the system uses a thread's id again once the
  // thread has ended.
  const std::uint64_t maker_;
  std::atomic<int> servers_ = 0;
  std::atomic<std::uint64_t> last_runner_ = 0;
};

// Lives as long as one run of the loop, on the thread that runs it. Runs, of
// several loops also, may be nested.
class LoopThread::RunScope {
 public:
  explicit RunScope(LoopThread* thread);
  RunScope(const RunScope&) = delete;
  RunScope& operator=(const RunScope&) = delete;
  ~RunScope();

 private:
  LoopThread* const thread_;
  const bool is_outermost_;        // Of the runs of this loop.
  const LoopThread* const outer_;  // What the thread was running.
};

// ---------------------------------------------------------------------------

// Of the loop that the calling thread is running; null if it is running none.
extern constinit thread_local const LoopThread* running;

// Whether the calling thread is running a loop that has a server. Nearly all
// that a server does happens there.
inline bool IsRunningAServer() {
  return running != nullptr && running->servers() > 0;
}

// CheckServiceThread where the short way does not tell.
void SearchServiceThread(absl::string_view operation);

inline void CheckServiceThread(absl::string_view operation) {
  if (!IsRunningAServer()) SearchServiceThread(operation);
}

}  // namespace internal
}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_CURRENT_LOOP_H_
