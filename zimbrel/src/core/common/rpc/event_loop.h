// The service thread: the one thread on which a service and its streams live.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_EVENT_LOOP_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_EVENT_LOOP_H_

#include <cstddef>
#include <initializer_list>
#include <memory>

#include "absl/functional/any_invocable.h"
#include "absl/time/time.h"

#include "zimbrel/src/core/common/rpc/current_loop.h"

namespace asio {
class io_context;
}  // namespace asio

namespace orvane {

using Task = absl::AnyInvocable<void() &&>;

// Where any thread may leave tasks for a loop. Outlives the loop: whoever may
// answer late, from a thread of its own, keeps the mailbox and not the loop.
class Mailbox {
 public:
  virtual ~Mailbox() = default;

  // Runs `task` on the loop's thread, never inside this call; tasks of one
  // caller run in order. If the loop is gone, `task` is destroyed unrun, here,
  // and the result is false. Thread: any.
  virtual bool Post(Task task) = 0;
};

struct EventLoopOptions {
  // How long the loop keeps looking for work, once it has run out of it, before
  // it sleeps; 0 sleeps at once. To wake a sleeping thread on another core
  // takes longer than to serve a call, so spinning shortens round trips between
  // two processes that have a core each, if both ends of a connection do it. It
  // costs that core's time: up to all of it for this long after each step,
  // never without work in between. The loop offers the core to others while it
  // spins.
  absl::Duration spin = absl::ZeroDuration();
};

// Runs tasks, timers and socket work, one at a time, on the thread that calls
// Run. That thread is the service thread: handlers, streams, publishing and
// calling belong to it, and Post is the way there from any other.
//
// Thread: Post and Stop from any, the rest from the service thread, which
// before Run is whichever thread made the loop. Lifetime: the loop outlives
// everything that was given a pointer to it. What is still queued when it is
// destroyed is destroyed unrun.
class EventLoop {
 public:
  // A task that waits for its time. Destroying the handle before then drops the
  // task unrun; destroying it inside the task, or later, does nothing.
  class Timer {
   public:
    virtual ~Timer() = default;
  };

  explicit EventLoop(EventLoopOptions options = {});
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  ~EventLoop();

  // Works until Stop. Returns at once if Stop was called since the last Run
  // returned.
  void Run();

  // Makes Run return after the task in progress. Does not wait for it.
  void Stop();

  // Works until nothing is ready, without waiting. For tests, and for loops
  // that belong to someone else. Returns how many steps there were.
  std::size_t RunUntilIdle();

  // Works until `done` holds, waiting where need be; looked at after each step.
  // False if Stop came first. May be called from inside a task: others run
  // meanwhile.
  bool RunUntil(absl::AnyInvocable<bool()> done);

  // Runs `task` on the service thread, never inside this call, in the order of
  // the calls.
  void Post(Task task);

  // Runs `task` once, `delay` from now at the earliest. A delay that is not
  // positive means as soon as possible, but never inside this call.
  [[nodiscard]] std::unique_ptr<Timer> RunAfter(absl::Duration delay,
                                                Task task);

  // Runs `task` at the first of these signals to arrive, once, instead of what
  // the process would do. Later ones are ignored while the loop lives. At most
  // one call in a loop's life.
  void OnSignal(std::initializer_list<int> signals, Task task);

  // For threads that may outlast the loop.
  std::shared_ptr<Mailbox> mailbox();

  // Whether the calling thread is inside Run, RunUntilIdle or RunUntil.
  bool IsRunningHere() const;

  // For transports.
  asio::io_context& io_context();

 private:
  struct State;
  class SharedMailbox;

  // Waits for a step and takes it. False if the loop is stopped.
  bool RunOne();

  const EventLoopOptions options_;
  const std::unique_ptr<State> state_;
  const std::shared_ptr<SharedMailbox> mailbox_;
  const internal::LoopRegistration registration_{this};
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_EVENT_LOOP_H_
