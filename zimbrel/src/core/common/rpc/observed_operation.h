// An operation of which an observer is told.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_OBSERVED_OPERATION_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_OBSERVED_OPERATION_H_

#include <chrono>
#include <cstddef>
#include <memory>
#include <utility>

#include "absl/status/status.h"
#include "absl/time/time.h"

#include "zimbrel/src/core/common/rpc/operation_observer.h"

namespace orvane::internal {

// Begins when it is made, and ends with kCancelled when it is destroyed, unless
// it has ended before. Lifetime: the observer outlives it.
class ObservedOperation {
 public:
  // Null without an observer.
  static std::unique_ptr<ObservedOperation> Begin(OperationObserver* observer,
                                                  const Operation& operation,
                                                  std::size_t request_bytes) {
    if (observer == nullptr) return nullptr;
    return std::unique_ptr<ObservedOperation>(
        new ObservedOperation(observer, operation, request_bytes));
  }

  ObservedOperation(const ObservedOperation&) = delete;
  ObservedOperation& operator=(const ObservedOperation&) = delete;
  ~ObservedOperation() { End(absl::StatusCode::kCancelled, 0); }

  void End(absl::StatusCode code, std::size_t response_bytes) {
    OperationObserver* const observer = std::exchange(observer_, nullptr);
    if (observer == nullptr) return;
    observer->OnEnd(operation_, begun_,
                    {.code = code,
                     .duration = absl::FromChrono(
                         std::chrono::steady_clock::now() - begin_),
                     .request_bytes = request_bytes_,
                     .response_bytes = response_bytes});
  }

 private:
  ObservedOperation(OperationObserver* observer, const Operation& operation,
                    std::size_t request_bytes)
      : observer_(observer),
        operation_(operation),
        request_bytes_(request_bytes),
        begun_(observer->OnBegin(operation)) {}

  OperationObserver* observer_;  // Null after the end.
  const Operation operation_;
  const std::size_t request_bytes_;
  const std::shared_ptr<void> begun_;
  const std::chrono::steady_clock::time_point begin_ =
      std::chrono::steady_clock::now();
};

// An event has been sent, could not be, or has come.
inline void ObserveEvent(OperationObserver* observer,
                         const google::protobuf::MethodDescriptor* method,
                         absl::StatusCode code, std::size_t bytes) {
  if (observer == nullptr) return;
  const Operation event = {OperationKind::kEvent, method};
  observer->OnEnd(event, observer->OnBegin(event),
                  {.code = code,
                   .duration = absl::ZeroDuration(),
                   .request_bytes = bytes,
                   .response_bytes = 0});
}

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_OBSERVED_OPERATION_H_
