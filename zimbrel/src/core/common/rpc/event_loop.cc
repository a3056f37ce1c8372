#include "zimbrel/src/core/common/rpc/event_loop.h"

#include <chrono>
#include <thread>
#include <utility>
#include <vector>

#include "absl/log/log.h"

#include "zimbrel/src/core/common/rpc/coarse_clock.h"
#include "zimbrel/src/core/common/rpc/loop/epoll_set.h"
#include "zimbrel/src/core/common/rpc/loop/inbox.h"
#include "zimbrel/src/core/common/rpc/loop/signal_relay.h"
#include "zimbrel/src/core/common/rpc/loop/task_queue.h"
#include "zimbrel/src/core/common/rpc/loop/timer_queue.h"

namespace orvane {

using internal::CoarseClock;
using internal::EpollSet;
using internal::Inbox;
using internal::LoopThread;
using internal::SignalRelay;
using internal::TaskQueue;
using internal::TimerQueue;
using std::chrono::steady_clock;

// All work becomes tasks of one queue, and a run is nothing but taking tasks
// from it; so runs may nest.
class EventLoop::State {
 public:
  class RunScope;

  State(EventLoop* loop, EventLoopOptions options)
      : thread_(loop),
        options_(options),
        inbox_(std::make_shared<Inbox>()),
        set_(loop),
        timers_(loop) {
    set_.AddWaker(inbox_->descriptor());
    set_.AddWaker(timers_.descriptor());
  }

  ~State() {
    thread_.Check("~EventLoop");
    if (depth_ > 0) LOG(FATAL) << "~EventLoop inside a task of the loop";
    inbox_->Close();
    signal_relays_.clear();
    // A task may own timers, watches and whole clients, and leave other tasks
    // when it is destroyed. Watches come last, since clients still write.
    while (true) {
      if (!queue_.empty()) {
        queue_.Pop();
      } else if (!before_waiting_.empty()) {
        before_waiting_.Pop();
      } else if (!timers_.empty()) {
        timers_.Drop();
      } else if (!set_.empty()) {
        set_.Drop();
      } else {
        return;
      }
    }
  }

  const std::shared_ptr<Inbox>& inbox() const { return inbox_; }
  EpollSet& set() { return set_; }

  const LoopThread& thread() const { return thread_; }

  void Post(Task task) {
    if (thread_.IsRunningHere()) {
      queue_.Push(std::move(task));
    } else {
      inbox_->Post(std::move(task));
    }
  }

  void RunBeforeWaiting(Task task) {
    before_waiting_.Push(std::move(task));
    if (depth_ == 0) LeaveReadable();
  }

  std::unique_ptr<Timer> RunAfter(absl::Duration delay, Task task) {
    std::unique_ptr<Timer> timer = timers_.Add(delay, std::move(task));
    if (depth_ == 0) LeaveReadable();
    return timer;
  }

  // Turns all that is ready into tasks; returns how many are queued then.
  std::size_t Collect(EpollSet::Waiting waiting = EpollSet::Waiting::kNo) {
    RunWhatPrecedesWaiting();
    // The wakers matter only to whoever waits, here or outside.
    if (waiting == EpollSet::Waiting::kYes || is_watched_ || !set_.empty())
      set_.Look(waiting);
    timers_.PostDue();
    inbox_->MoveTo(&queue_);
    until_look_ = queue_.size();
    has_followed_ = false;
    return until_look_;
  }

  // Runs the next task; false if there is none. Looks for other work only after
  // the tasks of the last look have run, and those that they have posted, since
  // a look is a system call.
  bool Step() {
    if (until_look_ == 0 && !queue_.empty() &&
        !std::exchange(has_followed_, true))
      until_look_ = queue_.size();
    if (until_look_ == 0 && Collect() == 0) return false;
    --until_look_;
    if (Task task = queue_.Pop(); task != nullptr) std::move(task)();
    return true;
  }

  // Waits for a task and runs it. May return without either: when the loop has
  // been stopped, a wait was interrupted, or there was something to do before.
  void WaitAndStep() {
    if (queue_.empty()) {
      if (RunWhatPrecedesWaiting()) {
        // It may ask again and again; other work has its turn, too.
        if (!before_waiting_.empty()) Collect();
        return;
      }
      if (!Spin()) {
        timers_.SetAlarm();
        Collect(inbox_->FallAsleep() ? EpollSet::Waiting::kYes
                                     : EpollSet::Waiting::kNo);
      }
    }
    if (!queue_.empty()) Step();
  }

  // Runs the tasks that are there now, not those that they add. False if there
  // was none.
  bool RunWhatPrecedesWaiting() {
    const bool has_some = !before_waiting_.empty();
    for (std::size_t left = before_waiting_.size();
         left > 0 && !before_waiting_.empty(); --left) {
      if (Task task = before_waiting_.Pop(); task != nullptr) std::move(task)();
    }
    return has_some;
  }

  int Descriptor() {
    // Whoever asks is about to run the loop, maybe on another thread than the
    // one that made it.
    const LoopThread::RunScope scope(&thread_);
    is_watched_ = true;
    if (depth_ == 0) LeaveReadable();
    return set_.descriptor();
  }

  // Before the descriptor is waited for again: something may have been left.
  void LeaveReadable() {
    if (!is_watched_) return;
    timers_.SetAlarm();
    const bool has_work = !queue_.empty() || !before_waiting_.empty();
    if (has_work || !inbox_->FallAsleep()) inbox_->Wake();
  }

  void OnSignal(std::initializer_list<int> signal_numbers, Task task) {
    auto shared = std::make_shared<Task>(std::move(task));
    for (const int signal_number : signal_numbers) {
      const SignalRelay& relay = signal_relays_.emplace_back(signal_number);
      absl::StatusOr<std::unique_ptr<Watch>> watch =
          set_.Watch(relay.Descriptor());
      if (!watch.ok()) continue;  // Not the number of a signal.
      signal_watches_.push_back(*std::move(watch));
      signal_watches_.back()->WhenReadable([shared] {
        if (Task first = std::exchange(*shared, nullptr); first != nullptr)
          std::move(first)();
      });
    }
  }

 private:
  // Looks for work for a while. False if there was none.
  bool Spin() {
    if (options_.spin <= absl::ZeroDuration()) return false;
    const auto idle_since = steady_clock::now();
    do {
      if (Collect() > 0 || inbox_->is_stopped()) return true;
      std::this_thread::yield();
    } while (steady_clock::now() - idle_since <
             absl::ToChronoNanoseconds(options_.spin));
    return false;
  }

  // Outlives the tasks that are destroyed with the loop.
  LoopThread thread_;
  const EventLoopOptions options_;
  const std::shared_ptr<Inbox> inbox_;
  EpollSet set_;
  TimerQueue timers_;
  TaskQueue queue_;
  TaskQueue before_waiting_;
  std::size_t until_look_ = 0;  // Tasks before the next look.
  // Whether these are the ones that followed the tasks of the last look.
  bool has_followed_ = false;
  int depth_ = 0;            // Runs that are nested in each other.
  bool is_watched_ = false;  // From outside, by descriptor().
  std::vector<SignalRelay> signal_relays_;
  std::vector<std::unique_ptr<Watch>> signal_watches_;
};

class EventLoop::State::RunScope {
 public:
  // Whether a Stop still holds once the outermost run has returned.
  enum class Stop { kIsOver, kHolds };

  explicit RunScope(State* state, Stop stop = Stop::kIsOver)
      : state_(state), stop_(stop), scope_(&state->thread_) {
    // What this run posts comes after what was posted before it.
    if (state_->depth_++ == 0) state_->inbox_->MoveTo(&state_->queue_);
  }
  RunScope(const RunScope&) = delete;
  RunScope& operator=(const RunScope&) = delete;
  ~RunScope() {
    if (state_->depth_ == 1) {
      state_->RunWhatPrecedesWaiting();
      if (stop_ == Stop::kIsOver) state_->inbox_->ForgetStop();
    }
    if (--state_->depth_ == 0) state_->LeaveReadable();
  }

 private:
  State* const state_;
  const Stop stop_;
  const LoopThread::RunScope scope_;
};

EventLoop::EventLoop(EventLoopOptions options)
    : state_(std::make_unique<State>(this, options)) {}

EventLoop::~EventLoop() = default;

void EventLoop::Run() {
  const State::RunScope scope(state_.get());
  while (!state_->inbox()->is_stopped()) state_->WaitAndStep();
}

void EventLoop::Stop() { state_->inbox()->Stop(); }

std::size_t EventLoop::RunReady(absl::Duration max_time) {
  const State::RunScope scope(state_.get());
  const auto begun = steady_clock::now();
  const std::size_t ready = state_->Collect();
  std::size_t steps = 0;
  while (steps < ready && !state_->inbox()->is_stopped() && state_->Step()) {
    ++steps;
    if (absl::FromChrono(steady_clock::now() - begun) >= max_time) break;
  }
  return steps;
}

std::size_t EventLoop::RunUntilIdle(absl::Duration max_time) {
  const State::RunScope scope(state_.get());
  const auto begun = CoarseClock::now();
  std::size_t steps = 0;
  while (!state_->inbox()->is_stopped() && state_->Step()) {
    ++steps;
    if (absl::FromChrono(CoarseClock::now() - begun) >= max_time) break;
  }
  return steps;
}

bool EventLoop::RunUntil(absl::AnyInvocable<bool()> done) {
  const State::RunScope scope(state_.get(), State::RunScope::Stop::kHolds);
  while (done == nullptr || !done()) {
    if (state_->inbox()->is_stopped()) return false;
    state_->WaitAndStep();
  }
  return true;
}

int EventLoop::descriptor() { return state_->Descriptor(); }

void EventLoop::Post(Task task) { state_->Post(std::move(task)); }

void EventLoop::RunBeforeWaiting(Task task) {
  CheckServiceThread("EventLoop::RunBeforeWaiting");
  state_->RunBeforeWaiting(std::move(task));
}

std::unique_ptr<EventLoop::Timer> EventLoop::RunAfter(absl::Duration delay,
                                                      Task task) {
  CheckServiceThread("EventLoop::RunAfter");
  return state_->RunAfter(delay, std::move(task));
}

absl::StatusOr<std::unique_ptr<EventLoop::Watch>> EventLoop::WatchDescriptor(
    OwnedDescriptor descriptor) {
  CheckServiceThread("EventLoop::WatchDescriptor");
  return state_->set().Watch(std::move(descriptor));
}

void EventLoop::OnSignal(std::initializer_list<int> signal_numbers, Task task) {
  CheckServiceThread("EventLoop::OnSignal");
  state_->OnSignal(signal_numbers, std::move(task));
}

std::shared_ptr<Mailbox> EventLoop::mailbox() { return state_->inbox(); }

bool EventLoop::IsRunningHere() const {
  return state_->thread().IsRunningHere();
}

void EventLoop::CheckServiceThread(absl::string_view operation) const {
  state_->thread().Check(operation);
}

}  // namespace orvane
