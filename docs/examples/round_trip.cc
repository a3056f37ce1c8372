// docs/examples/round_trip.cc: measures the time of a call to the server that
// listens at a path. The second argument tells for how many microseconds this
// end looks for the answer before it sleeps.

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/time/clock.h"
#include "absl/time/time.h"

#include "orvane/client.h"
#include "rpc/browser/browser_widget.client.h"

int main(int argc, char** argv) {
  const std::string path =
      argc > 1 ? argv[1] : orvane::DefaultSocketPath("widget");
  const int spin = argc > 2 ? std::atoi(argv[2]) : 0;

  orvane::EventLoop loop({.spin = absl::Microseconds(spin)});
  const auto connection = orvane::SocketClient::Connect(&loop, path);
  if (!connection.ok()) {
    std::cerr << connection.status().message() << std::endl;
    return 1;
  }
  rpc::BrowserWidgetRpcClient widget(connection->get());
  BrowserId browser;
  browser.set_value(7);

  std::vector<absl::Duration> times;
  for (int i = 0; i < 1000; ++i) {
    const absl::Time begun = absl::Now();
    // A call that fails counts too, unless the connection is lost.
    if (absl::IsUnavailable(widget.Unfocus(browser).status())) return 1;
    times.push_back(absl::Now() - begun);
  }
  std::ranges::sort(times);
  std::cout << "median " << times[times.size() / 2] << ", 99 in 100 within "
            << times[times.size() * 99 / 100] << std::endl;
}
