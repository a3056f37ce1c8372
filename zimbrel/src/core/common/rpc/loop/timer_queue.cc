#include "zimbrel/src/core/common/rpc/loop/timer_queue.h"

#include <sys/timerfd.h>

#include <chrono>
#include <limits>
#include <utility>

#include "absl/log/log.h"

namespace orvane::internal {
namespace {

constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

// Nanoseconds of the monotonic clock.
std::int64_t Now() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

std::int64_t TimeAfter(absl::Duration delay) {
  const std::int64_t now = Now();
  if (delay <= absl::ZeroDuration()) return now;
  // Rounded up, so that it never runs early.
  const std::int64_t wait =
      absl::ToInt64Nanoseconds(absl::Ceil(delay, absl::Nanoseconds(1)));
  return wait < kNever - now ? now + wait : kNever;
}

}  // namespace

class TimerQueue::Handle final : public EventLoop::Timer {
 public:
  explicit Handle(TimerQueue* queue) : queue_(queue) {}

  ~Handle() override {
    if (!is_waiting_) return;
    queue_->loop_->CheckServiceThread("EventLoop::Timer::~Timer");
    // Removed from the table first: the task's destructor may use it.
    const Entries::node_type dropped = queue_->entries_.extract(place_);
  }

  void Wait(Entries::iterator place) {
    place_ = place;
    is_waiting_ = true;
  }
  void Taken() { is_waiting_ = false; }

 private:
  TimerQueue* const queue_;
  Entries::iterator place_;
  bool is_waiting_ = false;
};

TimerQueue::TimerQueue(EventLoop* loop)
    : loop_(loop),
      alarm_(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)),
      alarm_time_(kNever) {
  if (alarm_.get() < 0)
    PLOG(FATAL) << "event loop: cannot create a descriptor for timers";
}

std::unique_ptr<EventLoop::Timer> TimerQueue::Add(absl::Duration delay,
                                                  Task task) {
  auto handle = std::make_unique<Handle>(this);
  handle->Wait(
      entries_.emplace(TimeAfter(delay), Entry{std::move(task), handle.get()}));
  return handle;
}

void TimerQueue::Drop() {
  // Each out of the table first: its task may own any of the handles, its own
  // among them.
  while (!entries_.empty()) {
    const Entries::node_type dropped = entries_.extract(entries_.begin());
    dropped.mapped().handle->Taken();
  }
}

bool TimerQueue::IsDue() const {
  return !entries_.empty() && entries_.begin()->first <= Now();
}

void TimerQueue::PostDue() {
  if (entries_.empty()) return;
  const std::int64_t now = Now();
  int due = 0;
  for (auto next = entries_.begin();
       next != entries_.end() && next->first <= now; ++next) {
    if (++due <= posted_) continue;
    ++posted_;
    loop_->Post([this] { RunNext(); });
  }
}

void TimerQueue::RunNext() {
  --posted_;
  if (!IsDue()) return;  // The timer was dropped meanwhile.
  Entries::node_type node = entries_.extract(entries_.begin());
  node.mapped().handle->Taken();
  if (node.mapped().task != nullptr) std::move(node.mapped().task)();
}

void TimerQueue::SetAlarm() {
  if (entries_.empty()) return;
  const std::int64_t earliest = entries_.begin()->first;
  if (alarm_time_ <= Now()) alarm_time_ = kNever;  // It has gone off.
  if (earliest >= alarm_time_) return;
  alarm_time_ = earliest;
  itimerspec when{};
  when.it_value.tv_sec = earliest / kNanosecondsPerSecond;
  when.it_value.tv_nsec = earliest % kNanosecondsPerSecond;
  ::timerfd_settime(alarm_.get(), TFD_TIMER_ABSTIME, &when, nullptr);
}

}  // namespace orvane::internal
