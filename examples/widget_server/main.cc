// A widget server without a browser engine: serves browser widgets whose page
// exists only in memory, until SIGINT or SIGTERM.

#include <csignal>
#include <cstdlib>
#include <iostream>

#include "absl/time/time.h"

#include "examples/widget_server/browsers_service.h"
#include "examples/widget_server/endpoints.h"
#include "examples/widget_server/options.h"
#include "examples/widget_server/widget_service.h"
#include "orvane/server.h"
#include "zimbrel/src/core/common/logging/log_to_stderr.h"

namespace {

// The time that hosts have to read the last replies.
constexpr absl::Duration kShutdownBound = absl::Seconds(2);

}  // namespace

int main(int argc, char** argv) {
  const auto options = widget_server::ParseOptions(argc, argv);
  logging::LogToStderr();

  // Each outlives those below it.
  orvane::EventLoop loop;
  widget_server::WidgetService service(options.browsers);
  widget_server::BrowsersService browsers(&service);
  orvane::SocketServer server(&loop, {&service, &browsers});
  const auto shut_down = [&loop, &server] {
    server.Shutdown(kShutdownBound, [&loop] { loop.Stop(); });
  };
  loop.OnSignal({SIGINT, SIGTERM}, shut_down);
  const auto where =
      widget_server::Serve(options.endpoints, &server, shut_down);
  if (!where.ok()) {
    std::cerr << "widget_server: " << where.status().message() << "\n";
    return EXIT_FAILURE;
  }
  std::cout << "widget_server " << *where << std::endl;
  loop.Run();
  return EXIT_SUCCESS;
}
