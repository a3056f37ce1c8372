#include "zimbrel/src/core/common/rpc/main_loops/sdl_events.h"

#include <SDL.h>

#include <functional>
#include <memory>
#include <utility>

#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/main_loops/main_loop_test.h"

namespace orvane {
namespace {

// SDL's events need no screen.
class SdlSubsystems {
 public:
  SdlSubsystems() {
    EXPECT_EQ(SDL_Init(SDL_INIT_EVENTS | SDL_INIT_TIMER), 0) << SDL_GetError();
  }
  SdlSubsystems(const SdlSubsystems&) = delete;
  SdlSubsystems& operator=(const SdlSubsystems&) = delete;
  ~SdlSubsystems() { SDL_Quit(); }
};

class Sdl2 {
 public:
  explicit Sdl2(EventLoop* loop) : events_(std::make_unique<SdlEvents>(loop)) {}
  ~Sdl2() {
    if (timer_ != 0) SDL_RemoveTimer(timer_);
  }

  void RunUntil(const std::function<bool()>& done) {
    SDL_Event event;
    while (!done() && SDL_WaitEvent(&event) == 1) {
      if (!events_->Handle(event) && event.type == tick_type_) tick_();
    }
    EXPECT_TRUE(done());
  }

  void Every(int milliseconds, std::function<void()> tick) {
    tick_ = std::move(tick);
    timer_ = SDL_AddTimer(
        static_cast<Uint32>(milliseconds),
        [](Uint32 interval, void* type) {
          SDL_Event event{};
          event.type = *static_cast<const Uint32*>(type);
          SDL_PushEvent(&event);
          return interval;
        },
        &tick_type_);
  }

  SdlEvents& events() { return *events_; }
  void Destroy() { events_.reset(); }

 private:
  SdlSubsystems subsystems_;
  std::unique_ptr<SdlEvents> events_;
  std::function<void()> tick_;
  Uint32 tick_type_ = SDL_RegisterEvents(1);
  SDL_TimerID timer_ = 0;
};

INSTANTIATE_TYPED_TEST_SUITE_P(Sdl2, MainLoopTest, Sdl2);

TEST(SdlEvents, LeavesOthersEventsAlone) {
  EventLoop loop;
  Sdl2 sdl(&loop);
  SDL_Event event{};
  event.type = SDL_QUIT;
  EXPECT_FALSE(sdl.events().Handle(event));
}

TEST(SdlEvents, WaitsUntilAFullQueueHasRoom) {
  EventLoop loop;
  Sdl2 sdl(&loop);
  SDL_Event filler{};
  filler.type = SDL_RegisterEvents(1);
  while (SDL_PushEvent(&filler) == 1) {
  }
  bool ran = false;
  loop.Post([&ran] { ran = true; });
  sdl.RunUntil([&ran] { return ran; });
}

TEST(SdlEvents, SendsAgainWhatTheProgramHasThrownAway) {
  EventLoop loop;
  Sdl2 sdl(&loop);
  bool ran = false;
  loop.Post([&ran] { ran = true; });
  while (SDL_HasEvents(SDL_USEREVENT, SDL_LASTEVENT) == SDL_FALSE) {
  }
  SDL_FlushEvents(SDL_USEREVENT, SDL_LASTEVENT);
  sdl.RunUntil([&ran] { return ran; });
}

TEST(SdlEvents, MayBeDestroyedByATaskOfTheLoop) {
  EventLoop loop;
  Sdl2 sdl(&loop);
  bool is_destroyed = false;
  loop.Post([&] {
    sdl.Destroy();
    is_destroyed = true;
  });
  sdl.RunUntil([&is_destroyed] { return is_destroyed; });
}

TEST(SdlEvents, MayBeDestroyedWithAnEventInTheQueue) {
  EventLoop loop;
  Sdl2 sdl(&loop);
  loop.Post([] {});
  SDL_Event event;
  while (SDL_PollEvent(&event) == 0) {
  }
  SDL_PushEvent(&event);
  sdl.Destroy();
  EXPECT_EQ(SDL_PollEvent(nullptr), 0);
}

TEST(SdlEvents, MayBeDestroyedWhileTheQueueIsFull) {
  EventLoop loop;
  Sdl2 sdl(&loop);
  SDL_Event filler{};
  filler.type = SDL_RegisterEvents(1);
  while (SDL_PushEvent(&filler) == 1) {
  }
  loop.Post([] {});
  sdl.Destroy();
}

}  // namespace
}  // namespace orvane
