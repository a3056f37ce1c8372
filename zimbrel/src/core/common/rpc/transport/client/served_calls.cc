#include "zimbrel/src/core/common/rpc/transport/client/served_calls.h"

#include <utility>

namespace orvane::internal {

void ServedCalls::End(std::int64_t id) {
  // Destroyed once it is out of the table: what the task holds may let another
  // call arrive.
  const auto ended = calls_.extract(id);
}

bool ServedCalls::IsGivenUp(std::int64_t id) const {
  const auto call = calls_.find(id);
  return call != calls_.end() && call->second.is_given_up;
}

void ServedCalls::OnGivenUp(std::int64_t id, Task task) {
  const auto call = calls_.find(id);
  if (call == calls_.end()) return;
  // Likewise: it may hold the responder, whose end ends the call.
  const Task replaced =
      std::exchange(call->second.on_given_up, std::move(task));
}

Task ServedCalls::GiveUp(std::int64_t id) {
  const auto call = calls_.find(id);
  if (call == calls_.end()) return nullptr;
  call->second.is_given_up = true;
  return std::exchange(call->second.on_given_up, nullptr);
}

Task ServedCalls::GiveUpNext() {
  for (auto& [id, call] : calls_) {
    if (Task task = GiveUp(id); task != nullptr) return task;
  }
  return nullptr;
}

}  // namespace orvane::internal
