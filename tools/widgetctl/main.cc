// widgetctl: a browser widget's service at a terminal.

#include <getopt.h>

#include <cmath>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "absl/strings/string_view.h"
#include "absl/time/time.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "tools/widgetctl/commands.h"
#include "tools/widgetctl/methods.h"

namespace widgetctl {
namespace {

std::string Help(const Options& defaults) {
  std::string help =
      "Usage: widgetctl [OPTION]... COMMAND [ARGUMENT]...\n"
      "Talks to a browser widget from a terminal.\n"
      "\n";
  for (const Command& command : Commands()) {
    absl::StrAppendFormat(&help, "  %-30s  %s\n", Synopsis(command),
                          command.summary);
  }
  absl::StrAppend(
      &help,
      "\n"
      "  --socket PATH      call the widget that listens at PATH\n"
      "                     (default ",
      defaults.socket,
      ")\n"
      "  --timeout SECONDS  give each call this long, such as 0.5 (default ",
      absl::ToInt64Seconds(defaults.timeout),
      ")\n"
      "  --help             print this, or more about a command, and exit\n"
      "\n"
      "Exit code: 0 if all went well, 1 if a call failed or a session was not\n"
      "as expected, 2 for wrong usage (with unknown names, wrong JSON and\n"
      "unreadable files), 3 without a connection to the widget.\n");
  return help;
}

std::string Help(const Command& command) {
  return absl::StrCat("Usage: widgetctl [OPTION]... ", Synopsis(command), "\n",
                      command.details);
}

ExitCode RefuseUsage() {
  std::cerr << "See widgetctl --help.\n";
  return kUsage;
}

ExitCode RefuseUsage(absl::string_view what) {
  std::cerr << "widgetctl: " << what << '\n';
  return RefuseUsage();
}

bool ParseTimeout(const char* text, absl::Duration* timeout) {
  double seconds = 0;
  if (!absl::SimpleAtod(text, &seconds) || !std::isfinite(seconds)) {
    return false;
  }
  *timeout = absl::Seconds(seconds);
  return *timeout > absl::ZeroDuration();
}

ExitCode RunCommand(const Options& options, const std::string& name,
                    const std::vector<std::string>& arguments,
                    bool wants_help) {
  std::set<std::string> names;
  for (const Command& command : Commands()) {
    if (command.name != name) {
      names.emplace(command.name);
      continue;
    }
    if (wants_help) {
      std::cout << Help(command);
      return kOk;
    }
    if (arguments.size() < command.min_arguments ||
        arguments.size() > command.max_arguments) {
      return RefuseUsage(absl::StrCat("the command is ", Synopsis(command)));
    }
    return command.run(options, arguments);
  }
  return RefuseUsage(
      absl::StrCat("no command ", name, DidYouMean(name, names)));
}

ExitCode Main(int argc, char** argv) {
  const option known[] = {{"socket", required_argument, nullptr, 's'},
                          {"timeout", required_argument, nullptr, 't'},
                          {"help", no_argument, nullptr, 'h'},
                          {}};
  const Options defaults{rpc::BrowserWidgetRpc::descriptor()};
  Options options = defaults;
  bool wants_help = false;
  int found = 0;
  while ((found = getopt_long(argc, argv, "", known, nullptr)) != -1) {
    switch (found) {
      case 's':
        options.socket = optarg;
        break;
      case 't':
        if (!ParseTimeout(optarg, &options.timeout)) {
          return RefuseUsage(
              absl::StrCat("--timeout takes a number of seconds above 0, not '",
                           optarg, "'"));
        }
        break;
      case 'h':
        wants_help = true;
        break;
      default:
        return RefuseUsage();  // getopt_long has said what is wrong.
    }
  }
  if (optind < argc) {
    return RunCommand(options, argv[optind], {argv + optind + 1, argv + argc},
                      wants_help);
  }
  if (!wants_help) return RefuseUsage("a command is missing");
  std::cout << Help(defaults);
  return kOk;
}

}  // namespace
}  // namespace widgetctl

int main(int argc, char** argv) { return widgetctl::Main(argc, argv); }
