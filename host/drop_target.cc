#include "host/drop_target.h"

#include <utility>

#include "absl/status/statusor.h"

namespace orvane::host {
namespace {

using google::protobuf::Empty;
using Client = InputCalls::Client;

template <typename Request>
Request NewRequest(const PointerSample& sample, std::uint32_t allowed) {
  Request request;
  *request.mutable_input() = sample.input;
  request.set_allowed_operations(allowed);
  *request.mutable_position() = sample.pointer.position();
  if (sample.pointer.has_screen_position())
    *request.mutable_screen_position() = sample.pointer.screen_position();
  return request;
}

template <typename Request>
void SetItems(std::vector<rpc::DragItem> items, Request& request) {
  request.mutable_items()->Assign(std::make_move_iterator(items.begin()),
                                  std::make_move_iterator(items.end()));
}

}  // namespace

DropTarget::DropTarget(InputCalls* calls, const Pointer* pointer,
                       OnOperation on_operation)
    : calls_(calls),
      pointer_(pointer),
      on_operation_(std::move(on_operation)),
      drag_events_(calls->client().WhenDragCursorUpdated(
          calls->browser(), [this](const rpc::DragCursorUpdated& event) {
            OnDragCursorUpdated(event);
          })) {}

void DropTarget::Enter(const PointerSample& sample, std::uint32_t allowed,
                       std::vector<rpc::DragItem> items) {
  Leave(sample.input);
  is_over_view_ = true;
  is_own_ = pointer_->is_toolkit_dragging();
  auto enter = NewRequest<rpc::DragEnterRequest>(sample, allowed);
  if (!is_own_) SetItems(std::move(items), enter);
  calls_->Send(&Client::ForwardDragEnter, std::move(enter),
               [self = std::weak_ptr(self_),
                drag = ++drag_](const absl::StatusOr<Empty>& answer) {
                 if (const auto alive = self.lock())
                   (*alive)->OnEntered(drag, answer.status());
               });
}

void DropTarget::Move(const PointerSample& sample, std::uint32_t allowed) {
  if (is_over_view_)
    calls_->Move(NewRequest<rpc::DragOverRequest>(sample, allowed));
}

void DropTarget::Leave(const rpc::InputInfo& input) {
  decided_.reset();
  if (!std::exchange(is_over_view_, false)) return;
  rpc::DragLeaveRequest leave;
  *leave.mutable_input() = input;
  calls_->Send(&Client::ForwardDragLeave, std::move(leave));
  auto drop = std::exchange(pending_drop_, std::nullopt);
  if (drop.has_value())
    std::move(drop->on_done)(rpc::DRAG_OPERATION_UNSPECIFIED);
}

void DropTarget::Drop(const PointerSample& sample, std::uint32_t allowed,
                      std::vector<rpc::DragItem> items,
                      absl::AnyInvocable<void(rpc::DragOperation) &&> on_done) {
  if (!is_over_view_) {
    std::move(on_done)(rpc::DRAG_OPERATION_UNSPECIFIED);
    return;
  }
  pending_drop_.emplace(PendingDrop{
      NewRequest<rpc::DragDropRequest>(sample, allowed), std::move(on_done)});
  if (!is_own_) SetItems(std::move(items), pending_drop_->request);
  if (decided_.has_value()) FinishDrop();
}

void DropTarget::FinishDrop() {
  PendingDrop drop = *std::move(pending_drop_);
  pending_drop_.reset();
  const rpc::DragOperation operation = this->operation();
  if (operation == rpc::DRAG_OPERATION_UNSPECIFIED) {
    Leave(drop.request.input());
  } else {
    is_over_view_ = false;
    decided_.reset();
    calls_->Send(&Client::ForwardDragDrop, std::move(drop.request));
  }
  std::move(drop.on_done)(operation);
}

void DropTarget::OnDragCursorUpdated(const rpc::DragCursorUpdated& event) {
  if (event.began_in_page() != is_own_ || !is_over_view_) return;
  decided_ = event.operation();
  if (pending_drop_.has_value()) {
    FinishDrop();
  } else if (on_operation_) {
    on_operation_(event.operation());
  }
}

void DropTarget::OnEntered(std::uint64_t drag, const absl::Status& status) {
  if (status.ok() || drag != drag_ || !is_over_view_) return;
  // The widget has refused the drag, so it is not over its view.
  is_over_view_ = false;
  decided_.reset();
  if (pending_drop_.has_value()) FinishDrop();
}

}  // namespace orvane::host
