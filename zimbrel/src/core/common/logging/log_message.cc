#include "zimbrel/src/core/common/logging/log_message.h"

#include "absl/base/log_severity.h"
#include "absl/log/globals.h"
#include "absl/log/log.h"

namespace logging {

bool ShouldCreateLogMessage(Severity severity) {
  return static_cast<absl::LogSeverityAtLeast>(severity) >= absl::MinLogLevel();
}

LogMessage::LogMessage(const char* file, int line, Severity severity)
    : file_(file), line_(line), severity_(severity) {}

LogMessage::~LogMessage() {
  LOG(LEVEL(static_cast<absl::LogSeverity>(severity_))).AtLocation(file_, line_)
      << text_.str();
}

}  // namespace logging
