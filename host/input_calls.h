// The calls that carry a user's input to one browser, in order.

#ifndef HOST_INPUT_CALLS_H_
#define HOST_INPUT_CALLS_H_

#include <cstddef>
#include <memory>
#include <utility>
#include <variant>

#include "google/protobuf/empty.pb.h"

#include "rpc/browser/browser_id.pb.h"
#include "rpc/browser/browser_widget.client.h"
#include "rpc/browser/drag.pb.h"
#include "rpc/browser/mouse.pb.h"
#include "rpc/browser/touch.pb.h"
#include "zimbrel/src/core/common/rpc/calling.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace orvane::host {

// A movement of the pointer, of fingers or of a drag.
using Movement = std::variant<rpc::MouseMoveRequest, rpc::MouseDragRequest,
                              rpc::TouchMoveRequest, rpc::DragOverRequest>;

// Sends what Pointer, Touch and their like have to tell a widget, and what else
// has its place among the input, such as focus and bounds. Answers are not
// waited for.
//
// Movements are merged while the widget is behind: as long as two of them have
// no answer, the newest waits here, and a further one of the same kind takes
// its place. Any other call sends the one that waits first. So a widget that
// does not answer is sent a few movements, however long the user goes on, and
// every press and release, each where the pointer was.
//
// Thread: the service thread of the connection. Lifetime: the connection
// outlives this object. Answers that come later are dropped.
class InputCalls {
 public:
  using Client = rpc::BrowserWidgetRpcClient;
  using OnEmpty = OnAnswer<google::protobuf::Empty>;
  template <typename Request>
  using Method = CallHandle (Client::*)(const Request&, OnEmpty, CallOptions);

  InputCalls(SocketClient* connection, BrowserId browser);
  InputCalls(const InputCalls&) = delete;
  InputCalls& operator=(const InputCalls&) = delete;

  // Calls a method about the browser, which is filled in: for example
  // Send(&InputCalls::Client::ForwardMousePress, press). `on_answer` is not
  // dropped: it runs even if this object is gone.
  template <typename Request>
  void Send(Method<Request> method, Request request,
            OnEmpty on_answer = nullptr) {
    SendWaiting();
    *request.mutable_browser_id() = browser_;
    (client_.*method)(request, std::move(on_answer), {});
  }
  void Send(Method<BrowserId> method) {
    SendWaiting();
    (client_.*method)(browser_, nullptr, {});
  }

  // Sends a movement, now or later. `on_answer` never runs if a later movement
  // takes its place or this object is destroyed before the answer comes.
  void Move(Movement movement, OnEmpty on_answer = nullptr);

  // Sends the movement that waits, if there is one: for calls about the browser
  // that are made through client().
  void SendWaiting();

  Client& client() { return client_; }
  const BrowserId& browser() const { return browser_; }

 private:
  struct Waiting {
    Movement movement;
    OnEmpty on_answer;
  };

  void SendNow(Movement movement, OnEmpty on_answer);
  void OnMovementAnswered();

  Client client_;
  const BrowserId browser_;
  std::size_t unanswered_ = 0;  // Movements.
  std::unique_ptr<Waiting> waiting_;

  // Answers hold a weak pointer to it, so that they find out that this object
  // is gone.
  const std::shared_ptr<InputCalls*> self_ =
      std::make_shared<InputCalls*>(this);
};

}  // namespace orvane::host

#endif  // HOST_INPUT_CALLS_H_
