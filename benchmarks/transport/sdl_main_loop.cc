#include <SDL.h>

#include <memory>
#include <optional>
#include <utility>

#include "benchmarks/transport/main_loop.h"
#include "benchmarks/transport/measure.h"
#include "zimbrel/src/core/common/rpc/main_loops/sdl_events.h"

namespace benchmarks {
namespace {

// With the video driver that SDL finds; without a screen that is none.
class SdlMainLoop final : public MainLoop {
 public:
  explicit SdlMainLoop(orvane::EventLoop* loop) {
    if (SDL_Init(SDL_INIT_VIDEO) != 0 && SDL_Init(SDL_INIT_EVENTS) != 0)
      Fail(SDL_GetError());
    type_ = SDL_RegisterEvents(1);
    if (loop != nullptr) work_.emplace(loop);
  }
  SdlMainLoop(const SdlMainLoop&) = delete;
  SdlMainLoop& operator=(const SdlMainLoop&) = delete;
  ~SdlMainLoop() override {
    work_.reset();
    SDL_Quit();
  }

  void Run() override {
    SDL_Event event;
    while (!has_quit_ && SDL_WaitEvent(&event) == 1) {
      if (work_.has_value() && work_->Handle(event)) continue;
      if (event.type != type_) continue;
      const std::unique_ptr<std::function<void()>> task(
          static_cast<std::function<void()>*>(event.user.data1));
      (*task)();
    }
  }
  void Quit() override { has_quit_ = true; }
  void Post(std::function<void()> task) override {
    SDL_Event event{};
    event.type = type_;
    event.user.data1 = new std::function<void()>(std::move(task));
    if (SDL_PushEvent(&event) != 1) Fail("SDL's queue is full");
  }

 private:
  Uint32 type_ = 0;
  bool has_quit_ = false;
  std::optional<orvane::SdlEvents> work_;
};

}  // namespace

std::unique_ptr<MainLoop> MakeMainLoop(orvane::EventLoop* loop) {
  return std::make_unique<SdlMainLoop>(loop);
}

}  // namespace benchmarks
