// examples/main_loops/glib_loop.cc: a host in a program with GLib's main loop,
// which is GTK's too.

#include <csignal>
#include <iostream>
#include <string>

#include <glib-unix.h>

#include "orvane/client.h"
#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/main_loops/glib_source.h"

int main(int argc, char** argv) {
  const std::string path =
      argc > 1 ? argv[1] : orvane::DefaultSocketPath("widget");

  GMainLoop* const main_loop = g_main_loop_new(nullptr, FALSE);
  const auto quit = [](gpointer data) -> gboolean {
    g_main_loop_quit(static_cast<GMainLoop*>(data));
    return G_SOURCE_REMOVE;
  };
  g_unix_signal_add(SIGINT, quit, main_loop);
  g_unix_signal_add(SIGTERM, quit, main_loop);

  orvane::EventLoop loop;
  const orvane::GlibSource source(&loop);
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
      [main_loop](const absl::Status& why) {
        std::cout << "the widget has gone: "
                  << (why.ok() ? "in order" : why.message()) << std::endl;
        g_main_loop_quit(main_loop);
      });
  widget.Show(browser, [](const auto& answer) {
    std::cout << "browser 7 is shown: " << answer.status() << std::endl;
  });
  g_main_loop_run(main_loop);
  g_main_loop_unref(main_loop);
}
