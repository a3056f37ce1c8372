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

// Ends the process if `status` is an error.
void Must(const absl::Status& status) {
  if (status.ok()) return;
  std::cerr << "host: " << orvane::Printable(status.message()) << "\n";
  std::exit(EXIT_FAILURE);
}

class User {
 public:
  User(orvane::SocketClient* connection, BrowserId browser, Console* console)
      : widget_(connection), browser_(std::move(browser)), console_(console) {}

  void UseThePage();

 private:
  void Attach();
  void MoveTheMouse();
  void Drag();
  void Type();
  void MoveTheFocus();
  void Choose();

  void Press(Point point);
  void Release(Point point);
  void MoveTo(Point point);
  void PressTab();
  void TypeText(const std::string& text);

  // Each step waits for the last thing that it causes, so that the lines are
  // printed in the same order every time.
  void Await(const std::string& news) { Must(console_->Await(news)); }

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

void User::Press(Point point) {
  auto press = NewAt<rpc::MousePressRequest>(point);
  press.mutable_pointer()->set_buttons(rpc::MOUSE_BUTTON_FLAG_PRIMARY);
  press.set_button(rpc::MOUSE_BUTTON_PRIMARY);
  press.set_click_count(1);
  Must(widget_.ForwardMousePress(press).status());
}

void User::Release(Point point) {
  auto release = NewAt<rpc::MouseReleaseRequest>(point);
  release.set_button(rpc::MOUSE_BUTTON_PRIMARY);
  release.set_click_count(1);
  Must(widget_.ForwardMouseRelease(release).status());
}

void User::MoveTo(Point point) {
  Must(widget_.ForwardMouseMove(NewAt<rpc::MouseMoveRequest>(point)).status());
}

void User::PressTab() {
  auto press = New<rpc::KeyPressRequest>();
  press.mutable_key()->set_key("Tab");
  Must(widget_.ForwardKeyPress(press).status());
}

void User::TypeText(const std::string& text) {
  auto typed = New<rpc::KeyTypeRequest>();
  typed.set_text(text);
  Must(widget_.ForwardKeyType(typed).status());
}

void User::Attach() {
  auto request = New<rpc::AttachRequest>();
  request.set_rendering_mode(rpc::RENDERING_MODE_OFF_SCREEN);
  request.mutable_bounds()->set_width(480);
  request.mutable_bounds()->set_height(320);
  const absl::StatusOr<rpc::AttachResult> result = widget_.Attach(request);
  Must(result.status());
  if (!result->attached()) Must(absl::UnavailableError(result->refusal()));
  console_->Tell(absl::StrCat("attached: ", result->size().width(), " x ",
                              result->size().height(), " DIPs at scale ",
                              result->scale_factor()));

  const auto token = widget_.GetAccessibilityToken(browser_);
  Must(token.status());
  console_->Tell("screen reader: the page is " + token->token());
  Must(widget_.Show(browser_).status());
  Await("view: ");
}

void User::MoveTheMouse() {
  Must(widget_.ForwardMouseEnter(NewAt<rpc::MouseEnterRequest>(kPicture))
           .status());
  Await("tooltip: ");
  MoveTo(kLink);
  Await("tooltip: ");
  MoveTo(kField);
  Await("tooltip: ");
}

void User::Drag() {
  auto enter = New<rpc::DragEnterRequest>();
  enter.set_allowed_operations(rpc::DRAG_OPERATION_COPY);
  enter.mutable_position()->set_x(kField.x);
  enter.mutable_position()->set_y(kField.y);
  Must(widget_.ForwardDragEnter(enter).status());
  Await("drag: ");
  auto drop = New<rpc::DragDropRequest>();
  drop.add_items()->mutable_text()->set_mime_type("text/plain");
  drop.mutable_items(0)->mutable_text()->set_value("Hello");
  Must(widget_.ForwardDragDrop(drop).status());
  Await("view: ");

  Press(kPicture);
  auto drag = NewAt<rpc::MouseDragRequest>(kLink);
  drag.mutable_pointer()->set_buttons(rpc::MOUSE_BUTTON_FLAG_PRIMARY);
  Must(widget_.ForwardMouseDrag(drag).status());
  Await("drag out of the page: ");
  Must(widget_.ForwardDragEnd(New<rpc::DragEndRequest>()).status());
}

void User::Type() {
  Must(widget_.Focus(New<rpc::FocusRequest>()).status());
  Press(kField);
  Await("layer 1: ");  // The caret is sent last.
  Release(kField);
  for (const char* const text : {",", " y", "ou", "\r"}) {
    TypeText(text);
    Await("layer 1: ");
  }
}

void User::MoveTheFocus() {
  PressTab();
  Await("layer 1: ");
  PressTab();
  Await("view: ");
  PressTab();
  Await("view: ");
}

void User::Choose() {
  Press(kList);
  Release(kList);
  Await("view: ");
  Press(kButton);
  Release(kButton);
  Await("screen reader: ");  // Not "view: ": the picture may stay the same.
}

void User::UseThePage() {
  Attach();
  MoveTheMouse();
  Drag();
  Type();
  MoveTheFocus();
  Choose();
  Must(widget_.Detach(browser_).status());
  console_->Tell("detached");
}

}  // namespace
}  // namespace host

int main(int argc, char** argv) {
  const auto options = host::ParseOptions(argc, argv);

  // Each outlives those below it.
  orvane::EventLoop loop;
  const auto connection = orvane::SocketClient::Connect(&loop, options.socket);
  host::Must(connection.status());
  std::cout << "connected to " << options.socket << std::endl;
  BrowserId browser;
  browser.set_value(1);
  host::Console console(&loop, connection->get(), browser);
  host::User(connection->get(), browser, &console).UseThePage();
  if (!options.save.empty())
    host::Must(host::SavePpm(console.view(), options.save));
  return EXIT_SUCCESS;
}
