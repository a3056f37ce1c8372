// examples/main_loops/qt_loop.cc: a host in a program with Qt's main loop. A
// program with widgets uses a QApplication instead; the rest is the same.

#include <QCoreApplication>
#include <iostream>
#include <string>

#include "orvane/client.h"
#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/main_loops/qt_notifier.h"

int main(int argc, char** argv) {
  const std::string path =
      argc > 1 ? argv[1] : orvane::DefaultSocketPath("widget");

  QCoreApplication application(argc, argv);
  orvane::EventLoop loop;
  const orvane::QtNotifier notifier(&loop);
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
      [](const absl::Status& why) {
        std::cout << "the widget has gone: "
                  << (why.ok() ? "in order" : why.message()) << std::endl;
        QCoreApplication::quit();
      });
  widget.Show(browser, [](const auto& answer) {
    std::cout << "browser 7 is shown: " << answer.status() << std::endl;
  });
  return QCoreApplication::exec();
}
