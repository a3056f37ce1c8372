#include "host/input_calls.h"

#include <algorithm>
#include <type_traits>

#include "absl/status/statusor.h"

namespace orvane::host {
namespace {

using google::protobuf::Empty;
using Client = InputCalls::Client;

// As many as keep a widget busy that answers each one at once: it handles one
// while the answer to the other is on its way.
constexpr std::size_t kMaxUnanswered = 2;

// Merge(newer, waiting) makes `waiting` say what both say, if that is possible.

template <typename MouseRequest>
bool MergeMouse(const MouseRequest& newer, MouseRequest& waiting) {
  if (newer.input().device_id() != waiting.input().device_id() ||
      newer.has_movement() != waiting.has_movement()) {
    return false;
  }
  const rpc::VectorDip before = waiting.movement();
  waiting = newer;
  if (newer.has_movement()) {
    rpc::VectorDip& sum = *waiting.mutable_movement();
    sum.set_dx(sum.dx() + before.dx());
    sum.set_dy(sum.dy() + before.dy());
  }
  return true;
}

bool Merge(const rpc::MouseMoveRequest& newer, rpc::MouseMoveRequest& waiting) {
  return MergeMouse(newer, waiting);
}

bool Merge(const rpc::MouseDragRequest& newer, rpc::MouseDragRequest& waiting) {
  return MergeMouse(newer, waiting);
}

bool Merge(const rpc::DragOverRequest& newer, rpc::DragOverRequest& waiting) {
  waiting = newer;
  return true;
}

// Fingers come and go only by other calls, so those that moved before are down
// now too.
bool Merge(const rpc::TouchMoveRequest& newer, rpc::TouchMoveRequest& waiting) {
  rpc::TouchMoveRequest merged = newer;
  for (const rpc::TouchPoint& point : waiting.changed_points()) {
    const bool has_moved_again = std::any_of(
        newer.changed_points().begin(), newer.changed_points().end(),
        [&](const rpc::TouchPoint& newer_point) {
          return newer_point.id() == point.id();
        });
    if (!has_moved_again) *merged.add_changed_points() = point;
  }
  waiting = merged;
  return true;
}

CallHandle Call(Client& client, const rpc::MouseMoveRequest& request,
                InputCalls::OnEmpty on_answer) {
  return client.ForwardMouseMove(request, std::move(on_answer));
}

CallHandle Call(Client& client, const rpc::MouseDragRequest& request,
                InputCalls::OnEmpty on_answer) {
  return client.ForwardMouseDrag(request, std::move(on_answer));
}

CallHandle Call(Client& client, const rpc::TouchMoveRequest& request,
                InputCalls::OnEmpty on_answer) {
  return client.ForwardTouchMove(request, std::move(on_answer));
}

CallHandle Call(Client& client, const rpc::DragOverRequest& request,
                InputCalls::OnEmpty on_answer) {
  return client.ForwardDragOver(request, std::move(on_answer));
}

}  // namespace

InputCalls::InputCalls(SocketClient* connection, BrowserId browser)
    : client_(connection), browser_(std::move(browser)) {}

void InputCalls::Move(Movement movement, OnEmpty on_answer) {
  if (waiting_ != nullptr) {
    const bool is_merged = std::visit(
        [this](const auto& newer) {
          auto* const waiting =
              std::get_if<std::decay_t<decltype(newer)>>(&waiting_->movement);
          return waiting != nullptr && Merge(newer, *waiting);
        },
        movement);
    if (is_merged) {
      waiting_->on_answer = std::move(on_answer);
      return;
    }
    SendWaiting();
  }
  if (unanswered_ < kMaxUnanswered) {
    SendNow(std::move(movement), std::move(on_answer));
  } else {
    waiting_ = std::make_unique<Waiting>(
        Waiting{std::move(movement), std::move(on_answer)});
  }
}

void InputCalls::SendWaiting() {
  if (waiting_ == nullptr) return;
  const std::unique_ptr<Waiting> sent = std::move(waiting_);
  SendNow(std::move(sent->movement), std::move(sent->on_answer));
}

void InputCalls::SendNow(Movement movement, OnEmpty on_answer) {
  ++unanswered_;
  OnEmpty on_answered =
      [self = std::weak_ptr(self_),
       on_answer = std::move(on_answer)](absl::StatusOr<Empty> answer) mutable {
        const std::shared_ptr<InputCalls*> alive = self.lock();
        if (alive == nullptr) return;
        (*alive)->OnMovementAnswered();
        // Last, since it may destroy this object.
        if (on_answer) std::move(on_answer)(std::move(answer));
      };
  std::visit(
      [&](auto& request) {
        *request.mutable_browser_id() = browser_;
        Call(client_, request, std::move(on_answered));
      },
      movement);
}

void InputCalls::OnMovementAnswered() {
  --unanswered_;
  if (unanswered_ < kMaxUnanswered) SendWaiting();
}

}  // namespace orvane::host
