// docs/examples/window.cc: one browser in a window. What a toolkit would do
// is done by main, which has no screen.

#include <csignal>
#include <cstdint>
#include <iostream>
#include <string>

#include "host/cursor.h"
#include "host/pointer.h"
#include "host/scene.h"
#include "host/view.h"
#include "orvane/client.h"

class BrowserControl {
 public:
  BrowserControl(orvane::EventLoop* loop, const std::string& socket,
                 const BrowserId& browser)
      : view_(loop,
              {.connect = orvane::host::ConnectorTo(loop, socket),
               .browser = browser},
              {.on_state = [this](orvane::host::ViewState) { TellState(); },
               .on_scene = [this] { Redraw(); },
               .on_cursor =
                   [](const rpc::Cursor& cursor) {
                     std::cout << "cursor: "
                               << orvane::host::CursorName(cursor.type())
                               << std::endl;
                   }}) {}

  bool is_attached() const {
    return view_.state() == orvane::host::ViewState::kAttached;
  }

  // When the toolkit reports it; `buttons` are MouseButtonFlags.
  void OnResized(double width, double height) { view_.SetSize(width, height); }
  void OnShown() { view_.SetShown(true); }
  void OnMotion(double x, double y, std::uint32_t buttons) {
    if (auto* pointer = view_.pointer()) pointer->Move(Sample(x, y, buttons));
  }
  void OnPress(double x, double y, std::uint32_t buttons) {
    view_.Focus(rpc::FOCUS_REASON_MOUSE);
    if (auto* pointer = view_.pointer())
      pointer->Press(Sample(x, y, buttons), rpc::MOUSE_BUTTON_PRIMARY);
  }
  void OnRelease(double x, double y, std::uint32_t buttons) {
    if (auto* pointer = view_.pointer())
      pointer->Release(Sample(x, y, buttons), rpc::MOUSE_BUTTON_PRIMARY);
  }
  void OnDestroyed() { view_.Detach(); }

 private:
  void TellState() const {
    if (is_attached())
      std::cout << "attached" << std::endl;
    else
      std::cerr << view_.StateText() << std::endl;
  }

  // From bottom to top: the page, its layers and popups.
  void Redraw() {
    for (const orvane::host::Scene::Item* const item : view_.scene().items()) {
      std::cout << "picture: " << item->picture.width() << " x "
                << item->picture.height() << " pixels" << std::endl;
    }
  }

  static orvane::host::PointerSample Sample(double x, double y,
                                            std::uint32_t buttons) {
    orvane::host::PointerSample sample;
    sample.pointer.mutable_position()->set_x(x);
    sample.pointer.mutable_position()->set_y(y);
    sample.pointer.set_buttons(buttons);
    return sample;
  }

  orvane::host::View view_;
};

int main(int argc, char** argv) {
  orvane::EventLoop loop;
  loop.OnSignal({SIGINT, SIGTERM}, [&loop] { loop.Stop(); });
  BrowserId browser;
  browser.set_value(1);
  BrowserControl control(
      &loop, argc > 1 ? argv[1] : orvane::DefaultSocketPath("widget"), browser);

  control.OnResized(320, 200);
  control.OnShown();
  loop.RunUntil([&control] { return control.is_attached(); });
  control.OnMotion(160, 26, 0);
  control.OnPress(160, 26, 0);
  control.OnRelease(160, 26, rpc::MOUSE_BUTTON_FLAG_PRIMARY);
  loop.Run();
  control.OnDestroyed();
}
