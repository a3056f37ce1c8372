#include "zimbrel/src/core/common/rpc/current_loop.h"

#include <algorithm>
#include <thread>
#include <vector>

#include "absl/base/thread_annotations.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/mutex.h"

namespace orvane {
namespace {

struct LivingLoop {
  EventLoop* loop;
  std::thread::id maker;
};

struct LivingLoops {
  Mutex mutex;
  std::vector<LivingLoop> in_order ABSL_GUARDED_BY(mutex);
};

// Never destroyed: loops may be static.
LivingLoops& Loops() {
  static auto& loops = *new LivingLoops;
  return loops;
}

}  // namespace

EventLoop* CurrentLoop() {
  LivingLoops& loops = Loops();
  const MutexLock lock(loops.mutex);
  EventLoop* latest_made_here = nullptr;
  for (const auto& [loop, maker] : loops.in_order) {
    if (loop->IsRunningHere()) return loop;
    if (maker == std::this_thread::get_id()) latest_made_here = loop;
  }
  return latest_made_here;
}

namespace internal {

LoopRegistration::LoopRegistration(EventLoop* loop) : loop_(loop) {
  LivingLoops& loops = Loops();
  const MutexLock lock(loops.mutex);
  loops.in_order.push_back({loop, std::this_thread::get_id()});
}

LoopRegistration::~LoopRegistration() {
  LivingLoops& loops = Loops();
  const MutexLock lock(loops.mutex);
  loops.in_order.erase(
      std::find_if(loops.in_order.begin(), loops.in_order.end(),
                   [this](const LivingLoop& it) { return it.loop == loop_; }));
}

}  // namespace internal
}  // namespace orvane
