#include "zimbrel/src/core/common/rpc/transport/server/client_presence.h"

#include <utility>

namespace orvane::internal {

Task IfKept(std::weak_ptr<Task> task) {
  return [task = std::move(task)] {
    const auto kept = task.lock();
    if (kept != nullptr && *kept) std::move (*kept)();
  };
}

ClientPresence::~ClientPresence() {
  for (const auto& [id, task] : tasks_) loop_->Post(IfKept(task));
}

std::uint64_t ClientPresence::Add(const std::weak_ptr<Task>& task) {
  tasks_.emplace(++last_id_, task);
  return last_id_;
}

}  // namespace orvane::internal
