// What is dragged over a page from elsewhere.

#ifndef ENGINES_CHROMIUM_DRAGS_H_
#define ENGINES_CHROMIUM_DRAGS_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "engines/chromium/json.h"
#include "rpc/browser/browser_widget.rpc.h"

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

  Drags(BrowserId browser, rpc::BrowserWidgetRpc* service, Send send);

  void Enter(const rpc::DragEnterRequest& event);
  void Over(const rpc::DragOverRequest& event);
  void Leave();  // Does nothing while nothing is over the page.
  void Drop(const rpc::DragDropRequest& event);

  // Our script has reported a dropEffect of the DOM.
  void TakeEffect(const std::string& effect);

 private:
  void SendAt(const char* type, const rpc::PointDip& position,
              std::uint32_t modifiers);

  const BrowserId browser_;
  rpc::BrowserWidgetRpc* const service_;
  const Send send_;
  Json data_;  // Null while nothing is over the page.
  std::uint32_t allowed_operations_ = 0;
  std::optional<rpc::DragOperation> told_;  // To the host, of this drag.
};

}  // namespace chromium

#endif  // ENGINES_CHROMIUM_DRAGS_H_
