// The event loop runs by itself.

#include <utility>

#include "benchmarks/transport/main_loop.h"
#include "benchmarks/transport/measure.h"

namespace benchmarks {
namespace {

class OwnMainLoop final : public MainLoop {
 public:
  explicit OwnMainLoop(orvane::EventLoop* loop) : loop_(loop) {}
  void Run() override { loop_->Run(); }
  void Quit() override { loop_->Stop(); }
  void Post(std::function<void()> task) override {
    loop_->Post(std::move(task));
  }

 private:
  orvane::EventLoop* const loop_;
};

}  // namespace

std::unique_ptr<MainLoop> MakeMainLoop(orvane::EventLoop* loop) {
  if (loop == nullptr) Fail("there is no toolkit in this program");
  return std::make_unique<OwnMainLoop>(loop);
}

}  // namespace benchmarks
