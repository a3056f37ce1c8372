#include "tools/widgetctl/trace.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <system_error>
#include <utility>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "absl/time/clock.h"
#include "google/protobuf/wrappers.pb.h"

#include "tools/widgetctl/conversation.h"
#include "tools/widgetctl/interceptor.h"
#include "tools/widgetctl/json.h"
#include "tools/widgetctl/methods.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/printable.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace widgetctl {
namespace {

constexpr absl::string_view kOfHost = "\033[36m";    // Cyan.
constexpr absl::string_view kOfWidget = "\033[32m";  // Green.
constexpr absl::string_view kOfErrors = "\033[31m";  // Red.
constexpr absl::string_view kPlain = "\033[0m";

// The path itself if there is no such folder.
std::filesystem::path Canonical(const std::filesystem::path& path) {
  std::error_code error;
  std::filesystem::path canonical =
      std::filesystem::weakly_canonical(path, error);
  return error ? path : canonical;
}

std::string Quoted(const std::string& text) {
  google::protobuf::StringValue value;
  value.set_value(text);
  return ToJson(value);
}

// Where and when something was said.
struct Place {
  double seconds;
  int connection;
};

std::string InJson(const Place& place, const Said& said) {
  std::string line = absl::StrFormat(
      R"({"seconds":%.6f,"connection":%d,"from":"%s","what":"%s")",
      place.seconds, place.connection,
      said.from == Side::kHost ? "host" : "widget", said.what);
  if (said.method != nullptr)
    absl::StrAppend(&line, R"(,"method":")", said.method->name(), "\"");
  if (said.stream != 0)
    absl::StrAppend(&line, R"(,"stream":")", said.stream, "\"");
  if (said.call.has_value())
    absl::StrAppend(&line, R"(,"call":")", *said.call, "\"");
  if (said.browser.has_value())
    absl::StrAppend(&line, R"(,"browser":")", *said.browser, "\"");
  if (said.elapsed.has_value()) {
    absl::StrAppendFormat(&line, R"(,"milliseconds":%.3f)",
                          absl::ToDoubleMilliseconds(*said.elapsed));
  }
  if (said.error_code != 0)
    absl::StrAppend(&line, R"(,"code":)", said.error_code);
  if (!said.error.empty())
    absl::StrAppend(&line, R"(,"error":)", Quoted(said.error));
  if (said.payload != nullptr)
    absl::StrAppend(&line, R"(,"payload":)", ToJson(*said.payload));
  return line + "}";
}

std::string InWords(const Place& place, const Said& said) {
  std::string line =
      absl::StrFormat("%10.6f %2d %s %s", place.seconds, place.connection,
                      said.from == Side::kHost ? ">" : "<", said.what);
  if (said.method != nullptr) absl::StrAppend(&line, " ", said.method->name());
  if (said.stream != 0) absl::StrAppend(&line, " ", said.stream);
  if (said.call.has_value()) absl::StrAppend(&line, "/", *said.call);
  if (said.elapsed.has_value()) {
    absl::StrAppendFormat(&line, " %.3f ms",
                          absl::ToDoubleMilliseconds(*said.elapsed));
  }
  if (said.error_code != 0) absl::StrAppend(&line, " ", said.error_code, ":");
  if (!said.error.empty())
    absl::StrAppend(&line, " ", orvane::Printable(said.error));
  if (said.payload != nullptr)
    absl::StrAppend(&line, " ", orvane::Printable(ToJson(*said.payload)));
  return line;
}

// Prints what passes the filters of the options.
class Printer final : public Listener {
 public:
  explicit Printer(const Options& options)
      : options_(options),
        has_colors_(!options.json && ::isatty(STDOUT_FILENO) != 0 &&
                    std::getenv("NO_COLOR") == nullptr) {}

  void OnConnected(int connection, const absl::Status& joined) override {
    PrintChange(connection, joined.ok() ? "connected" : "refused",
                std::string(joined.message()));
  }

  void OnSaid(int connection, Said said) override {
    if (options_.no_payloads) said.payload.reset();
    if (!IsWanted(said)) return;
    const Place place = {SecondsSoFar(), connection};
    if (options_.json) {
      std::cout << InJson(place, said) << '\n';
    } else if (has_colors_) {
      std::cout << ColorOf(said) << InWords(place, said) << kPlain << '\n';
    } else {
      std::cout << InWords(place, said) << '\n';
    }
  }

  void OnPause() override { std::cout.flush(); }

  void OnEnded(int connection) override { PrintChange(connection, "ended"); }

  void PrintPath(const std::string& path) {
    if (options_.json) {
      std::cout << R"({"what":"listening","path":)" << Quoted(path) << "}"
                << std::endl;
    } else {
      std::cout << "hosts connect to " << path << std::endl;
    }
  }

 private:
  // What becomes of a connection.
  void PrintChange(int connection, absl::string_view what,
                   const std::string& why = "") {
    if (options_.json) {
      std::cout << absl::StrFormat(
          R"({"seconds":%.6f,"connection":%d,"what":"%s")", SecondsSoFar(),
          connection, what);
      if (!why.empty()) std::cout << R"(,"error":)" << Quoted(why);
      std::cout << "}\n";
    } else {
      std::cout << absl::StrFormat("%10.6f %2d   %s", SecondsSoFar(),
                                   connection, what)
                << (why.empty() ? "" : ": ") << orvane::Printable(why) << '\n';
    }
    std::cout.flush();
  }

  bool IsWanted(const Said& said) const {
    if (options_.browser.has_value() && said.browser != options_.browser)
      return false;
    const auto& wanted = options_.methods;
    return wanted.empty() || (said.method != nullptr &&
                              std::find(wanted.begin(), wanted.end(),
                                        said.method->name()) != wanted.end());
  }

  static absl::string_view ColorOf(const Said& said) {
    if (!said.error.empty()) return kOfErrors;
    return said.from == Side::kHost ? kOfHost : kOfWidget;
  }

  double SecondsSoFar() const {
    return absl::ToDoubleSeconds(absl::Now() - begun_);
  }

  const Options& options_;
  const bool has_colors_;
  const absl::Time begun_ = absl::Now();
};

absl::Status CheckMethods(const Options& options) {
  for (const std::string& name : options.methods) {
    const auto method =
        FindMethod(ServiceWithMethod(options.services, name), name);
    if (!method.ok()) return method.status();
  }
  return absl::OkStatus();
}

}  // namespace

ExitCode Intercept(const Options& options, const std::string& path,
                   bool wants_payloads, Listener* listener,
                   const std::function<absl::Status()>& on_listening,
                   absl::AnyInvocable<bool()> is_output_lost) {
  if (Canonical(path) == Canonical(options.socket)) {
    return Fail(kUsage, absl::StrCat("hosts connect to ", path,
                                     ", so the widget must listen elsewhere: "
                                     "tell where with --socket"));
  }
  orvane::EventLoop loop;
  Interceptor interceptor(
      &loop, {options.socket, options.services, wants_payloads}, listener);
  if (const absl::Status listens = interceptor.Listen(path); !listens.ok())
    return Fail(kNoConnection, listens.message());
  loop.OnSignal({SIGINT, SIGTERM, SIGHUP}, [&loop] { loop.Stop(); });
  // A reader that ends must not leave the socket's file behind.
  std::signal(SIGPIPE, SIG_IGN);
  if (const absl::Status begun = on_listening(); !begun.ok())
    return Fail(kUsage, begun.message());
  return loop.RunUntil(std::move(is_output_lost))
             ? Fail(kUsage, "cannot write what is traced")
             : kOk;
}

ExitCode Trace(const Options& options, const std::vector<std::string>& path) {
  if (const absl::Status methods = CheckMethods(options); !methods.ok())
    return Fail(kUsage, methods.message());
  const std::string hosts =
      path.empty() ? orvane::DefaultSocketPath("widget") : path.front();
  Printer printer(options);
  const bool wants_payloads =
      !options.no_payloads || options.browser.has_value();
  return Intercept(
      options, hosts, wants_payloads, &printer,
      [&] {
        printer.PrintPath(hosts);
        return absl::OkStatus();
      },
      [] { return !std::cout; });
}

}  // namespace widgetctl
