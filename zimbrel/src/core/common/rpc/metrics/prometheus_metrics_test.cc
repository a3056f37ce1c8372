#include "zimbrel/src/core/common/rpc/metrics/prometheus_metrics.h"

#include <string>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"

namespace orvane {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

const Operation kShow = {
    OperationKind::kCall,
    rpc::BrowserWidgetRpc::descriptor()->FindMethodByName("Show")};
const Operation kCursor = {
    OperationKind::kEvent,
    rpc::BrowserWidgetRpc::descriptor()->FindMethodByName("WhenCursorChanged")};

OperationEnd End(absl::StatusCode code, absl::Duration duration) {
  return {.code = code,
          .duration = duration,
          .request_bytes = 10,
          .response_bytes = 3};
}

TEST(PrometheusMetrics, OfNothingAreTheTypes) {
  EXPECT_EQ(PrometheusMetrics("server").Text(),
            "# TYPE orvane_operations_total counter\n"
            "# TYPE orvane_request_bytes_total counter\n"
            "# TYPE orvane_response_bytes_total counter\n"
            "# TYPE orvane_operation_seconds histogram\n");
}

TEST(PrometheusMetrics, CountsByOutcome) {
  PrometheusMetrics metrics("server");
  metrics.OnEnd(kShow, nullptr, End(absl::StatusCode::kOk, {}));
  metrics.OnEnd(kShow, nullptr, End(absl::StatusCode::kOk, {}));
  metrics.OnEnd(kShow, nullptr, End(absl::StatusCode::kUnknown, {}));
  const std::string labels =
      "{end=\"server\",kind=\"call\",method=\"rpc.BrowserWidgetRpc.Show\"";
  const std::string text = metrics.Text();
  EXPECT_THAT(text, HasSubstr("orvane_operations_total" + labels +
                              ",code=\"OK\"} 2\n"));
  EXPECT_THAT(text, HasSubstr("orvane_operations_total" + labels +
                              ",code=\"UNKNOWN\"} 1\n"));
  EXPECT_THAT(text,
              HasSubstr("orvane_request_bytes_total" + labels + "} 30\n"));
  EXPECT_THAT(text,
              HasSubstr("orvane_response_bytes_total" + labels + "} 9\n"));
}

TEST(PrometheusMetrics, SortsDurationsIntoBuckets) {
  PrometheusMetrics metrics("client");
  metrics.OnEnd(kShow, nullptr,
                End(absl::StatusCode::kOk, absl::Milliseconds(1)));
  metrics.OnEnd(kShow, nullptr, End(absl::StatusCode::kOk, absl::Seconds(20)));
  const std::string text = metrics.Text();
  EXPECT_THAT(text, HasSubstr("le=\"0.0005\"} 0\n"));
  EXPECT_THAT(text, HasSubstr("le=\"0.001\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("le=\"10\"} 1\n"));
  EXPECT_THAT(text, HasSubstr("le=\"+Inf\"} 2\n"));
  EXPECT_THAT(text, HasSubstr("Show\"} 20.001000000\n"));
}

TEST(PrometheusMetrics, EventsTakeNoTime) {
  PrometheusMetrics metrics("server");
  metrics.OnEnd(kCursor, nullptr, End(absl::StatusCode::kOk, {}));
  EXPECT_THAT(metrics.Text(), Not(HasSubstr("le=")));
  EXPECT_THAT(metrics.Text(), HasSubstr("kind=\"event\""));
}

}  // namespace
}  // namespace orvane
