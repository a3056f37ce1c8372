// A host: attaches a browser, and uses its page like a person at a screen. The
// console receives the pictures, answers the page's calls, and prints what
// happens.

#include <cstdlib>
#include <iostream>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"

#include "examples/host/console.h"
#include "examples/host/image.h"
#include "examples/host/options.h"
#include "orvane/client.h"
#include "rpc/browser/browser_widget.client.h"

namespace host {
namespace {

struct Point {
  double x;
  double y;
};

// Where things are on the page of widget_server.
constexpr Point kPicture = {48, 48};
constexpr Point kLink = {160, 26};
constexpr Point kField = {190, 60};
constexpr Point kList = {144, 96};
constexpr Point kButton = {248, 96};

bool IsOk(const absl::Status& status) {
  if (!status.ok())
    std::cerr << "host: " << orvane::Printable(status.message()) << "\n";
  return status.ok();
}

// Each step is false if something went wrong, and has printed what.
class User {
 public:
  User(orvane::SocketClient* connection, BrowserId browser, Console* console)
      : widget_(connection), browser_(std::move(browser)), console_(console) {}

  bool UseThePage() {
    return Attach() && MoveTheMouse() && Drag() && Type() && MoveTheFocus() &&
           Choose() && Detach();
  }

 private:
  bool Attach();
  bool MoveTheMouse();
  bool Drag();
  bool Type();
  bool MoveTheFocus();
  bool Choose();
  bool Detach();

  bool Press(Point point);
  bool Release(Point point);
  bool MoveTo(Point point);
  bool PressTab();
  bool TypeText(const std::string& text);

  // Each step waits for the last thing that it causes, so that the lines are
  // printed in the same order every time.
  bool Await(const std::string& news) { return IsOk(console_->Await(news)); }

  // A new request that names the browser.
  template <typename Request>
  Request New() const {
    Request request;
    *request.mutable_browser_id() = browser_;
    return request;
  }
  template <typename Request>
  Request NewAt(Point point) const {
    auto request = New<Request>();
    request.mutable_pointer()->mutable_position()->set_x(point.x);
    request.mutable_pointer()->mutable_position()->set_y(point.y);
    return request;
  }

  rpc::BrowserWidgetRpcClient widget_;
  const BrowserId browser_;
  Console* const console_;
};

bool User::Press(Point point) {
  auto press = NewAt<rpc::MousePressRequest>(point);
  press.mutable_pointer()->set_buttons(rpc::MOUSE_BUTTON_FLAG_PRIMARY);
  press.set_button(rpc::MOUSE_BUTTON_PRIMARY);
  press.set_click_count(1);
  return IsOk(widget_.ForwardMousePress(press).status());
}

bool User::Release(Point point) {
  auto release = NewAt<rpc::MouseReleaseRequest>(point);
  release.set_button(rpc::MOUSE_BUTTON_PRIMARY);
  release.set_click_count(1);
  return IsOk(widget_.ForwardMouseRelease(release).status());
}

bool User::MoveTo(Point point) {
  return IsOk(
      widget_.ForwardMouseMove(NewAt<rpc::MouseMoveRequest>(point)).status());
}

bool User::PressTab() {
  auto press = New<rpc::KeyPressRequest>();
  press.mutable_key()->set_key("Tab");
  return IsOk(widget_.ForwardKeyPress(press).status());
}

bool User::TypeText(const std::string& text) {
  auto typed = New<rpc::KeyTypeRequest>();
  typed.set_text(text);
  return IsOk(widget_.ForwardKeyType(typed).status());
}

bool User::Attach() {
  auto request = New<rpc::AttachRequest>();
  request.set_rendering_mode(rpc::RENDERING_MODE_OFF_SCREEN);
  request.mutable_bounds()->set_width(480);
  request.mutable_bounds()->set_height(320);
  const absl::StatusOr<rpc::AttachResult> result = widget_.Attach(request);
  if (!IsOk(result.status())) return false;
  if (!result->attached())
    return IsOk(absl::UnavailableError(result->refusal()));
  console_->Tell(absl::StrCat("attached: ", result->size().width(), " x ",
                              result->size().height(), " DIPs at scale ",
                              result->scale_factor()));

  const auto token = widget_.GetAccessibilityToken(browser_);
  if (!IsOk(token.status())) return false;
  console_->Tell("screen reader: the page is " + token->token());
  return IsOk(widget_.Show(browser_).status()) && Await("view: ");
}

bool User::MoveTheMouse() {
  const auto enter = NewAt<rpc::MouseEnterRequest>(kPicture);
  return IsOk(widget_.ForwardMouseEnter(enter).status()) &&
         Await("tooltip: ") && MoveTo(kLink) && Await("tooltip: ") &&
         MoveTo(kField) && Await("tooltip: ");
}

bool User::Drag() {
  auto enter = New<rpc::DragEnterRequest>();
  enter.set_allowed_operations(rpc::DRAG_OPERATION_COPY);
  enter.mutable_position()->set_x(kField.x);
  enter.mutable_position()->set_y(kField.y);
  auto drop = New<rpc::DragDropRequest>();
  drop.add_items()->mutable_text()->set_mime_type("text/plain");
  drop.mutable_items(0)->mutable_text()->set_value("Hello");
  auto drag = NewAt<rpc::MouseDragRequest>(kLink);
  drag.mutable_pointer()->set_buttons(rpc::MOUSE_BUTTON_FLAG_PRIMARY);
  const auto end = New<rpc::DragEndRequest>();
  return IsOk(widget_.ForwardDragEnter(enter).status()) && Await("drag: ") &&
         IsOk(widget_.ForwardDragDrop(drop).status()) && Await("view: ") &&
         Press(kPicture) && IsOk(widget_.ForwardMouseDrag(drag).status()) &&
         Await("drag out of the page: ") &&
         IsOk(widget_.ForwardDragEnd(end).status());
}

bool User::Type() {
  // The caret is sent last, as layer 1.
  if (!IsOk(widget_.Focus(New<rpc::FocusRequest>()).status()) ||
      !Press(kField) || !Await("layer 1: ") || !Release(kField)) {
    return false;
  }
  for (const char* const text : {",", " y", "ou", "\r"}) {
    if (!TypeText(text) || !Await("layer 1: ")) return false;
  }
  return true;
}

bool User::MoveTheFocus() {
  return PressTab() && Await("layer 1: ") && PressTab() && Await("view: ") &&
         PressTab() && Await("view: ");
}

bool User::Choose() {
  // At the end not "view: ": the picture may stay the same.
  return Press(kList) && Release(kList) && Await("view: ") && Press(kButton) &&
         Release(kButton) && Await("screen reader: ");
}

bool User::Detach() {
  if (!IsOk(widget_.Detach(browser_).status())) return false;
  console_->Tell("detached");
  return true;
}

}  // namespace
}  // namespace host

int main(int argc, char** argv) {
  const auto options = host::ParseOptions(argc, argv);

  // Each outlives those below it.
  orvane::EventLoop loop;
  const auto connection = orvane::SocketClient::Connect(&loop, options.socket);
  if (!host::IsOk(connection.status())) return EXIT_FAILURE;
  std::cout << "connected to " << options.socket << std::endl;
  BrowserId browser;
  browser.set_value(1);
  host::Console console(&loop, connection->get(), browser);
  if (!host::User(connection->get(), browser, &console).UseThePage())
    return EXIT_FAILURE;
  const bool is_saved = options.save.empty() ||
                        host::IsOk(host::SavePpm(console.view(), options.save));
  return is_saved ? EXIT_SUCCESS : EXIT_FAILURE;
}
