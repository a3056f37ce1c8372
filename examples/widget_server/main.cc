// A widget server without a browser engine: serves browser widgets whose page
// exists only in memory, until SIGINT or SIGTERM.

#include <csignal>
#include <cstdlib>
#include <iostream>

#include "absl/status/status.h"
#include "absl/time/time.h"

#include "examples/widget_server/browsers_service.h"
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
  loop.OnSignal({SIGINT, SIGTERM}, [&loop, &server] {
    server.Shutdown(kShutdownBound, [&loop] { loop.Stop(); });
  });
  if (const absl::Status status = server.Listen(options.socket); !status.ok()) {
    std::cerr << "widget_server: " << status.message() << "\n";
    return EXIT_FAILURE;
  }
  std::cout << "widget_server listens at " << options.socket << std::endl;
  loop.Run();
  return EXIT_SUCCESS;
}
