// docs/examples/metrics.cc: a server that writes what it does into a file for
// Prometheus.

#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include "orvane/server.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/metrics/prometheus_metrics.h"

// Writes the file every ten seconds, and at the end.
class MetricsFile {
 public:
  MetricsFile(orvane::EventLoop* loop, std::string path)
      : loop_(loop), path_(std::move(path)) {
    WriteLater();
  }
  ~MetricsFile() { Write(); }

  orvane::OperationObserver* observer() { return &metrics_; }

 private:
  // In one step, since it may be read at any time.
  void Write() {
    const std::string next = path_ + ".next";
    std::ofstream(next) << metrics_.Text();
    std::rename(next.c_str(), path_.c_str());
  }
  void WriteLater() {
    timer_ = loop_->RunAfter(absl::Seconds(10), [this] {
      Write();
      WriteLater();
    });
  }

  orvane::EventLoop* const loop_;
  const std::string path_;
  orvane::PrometheusMetrics metrics_{"server"};
  std::unique_ptr<orvane::EventLoop::Timer> timer_;
};

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "Usage: metrics SOCKET FILE" << std::endl;
    return 2;
  }
  orvane::EventLoop loop;
  MetricsFile file(&loop, argv[2]);
  rpc::BrowserWidgetRpc widget;
  orvane::SocketServer server(&loop, &widget);
  server.SetObserver(file.observer());
  loop.OnSignal({SIGINT, SIGTERM}, [&loop] { loop.Stop(); });
  if (const absl::Status status = server.Listen(argv[1]); !status.ok()) {
    std::cerr << status.message() << std::endl;
    return 1;
  }
  std::cout << "metrics listens at " << argv[1] << std::endl;
  loop.Run();
}
