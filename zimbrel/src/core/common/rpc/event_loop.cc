#include "zimbrel/src/core/common/rpc/event_loop.h"

#include <chrono>
#include <optional>
#include <thread>
#include <utility>

#include "zimbrel/src/core/common/rpc/asio_hook.h"

#include "absl/base/thread_annotations.h"
#include "asio/executor_work_guard.hpp"
#include "asio/io_context.hpp"
#include "asio/post.hpp"
#include "asio/signal_set.hpp"
#include "asio/steady_timer.hpp"

#include "zimbrel/src/core/common/rpc/mutex.h"

namespace orvane {
namespace {

void PostTo(asio::io_context& io, Task task) {
  asio::post(io, [task = std::move(task)]() mutable { std::move(task)(); });
}

// The task sits beside its timer, so dropping the handle drops both; the
// completion handler holds a weak reference and finds nothing then.
class AsioTimer final : public EventLoop::Timer {
 public:
  AsioTimer(asio::io_context& io, absl::Duration delay, Task task)
      : armed_(std::make_shared<Armed>(io, std::move(task))) {
    armed_->timer.expires_after(absl::ToChronoNanoseconds(delay));
    armed_->timer.async_wait([weak = std::weak_ptr(armed_)](asio::error_code) {
      const std::shared_ptr<Armed> armed = weak.lock();
      if (armed == nullptr) return;
      Task due = std::move(armed->task);
      std::move(due)();
    });
  }

 private:
  struct Armed {
    Armed(asio::io_context& io, Task what) : timer(io), task(std::move(what)) {}

    asio::steady_timer timer;
    Task task;
  };

  std::shared_ptr<Armed> armed_;
};

}  // namespace

struct EventLoop::State {
  // One thread runs it: Asio then leaves out what several would need.
  asio::io_context io{1};
  asio::executor_work_guard<asio::io_context::executor_type> stay{
      io.get_executor()};
  std::optional<asio::signal_set> signals;
};

class EventLoop::SharedMailbox final : public Mailbox {
 public:
  explicit SharedMailbox(asio::io_context* io) : io_(io) {}

  bool Post(Task task) override {
    const MutexLock lock(mutex_);
    if (io_ == nullptr) return false;
    PostTo(*io_, std::move(task));
    return true;
  }

  void Close() {
    const MutexLock lock(mutex_);
    io_ = nullptr;
  }

 private:
  Mutex mutex_;
  asio::io_context* io_ ABSL_GUARDED_BY(mutex_);
};

EventLoop::EventLoop(EventLoopOptions options)
    : options_(options),
      state_(std::make_unique<State>()),
      mailbox_(std::make_shared<SharedMailbox>(&state_->io)) {}

EventLoop::~EventLoop() { mailbox_->Close(); }

void EventLoop::Run() {
  while (RunOne()) {
  }
  state_->io.restart();
}

bool EventLoop::RunOne() {
  if (options_.spin > absl::ZeroDuration()) {
    const auto idle_since = std::chrono::steady_clock::now();
    do {
      if (state_->io.poll_one() > 0) return true;
      if (state_->io.stopped()) return false;
      std::this_thread::yield();
    } while (std::chrono::steady_clock::now() - idle_since <
             absl::ToChronoNanoseconds(options_.spin));
  }
  return state_->io.run_one() > 0;
}

void EventLoop::Stop() { state_->io.stop(); }

std::size_t EventLoop::RunUntilIdle() { return state_->io.poll(); }

bool EventLoop::RunUntil(absl::AnyInvocable<bool()> done) {
  while (!done()) {
    if (!RunOne()) return false;
  }
  return true;
}

void EventLoop::Post(Task task) { PostTo(state_->io, std::move(task)); }

std::unique_ptr<EventLoop::Timer> EventLoop::RunAfter(absl::Duration delay,
                                                      Task task) {
  return std::make_unique<AsioTimer>(state_->io, delay, std::move(task));
}

void EventLoop::OnSignal(std::initializer_list<int> signals, Task task) {
  state_->signals.emplace(state_->io);
  for (const int signal : signals) {
    asio::error_code refused;  // Only numbers that are no signals are.
    state_->signals->add(signal, refused);
  }
  state_->signals->async_wait(
      [task = std::move(task)](asio::error_code error, int) mutable {
        if (!error) std::move(task)();
      });
}

std::shared_ptr<Mailbox> EventLoop::mailbox() { return mailbox_; }

bool EventLoop::IsRunningHere() const {
  return state_->io.get_executor().running_in_this_thread();
}

asio::io_context& EventLoop::io_context() { return state_->io; }

}  // namespace orvane
