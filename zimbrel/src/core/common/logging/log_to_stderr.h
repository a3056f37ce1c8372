// The log of a process that strangers can make write.

#ifndef ZIMBREL_SRC_CORE_COMMON_LOGGING_LOG_TO_STDERR_H_
#define ZIMBREL_SRC_CORE_COMMON_LOGGING_LOG_TO_STDERR_H_

#include <cstddef>

#include "absl/base/log_severity.h"

namespace logging {

struct StderrOptions {
  // What is less severe is not written.
  absl::LogSeverityAtLeast min_severity = absl::LogSeverityAtLeast::kInfo;

  // How many bytes are written at once, and per second from then on, so that
  // the log does not fill a disk.
  double bytes_at_once = 256 << 10;
  double bytes_per_second = 16 << 10;
};

// From now on the process's log, Abseil's, goes to the standard error, and what
// protobuf has to say goes to the log. Unlike Abseil's own way this never waits
// for whoever reads the standard error: a record for which there is no room, or
// which exceeds the options, is dropped, and the next one that is written tells
// how many were. Of a record at most 4096 bytes are written. Fatal records are
// Abseil's and may wait.
//
// Called once, by main(), before there are other threads, in place of
// absl::InitializeLog().
void LogToStderr(StderrOptions options = {});

}  // namespace logging

#endif  // ZIMBREL_SRC_CORE_COMMON_LOGGING_LOG_TO_STDERR_H_
