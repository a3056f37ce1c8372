#include "zimbrel/src/core/common/rpc/transport/server/client_presence.h"

#include <utility>

namespace orvane::internal {

void PostIfKept(EventLoop& loop, const std::weak_ptr<Task>& task) {
  loop.Post([task] {
    if (const auto kept = task.lock()) std::move (*kept)();
  });
}

ClientPresence::~ClientPresence() {
  for (const auto& [id, task] : tasks_) PostIfKept(*loop_, task);
}

std::uint64_t ClientPresence::Add(const std::weak_ptr<Task>& task) {
  tasks_.emplace(++last_id_, task);
  return last_id_;
}

}  // namespace orvane::internal
