#include "tools/widgetctl/trace.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <utility>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "absl/time/clock.h"
#include "google/protobuf/wrappers.pb.h"

#include "tools/widgetctl/conversation.h"
#include "tools/widgetctl/json.h"
#include "tools/widgetctl/methods.h"
#include "tools/widgetctl/relay.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/printable.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace widgetctl {
namespace {

using orvane::EventLoop;
using orvane::OwnedDescriptor;

constexpr absl::Duration kAcceptRetry = absl::Milliseconds(100);

constexpr absl::string_view kOfHost = "\033[36m";    // Cyan.
constexpr absl::string_view kOfWidget = "\033[32m";  // Green.
constexpr absl::string_view kOfErrors = "\033[31m";  // Red.
constexpr absl::string_view kPlain = "\033[0m";

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
  if (!said.error.empty()) absl::StrAppend(&line, " ", said.error);
  if (said.payload != nullptr)
    absl::StrAppend(&line, " ", ToJson(*said.payload));
  return orvane::Printable(line);
}

// Prints what passes the filters of the options.
class Printer {
 public:
  explicit Printer(const Options& options)
      : options_(options),
        has_colors_(!options.json && ::isatty(STDOUT_FILENO) != 0 &&
                    std::getenv("NO_COLOR") == nullptr) {}

  void Print(int connection, const Said& said) {
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

  void PrintPath(const std::string& path) {
    if (options_.json) {
      std::cout << R"({"what":"listening","path":)" << Quoted(path) << "}"
                << std::endl;
    } else {
      std::cout << "hosts connect to " << path << std::endl;
    }
  }

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

 private:
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

// Stands at a path where hosts connect, and connects each with the widget.
class Tracer {
 public:
  Tracer(EventLoop* loop, const Options& options)
      : loop_(loop), options_(options), printer_(options) {}

  absl::Status Listen(const std::string& path) {
    absl::StatusOr<orvane::ListeningSocket> socket =
        orvane::ListeningSocket::Open(path);
    if (!socket.ok()) return socket.status();
    auto acceptor =
        loop_->WatchDescriptor(OwnedDescriptor(socket->ReleaseDescriptor()));
    if (!acceptor.ok()) return acceptor.status();
    socket_ = std::make_unique<orvane::ListeningSocket>(*std::move(socket));
    acceptor_ = *std::move(acceptor);
    acceptor_->WhenReadable([this] { Accept(); });
    printer_.PrintPath(path);
    return absl::OkStatus();
  }

 private:
  struct Connection {
    Conversation conversation;
    std::unique_ptr<Relay> relay;
  };

  void Accept() {
    OwnedDescriptor host(
        ::accept4(acceptor_->descriptor(), nullptr, nullptr, SOCK_CLOEXEC));
    if (host.get() < 0 && errno == EAGAIN)
      return acceptor_->WhenReadable([this] { Accept(); });
    // Without a descriptor, the host stays in the queue.
    const absl::Duration pause =
        host.get() < 0 ? kAcceptRetry : absl::ZeroDuration();
    if (host.get() >= 0) {
      const int number = ++count_;
      const absl::Status joined = Join(number, std::move(host));
      printer_.PrintChange(number, joined.ok() ? "connected" : "refused",
                           std::string(joined.message()));
    }
    next_accept_ = loop_->RunAfter(pause, [this] { Accept(); });
  }

  // Connects a host with the widget, or hangs up on it.
  absl::Status Join(int number, OwnedDescriptor host_socket) {
    if (absl::Status peer = orvane::CheckPeerIsThisUser(host_socket.get());
        !peer.ok())
      return peer;
    auto widget_socket = orvane::ConnectTo(options_.socket);
    if (!widget_socket.ok()) return widget_socket.status();
    auto host = loop_->WatchDescriptor(std::move(host_socket));
    if (!host.ok()) return host.status();
    auto widget = loop_->WatchDescriptor(*std::move(widget_socket));
    if (!widget.ok()) return widget.status();
    const bool wants_payloads =
        !options_.no_payloads || options_.browser.has_value();
    Connection& connection =
        connections_
            .emplace(number,
                     Connection{Conversation(options_.services, wants_payloads),
                                nullptr})
            .first->second;
    connection.relay = std::make_unique<Relay>(
        loop_, *std::move(host), *std::move(widget),
        Relay::Handlers{
            [this, number, &connection](Side from, absl::string_view bytes) {
              Take(number, connection, from, bytes);
            },
            [this, number] { End(number); }});
    return absl::OkStatus();
  }

  void Take(int number, Connection& connection, Side from,
            absl::string_view bytes) {
    connection.conversation.Take(from, bytes, absl::Now(), [&](Said said) {
      if (options_.no_payloads) said.payload.reset();
      printer_.Print(number, said);
    });
    std::cout.flush();
  }

  void End(int number) {
    connections_.erase(number);
    printer_.PrintChange(number, "ended");
  }

  EventLoop* const loop_;
  const Options& options_;
  Printer printer_;
  std::unique_ptr<orvane::ListeningSocket> socket_;
  std::unique_ptr<EventLoop::Watch> acceptor_;
  std::unique_ptr<EventLoop::Timer> next_accept_;
  int count_ = 0;
  std::map<int, Connection> connections_;
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

ExitCode Trace(const Options& options, const std::vector<std::string>& path) {
  if (const absl::Status methods = CheckMethods(options); !methods.ok())
    return Fail(kUsage, methods.message());
  const std::string hosts =
      path.empty() ? orvane::DefaultSocketPath("widget") : path.front();
  if (hosts == options.socket) {
    return Fail(kUsage, absl::StrCat("hosts connect to ", hosts,
                                     ", so the widget must listen elsewhere: "
                                     "tell where with --socket"));
  }
  EventLoop loop;
  Tracer tracer(&loop, options);
  if (const absl::Status listens = tracer.Listen(hosts); !listens.ok())
    return Fail(kNoConnection, listens.message());
  loop.OnSignal({SIGINT, SIGTERM}, [&loop] { loop.Stop(); });
  loop.Run();
  return kOk;
}

}  // namespace widgetctl
