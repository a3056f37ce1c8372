// Things that are dragged over a view from elsewhere.

#ifndef HOST_DROP_TARGET_H_
#define HOST_DROP_TARGET_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "absl/functional/any_invocable.h"
#include "absl/status/status.h"

#include "host/input_calls.h"
#include "host/pointer.h"
#include "rpc/browser/drag.pb.h"
#include "zimbrel/src/core/common/rpc/transport/client_stream.h"

namespace orvane::host {

// Turns what a toolkit reports of a drag into drag calls, and asks the page
// before anything is dropped. The drag comes from another program or from
// another control of the window; one that begins in the page is Pointer's.
//
// A page decides later than the call that asks it, so the operation changes
// between the toolkit's events: pass it on when `on_operation` runs, as
// gdk_drop_status does.
//
// Samples carry time, modifiers and position; buttons are not used. `allowed`
// is the sum of the DragOperation values that the drag's source allows.
//
// Thread: the service thread. Lifetime: `calls` outlives this object. One that
// is destroyed sends nothing, and runs no callback any more.
class DropTarget {
 public:
  using OnOperation = std::function<void(rpc::DragOperation)>;

  // Watches the browser's drags, so make it before Attach. `on_operation` runs
  // when the page has decided, or decided anew, what a drop would do.
  explicit DropTarget(InputCalls* calls, OnOperation on_operation = nullptr);
  DropTarget(const DropTarget&) = delete;
  DropTarget& operator=(const DropTarget&) = delete;

  // The drag comes over the view. `items` may lack their content, which some
  // toolkits tell only at the drop. A drag that was over the view leaves first.
  void Enter(const PointerSample& sample, std::uint32_t allowed,
             std::vector<rpc::DragItem> items);

  // A movement, or a change of modifiers or of what the source allows. Ignored,
  // as the two below, while no drag is over the view.
  void Move(const PointerSample& sample, std::uint32_t allowed);
  void Leave(const rpc::InputInfo& input);

  // Drops the items if the page takes them. `on_done` runs with what was done,
  // which the drag's source wants to know; with UNSPECIFIED if the page has
  // refused, or if there was no drag. It may run inside this call; if the page
  // has not decided about this drag yet, it runs once that is so.
  void Drop(const PointerSample& sample, std::uint32_t allowed,
            std::vector<rpc::DragItem> items,
            absl::AnyInvocable<void(rpc::DragOperation) &&> on_done);

  // What a drop would do at present.
  rpc::DragOperation operation() const {
    return decided_.value_or(rpc::DRAG_OPERATION_UNSPECIFIED);
  }

 private:
  struct PendingDrop {
    rpc::DragDropRequest request;
    absl::AnyInvocable<void(rpc::DragOperation) &&> on_done;
  };

  void OnDragCursorUpdated(const rpc::DragCursorUpdated& event);
  void OnEntered(std::uint64_t drag, const absl::Status& status);
  void FinishDrop();

  InputCalls* const calls_;
  const OnOperation on_operation_;
  bool is_over_view_ = false;
  std::uint64_t drag_ = 0;                     // Counts drags.
  std::optional<rpc::DragOperation> decided_;  // By the page, on this drag.
  std::optional<PendingDrop> pending_drop_;    // Until the page has decided.
  const std::unique_ptr<ClientStream> drag_events_;

  // Answers hold a weak pointer to it, so that they find out that this object
  // is gone.
  const std::shared_ptr<DropTarget*> self_ =
      std::make_shared<DropTarget*>(this);
};

}  // namespace orvane::host

#endif  // HOST_DROP_TARGET_H_
