// docs/examples/window.cc: one browser in a window. What a toolkit would do
// is done by main, which has no screen.

#include <csignal>
#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "absl/status/status.h"

#include "host/pixels.h"
#include "host/pointer.h"
#include "host/view.h"
#include "orvane/client.h"
#include "rpc/browser/browser_widget.client.h"

class BrowserControl {
 public:
  BrowserControl(orvane::EventLoop* loop, const std::string& socket,
                 const BrowserId& browser)
      : browser_(browser),
        view_(loop, {.socket = socket, .browser = browser},
              {.on_connected =
                   [this](rpc::BrowserWidgetRpcClient& widget) {
                     OpenStreams(widget);
                   },
               .on_state = [this](orvane::host::ViewState) { TellState(); }}) {}

  bool is_attached() const {
    return view_.state() == orvane::host::ViewState::kAttached;
  }

  // When the toolkit reports it; `buttons` are MouseButtonFlags.
  void OnResized(double width, double height) {
    rpc::RectDip bounds;
    bounds.set_width(width);
    bounds.set_height(height);
    view_.SetBounds(bounds, std::nullopt);
  }
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
  // Again for each widget process that comes.
  void OpenStreams(rpc::BrowserWidgetRpcClient& widget) {
    surfaces_ = widget.OnUpdateSurface(
        browser_, [this](const rpc::UpdateSurfaceCall& call,
                         orvane::Responder<rpc::UpdateSurface> responder) {
          const absl::Status copied = picture_.Update(call.frame());
          rpc::UpdateSurfaceResponse answer;
          *answer.mutable_receipt() =
              orvane::host::ReceiptFor(call.frame(), copied);
          std::move(responder).Respond(answer).IgnoreError();
          if (copied.ok())
            Redraw(orvane::host::DamageOf(call.frame()));
          else
            std::cerr << orvane::Printable(copied.message()) << std::endl;
        });
    cursors_ =
        widget.WhenCursorChanged(browser_, [](const rpc::CursorChanged& event) {
          std::cout << "cursor: " << rpc::CursorType_Name(event.cursor().type())
                    << std::endl;
        });
  }

  void TellState() const {
    if (is_attached())
      std::cout << "attached" << std::endl;
    else if (!view_.status().ok())
      std::cerr << orvane::Printable(view_.status().message()) << std::endl;
  }

  // Tells the toolkit to draw that part of picture_ again.
  void Redraw(const rpc::RectPx& damage) {
    std::cout << "picture: " << picture_.width() << " x " << picture_.height()
              << " pixels, " << damage.width() << " x " << damage.height()
              << " of them new" << std::endl;
  }

  static orvane::host::PointerSample Sample(double x, double y,
                                            std::uint32_t buttons) {
    orvane::host::PointerSample sample;
    sample.pointer.mutable_position()->set_x(x);
    sample.pointer.mutable_position()->set_y(y);
    sample.pointer.set_buttons(buttons);
    return sample;
  }

  const BrowserId browser_;
  orvane::host::Picture picture_;
  std::unique_ptr<orvane::ClientStream> surfaces_;
  std::unique_ptr<orvane::ClientStream> cursors_;
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
