// docs/examples/own_widget.cc: starts a widget of its own, and tells what
// becomes of it.

#include <csignal>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "host/view.h"
#include "host/widget_process.h"
#include "orvane/client.h"

using orvane::host::ViewState;
using orvane::host::WidgetProcess;
using orvane::host::WidgetProcessState;

int main(int argc, char** argv) {
  orvane::EventLoop loop;
  loop.OnSignal({SIGINT, SIGTERM}, [&loop] { loop.Stop(); });
  std::vector<std::string> command(argv + 1, argv + argc);
  if (command.empty()) command = {"widget_server"};
  const auto widget = WidgetProcess::Start(
      &loop, {.command = command},
      [](WidgetProcessState state, const absl::Status& why) {
        if (state == WidgetProcessState::kRunning)
          std::cout << "the widget runs again" << std::endl;
        if (!why.ok()) std::cout << why.message() << std::endl;
      });
  if (!widget.ok()) {
    std::cerr << widget.status().message() << std::endl;
    return 1;
  }
  BrowserId browser;
  browser.set_value(1);
  orvane::host::View view(
      &loop, {.connect = (*widget)->connector(), .browser = browser},
      {.on_state = [](ViewState state) {
        if (state == ViewState::kAttached)
          std::cout << "the page is here" << std::endl;
      }});
  view.SetSize(320, 200);
  loop.Run();

  bool has_ended = false;
  (*widget)->Stop(absl::Seconds(5), [&has_ended] { has_ended = true; });
  loop.RunUntil([&has_ended] { return has_ended; });
}
