// Which event loop a thread belongs to.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_CURRENT_LOOP_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_CURRENT_LOOP_H_

namespace orvane {

class EventLoop;

// The loop that the calling thread is running; if it runs none, the latest of
// those that it made and that still exist; null without any. Thread: any.
EventLoop* CurrentLoop();

namespace internal {

// A member of each EventLoop, by which CurrentLoop knows it while it exists.
class LoopRegistration {
 public:
  explicit LoopRegistration(EventLoop* loop);
  LoopRegistration(const LoopRegistration&) = delete;
  LoopRegistration& operator=(const LoopRegistration&) = delete;
  ~LoopRegistration();

 private:
  EventLoop* const loop_;
};

}  // namespace internal
}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_CURRENT_LOOP_H_
