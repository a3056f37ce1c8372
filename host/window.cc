// docs/examples/window.cc: one browser in a window. What a toolkit would do
// is done by main, which has no screen.

#include <csignal>
#include <cstdint>
#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "absl/time/time.h"

#include "host/input_calls.h"
#include "host/pixels.h"
#include "host/pointer.h"
#include "orvane/client.h"
#include "rpc/browser/browser_widget.client.h"

class BrowserView {
 public:
  BrowserView(orvane::SocketClient* connection, const BrowserId& browser)
      : calls_(connection, browser), pointer_(&calls_) {
    surfaces_ = calls_.client().OnUpdateSurface(
        browser, [this](const rpc::UpdateSurfaceCall& call,
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
  }

  // When the control has its first size.
  absl::Status Attach(double width, double height) {
    rpc::AttachRequest request;
    *request.mutable_browser_id() = calls_.browser();
    request.set_rendering_mode(rpc::RENDERING_MODE_OFF_SCREEN);
    request.mutable_bounds()->set_width(width);
    request.mutable_bounds()->set_height(height);
    const auto attached =
        calls_.client().Attach(request, {.timeout = absl::Seconds(5)});
    if (!attached.ok()) return attached.status();
    if (!attached->attached())
      return absl::UnavailableError(attached->refusal());
    pointer_.SetViewSize(attached->size());
    calls_.Send(&orvane::host::InputCalls::Client::Show);
    return absl::OkStatus();
  }

  // When the toolkit reports it; `buttons` are MouseButtonFlags.
  void OnMotion(double x, double y, std::uint32_t buttons) {
    pointer_.Move(Sample(x, y, buttons));
  }
  void OnPress(double x, double y, std::uint32_t buttons) {
    pointer_.Press(Sample(x, y, buttons), rpc::MOUSE_BUTTON_PRIMARY);
  }
  void OnRelease(double x, double y, std::uint32_t buttons) {
    pointer_.Release(Sample(x, y, buttons), rpc::MOUSE_BUTTON_PRIMARY);
  }
  void OnHidden() {
    pointer_.Cancel();
    calls_.Send(&orvane::host::InputCalls::Client::Hide);
  }

 private:
  static orvane::host::PointerSample Sample(double x, double y,
                                            std::uint32_t buttons) {
    orvane::host::PointerSample sample;
    sample.pointer.mutable_position()->set_x(x);
    sample.pointer.mutable_position()->set_y(y);
    sample.pointer.set_buttons(buttons);
    return sample;
  }

  // Tells the toolkit to draw that part of picture_ again.
  void Redraw(const rpc::RectPx& damage) {
    std::cout << "picture: " << picture_.width() << " x " << picture_.height()
              << " pixels, " << damage.width() << " x " << damage.height()
              << " of them new" << std::endl;
  }

  orvane::host::InputCalls calls_;
  orvane::host::Pointer pointer_;
  orvane::host::Picture picture_;
  std::unique_ptr<orvane::ClientStream> surfaces_;
};

int main(int argc, char** argv) {
  orvane::EventLoop loop;
  loop.OnSignal({SIGINT, SIGTERM}, [&loop] { loop.Stop(); });
  const auto connection = orvane::SocketClient::Connect(
      &loop, argc > 1 ? argv[1] : orvane::DefaultSocketPath("widget"));
  if (!connection.ok()) {
    std::cerr << connection.status().message() << std::endl;
    return 1;
  }
  BrowserId browser;
  browser.set_value(1);
  BrowserView view(connection->get(), browser);

  rpc::BrowserWidgetRpcClient widget(connection->get());
  const auto cursors = widget.WhenCursorChanged(
      browser,
      [](const rpc::CursorChanged& event) {
        std::cout << "cursor: " << rpc::CursorType_Name(event.cursor().type())
                  << std::endl;
      },
      [&loop](const absl::Status&) { loop.Stop(); });

  if (const absl::Status attached = view.Attach(320, 200); !attached.ok()) {
    std::cerr << orvane::Printable(attached.message()) << std::endl;
    return 1;
  }
  view.OnMotion(160, 26, 0);
  view.OnPress(160, 26, 0);
  view.OnRelease(160, 26, rpc::MOUSE_BUTTON_FLAG_PRIMARY);
  loop.Run();
}
