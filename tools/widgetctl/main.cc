// widgetctl: calls a browser widget's service from a terminal.

#include <getopt.h>

#include <cmath>
#include <iostream>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/match.h"
#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "absl/strings/str_join.h"
#include "absl/strings/string_view.h"
#include "absl/time/time.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/browser/browsers.rpc.h"
#include "rpc/browser/page.rpc.h"
#include "tools/widgetctl/commands.h"
#include "tools/widgetctl/methods.h"
#include "zimbrel/src/core/common/rpc/version.h"

namespace widgetctl {
namespace {

std::string Help(const Options& defaults) {
  std::string help =
      "Usage: widgetctl [OPTION]... COMMAND [ARGUMENT]...\n"
      "Calls a browser widget from a terminal.\n"
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
      "  --service NAME     a service that the widget serves: ",
      absl::StrJoin(defaults.services, " or\n                     ",
                    [](std::string* out, const auto* service) {
                      absl::StrAppend(out, service->name());
                    }),
      "\n"
      "                     (default: the one that has the method)\n"
      "  --timeout SECONDS  wait at most this long for an answer, for what a\n"
      "                     session expects and for --count, such as 0.5\n"
      "                     (default ",
      absl::ToInt64Seconds(defaults.timeout),
      ")\n"
      "  --count N          watch, serve: end after N events or answers\n"
      "  --reply JSON       serve: answer with this response\n"
      "  --fail TEXT        serve: fail each call with this text\n"
      "  --command COMMAND  serve: answer with what this shell command prints\n"
      "  --watch            status: print it again each second\n"
      "  --json             status, trace: print lines of JSON\n"
      "  --method NAME      trace: only this method; may be given again\n"
      "  --browser ID       trace: only this browser\n"
      "  --no-payloads      trace: without the messages\n"
      "  --varying NAME     record: a field, or an event stream, that differs\n"
      "                     from run to run; may be given again\n"
      "  --text             record: what is typed, too\n"
      "  --help             print this, or more about a command, and exit\n"
      "  --version          print the version and exit\n"
      "\n"
      "Exit code: 0 on success, 1 if a call or a stream failed or a session\n"
      "was not as expected, 2 for wrong usage (also unknown names, wrong JSON\n"
      "and unreadable files), 3 if there is no connection to the widget or\n"
      "the widget has ended it.\n");
  return help;
}

std::string Help(const Command& command) {
  return absl::StrCat("Usage: widgetctl [OPTION]... ", Synopsis(command),
                      command.options.empty() ? "" : " ", command.options, "\n",
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

// By its name, with or without its package.
bool ChooseService(absl::string_view name, Options* options) {
  std::erase_if(options->services, [&](const auto* service) {
    return service->name() != name && service->full_name() != name;
  });
  return !options->services.empty();
}

bool ParseCount(const char* text, std::optional<int>* count) {
  return absl::SimpleAtoi(text, &count->emplace()) && **count > 0;
}

// The first given option that this command does not take, or "".
absl::string_view ForeignOption(const Command& command,
                                const Options& options) {
  const std::pair<absl::string_view, bool> given[] = {
      {"--count", options.count.has_value()},
      {"--reply", options.reply.has_value()},
      {"--fail", options.fail.has_value()},
      {"--command", options.command.has_value()},
      {"--watch", options.watches},
      {"--json", options.json},
      {"--method", !options.methods.empty()},
      {"--browser", options.browser.has_value()},
      {"--no-payloads", options.no_payloads},
      {"--varying", !options.varying.empty()},
      {"--text", options.has_text}};
  for (const auto& [name, is_given] : given) {
    if (is_given && !absl::StrContains(command.options, name)) return name;
  }
  return "";
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
    if (const absl::string_view foreign = ForeignOption(command, options);
        !foreign.empty()) {
      return RefuseUsage(absl::StrCat(name, " takes no ", foreign));
    }
    return command.run(options, arguments);
  }
  return RefuseUsage(
      absl::StrCat("no command ", name, DidYouMean(name, names)));
}

ExitCode Main(int argc, char** argv) {
  const option known[] = {{"socket", required_argument, nullptr, 's'},
                          {"service", required_argument, nullptr, 'S'},
                          {"timeout", required_argument, nullptr, 't'},
                          {"count", required_argument, nullptr, 'n'},
                          {"reply", required_argument, nullptr, 'r'},
                          {"fail", required_argument, nullptr, 'f'},
                          {"command", required_argument, nullptr, 'c'},
                          {"watch", no_argument, nullptr, 'w'},
                          {"json", no_argument, nullptr, 'j'},
                          {"method", required_argument, nullptr, 'm'},
                          {"browser", required_argument, nullptr, 'b'},
                          {"no-payloads", no_argument, nullptr, 'p'},
                          {"varying", required_argument, nullptr, 'V'},
                          {"text", no_argument, nullptr, 'x'},
                          {"help", no_argument, nullptr, 'h'},
                          {"version", no_argument, nullptr, 'v'},
                          {}};
  const Options defaults{{rpc::BrowserWidgetRpc::descriptor(),
                          rpc::PageRpc::descriptor(),
                          rpc::BrowsersRpc::descriptor()}};
  Options options = defaults;
  bool wants_help = false;
  int found = 0;
  while ((found = getopt_long(argc, argv, "", known, nullptr)) != -1) {
    switch (found) {
      case 's':
        options.socket = optarg;
        break;
      case 'S':
        if (!ChooseService(optarg, &options)) {
          return RefuseUsage(absl::StrCat("--service: there is no ", optarg));
        }
        break;
      case 't':
        if (!ParseTimeout(optarg, &options.timeout)) {
          return RefuseUsage(
              absl::StrCat("--timeout takes a number of seconds above 0, not '",
                           optarg, "'"));
        }
        break;
      case 'n':
        if (!ParseCount(optarg, &options.count)) {
          return RefuseUsage(absl::StrCat(
              "--count takes a whole number above 0, not '", optarg, "'"));
        }
        break;
      case 'r':
        options.reply = optarg;
        break;
      case 'f':
        options.fail = optarg;
        break;
      case 'c':
        options.command = optarg;
        break;
      case 'w':
        options.watches = true;
        break;
      case 'j':
        options.json = true;
        break;
      case 'm':
        options.methods.emplace_back(optarg);
        break;
      case 'b':
        if (!absl::SimpleAtoi(optarg, &options.browser.emplace())) {
          return RefuseUsage(absl::StrCat(
              "--browser takes a browser's number, not '", optarg, "'"));
        }
        break;
      case 'p':
        options.no_payloads = true;
        break;
      case 'V':
        options.varying.emplace_back(optarg);
        break;
      case 'x':
        options.has_text = true;
        break;
      case 'h':
        wants_help = true;
        break;
      case 'v':
        std::cout << "widgetctl " << orvane::kVersion << '\n';
        return kOk;
      default:
        return RefuseUsage();  // getopt_long has printed what is wrong.
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

int main(int argc, char** argv) {
  const widgetctl::ExitCode outcome = widgetctl::Main(argc, argv);
  if (outcome != widgetctl::kOk || std::cout.flush()) return outcome;
  return widgetctl::Fail(widgetctl::kUsage, "cannot write the output");
}
