// A browser in a window: an address bar, and the page below it.

#include <gtk/gtk.h>

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "absl/strings/match.h"
#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"

#include "examples/gtk_host/web_view.h"
#include "orvane/client.h"
#include "rpc/browser/page.client.h"
#include "zimbrel/src/core/common/rpc/main_loops/glib_source.h"

namespace gtk_host {
namespace {

constexpr int kWidth = 900;
constexpr int kHeight = 640;

// What people type is mostly not a whole address.
std::string AddressOf(const std::string& typed) {
  return absl::StrContains(typed, ':') ? typed
                                       : absl::StrCat("https://", typed);
}

// A window with one browser. The bar is there if the widget serves pages.
class BrowserWindow {
 public:
  BrowserWindow(GtkApplication* application, orvane::EventLoop* loop,
                const std::string& socket, const BrowserId& browser)
      : loop_(loop),
        socket_(socket),
        browser_(browser),
        window_(gtk_application_window_new(application)),
        bar_(gtk_box_new(GTK_ORIENTATION_HORIZONTAL, 6)),
        back_(
            AddButton("go-previous-symbolic", "Back", &BrowserWindow::GoBack)),
        forward_(AddButton("go-next-symbolic", "Forward",
                           &BrowserWindow::GoForward)),
        reload_(AddButton("view-refresh-symbolic", "Reload",
                          &BrowserWindow::Reload)),
        address_(gtk_entry_new()),
        view_(loop, socket, browser, [this] { ConnectToPages(); }) {
    gtk_widget_set_hexpand(address_, TRUE);
    g_signal_connect(
        address_, "activate",
        G_CALLBACK(+[](GtkEntry*, BrowserWindow* self) { self->Load(); }),
        this);
    gtk_box_append(GTK_BOX(bar_), address_);
    gtk_widget_set_visible(bar_, FALSE);
    GtkWidget* const box = gtk_box_new(GTK_ORIENTATION_VERTICAL, 0);
    gtk_box_append(GTK_BOX(box), bar_);
    gtk_box_append(GTK_BOX(box), view_.widget());
    gtk_window_set_child(GTK_WINDOW(window_), box);
    gtk_window_set_title(GTK_WINDOW(window_), "Browser");
    gtk_window_set_default_size(GTK_WINDOW(window_), kWidth, kHeight);
    gtk_window_present(GTK_WINDOW(window_));
  }

 private:
  GtkWidget* AddButton(const char* icon, const char* tooltip,
                       void (BrowserWindow::*action)()) {
    GtkWidget* const button = gtk_button_new_from_icon_name(icon);
    gtk_widget_set_tooltip_text(button, tooltip);
    auto* const target = new Target{this, action};
    g_signal_connect_data(
        button, "clicked", G_CALLBACK(+[](GtkButton*, Target* clicked) {
          (clicked->window->*clicked->action)();
        }),
        target,
        [](gpointer data, GClosure*) { delete static_cast<Target*>(data); },
        GConnectFlags{});
    gtk_box_append(GTK_BOX(bar_), button);
    return button;
  }

  // For each widget process that comes: the page service, if it has one.
  void ConnectToPages() {
    changes_.reset();
    pages_.reset();
    connection_.reset();
    auto connected = orvane::SocketClient::Connect(loop_, socket_);
    if (!connected.ok()) return;
    connection_ = *std::move(connected);
    pages_.emplace(connection_.get());
    changes_ = pages_->WhenPageChanged(
        browser_,
        [this](const rpc::PageChanged& event) { Show(event.state()); });
    pages_->GetPage(browser_, [this](const auto& state) {
      gtk_widget_set_visible(bar_, state.ok());
      if (state.ok()) Show(*state);
    });
  }

  void Show(const rpc::PageState& state) {
    // Not what the user is typing.
    if (!gtk_widget_has_focus(gtk_widget_get_first_child(address_)))
      gtk_editable_set_text(GTK_EDITABLE(address_),
                            std::string(state.address()).c_str());
    gtk_widget_set_sensitive(back_, state.can_go_back());
    gtk_widget_set_sensitive(forward_, state.can_go_forward());
    const std::string title(state.title().empty() ? state.address()
                                                  : state.title());
    gtk_window_set_title(GTK_WINDOW(window_), title.c_str());
  }

  void Load() {
    if (!pages_.has_value()) return;
    rpc::LoadRequest request;
    *request.mutable_browser_id() = browser_;
    request.set_address(
        AddressOf(gtk_editable_get_text(GTK_EDITABLE(address_))));
    pages_->Load(request, [this](const auto& answer) {
      if (!answer.ok())
        gtk_window_set_title(GTK_WINDOW(window_),
                             std::string(answer.status().message()).c_str());
    });
    gtk_widget_grab_focus(gtk_widget_get_first_child(view_.widget()));
  }
  void GoBack() {
    if (pages_.has_value()) pages_->GoBack(browser_, nullptr);
  }
  void GoForward() {
    if (pages_.has_value()) pages_->GoForward(browser_, nullptr);
  }
  void Reload() {
    if (!pages_.has_value()) return;
    rpc::ReloadRequest request;
    *request.mutable_browser_id() = browser_;
    pages_->Reload(request, nullptr);
  }

  struct Target {
    BrowserWindow* window;
    void (BrowserWindow::*action)();
  };

  orvane::EventLoop* const loop_;
  const std::string socket_;
  const BrowserId browser_;
  GtkWidget* const window_;
  GtkWidget* const bar_;
  GtkWidget* const back_;
  GtkWidget* const forward_;
  GtkWidget* const reload_;
  GtkWidget* const address_;
  std::unique_ptr<orvane::SocketClient> connection_;
  std::optional<rpc::PageRpcClient> pages_;
  std::unique_ptr<orvane::ClientStream> changes_;
  WebView view_;
};

struct Program {
  std::string socket = orvane::DefaultSocketPath("widget");
  std::uint64_t browser = 1;
  orvane::EventLoop loop;
  std::unique_ptr<BrowserWindow> window;
};

int Main(int argc, char** argv) {
  Program program;
  if (argc > 3 || (argc > 2 && !absl::SimpleAtoi(argv[2], &program.browser))) {
    std::cerr << "Usage: gtk_host [SOCKET [BROWSER]]\n";
    return 2;
  }
  if (argc > 1) program.socket = argv[1];
  const orvane::GlibSource source(&program.loop, nullptr,
                                  GDK_PRIORITY_REDRAW + 10);
  GtkApplication* const application =
      gtk_application_new(nullptr, G_APPLICATION_NON_UNIQUE);
  g_signal_connect(application, "activate",
                   G_CALLBACK(+[](GtkApplication* activated, Program* self) {
                     BrowserId browser;
                     browser.set_value(self->browser);
                     self->window = std::make_unique<BrowserWindow>(
                         activated, &self->loop, self->socket, browser);
                   }),
                   &program);
  const int code = g_application_run(G_APPLICATION(application), 0, nullptr);
  program.window.reset();
  g_object_unref(application);
  return code;
}

}  // namespace
}  // namespace gtk_host

int main(int argc, char** argv) { return gtk_host::Main(argc, argv); }
