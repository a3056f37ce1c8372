#include "examples/host/options.h"

#include <getopt.h>

#include <cstdlib>
#include <iostream>

#include "zimbrel/src/core/common/rpc/version.h"

namespace host {
namespace {

constexpr int kExitUsage = 2;

void PrintHelp() {
  std::cout << "Usage: host [OPTION]...\n"
               "Drives browser 1 of a widget_server like a user,\n"
               "and prints what happens.\n"
               "\n"
               "  --socket PATH    connect to the widget that listens at PATH\n"
               "                   (default "
            << Options().socket
            << ")\n"
               "  --save FILE.ppm  save the last picture of the view\n"
               "  --help           print this and exit\n"
               "  --version        print the version and exit\n"
               "\n"
               "Exit code: 0 on success, 1 if the widget cannot be reached,\n"
               "dies or refuses a call, 2 for wrong usage.\n";
}

[[noreturn]] void RefuseUsage() {
  std::cerr << "See host --help.\n";
  std::exit(kExitUsage);
}

}  // namespace

Options ParseOptions(int argc, char** argv) {
  const option known[] = {{"socket", required_argument, nullptr, 's'},
                          {"save", required_argument, nullptr, 'f'},
                          {"help", no_argument, nullptr, 'h'},
                          {"version", no_argument, nullptr, 'v'},
                          {}};
  Options options;
  int found = 0;
  while ((found = getopt_long(argc, argv, "", known, nullptr)) != -1) {
    switch (found) {
      case 's':
        options.socket = optarg;
        break;
      case 'f':
        options.save = optarg;
        break;
      case 'h':
        PrintHelp();
        std::exit(EXIT_SUCCESS);
      case 'v':
        std::cout << "host " << orvane::kVersion << "\n";
        std::exit(EXIT_SUCCESS);
      default:
        RefuseUsage();  // getopt_long has printed what is wrong.
    }
  }
  if (optind < argc) {
    std::cerr << "host: unexpected argument '" << argv[optind] << "'\n";
    RefuseUsage();
  }
  return options;
}

}  // namespace host
