#include "zimbrel/src/core/common/logging/log_message.h"

#include <string>
#include <vector>

#include "absl/base/log_severity.h"
#include "absl/log/globals.h"
#include "absl/log/log_entry.h"
#include "absl/log/log_sink.h"
#include "absl/log/log_sink_registry.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace logging {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LogMessageTest : public ::testing::Test, private absl::LogSink {
 protected:
  LogMessageTest() { absl::AddLogSink(this); }
  ~LogMessageTest() override { absl::RemoveLogSink(this); }

  std::vector<std::string> records;

 private:
  void Send(const absl::LogEntry& entry) override {
    records.push_back(std::string(absl::LogSeverityName(entry.log_severity())) +
                      " " + std::string(entry.source_filename()) + ":" +
                      std::to_string(entry.source_line()) + " " +
                      std::string(entry.text_message()));
  }
};

TEST_F(LogMessageTest, CarriesFileLineSeverityAndText) {
  LogMessage("some/where", 12, kWarning).stream() << "ten is " << 10;
  EXPECT_THAT(records, ElementsAre("WARNING some/where:12 ten is 10"));
}

TEST_F(LogMessageTest, IsWrittenWhenItEnds) {
  LogMessage message("f", 1, kError);
  message.stream() << "text";
  EXPECT_THAT(records, IsEmpty());
}

TEST_F(LogMessageTest, WarningsAreWantedByDefault) {
  EXPECT_TRUE(ShouldCreateLogMessage(kWarning));
}

TEST_F(LogMessageTest, NothingBelowTheMinimumSeverityIsWanted) {
  const absl::log_internal::ScopedMinLogLevel only_errors(
      absl::LogSeverityAtLeast::kError);
  EXPECT_FALSE(ShouldCreateLogMessage(kInfo));
  EXPECT_FALSE(ShouldCreateLogMessage(kWarning));
  EXPECT_TRUE(ShouldCreateLogMessage(kError));
}

}  // namespace
}  // namespace logging
