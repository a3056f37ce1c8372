// examples/hello_server.cc: a complete program that serves a method.

#include <csignal>
#include <iostream>
#include <string>

#include "orvane/server.h"
#include "rpc/browser/browser_widget.rpc.h"

class HelloWidget final : public rpc::BrowserWidgetRpc {
  void Show(google::protobuf::RpcController*, const BrowserId* request,
            google::protobuf::Empty*,
            google::protobuf::Closure* done) override {
    std::cout << "Hello from browser " << request->value() << std::endl;
    done->Run();
  }
};

int main(int argc, char** argv) {
  const std::string path =
      argc > 1 ? argv[1] : orvane::DefaultSocketPath("widget");

  orvane::EventLoop loop;
  HelloWidget widget;
  orvane::SocketServer server(&loop, &widget);
  loop.OnSignal({SIGINT, SIGTERM}, [&] {
    server.Shutdown(absl::Seconds(2), [&loop] { loop.Stop(); });
  });
  if (const absl::Status status = server.Listen(path); !status.ok()) {
    std::cerr << status.message() << std::endl;
    return 1;
  }
  std::cout << "hello_server listens at " << path << std::endl;
  loop.Run();
}
