// examples/hello_host.cc: a complete program that calls a method and watches
// events.

#include <csignal>
#include <iostream>
#include <string>

#include "orvane/client.h"
#include "rpc/browser/browser_widget.client.h"

int main(int argc, char** argv) {
  const std::string path =
      argc > 1 ? argv[1] : orvane::DefaultSocketPath("widget");

  orvane::EventLoop loop;
  loop.OnSignal({SIGINT, SIGTERM}, [&loop] { loop.Stop(); });
  const auto connection = orvane::SocketClient::Connect(&loop, path);
  if (!connection.ok()) {
    std::cerr << connection.status().message() << std::endl;
    return 1;
  }
  rpc::BrowserWidgetRpcClient widget(connection->get());
  BrowserId browser;
  browser.set_value(7);

  const auto cursors = widget.WhenCursorChanged(
      browser,
      [](const rpc::CursorChanged& event) {
        std::cout << rpc::CursorType_Name(event.cursor().type()) << std::endl;
      },
      [&loop](const absl::Status& why) {
        std::cout << "the widget has gone: "
                  << (why.ok() ? "in order" : why.message()) << std::endl;
        loop.Stop();
      });
  if (const auto shown = widget.Show(browser); !shown.ok()) {
    std::cerr << shown.status().message() << std::endl;
    return 1;
  }
  std::cout << "browser 7 is shown" << std::endl;
  loop.Run();
}
