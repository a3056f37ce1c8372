// docs/examples/operating.cc: a server with its own limits, which logs its
// counters.

#include <csignal>
#include <iostream>
#include <memory>
#include <string>

#include "absl/log/log.h"

#include "orvane/server.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/logging/log_to_stderr.h"

// Logs the counters now and then every minute.
class Watch {
 public:
  Watch(orvane::EventLoop* loop, const orvane::SocketServer* server)
      : loop_(loop), server_(server) {
    Look();
  }

 private:
  void Look() {
    LOG(INFO) << server_->connections() << " hosts, "
              << server_->counters().refused << " refused, "
              << server_->counters().replaced_events << " events replaced";
    next_ = loop_->RunAfter(absl::Minutes(1), [this] { Look(); });
  }

  orvane::EventLoop* const loop_;
  const orvane::SocketServer* const server_;
  std::unique_ptr<orvane::EventLoop::Timer> next_;
};

int main(int argc, char** argv) {
  // Whoever reads the log may stop reading; the hosts are not affected.
  logging::LogToStderr();
  orvane::EventLoop loop;
  rpc::BrowserWidgetRpc widget;
  orvane::SocketServer server(
      &loop, &widget,
      {.max_frame_bytes = 64 << 10, .max_connections = 2, .max_calls = 100});
  const Watch watch(&loop, &server);
  // Hosts have two seconds to read the last replies.
  loop.OnSignal({SIGINT, SIGTERM}, [&] {
    server.Shutdown(absl::Seconds(2), [&loop] { loop.Stop(); });
  });
  const std::string path =
      argc > 1 ? argv[1] : orvane::DefaultSocketPath("widget");
  if (const absl::Status status = server.Listen(path); !status.ok()) {
    LOG(ERROR) << status.message();
    return 1;
  }
  std::cout << "operating listens at " << path << std::endl;
  loop.Run();
}
