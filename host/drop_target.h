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
// before anything is dropped. The drag comes from another program, from another
// control of the window, or from the page itself if the toolkit drags for it;
// see Pointer::OnPageDrag.
//
// A page decides later than the call that asks it, so the operation changes
// between the toolkit's events: pass it on when `on_operation` runs, as
// gdk_drop_status does.
//
// Samples carry time, modifiers and position; buttons are not used. `allowed`
// is the sum of the DragOperation values that the drag's source allows.
//
// Thread: the service thread. Lifetime: `calls` and `pointer` outlive this
// object. One that is destroyed sends nothing, and runs no callback any more.
class DropTarget {
 public:
  using OnOperation = std::function<void(rpc::DragOperation)>;

  // Watches the browser's drags, so make it before Attach. `pointer` knows
  // whether a drag is the page's own; the items of such a one are not sent,
  // since the widget has them. `on_operation` runs when the page has decided,
  // or decided anew, what a drop would do.
  DropTarget(InputCalls* calls, const Pointer* pointer,
             OnOperation on_operation = nullptr);
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
  // has not decided about this drag yet, it runs once that is so, or at a
  // Leave.
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
  const Pointer* const pointer_;
  const OnOperation on_operation_;
  bool is_over_view_ = false;
  bool is_own_ = false;     // The drag over the view began in its page.
  std::uint64_t drag_ = 0;  // Counts drags.
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
