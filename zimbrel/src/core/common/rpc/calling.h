// Calling is the same at both ends of a connection: a key or request, a
// continuation for the answer, options, and a handle that cancels.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_CALLING_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_CALLING_H_

#include <memory>
#include <utility>

#include "absl/functional/any_invocable.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"

namespace orvane {

// The continuation of a call: runs exactly once, with the answer or with the
// reason why there is none; if the loop is destroyed first, it is destroyed
// with it. It runs as a task of the loop, on the service thread, or while its
// client is destroyed, but never inside the call that it was passed to, and may
// do anything. May be empty, for callers that do not care.
template <typename Answer>
using OnAnswer = absl::AnyInvocable<void(absl::StatusOr<Answer>) &&>;

struct CallOptions {
  // How long the answer may take; then the call ends with kDeadlineExceeded.
  // With 0 or less nothing is sent, and it ends so at once.
  absl::Duration timeout = absl::InfiniteDuration();
};

namespace internal {

// A call that waits for its answer.
class Cancellable {
 public:
  // Ends the call with kCancelled. May destroy this object.
  virtual void Cancel() = 0;

 protected:
  ~Cancellable() = default;
};

}  // namespace internal

// Names a call, to cancel it. Destroying the handle, or not keeping it, leaves
// the call alone: most callers want the answer and nothing else. May outlive
// everything.
//
// Thread: the service thread; on any other, Cancel ends the process if the call
// has not ended.
class CallHandle {
 public:
  // Names no call.
  CallHandle() = default;

  explicit CallHandle(std::weak_ptr<internal::Cancellable> call)
      : call_(std::move(call)) {}

  // Ends the call: its continuation will run with kCancelled, and an answer
  // that still comes is dropped. Does nothing to a call that has ended.
  void Cancel() {
    if (const auto call = call_.lock()) call->Cancel();
  }

 private:
  std::weak_ptr<internal::Cancellable> call_;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_CALLING_H_
