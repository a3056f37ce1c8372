// docs/examples/host.cc: calls without waiting, watches events, answers the
// widget's calls, and ends when the widget does.

#include <csignal>
#include <iostream>
#include <string>

#include "orvane/client.h"
#include "rpc/browser/browser_widget.client.h"

int main(int argc, char** argv) {
  orvane::EventLoop loop;
  loop.OnSignal({SIGINT, SIGTERM}, [&loop] { loop.Stop(); });
  const auto connection = orvane::SocketClient::Connect(
      &loop, argc > 1 ? argv[1] : orvane::DefaultSocketPath("widget"));
  if (!connection.ok()) {
    std::cerr << connection.status().message() << std::endl;
    return 1;
  }
  rpc::BrowserWidgetRpcClient widget(connection->get());
  BrowserId browser;
  browser.set_value(7);

  // Subscribed as long as the handles exist.
  const auto tooltips =
      widget.WhenTooltipChanged(browser, [](const rpc::TooltipChanged& event) {
        std::cout << "tooltip: " << event.text() << std::endl;
      });
  const auto focus = widget.OnTakeFocus(
      browser,
      [](const rpc::TakeFocusCall&,
         orvane::Responder<rpc::TakeFocus> responder) {
        std::cout << "the page gives the focus away" << std::endl;
        rpc::TakeFocusResponse response;
        response.set_taken(true);
        // Fails if the widget has gone; then `on_end` runs too.
        std::move(responder).Respond(response).IgnoreError();
      },
      [&loop](const absl::Status& why) {
        std::cout << "the widget has gone: "
                  << (why.ok() ? "in order" : why.message()) << std::endl;
        loop.Stop();
      });

  // Waits; streams go on meanwhile. The subscriptions above arrive first.
  if (const auto shown = widget.Show(browser, {.timeout = absl::Seconds(5)});
      !shown.ok()) {
    std::cerr << "Show: " << shown.status().message() << std::endl;
    return 1;
  }

  // Does not wait: input is handled in the order in which it is sent.
  rpc::KeyPressRequest press;
  *press.mutable_browser_id() = browser;
  press.mutable_key()->set_key("Tab");
  widget.ForwardKeyPress(
      press, [](const absl::StatusOr<google::protobuf::Empty>& pressed) {
        std::cout << "Tab: "
                  << (pressed.ok() ? "handled" : pressed.status().message())
                  << std::endl;
      });
  loop.Run();
}
