// docs/examples/streams.cc: a thread of its own finds out what changes, and the
// service thread publishes it.

#include <csignal>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "orvane/server.h"
#include "rpc/browser/browser_widget.rpc.h"

// Shows a browser on a thread of its own, and tells what is under the pointer.
class Engine {
 public:
  explicit Engine(std::shared_ptr<orvane::Mailbox> service_thread)
      : service_thread_(std::move(service_thread)) {}

  void Show(BrowserId browser) {
    thread_ = std::jthread([this, browser] {
      // Registries, Publish and Call belong to the service thread.
      service_thread_->Post([browser] {
        rpc::TooltipChanged event;
        *event.mutable_browser_id() = browser;
        event.set_text("A picture to drag");
        orvane::Publish<rpc::TooltipChanged>(browser, event);
      });
    });
  }

 private:
  // Not the loop, which a thread may outlive: Post is then false, and the task
  // is destroyed.
  const std::shared_ptr<orvane::Mailbox> service_thread_;
  std::jthread thread_;
};

class Widget final : public rpc::BrowserWidgetRpc {
 public:
  explicit Widget(Engine* engine) : engine_(engine) {}

 private:
  void Show(google::protobuf::RpcController*, const BrowserId* request,
            google::protobuf::Empty*,
            google::protobuf::Closure* done) override {
    engine_->Show(*request);
    done->Run();
  }

  Engine* const engine_;
};

int main(int argc, char** argv) {
  orvane::EventLoop loop;
  Engine engine(loop.mailbox());
  Widget widget(&engine);
  orvane::SocketServer server(&loop, &widget);
  loop.OnSignal({SIGINT, SIGTERM}, [&loop] { loop.Stop(); });
  const std::string path =
      argc > 1 ? argv[1] : orvane::DefaultSocketPath("widget");
  if (const absl::Status status = server.Listen(path); !status.ok()) {
    std::cerr << status.message() << std::endl;
    return 1;
  }
  std::cout << "streams listens at " << path << std::endl;
  loop.Run();
}
