// A widget process with a Chromium engine behind it: serves the pages that its
// command line names to the hosts that connect, until SIGINT or SIGTERM.

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <vector>

#include "absl/status/status.h"
#include "absl/time/time.h"

#include "engines/chromium/downloads.h"
#include "engines/chromium/engine.h"
#include "engines/chromium/options.h"
#include "engines/chromium/page.h"
#include "engines/chromium/page_service.h"
#include "engines/chromium/profile.h"
#include "examples/widget_server/browsers_service.h"
#include "examples/widget_server/endpoints.h"
#include "examples/widget_server/widget_service.h"
#include "orvane/server.h"
#include "zimbrel/src/core/common/logging/log_to_stderr.h"

namespace {

// What hosts have to read the last replies, and then the engine to write what
// it keeps.
constexpr absl::Duration kShutdownBound = absl::Seconds(2);

int Fail(const absl::Status& status) {
  std::cerr << "orvane-chromium: " << status.message() << "\n";
  return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
  const chromium::Options options = chromium::ParseOptions(argc, argv);
  logging::LogToStderr();

  // Until the engine is gone.
  const auto profile = chromium::LockProfile(options.engine.profile);
  if (!profile.ok()) return Fail(profile.status());

  // Each outlives those below it.
  orvane::EventLoop loop;
  const auto downloads = chromium::DownloadFolder::Make();
  if (!downloads.ok()) return Fail(downloads.status());
  chromium::Engine engine(
      &loop, [&] { return chromium::LaunchEngine(&loop, options.engine); },
      (*downloads)->path());
  chromium::PageService page_service(options.allows_scripts);
  const chromium::Page::Context context = {&loop, &engine, &options.addresses,
                                           &page_service, (*downloads)->path()};
  std::vector<std::uint64_t> browsers;
  for (const auto& [browser, address] : options.pages)
    browsers.push_back(browser);
  widget_server::WidgetService service(
      browsers, [&](std::uint64_t browser, rpc::BrowserWidgetRpc* widgets) {
        auto page = std::make_shared<chromium::Page>(
            context, browser, options.pages.find(browser)->second, widgets);
        page_service.Add(browser, page.get());
        return page;
      });
  widget_server::BrowsersService browsers_service(&service);
  orvane::SocketServer server(&loop,
                              {&service, &page_service, &browsers_service});
  const auto shut_down = [&] {
    server.Shutdown(kShutdownBound, [&] {
      engine.Shutdown(kShutdownBound, [&] { loop.Stop(); });
    });
  };
  loop.OnSignal({SIGINT, SIGTERM}, shut_down);
  if (absl::Status status = engine.Start(); !status.ok())
    return absl::IsCancelled(status) ? EXIT_SUCCESS : Fail(status);
  const auto where =
      widget_server::Serve(options.endpoints, &server, shut_down);
  if (!where.ok()) return Fail(where.status());
  std::cout << "orvane-chromium " << *where << std::endl;
  loop.Run();
  return EXIT_SUCCESS;
}
