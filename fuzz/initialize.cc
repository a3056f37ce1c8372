// What every fuzzer does first. A failed expectation ends the process, so that
// the input is kept. The log is off, since it would be full of connections that
// the server ends.

#include <cstdlib>

#include "absl/base/log_severity.h"
#include "absl/log/globals.h"
#include "absl/log/initialize.h"
#include "google/protobuf/stubs/common.h"
#include "gtest/gtest.h"

// Later releases log through Abseil.
#if GOOGLE_PROTOBUF_VERSION < 4022000
#include "google/protobuf/stubs/logging.h"
#define ORVANE_PROTOBUF_HAS_ITS_OWN_LOG
#endif

namespace {

// Runs after GoogleTest's own listener, which has printed what failed.
class EndOfProcess final : public testing::EmptyTestEventListener {
  void OnTestPartResult(const testing::TestPartResult& result) override {
    if (result.failed()) std::abort();
  }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  absl::InitializeLog();  // Before it, everything goes to stderr.
  absl::SetStderrThreshold(absl::LogSeverityAtLeast::kFatal);
#ifdef ORVANE_PROTOBUF_HAS_ITS_OWN_LOG
  google::protobuf::SetLogHandler(nullptr);
#endif
  // GoogleTest owns it from here on.
  testing::UnitTest::GetInstance()->listeners().Append(new EndOfProcess);
  return 0;
}
