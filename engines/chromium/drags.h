// What is dragged over a page, or out of it.

#ifndef ENGINES_CHROMIUM_DRAGS_H_
#define ENGINES_CHROMIUM_DRAGS_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "engines/chromium/json.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace chromium {

// Sends drags to the engine, and tells the host what a drop would do, which our
// script reports. The input must have been checked: a drag enters before it
// moves, and so on.
//
// Thread: the service thread. Lifetime: the service outlives it.
class Drags {
 public:
  // Sends an Input.dispatchDragEvent.
  using Send = std::function<void(Json params)>;
  // Has the page take the next drop itself, with that dropEffect, and then runs
  // `drop`.
  using DropSilently =
      std::function<void(const std::string& effect, orvane::Task drop)>;

  Drags(BrowserId browser, rpc::BrowserWidgetRpc* service, Send send,
        DropSilently drop_silently);

  void Enter(const rpc::DragEnterRequest& event);
  void Over(const rpc::DragOverRequest& event);
  void Leave();
  void Drop(const rpc::DragDropRequest& event);
  void End(const rpc::DragEndRequest& event);  // Of the page's own drag.

  // The page has begun a drag, with the pointer there. `data` is the engine's.
  void Begin(const Json& data, const rpc::PointDip& position);

  // The view is gone. Ends what is dragged, if anything is.
  void Cancel();

  // The document is gone, and what was dragged with it.
  void Forget();

  bool has_begun_in_page() const { return !own_data_.is_null(); }

  // Our script has reported a dropEffect of the DOM.
  void TakeEffect(const std::string& effect);

 private:
  void SendAt(const char* type, const Json& data, const rpc::PointDip& position,
              std::uint32_t modifiers = 0);
  // Returns how many hosts learn it.
  std::size_t Tell(rpc::DragCursorUpdated event);

  const BrowserId browser_;
  rpc::BrowserWidgetRpc* const service_;
  const Send send_;
  const DropSilently drop_silently_;
  Json data_;      // Null while nothing is over the page.
  Json own_data_;  // Of a drag of the page's own; null if there is none.
  bool is_own_dropped_ = false;  // In the page itself.
  std::uint32_t allowed_operations_ = 0;
  std::optional<rpc::DragOperation> told_;  // To the host, of this drag.
};

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_DRAGS_H_
