#include "zimbrel/src/core/common/rpc/transport/client_controller.h"

#include <utility>

namespace orvane {

void ClientController::StartCancel() {
  if (cancel_) std::exchange(cancel_, nullptr)();
}

}  // namespace orvane
