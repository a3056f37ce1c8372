// docs/examples/own_loop.cc: a host in a program that has its own main loop,
// here with poll.

#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <iostream>
#include <string>

#include "absl/time/time.h"

#include "orvane/client.h"
#include "rpc/browser/browser_widget.client.h"

int main(int argc, char** argv) {
  const std::string path =
      argc > 1 ? argv[1] : orvane::DefaultSocketPath("widget");

  orvane::EventLoop loop;
  const auto connection = orvane::SocketClient::Connect(&loop, path);
  if (!connection.ok()) {
    std::cerr << connection.status().message() << std::endl;
    return 1;
  }
  rpc::BrowserWidgetRpcClient widget(connection->get());
  BrowserId browser;
  browser.set_value(7);

  // The program's own work: something each second.
  const int clock = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  const itimerspec each_second{.it_interval = {1, 0}, .it_value = {0, 1}};
  ::timerfd_settime(clock, 0, &each_second, nullptr);

  std::array<pollfd, 2> awaited{{{clock, POLLIN, 0},  //
                                 {loop.descriptor(), POLLIN, 0}}};
  while (connection->get()->status().ok()) {
    ::poll(awaited.data(), awaited.size(), -1);
    std::uint64_t seconds = 0;
    if (awaited[0].revents != 0 &&
        ::read(clock, &seconds, sizeof seconds) > 0) {
      widget.Show(browser, [](const auto& answer) {
        std::cout << (answer.ok() ? "shown" : "not shown") << std::endl;
      });
    }
    if (awaited[1].revents != 0) loop.RunReady(absl::Milliseconds(2));
  }
  std::cout << "the widget has gone" << std::endl;
}
