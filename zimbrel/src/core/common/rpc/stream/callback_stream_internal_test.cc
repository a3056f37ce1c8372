#include "zimbrel/src/core/common/rpc/stream/callback_stream_internal.h"

#include <cstddef>

#include "absl/base/log_severity.h"
#include "absl/log/globals.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_id.pb.h"
#include "zimbrel/src/core/common/rpc/testing/heap_probe.h"

namespace orvane::internal {
namespace {

TEST(WarnOfTakeover, BuildsNoRecordThatNobodyWants) {
  const absl::log_internal::ScopedMinLogLevel only_errors(
      absl::LogSeverityAtLeast::kError);
  const BrowserId key;
  const std::size_t before = testing::heap_probe::Allocations();
  WarnOfTakeover(key);
  EXPECT_EQ(testing::heap_probe::Allocations(), before);
}

TEST(WarnOfTakeover, BuildsARecordThatSomebodyWants) {
  const BrowserId key;
  const std::size_t before = testing::heap_probe::Allocations();
  WarnOfTakeover(key);
  EXPECT_GT(testing::heap_probe::Allocations(), before);
}

}  // namespace
}  // namespace orvane::internal
