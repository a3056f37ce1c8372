// docs/examples/service.cc: answers at once, with an error, and from another
// thread; publishes an event; calls the host.

#include <csignal>
#include <iostream>
#include <string>
#include <thread>
#include <vector>

#include "orvane/server.h"
#include "rpc/browser/browser_widget.rpc.h"

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;

class Widget final : public rpc::BrowserWidgetRpc {
  // Answers at once. The event is sent after the reply.
  void Show(RpcController* controller, const BrowserId* request, Empty*,
            Closure* done) override {
    const BrowserId browser = *request;
    if (browser.value() == 0) {
      controller->SetFailed("browser 0 does not exist");
      done->Run();
      return;
    }
    done->Run();  // Destroys `request`.
    rpc::TooltipChanged event;
    *event.mutable_browser_id() = browser;
    event.set_text("Shown");
    orvane::Publish<rpc::TooltipChanged>(browser, event);
  }

  // Answers later, on another thread. Controller and messages exist until
  // `done` has run.
  void GetAccessibilityToken(RpcController*, const BrowserId*,
                             rpc::AccessibilityToken* response,
                             Closure* done) override {
    threads_.emplace_back([response, done] {
      response->set_token("found after a while");
      done->Run();
    });
  }

  // Calls the host, and answers once the host has answered.
  void ForwardKeyPress(RpcController* controller,
                       const rpc::KeyPressRequest* request, Empty*,
                       Closure* done) override {
    rpc::TakeFocusCall call;
    call.set_direction(rpc::FOCUS_DIRECTION_FORWARD);
    orvane::Call<rpc::TakeFocus>(
        request->browser_id(), call,
        [controller,
         done](const absl::StatusOr<rpc::TakeFocusResponse>& answer) {
          // If no host serves the call, the page keeps the focus.
          if (!answer.ok() && !absl::IsNotFound(answer.status()))
            controller->SetFailed(std::string(answer.status().message()));
          done->Run();
        },
        {.timeout = absl::Seconds(5)});
  }

  std::vector<std::jthread> threads_;
};

int main(int argc, char** argv) {
  // Each outlives those below it.
  orvane::EventLoop loop;
  Widget widget;
  orvane::SocketServer server(&loop, &widget);
  loop.OnSignal({SIGINT, SIGTERM}, [&] {
    server.Shutdown(absl::Seconds(2), [&loop] { loop.Stop(); });
  });
  const std::string path =
      argc > 1 ? argv[1] : orvane::DefaultSocketPath("widget");
  if (const absl::Status status = server.Listen(path); !status.ok()) {
    std::cerr << status.message() << std::endl;
    return 1;
  }
  std::cout << "service listens at " << path << std::endl;
  loop.Run();
}
