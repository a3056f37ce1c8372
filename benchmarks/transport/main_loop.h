// The main loop of a host's program, inside which its event loop runs: one for
// each of our programs that measure.

#ifndef BENCHMARKS_TRANSPORT_MAIN_LOOP_H_
#define BENCHMARKS_TRANSPORT_MAIN_LOOP_H_

#include <functional>
#include <memory>

#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace benchmarks {

// Thread: the one that made it, unless stated otherwise.
class MainLoop {
 public:
  virtual ~MainLoop() = default;

  virtual void Run() = 0;

  // Makes Run return.
  virtual void Quit() = 0;

  // Runs `task` on the loop's thread, by the main loop's own means. Thread:
  // any.
  virtual void Post(std::function<void()> task) = 0;
};

// `loop` runs in it; null if the main loop has nothing of ours to do.
std::unique_ptr<MainLoop> MakeMainLoop(orvane::EventLoop* loop);

}  // namespace benchmarks

#endif  // BENCHMARKS_TRANSPORT_MAIN_LOOP_H_
