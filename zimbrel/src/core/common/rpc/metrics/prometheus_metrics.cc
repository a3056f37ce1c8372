#include "zimbrel/src/core/common/rpc/metrics/prometheus_metrics.h"

#include <cstddef>

#include "absl/strings/str_cat.h"
#include "absl/strings/str_format.h"
#include "absl/strings/str_replace.h"
#include "absl/strings/string_view.h"
#include "absl/time/time.h"

namespace orvane {
namespace {

absl::string_view Name(OperationKind kind) {
  switch (kind) {
    case OperationKind::kCall:
      return "call";
    case OperationKind::kEvent:
      return "event";
    case OperationKind::kCallback:
      break;
  }
  return "callback";
}

std::string Escaped(const std::string& label) {
  return absl::StrReplaceAll(label,
                             {{"\\", "\\\\"}, {"\"", "\\\""}, {"\n", "\\n"}});
}

}  // namespace

void PrometheusMetrics::OnEnd(const Operation& operation,
                              const std::shared_ptr<void>&,
                              const OperationEnd& end) {
  Sums& sums =
      sums_[{operation.kind, std::string(operation.method->full_name())}];
  ++sums.outcomes[end.code];
  sums.request_bytes += end.request_bytes;
  sums.response_bytes += end.response_bytes;
  const double seconds = absl::ToDoubleSeconds(end.duration);
  sums.seconds += seconds;
  for (std::size_t i = 0; i < kBuckets.size(); ++i)
    sums.within[i] += seconds <= kBuckets[i] ? 1 : 0;
}

std::string PrometheusMetrics::Text() const {
  std::string operations = "# TYPE orvane_operations_total counter\n";
  std::string requests = "# TYPE orvane_request_bytes_total counter\n";
  std::string responses = "# TYPE orvane_response_bytes_total counter\n";
  std::string seconds = "# TYPE orvane_operation_seconds histogram\n";
  for (const auto& [of, sums] : sums_) {
    const auto& [kind, method] = of;
    const std::string labels =
        absl::StrCat("{end=\"", Escaped(end_), "\",kind=\"", Name(kind),
                     "\",method=\"", method, "\"");
    std::uint64_t count = 0;
    for (const auto& [code, times] : sums.outcomes) {
      absl::StrAppend(&operations, "orvane_operations_total", labels,
                      ",code=\"", absl::StatusCodeToString(code), "\"} ", times,
                      "\n");
      count += times;
    }
    absl::StrAppend(&requests, "orvane_request_bytes_total", labels, "} ",
                    sums.request_bytes, "\n");
    if (kind == OperationKind::kEvent) continue;
    absl::StrAppend(&responses, "orvane_response_bytes_total", labels, "} ",
                    sums.response_bytes, "\n");
    for (std::size_t i = 0; i < kBuckets.size(); ++i) {
      absl::StrAppend(&seconds, "orvane_operation_seconds_bucket", labels,
                      ",le=\"", kBuckets[i], "\"} ", sums.within[i], "\n");
    }
    absl::StrAppend(
        &seconds, "orvane_operation_seconds_bucket", labels, ",le=\"+Inf\"} ",
        count, "\n", "orvane_operation_seconds_sum", labels, "} ",
        absl::StrFormat("%.9f", sums.seconds), "\n",
        "orvane_operation_seconds_count", labels, "} ", count, "\n");
  }
  return absl::StrCat(operations, requests, responses, seconds);
}

}  // namespace orvane
