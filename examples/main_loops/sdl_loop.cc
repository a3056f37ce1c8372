// examples/main_loops/sdl_loop.cc: a host in a program that waits for SDL's
// events. A program with a window adds SDL_INIT_VIDEO to SDL_Init; the rest is
// the same.

#include <SDL.h>

#include <iostream>
#include <string>

#include "orvane/client.h"
#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/main_loops/sdl_events.h"

namespace {

void Quit() {
  SDL_Event event{};
  event.type = SDL_QUIT;
  SDL_PushEvent(&event);
}

// False if no server listens at `path`.
bool Run(const std::string& path) {
  orvane::EventLoop loop;
  orvane::SdlEvents work(&loop);
  const auto connection = orvane::SocketClient::Connect(&loop, path);
  if (!connection.ok()) {
    std::cerr << connection.status().message() << std::endl;
    return false;
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
        Quit();
      });
  widget.Show(browser, [](const auto& answer) {
    std::cout << "browser 7 is shown: " << answer.status() << std::endl;
  });
  SDL_Event event;
  while (SDL_WaitEvent(&event) == 1) {
    if (work.Handle(event)) continue;
    if (event.type == SDL_QUIT) break;  // Also after SIGINT.
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (SDL_Init(SDL_INIT_EVENTS) != 0) {
    std::cerr << SDL_GetError() << std::endl;
    return 1;
  }
  const bool ran =
      Run(argc > 1 ? argv[1] : orvane::DefaultSocketPath("widget"));
  SDL_Quit();
  return ran ? 0 : 1;
}
