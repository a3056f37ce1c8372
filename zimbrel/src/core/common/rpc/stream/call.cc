#include "zimbrel/src/core/common/rpc/stream/call.h"

#include <utility>

namespace orvane {

CallHandle::CallHandle(std::weak_ptr<internal::OpenCall> call)
    : call_(std::move(call)) {}

void CallHandle::Cancel() {
  if (const auto call = call_.lock()) {
    call->Withdraw(absl::CancelledError("cancelled by the caller"));
  }
}

}  // namespace orvane
