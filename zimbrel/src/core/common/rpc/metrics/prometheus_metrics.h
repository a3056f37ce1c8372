// What a server or client does, as text for Prometheus.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_METRICS_PROMETHEUS_METRICS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_METRICS_PROMETHEUS_METRICS_H_

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "google/protobuf/descriptor.h"

#include "zimbrel/src/core/common/rpc/operation_observer.h"

namespace orvane {

// Counts operations by kind, method and outcome, and sums up their bytes and
// durations. The text is in Prometheus' exposition format: serve it over HTTP,
// or write it into a file for a collector.
//
//   orvane_operations_total{end="server",kind="call",method="...",code="OK"} 3
//   orvane_request_bytes_total{end="server",kind="call",method="..."} 812
//   orvane_response_bytes_total{...} 24
//   orvane_operation_seconds_bucket{...,le="0.001"} 2     not of events
//   orvane_operation_seconds_sum{...} 0.0042
//   orvane_operation_seconds_count{...} 3
//
// Thread: the service thread.
class PrometheusMetrics final : public OperationObserver {
 public:
  // `end` becomes a label, such as "server" or "client".
  explicit PrometheusMetrics(std::string end) : end_(std::move(end)) {}

  void OnEnd(const Operation& operation, const std::shared_ptr<void>& begun,
             const OperationEnd& end) override;

  std::string Text() const;

 private:
  static constexpr std::array<double, 11> kBuckets = {
      0.0001, 0.0005, 0.001, 0.005, 0.01, 0.05,
      0.1,    0.5,    1,     5,     10};  // Seconds.

  struct Sums {
    std::map<absl::StatusCode, std::uint64_t> outcomes;
    std::uint64_t request_bytes = 0;
    std::uint64_t response_bytes = 0;
    double seconds = 0;
    std::array<std::uint64_t, kBuckets.size()> within{};
  };

  const std::string end_;
  std::map<std::pair<OperationKind, std::string>, Sums> sums_;  // By method.
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_METRICS_PROMETHEUS_METRICS_H_
