// An event loop inside SDL's.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_MAIN_LOOPS_SDL_EVENTS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_MAIN_LOOPS_SDL_EVENTS_H_

#include <SDL_events.h>
#include <SDL_thread.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <semaphore>
#include <thread>

#include "absl/log/log.h"
#include "absl/time/time.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace orvane {

// Reports the work of an event loop as an SDL event, for programs that wait in
// SDL_WaitEvent:
//
//   while (SDL_WaitEvent(&event)) {
//     if (work.Handle(event)) continue;
//     …
//   }
//
// SDL cannot wait for descriptors, so a second thread does that. Everything
// else happens in Handle, on the thread that calls it, which is the loop's
// service thread.
//
// Thread: the service thread. Lifetime: SDL's events are initialised before
// this object is created, and shut down after it is destroyed; the loop
// outlives it.
class SdlEvents {
 public:
  // After `max_time` of work, other events have their turn.
  explicit SdlEvents(EventLoop* loop,
                     absl::Duration max_time = absl::Milliseconds(2))
      : loop_(loop),
        max_time_(max_time),
        type_(SDL_RegisterEvents(1)),
        end_(::eventfd(0, EFD_CLOEXEC)),
        handled_(std::make_shared<Semaphore>(0)) {
    if (end_.get() < 0) PLOG(FATAL) << "SdlEvents: cannot create a descriptor";
    if (type_ == kNoType) LOG(FATAL) << "SdlEvents: SDL has no event type left";
    waiter_ = std::thread([this, descriptor = loop->descriptor()] {
      Wait(descriptor);
      SDL_TLSCleanup();  // SDL does so only in threads that it has made.
    });
  }
  SdlEvents(const SdlEvents&) = delete;
  SdlEvents& operator=(const SdlEvents&) = delete;

  // Afterwards SDL does not report the loop's work any more.
  ~SdlEvents() {
    ::eventfd_write(end_.get(), 1);
    handled_->release();
    waiter_.join();
    SDL_FlushEvent(type_);
  }

  // Runs what is ready in the loop if this object has sent `event`. Returns
  // false if it has not: the caller then has to handle the event.
  bool Handle(const SDL_Event& event) {
    if (event.type != type_) return false;
    // A task may destroy this object.
    const std::shared_ptr<Semaphore> handled = handled_;
    loop_->RunReady(max_time_);
    handled->release();
    return true;
  }

 private:
  using Semaphore = std::counting_semaphore<>;

  // What SDL_RegisterEvents returns if there are none left.
  static constexpr auto kNoType = static_cast<std::uint32_t>(-1);

  // SDL's queue may be full for a while.
  static constexpr int kRetryMilliseconds = 10;

  // The program may have thrown the event away, such as with all that a user
  // did while it was busy; then it is sent again.
  static constexpr auto kLongestSilence = std::chrono::milliseconds(100);

  // On the waiter's thread.
  void Wait(int descriptor) {
    while (!HasEnded(descriptor, -1)) {
      SDL_Event event{};
      event.type = type_;
      while (SDL_HasEvent(type_) == SDL_FALSE && SDL_PushEvent(&event) <= 0) {
        if (HasEnded(-1, kRetryMilliseconds)) return;
      }
      [[maybe_unused]] const bool is_handled =
          handled_->try_acquire_for(kLongestSilence);
    }
  }

  // Waits until the loop has work, this object is to be destroyed, or the time
  // is over. Returns whether it is to be destroyed.
  bool HasEnded(int descriptor, int milliseconds) const {
    std::array<pollfd, 2> awaited{
        {{end_.get(), POLLIN, 0}, {descriptor, POLLIN, 0}}};
    ::poll(awaited.data(), awaited.size(), milliseconds);
    return awaited[0].revents != 0;
  }

  EventLoop* const loop_;
  const absl::Duration max_time_;
  const std::uint32_t type_;
  const OwnedDescriptor end_;  // Readable once this object is to be destroyed.
  // Released by Handle. Until then the waiter need not report the work again.
  const std::shared_ptr<Semaphore> handled_;
  std::thread waiter_;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_MAIN_LOOPS_SDL_EVENTS_H_
