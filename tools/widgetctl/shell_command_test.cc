#include "tools/widgetctl/shell_command.h"

#include <sys/stat.h>

#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"

namespace widgetctl {
namespace {

class ShellCommandTest : public testing::Test {
 protected:
  ShellCommandTest() { EXPECT_EQ(::mkfifo(fifo_.c_str(), 0600), 0); }

  void Start(const std::string& command, const std::string& input = "") {
    auto started = ShellCommand::Start(
        &loop_, command, input, [this](absl::StatusOr<std::string> printed) {
          printed_ = std::move(printed);
          command_.reset();
        });
    ASSERT_TRUE(started.ok()) << started.status();
    command_ = *std::move(started);
  }

  absl::StatusOr<std::string> Result() {
    loop_.RunUntil([this] { return printed_.has_value(); });
    return *std::exchange(printed_, std::nullopt);
  }

  absl::StatusOr<std::string> ResultOf(const std::string& command,
                                       const std::string& input = "") {
    Start(command, input);
    return Result();
  }

  const std::string& Fifo() const { return fifo_; }

  orvane::EventLoop loop_;
  std::unique_ptr<ShellCommand> command_;
  std::optional<absl::StatusOr<std::string>> printed_;

 private:
  const orvane::testing::TemporaryFolder folder_;
  const std::string fifo_ = folder_.path() + "/fifo";
};

TEST_F(ShellCommandTest, GivesWhatItPrints) {
  EXPECT_EQ(*ResultOf("echo one; echo two"), "one\ntwo\n");
}

TEST_F(ShellCommandTest, ReadsItsInput) {
  EXPECT_EQ(*ResultOf("tr a-z A-Z", "loud"), "LOUD");
}

TEST_F(ShellCommandTest, NeedNotReadItsInput) {
  EXPECT_EQ(*ResultOf("echo none", std::string(1 << 20, 'x')), "none\n");
}

TEST_F(ShellCommandTest, MayReadAndPrintMoreThanAPipeHolds) {
  const std::string much(1 << 20, 'x');
  EXPECT_EQ(*ResultOf("cat", much), much);
}

TEST_F(ShellCommandTest, FailsWithItsExitCode) {
  EXPECT_EQ(ResultOf("echo '{}'; exit 3").status(),
            absl::UnknownError("the command exited with 3"));
}

TEST_F(ShellCommandTest, FailsWithTheSignalThatEndedIt) {
  EXPECT_EQ(ResultOf("kill -9 $$").status(),
            absl::UnknownError("the command was ended by signal 9"));
}

TEST_F(ShellCommandTest, HasNotEndedWhenItHasOnlyClosedItsOutput) {
  EXPECT_EQ(ResultOf("exec >&-; kill -9 $$").status(),
            absl::UnknownError("the command was ended by signal 9"));
}

TEST_F(ShellCommandTest, LeavesTheLoopFreeMeanwhile) {
  Start("cat " + Fifo());
  const std::unique_ptr<ShellCommand> waiting = std::move(command_);
  // Ends the wait of the first command, which takes a loop that is free.
  const auto other =
      ShellCommand::Start(&loop_, "echo go >" + Fifo(), "",
                          [](const absl::StatusOr<std::string>&) {});
  ASSERT_TRUE(other.ok()) << other.status();
  EXPECT_EQ(*Result(), "go\n");
}

TEST_F(ShellCommandTest, IsTerminatedWithItsOwner) {
  Start("exec >" + Fifo() + "; echo started; exec sleep 1000");
  std::ifstream output(Fifo());
  std::string line;
  ASSERT_TRUE(std::getline(output, line));
  command_.reset();
  EXPECT_FALSE(std::getline(output, line));  // Its end closes the fifo.
  loop_.RunUntilIdle();
  EXPECT_FALSE(printed_.has_value());
}

TEST_F(ShellCommandTest, IsTerminatedWithAllThatItHasStarted) {
  Start("exec >" + Fifo() + "; sleep 1000 & echo started; sleep 1000; true");
  std::ifstream output(Fifo());
  std::string line;
  ASSERT_TRUE(std::getline(output, line));
  command_.reset();
  EXPECT_FALSE(std::getline(output, line));  // Their end closes the fifo.
}

}  // namespace
}  // namespace widgetctl
