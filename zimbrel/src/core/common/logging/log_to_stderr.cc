#include "zimbrel/src/core/common/logging/log_to_stderr.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>

#include "absl/log/globals.h"
#include "absl/log/initialize.h"
#include "absl/log/log.h"
#include "absl/log/log_entry.h"
#include "absl/log/log_sink.h"
#include "absl/log/log_sink_registry.h"
#include "absl/strings/str_cat.h"
#include "google/protobuf/stubs/common.h"
#if GOOGLE_PROTOBUF_VERSION < 4022000  // Later ones use Abseil's log.
#include "google/protobuf/stubs/logging.h"
#endif

namespace logging {
namespace {

using std::chrono::steady_clock;

// If poll says that a pipe is writable, this many bytes fit.
constexpr std::size_t kMostBytes = 4096;

bool HasRoom() {
  pollfd standard_error = {
      .fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
  // With an error beside it nobody reads any more, and writing would end the
  // process with a signal.
  return ::poll(&standard_error, 1, 0) == 1 &&
         standard_error.revents == POLLOUT;
}

class StderrSink final : public absl::LogSink {
 public:
  explicit StderrSink(StderrOptions options)
      : options_(options), bytes_left_(options.bytes_at_once) {}

  void Send(const absl::LogEntry& entry) override {
    if (entry.log_severity() == absl::LogSeverity::kFatal ||
        static_cast<absl::LogSeverityAtLeast>(entry.log_severity()) <
            options_.min_severity) {
      return;
    }
    const std::lock_guard lock(mutex_);
    std::string text;
    if (dropped_ > 0)
      absl::StrAppend(&text, "(", dropped_, " log records were dropped)\n");
    absl::StrAppend(&text, entry.text_message_with_prefix_and_newline());
    if (text.size() > kMostBytes) {
      text.resize(kMostBytes - 1);
      text.push_back('\n');
    }
    if (!HasBytesLeft(text.size()) || !HasRoom()) {
      ++dropped_;
      return;
    }
    bytes_left_ -= static_cast<double>(text.size());
    dropped_ = 0;
    // Whoever reads it may have left; that is not for the log to tell.
    [[maybe_unused]] const ssize_t written =
        ::write(STDERR_FILENO, text.data(), text.size());
  }

 private:
  bool HasBytesLeft(std::size_t bytes) {
    const auto now = steady_clock::now();
    const std::chrono::duration<double> passed = now - last_look_;
    last_look_ = now;
    bytes_left_ =
        std::min(options_.bytes_at_once,
                 bytes_left_ + passed.count() * options_.bytes_per_second);
    return bytes_left_ >= static_cast<double>(bytes);
  }

  const StderrOptions options_;
  std::mutex mutex_;
  // Under mutex_.
  double bytes_left_;
  steady_clock::time_point last_look_ = steady_clock::now();
  std::uint64_t dropped_ = 0;  // Since the last one that was written.
};

#if GOOGLE_PROTOBUF_VERSION < 4022000
absl::LogSeverity SeverityOf(google::protobuf::LogLevel level) {
  switch (level) {
    case google::protobuf::LOGLEVEL_INFO:
      return absl::LogSeverity::kInfo;
    case google::protobuf::LOGLEVEL_WARNING:
      return absl::LogSeverity::kWarning;
    default:  // After a fatal one protobuf itself ends the process.
      return absl::LogSeverity::kError;
  }
}

void LogForProtobuf(google::protobuf::LogLevel level, const char* file,
                    int line, const std::string& text) {
  LOG(LEVEL(SeverityOf(level))).AtLocation(file, line) << text;
}
#endif

}  // namespace

void LogToStderr(StderrOptions options) {
  absl::SetStderrThreshold(absl::LogSeverityAtLeast::kFatal);
  absl::InitializeLog();
  // Never destroyed: static objects may log at exit.
  absl::AddLogSink(new StderrSink(options));
#if GOOGLE_PROTOBUF_VERSION < 4022000
  google::protobuf::SetLogHandler(&LogForProtobuf);
#endif
}

}  // namespace logging
