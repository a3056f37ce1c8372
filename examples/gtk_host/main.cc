// A browser in a window.

#include <getopt.h>
#include <glib-unix.h>
#include <gtk/gtk.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "absl/strings/numbers.h"
#include "absl/time/time.h"

#include "examples/gtk_host/browser_window.h"
#include "examples/gtk_host/signals.h"
#include "host/connector.h"
#include "host/widget_process.h"
#include "orvane/client.h"
#include "zimbrel/src/core/common/rpc/main_loops/glib_source.h"
#include "zimbrel/src/core/common/rpc/version.h"

namespace gtk_host {
namespace {

constexpr int kExitUsage = 2;

// How long the end may wait for widgets to be told of it.
constexpr absl::Duration kFarewell = absl::Milliseconds(100);

// What a widget that this program has started may take to end.
constexpr absl::Duration kWidgetFarewell = absl::Seconds(5);

struct Options {
  std::string socket = orvane::DefaultSocketPath("widget");
  std::vector<std::string> command;  // Of a widget to start. Empty: connect.
  std::vector<std::uint64_t> browsers;
};

void PrintHelp() {
  std::cout
      << "Usage: gtk_host [OPTION]... [SOCKET]\n"
         "       gtk_host [OPTION]... --start -- PROGRAM [ARGUMENT]...\n"
         "Shows browsers in a window, one in each tab.\n"
         "\n"
         "SOCKET is where the widget listens\n"
         "(default "
      << Options().socket
      << "). If it ends, the window waits for\n"
         "the next one.\n"
         "\n"
         "  --start      start the widget PROGRAM, which nobody else can\n"
         "               connect to, and start it again if it ends\n"
         "  --browser N  show browser N; once for each tab (default 1)\n"
         "  --help       print this and exit\n"
         "  --version    print the version and exit\n"
         "\n"
         "Keys: Ctrl+Page Up and Ctrl+Page Down for the tabs; if the widget\n"
         "serves pages, Ctrl+L for the address, Alt+Left and Alt+Right for "
         "the\n"
         "history, F5 or Ctrl+R to reload. All other keys go to\n"
         "the page.\n"
         "\n"
         "Exit code: 0 after the window was closed, 1 without a display or if\n"
         "PROGRAM cannot be started, 2 for wrong usage.\n";
}

[[noreturn]] void RefuseUsage() {
  std::cerr << "See gtk_host --help.\n";
  std::exit(kExitUsage);
}

std::uint64_t ParseBrowser(const char* text,
                           const std::vector<std::uint64_t>& others) {
  std::uint64_t browser = 0;
  if (!absl::SimpleAtoi(text, &browser)) {
    std::cerr << "gtk_host: --browser takes a number, not '" << text << "'\n";
    RefuseUsage();
  }
  if (std::find(others.begin(), others.end(), browser) != others.end()) {
    std::cerr << "gtk_host: browser " << browser
              << " can be shown in one tab only\n";
    RefuseUsage();
  }
  return browser;
}

Options ParseOptions(int argc, char** argv) {
  const option known[] = {{"browser", required_argument, nullptr, 'b'},
                          {"help", no_argument, nullptr, 'h'},
                          {"start", no_argument, nullptr, 's'},
                          {"version", no_argument, nullptr, 'v'},
                          {}};
  Options options;
  bool starts = false;
  int found = 0;
  while ((found = getopt_long(argc, argv, "", known, nullptr)) != -1) {
    switch (found) {
      case 'b':
        options.browsers.push_back(ParseBrowser(optarg, options.browsers));
        break;
      case 'h':
        PrintHelp();
        std::exit(EXIT_SUCCESS);
      case 's':
        starts = true;
        break;
      case 'v':
        std::cout << "gtk_host " << orvane::kVersion << "\n";
        std::exit(EXIT_SUCCESS);
      default:
        RefuseUsage();  // getopt_long has printed what is wrong.
    }
  }
  if (starts) {
    options.command.assign(argv + optind, argv + argc);
    if (options.command.empty()) {
      std::cerr << "gtk_host: --start is followed by -- and a program\n";
      RefuseUsage();
    }
    optind = argc;
  }
  if (optind < argc) options.socket = argv[optind++];
  if (optind < argc) {
    std::cerr << "gtk_host: unexpected argument '" << argv[optind] << "'\n";
    RefuseUsage();
  }
  if (options.browsers.empty()) options.browsers = {1};
  return options;
}

class Program {
 public:
  explicit Program(Options options)
      : options_(std::move(options)),
        application_(gtk_application_new(nullptr, G_APPLICATION_NON_UNIQUE)) {
    Connect<&Program::Start>(application_, "activate", this);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program() { g_object_unref(application_); }

  int Run() {
    if (!options_.command.empty()) {
      auto widget = orvane::host::WidgetProcess::Start(
          &loop_, {.command = options_.command});
      if (!widget.ok()) {
        std::cerr << "gtk_host: " << widget.status().message() << "\n";
        return EXIT_FAILURE;
      }
      widget_ = *std::move(widget);
      source_ = {widget_->connector(), [this] { widget_->Restart(); }};
    }
    const orvane::GlibSource source(&loop_, nullptr, GDK_PRIORITY_REDRAW + 10);
    for (const int signal : {SIGINT, SIGTERM})
      g_unix_signal_add(signal, &Program::OnSignal, this);
    const int ended =
        g_application_run(G_APPLICATION(application_), 0, nullptr);
    if (widget_ != nullptr) EndWidget();
    return ended;
  }

 private:
  void Start() {
    window_ = std::make_unique<BrowserWindow>(application_, &loop_, source_,
                                              options_.browsers);
    Connect<&Program::OnClose>(window_->window(), "close-request", this);
  }
  static gboolean OnSignal(gpointer self) {
    const auto& window = static_cast<Program*>(self)->window_;
    if (window != nullptr) gtk_window_close(window->window());
    return G_SOURCE_CONTINUE;
  }
  gboolean OnClose() {
    window_->Detach();
    loop_.RunReady(kFarewell);
    window_.reset();
    return FALSE;  // GTK closes it.
  }

  void EndWidget() {
    bool has_ended = false;
    widget_->Stop(kWidgetFarewell, [&has_ended] { has_ended = true; });
    loop_.RunUntil([&has_ended] { return has_ended; });
  }

  const Options options_;
  GtkApplication* const application_;
  orvane::EventLoop loop_;
  std::unique_ptr<orvane::host::WidgetProcess> widget_;
  WidgetSource source_ = {orvane::host::ConnectorTo(&loop_, options_.socket)};
  std::unique_ptr<BrowserWindow> window_;
};

}  // namespace
}  // namespace gtk_host

int main(int argc, char** argv) {
  return gtk_host::Program(gtk_host::ParseOptions(argc, argv)).Run();
}
