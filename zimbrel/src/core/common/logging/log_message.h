// Log records that cost nothing unless somebody wants to read them.
//
//   if (logging::ShouldCreateLogMessage(logging::kWarning)) {
//     logging::LogMessage(__FILE__, __LINE__, logging::kWarning).stream()
//         << "what happened";
//   }
//
// A thin face over Abseil's log: records go to its sinks, and its minimum
// severity decides which are made. Thread: any.

#ifndef ZIMBREL_SRC_CORE_COMMON_LOGGING_LOG_MESSAGE_H_
#define ZIMBREL_SRC_CORE_COMMON_LOGGING_LOG_MESSAGE_H_

#include <sstream>
#include <string>

namespace logging {

// Severities, as Abseil numbers them too.
using Severity = int;
inline constexpr Severity kInfo = 0;
inline constexpr Severity kWarning = 1;
inline constexpr Severity kError = 2;

// Whether a record of this severity would reach anyone. Ask before building
// one.
bool ShouldCreateLogMessage(Severity severity);

// One record, written when the object is destroyed. `file` is stored as given:
// it need not name an existing file.
class LogMessage {
 public:
  LogMessage(const char* file, int line, Severity severity);
  LogMessage(const LogMessage&) = delete;
  LogMessage& operator=(const LogMessage&) = delete;
  ~LogMessage();

  // Takes the text. Valid as long as this object.
  std::ostream& stream() { return text_; }

 private:
  const std::string file_;
  const int line_;
  const Severity severity_;
  std::ostringstream text_;
};

}  // namespace logging

#endif  // ZIMBREL_SRC_CORE_COMMON_LOGGING_LOG_MESSAGE_H_
