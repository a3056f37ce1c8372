// The service thread: the one thread on which a service and its streams live.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_EVENT_LOOP_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_EVENT_LOOP_H_

#include <cstddef>
#include <initializer_list>
#include <memory>

#include "absl/base/thread_annotations.h"
#include "absl/functional/any_invocable.h"
#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "absl/time/time.h"

#include "zimbrel/src/core/common/rpc/current_loop.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace orvane {

// Something to be run once. An empty one does nothing, wherever it is passed.
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
// A program with a main loop of its own, such as a toolkit's, does not call
// Run: its loop waits for descriptor() and then calls RunReady.
//
// Run, RunReady, RunUntilIdle and RunUntil may be called from inside a task.
// Such a nested run sees all that was posted before it, whoever posted it. The
// task that called it goes on when it returns, so a task that waits delays
// those that are nested around it. Inside a handler of a client's stream
// nothing else comes from that server meanwhile, so what waits there for the
// server's answer waits for ever.
//
// Thread: Post, Stop, mailbox, IsRunningHere and CheckServiceThread from any,
// the rest from the service thread; elsewhere it ends the process with a fatal
// log entry. While nobody runs the loop, the service thread is the thread that
// ran it last and the one that made it, so that the maker may set up what
// belongs to the loop and, once another thread has run it, take it down; and
// any thread may begin to run it.
// Lifetime: the loop outlives everything that was given a pointer to it, and
// its timers and watches, except for what its own tasks own. Its destructor,
// which may not be called inside a task, destroys all tasks unrun, those of
// timers and watches too, and what these leave behind.
//
// A loop to which the system refuses the few descriptors that it needs ends the
// process with a fatal log entry.
//
// A child process made by fork shares the loop's descriptors. It must not touch
// the loop, or anything that uses it, and must leave by exec or _exit.
class EventLoop {
 public:
  // A task that waits for its time. Destroying the handle before then drops the
  // task unrun; destroying it inside the task, or later, does nothing.
  class Timer {
   public:
    virtual ~Timer() = default;
  };

  // A descriptor whose readiness becomes tasks. It is edge-triggered: a task
  // runs after something has happened, so ask for one only when a read or write
  // would have blocked. On a stream socket, a read that returned less than
  // there was room for counts as that. A task may also run for nothing.
  //
  // Destroying the watch, which its tasks may do, closes the descriptor and
  // drops tasks that have not run.
  class Watch {
   public:
    virtual ~Watch() = default;

    virtual int descriptor() const = 0;

    // Runs `task` once, never inside this call, when there is something to read
    // that came since this task last ran. Once the other end has closed, always
    // as soon as possible: a reader reads until it finds the end, and asks no
    // more. A second call before the first task has run replaces it.
    virtual void WhenReadable(Task task) = 0;

    // Likewise when there is room to write, or nobody is left to read it.
    virtual void WhenWritable(Task task) = 0;
  };

  explicit EventLoop(EventLoopOptions options = {});
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;
  ~EventLoop();

  // Works until Stop. Returns at once if Stop was called since the last run
  // other than RunUntil returned.
  void Run();

  // Makes Run return after the task in progress, and everything that runs
  // nested. Does not wait for it. Not for signal handlers, since it locks a
  // mutex: see OnSignal.
  void Stop();

  // Runs what is ready when it is called, without waiting, and stops before the
  // rest once `max_time` is over; a task in progress is not interrupted. For
  // loops that belong to someone else. Returns how many tasks there were; it
  // may be 0 though the descriptor was readable.
  std::size_t RunReady(absl::Duration max_time = absl::InfiniteDuration());

  // Works until nothing is ready, without waiting for what is to come; but not
  // longer than `max_time`, give or take a few milliseconds, since work may
  // come faster than it is done. For tests. Returns how many tasks there were.
  std::size_t RunUntilIdle(absl::Duration max_time = absl::Seconds(10));

  // Works until `done` holds, waiting where need be; looked at after each task.
  // An empty one never holds. False if Stop came first, which later calls also
  // return until another kind of run has returned.
  bool RunUntil(absl::AnyInvocable<bool()> done);

  // Readable while there is work: a task that was posted on whatever thread, a
  // timer that is due, a descriptor that is ready, what a run has left behind.
  // Then call RunReady. May be readable for nothing. Always the same one, and
  // only to be waited for with poll, epoll and the like, level-triggered, while
  // the loop is not running: never read, never closed. A loop that is never
  // asked for it does not pay for it. The thread that asks becomes the service
  // thread, as if it had run the loop.
  int descriptor();

  // Runs `task` on the service thread, never inside this call, in the order of
  // the calls.
  void Post(Task task);

  // Runs `task` before the loop looks for other work or waits, in the order of
  // the calls; inside a run it cannot be starved. For what is worth doing once
  // for several tasks, such as to send what they have queued.
  void RunBeforeWaiting(Task task);

  // Runs `task` once, `delay` from now at the earliest. A delay that is not
  // positive means as soon as possible, but never inside this call.
  [[nodiscard]] std::unique_ptr<Timer> RunAfter(absl::Duration delay,
                                                Task task);

  // Takes a socket, pipe or the like over, makes it non-blocking and keeps it
  // from child processes. On error, such as for a file on disk, which is always
  // ready, the descriptor is closed.
  absl::StatusOr<std::unique_ptr<Watch>> WatchDescriptor(
      OwnedDescriptor descriptor);

  // Runs `task` at the first of these signals to arrive, once, instead of what
  // the process would do. Later ones are ignored while the loop lives. Numbers
  // that are not signals, and signals that cannot be caught, have no effect. At
  // most one call in a loop's life. If several loops take a signal, it is for
  // those that arrive after the last of these calls.
  void OnSignal(std::initializer_list<int> signal_numbers, Task task);

  // For threads that may outlast the loop.
  std::shared_ptr<Mailbox> mailbox();

  // Whether the calling thread is inside a task of this loop.
  bool IsRunningHere() const;

  // Ends the process with a fatal log entry, which names `operation`, unless
  // the calling thread is the service thread. Thread: any.
  void CheckServiceThread(absl::string_view operation) const
      ABSL_ASSERT_EXCLUSIVE_LOCK(internal::kServiceThread);

 private:
  class State;

  const std::unique_ptr<State> state_;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_EVENT_LOOP_H_
