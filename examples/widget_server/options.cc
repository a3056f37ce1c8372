#include "examples/widget_server/options.h"

#include <getopt.h>

#include <cstdlib>
#include <iostream>

#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"

#include "zimbrel/src/core/common/rpc/version.h"

namespace widget_server {
namespace {

constexpr int kExitUsage = 2;

void PrintHelp() {
  const Options defaults;
  std::cout
      << "Usage: widget_server [OPTION]...\n"
         "Serves browser widgets without a browser engine.\n"
         "\n"
         "  --socket PATH  listen at PATH, in a folder private to you\n"
         "                 (default "
      << orvane::DefaultSocketPath("widget")
      << ",\n"
         "                 unless there is an inherited socket)\n"
         "  --descriptor N serve who is behind descriptor N, an inherited\n"
         "                 socket; may be given several times\n"
         "  --browsers N   serve the browsers 1 to N, at most "
      << kMaxBrowsers << " (default " << defaults.browsers << ")\n"
      << "  --patience SECONDS\n"
         "                 log which host neither answers nor reads for so "
         "long\n"
         "  --help         print this and exit\n"
         "  --version      print the version and exit\n"
         "\n"
         "Sockets of a service manager (LISTEN_FDS) are served too.\n"
         "\n"
         "Exit code: 0 after SIGINT or SIGTERM, or once nobody is behind\n"
         "the inherited sockets; 1 if it cannot listen, 2 for wrong "
         "usage.\n";
}

[[noreturn]] void RefuseUsage() {
  std::cerr << "See widget_server --help.\n";
  std::exit(kExitUsage);
}

[[noreturn]] void RefuseUsage(absl::string_view what) {
  std::cerr << "widget_server: " << what << "\n";
  RefuseUsage();
}

int ParseBrowsers(absl::string_view text) {
  int browsers = 0;
  if (absl::SimpleAtoi(text, &browsers) && browsers >= 1 &&
      browsers <= kMaxBrowsers) {
    return browsers;
  }
  RefuseUsage(absl::StrCat("--browsers takes a number from 1 to ", kMaxBrowsers,
                           ", not '", text, "'"));
}

template <typename T>
T ValueOf(const absl::StatusOr<T>& parsed) {
  if (!parsed.ok()) RefuseUsage(parsed.status().message());
  return *parsed;
}

}  // namespace

Options ParseOptions(int argc, char** argv) {
  const option known[] = {{"socket", required_argument, nullptr, 's'},
                          {"descriptor", required_argument, nullptr, 'd'},
                          {"browsers", required_argument, nullptr, 'b'},
                          {"patience", required_argument, nullptr, 'p'},
                          {"help", no_argument, nullptr, 'h'},
                          {"version", no_argument, nullptr, 'v'},
                          {}};
  Options options;
  int found = 0;
  while ((found = getopt_long(argc, argv, "", known, nullptr)) != -1) {
    switch (found) {
      case 's':
        options.endpoints.socket = optarg;
        break;
      case 'd':
        options.endpoints.descriptors.push_back(
            ValueOf(ParseDescriptor(optarg)));
        break;
      case 'b':
        options.browsers = ParseBrowsers(optarg);
        break;
      case 'p':
        options.endpoints.patience = ValueOf(ParsePatience(optarg));
        break;
      case 'h':
        PrintHelp();
        std::exit(EXIT_SUCCESS);
      case 'v':
        std::cout << "widget_server " << orvane::kVersion << "\n";
        std::exit(EXIT_SUCCESS);
      default:
        RefuseUsage();  // getopt_long has printed what is wrong.
    }
  }
  if (optind < argc) {
    RefuseUsage(absl::StrCat("unexpected argument '", argv[optind], "'"));
  }
  AddInheritedSockets(&options.endpoints);
  return options;
}

}  // namespace widget_server
