#include "zimbrel/src/core/common/logging/log_to_stderr.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <functional>
#include <string>
#include <utility>

#include "absl/base/log_severity.h"
#include "absl/log/log.h"
#include "gmock/gmock.h"
#include "google/protobuf/wrappers.pb.h"
#include "gtest/gtest.h"

namespace logging {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::SizeIs;

// What processes write whose standard error is a pipe. Each has a log of its
// own, since there is one in a process.
class LogToStderrTest : public ::testing::Test {
 protected:
  LogToStderrTest() {
    EXPECT_EQ(::pipe2(pipe_, O_CLOEXEC), 0);
    EXPECT_EQ(::fcntl(pipe_[0], F_SETFL, O_NONBLOCK), 0);
  }
  ~LogToStderrTest() override {
    ::close(pipe_[0]);
    ::close(pipe_[1]);
  }

  // Runs `body` in a process that logs; true if it came to its end.
  bool RunLogging(const StderrOptions& options,
                  const std::function<void()>& body) {
    const pid_t child = ::fork();
    if (child == 0) {
      ::alarm(30);  // Ends a process that waits for its reader.
      ::dup2(pipe_[1], STDERR_FILENO);
      ::close(pipe_[1]);
      LogToStderr(options);
      body();
      ::_exit(0);
    }
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
  }

  // All that has been written and not read yet.
  std::string Read() const {
    std::string all;
    char bytes[4096];
    ssize_t got = 0;
    while ((got = ::read(pipe_[0], bytes, sizeof bytes)) > 0)
      all.append(bytes, static_cast<std::size_t>(got));
    return all;
  }

  int pipe_[2];
};

TEST_F(LogToStderrTest, WritesEachRecordOnce) {
  EXPECT_TRUE(RunLogging({}, [] { LOG(WARNING) << "ten is " << 10; }));
  EXPECT_THAT(Read(), ::testing::MatchesRegex("W.*\\] ten is 10\n"));
}

TEST_F(LogToStderrTest, LeavesOutWhatIsNotSevereEnough) {
  EXPECT_TRUE(
      RunLogging({.min_severity = absl::LogSeverityAtLeast::kError}, [] {
        LOG(WARNING) << "not written";
        LOG(ERROR) << "written";
      }));
  EXPECT_THAT(Read(), AllOf(HasSubstr("] written\n"), Not(HasSubstr("not "))));
}

// The process waited for ever.
TEST_F(LogToStderrTest, DropsRecordsForWhichThereIsNoRoomAndSaysSo) {
  // A pipe of one page, the least that there is.
  ASSERT_EQ(::fcntl(pipe_[1], F_SETPIPE_SZ, 4096), 4096);
  EXPECT_TRUE(RunLogging({}, [this] {
    for (int i = 0; i < 100; ++i) LOG(WARNING) << std::string(1000, 'x');
    Read();
    LOG(WARNING) << "there is room again";
  }));
  EXPECT_THAT(Read(), AllOf(HasSubstr(" log records were dropped)\nW"),
                            HasSubstr("there is room again\n")));
}

TEST_F(LogToStderrTest, GoesOnWhenItsReaderHasLeft) {
  ::close(std::exchange(pipe_[0], -1));
  EXPECT_TRUE(RunLogging({}, [] { LOG(WARNING) << "anybody?"; }));
}

TEST_F(LogToStderrTest, DropsWhatExceedsTheRate) {
  EXPECT_TRUE(RunLogging({.bytes_at_once = 1000, .bytes_per_second = 1}, [] {
    for (int i = 0; i < 100; ++i) LOG(WARNING) << std::string(100, 'x');
  }));
  EXPECT_THAT(Read(), SizeIs(::testing::AllOf(::testing::Gt(500u),
                                              ::testing::Le(1001u))));
}

TEST_F(LogToStderrTest, CutsALongRecord) {
  EXPECT_TRUE(RunLogging({}, [] { LOG(WARNING) << std::string(9000, 'x'); }));
  const std::string written = Read();
  EXPECT_THAT(written, SizeIs(4096));
  EXPECT_EQ(written.back(), '\n');
}

// What strangers can make protobuf write is limited, too.
TEST_F(LogToStderrTest, HasWhatProtobufSays) {
  EXPECT_TRUE(RunLogging({.bytes_at_once = 1000, .bytes_per_second = 1}, [] {
    google::protobuf::StringValue text;
    for (int i = 0; i < 100; ++i)
      static_cast<void>(text.ParseFromString("\x0a\x01\xff"));
  }));
  EXPECT_THAT(Read(), AllOf(HasSubstr("UTF-8"), SizeIs(::testing::Le(1001u))));
}

TEST_F(LogToStderrTest, LeavesFatalRecordsToAbseil) {
  EXPECT_FALSE(RunLogging({}, [] { LOG(FATAL) << "the end"; }));
  const std::string written = Read();
  EXPECT_THAT(written, HasSubstr("] the end\n"));
  EXPECT_EQ(written.find("] the end"), written.rfind("] the end"));
}

}  // namespace
}  // namespace logging
