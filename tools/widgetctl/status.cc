#include "tools/widgetctl/status.h"

#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <iostream>
#include <memory>
#include <utility>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"
#include "absl/strings/strip.h"
#include "absl/time/time.h"
#include "google/protobuf/empty.pb.h"

#include "rpc/transport/status.pb.h"
#include "tools/widgetctl/json.h"
#include "tools/widgetctl/status_text.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/printable.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace widgetctl {

using rpc::transport::ServerStatus;

namespace {

constexpr absl::Duration kPeriod = absl::Seconds(1);
constexpr absl::string_view kClearTerminal = "\033[H\033[J";

// The process that listens at the other end; 0 if it is not known.
pid_t ProcessAtTheOtherEnd(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  return ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0
             ? peer.pid
             : 0;
}

// " Process 12, orvane-chromium: T (stopped)." Empty if the system does not
// tell.
std::string ProcessInWords(pid_t process) {
  std::string name;
  std::string state;
  std::ifstream status(absl::StrCat("/proc/", process, "/status"));
  for (std::string line; std::getline(status, line);) {
    absl::string_view value = line;
    if (absl::ConsumePrefix(&value, "Name:\t")) name = std::string(value);
    if (absl::ConsumePrefix(&value, "State:\t")) state = std::string(value);
  }
  if (name.empty()) return "";
  return absl::StrCat(" Process ", process, ", ", orvane::Printable(name), ": ",
                      state, ".");
}

class StatusReader {
 public:
  StatusReader(orvane::EventLoop* loop, const Options& options)
      : loop_(loop), options_(options) {}

  ExitCode Connect() {
    auto socket = orvane::ConnectTo(options_.socket);
    if (!socket.ok()) return Fail(kNoConnection, socket.status().message());
    process_ = ProcessAtTheOtherEnd(socket->get());
    auto client = orvane::SocketClient::Adopt(loop_, socket->Release());
    if (!client.ok()) return Fail(kNoConnection, client.status().message());
    client_ = *std::move(client);
    return kOk;
  }

  // Prints the present status.
  ExitCode Print(bool clears_terminal) {
    const auto answer = client_->CallAndWait(
        ServerStatus::descriptor()->file()->service(0)->method(0),
        google::protobuf::Empty(), {.timeout = options_.timeout});
    if (absl::IsCancelled(answer.status())) return kOk;  // By a signal.
    if (absl::IsDeadlineExceeded(answer.status())) {
      return Fail(kFailed, absl::StrCat("the widget has not answered within ",
                                        absl::FormatDuration(options_.timeout),
                                        ".", ProcessInWords(process_)));
    }
    if (!answer.ok()) {
      return Fail(client_->status().ok() ? kFailed : kNoConnection,
                  orvane::Printable(answer.status().message()));
    }
    if (options_.json) {
      std::cout << ToJson(**answer) << std::endl;
    } else {
      std::cout << (clears_terminal ? kClearTerminal : "")
                << StatusInWords(static_cast<const ServerStatus&>(**answer))
                << std::flush;
    }
    return kOk;
  }

 private:
  orvane::EventLoop* const loop_;
  const Options& options_;
  pid_t process_ = 0;
  std::unique_ptr<orvane::SocketClient> client_;
};

}  // namespace

ExitCode Status(const Options& options, const std::vector<std::string>&) {
  orvane::EventLoop loop;
  StatusReader reader(&loop, options);
  ExitCode outcome = reader.Connect();
  if (outcome == kOk) outcome = reader.Print(false);
  if (!options.watches) return outcome;

  const bool clears_terminal = ::isatty(STDOUT_FILENO) != 0;
  loop.OnSignal({SIGINT, SIGTERM}, [&loop] { loop.Stop(); });
  bool is_time = false;
  // A widget that hangs may come back.
  while (outcome != kNoConnection && std::cout) {
    const auto period = loop.RunAfter(kPeriod, [&is_time] { is_time = true; });
    if (!loop.RunUntil([&is_time] { return std::exchange(is_time, false); }))
      return kOk;
    outcome = reader.Print(clears_terminal);
  }
  return outcome;
}

}  // namespace widgetctl
