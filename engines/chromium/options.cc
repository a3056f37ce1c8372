#include "engines/chromium/options.h"

#include <getopt.h>

#include <cstdlib>
#include <iostream>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"

#include "zimbrel/src/core/common/rpc/version.h"

namespace chromium {
namespace {

constexpr int kExitUsage = 2;

void PrintHelp() {
  const Options defaults;
  std::cout
      << "Usage: orvane-chromium --page ID=URL [OPTION]...\n"
         "Serves browser widgets with a Chromium engine behind them.\n"
         "\n"
         "  --page ID=URL   serve browser ID, a number, which shows URL at\n"
         "                  first; once for each browser, at most "
      << kMaxPages
      << "\n"
         "  --socket PATH   listen at PATH, in a folder private to you\n"
         "                  (default "
      << orvane::DefaultSocketPath("widget")
      << ",\n"
         "                  unless there is an inherited socket)\n"
         "  --descriptor N  serve who is behind descriptor N, an inherited\n"
         "                  socket; may be given several times\n"
         "  --profile DIR   keep cookies and the like in DIR, which belongs "
         "to\n"
         "                  this program alone (default: in memory)\n"
         "  --schemes LIST  URL schemes that pages may load, separated by "
         "commas\n"
         "                  (default http,https,data,about)\n"
         "  --files DIR     let pages load the files in DIR too; may be given\n"
         "                  several times\n"
         "  --allow-scripts let hosts run scripts in pages\n"
         "  --patience SECONDS\n"
         "                  log which host neither answers nor reads for so "
         "long\n"
         "  --engine PATH   the engine's program\n"
         "                  (default "
      << defaults.engine.path
      << ")\n"
         "  --help          print this and exit\n"
         "  --version       print the version and exit\n"
         "\n"
         "The engine runs in its sandbox, as user "
      << kUnprivilegedUser
      << " if you are root, and opens\nno network port.\n"
         "\n"
         "Sockets of a service manager (LISTEN_FDS) are served too.\n"
         "\n"
         "Exit code: 0 after SIGINT or SIGTERM, or once nobody is behind the\n"
         "inherited sockets; 1 if the engine does not start or a socket "
         "cannot\n"
         "be opened, 2 for wrong usage.\n";
}

[[noreturn]] void RefuseUsage() {
  std::cerr << "See orvane-chromium --help.\n";
  std::exit(kExitUsage);
}

[[noreturn]] void RefuseUsage(absl::string_view what) {
  std::cerr << "orvane-chromium: " << what << "\n";
  RefuseUsage();
}

void RefuseUnlessOk(absl::string_view option, const absl::Status& status) {
  if (!status.ok()) RefuseUsage(absl::StrCat(option, ": ", status.message()));
}

template <typename T>
T ValueOf(const absl::StatusOr<T>& parsed) {
  if (!parsed.ok()) RefuseUsage(parsed.status().message());
  return *parsed;
}

void AddPage(absl::string_view text, Options* options) {
  const std::size_t equals = text.find('=');
  std::uint64_t browser = 0;
  if (equals == absl::string_view::npos || equals + 1 == text.size() ||
      !absl::SimpleAtoi(text.substr(0, equals), &browser)) {
    RefuseUsage(absl::StrCat(
        "--page takes ID=URL, such as 1=about:blank, not '", text, "'"));
  }
  if (!options->pages.try_emplace(browser, text.substr(equals + 1)).second)
    RefuseUsage(absl::StrCat("--page names browser ", browser, " twice"));
  if (options->pages.size() > kMaxPages)
    RefuseUsage(absl::StrCat("--page: there are more than ", kMaxPages));
}

}  // namespace

Options ParseOptions(int argc, char** argv) {
  const option known[] = {{"allow-scripts", no_argument, nullptr, 'a'},
                          {"descriptor", required_argument, nullptr, 'i'},
                          {"engine", required_argument, nullptr, 'e'},
                          {"files", required_argument, nullptr, 'f'},
                          {"help", no_argument, nullptr, 'h'},
                          {"page", required_argument, nullptr, 'p'},
                          {"patience", required_argument, nullptr, 't'},
                          {"profile", required_argument, nullptr, 'd'},
                          {"schemes", required_argument, nullptr, 'c'},
                          {"socket", required_argument, nullptr, 's'},
                          {"version", no_argument, nullptr, 'v'},
                          {}};
  Options options;
  int found = 0;
  while ((found = getopt_long(argc, argv, "", known, nullptr)) != -1) {
    switch (found) {
      case 'a':
        options.allows_scripts = true;
        break;
      case 'c':
        RefuseUnlessOk("--schemes", options.addresses.SetSchemes(optarg));
        break;
      case 'd':
        options.engine.profile = optarg;
        break;
      case 'e':
        options.engine.path = optarg;
        break;
      case 'f':
        RefuseUnlessOk("--files", options.addresses.AddFolder(optarg));
        break;
      case 'h':
        PrintHelp();
        std::exit(EXIT_SUCCESS);
      case 'i':
        options.endpoints.descriptors.push_back(
            ValueOf(widget_server::ParseDescriptor(optarg)));
        break;
      case 'p':
        AddPage(optarg, &options);
        break;
      case 's':
        options.endpoints.socket = optarg;
        break;
      case 't':
        options.endpoints.patience =
            ValueOf(widget_server::ParsePatience(optarg));
        break;
      case 'v':
        std::cout << "orvane-chromium " << orvane::kVersion << "\n";
        std::exit(EXIT_SUCCESS);
      default:
        RefuseUsage();  // getopt_long has printed what is wrong.
    }
  }
  if (optind < argc)
    RefuseUsage(absl::StrCat("unexpected argument '", argv[optind], "'"));
  if (options.pages.empty())
    RefuseUsage(
        "no browser to serve: give one by --page, as in --page 1=about:blank");
  widget_server::AddInheritedSockets(&options.endpoints);
  // Now that all options about addresses are known, whatever their order.
  for (const auto& [browser, address] : options.pages)
    RefuseUnlessOk("--page", options.addresses.Check(address));
  return options;
}

}  // namespace chromium
