#include "engines/chromium/engine_process.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"

namespace chromium {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

// Engines that are shell scripts.
class EngineProcessTest : public ::testing::Test {
 protected:
  // The unprivileged user must be able to read the script.
  EngineProcessTest() { ::chmod(folder_.path().c_str(), 0755); }

  std::unique_ptr<EngineProcess> Start(const std::string& script) {
    const std::string path = folder_.path() + "/engine";
    std::ofstream(path) << "#!/bin/sh\n" << script << "\n";
    ::chmod(path.c_str(), 0755);
    auto process = EngineProcess::Start(&loop_, {.path = path});
    EXPECT_TRUE(process.ok()) << process.status();
    return *std::move(process);
  }

  // Everything that the engine and its children write until all have closed
  // the pipe.
  static std::string ReadAll(const orvane::OwnedDescriptor& pipe) {
    std::string all;
    std::array<char, 1024> bytes;
    ssize_t count = 0;
    while ((count = TEMP_FAILURE_RETRY(
                ::read(pipe.get(), bytes.data(), bytes.size()))) > 0) {
      all.append(bytes.data(), static_cast<std::size_t>(count));
    }
    return all;
  }

  // What a script writes into the pipe before it ends.
  std::string WhatItSays(const std::string& script) {
    const auto process = Start(script);
    return ReadAll(process->TakePipe());
  }

  orvane::EventLoop loop_;
  const orvane::testing::TemporaryFolder folder_;
};

TEST_F(EngineProcessTest, ReadsFromDescriptor3AndWritesTo4) {
  const auto process = Start("head -c 5 <&3 >&4");
  const orvane::OwnedDescriptor pipe = process->TakePipe();
  ASSERT_EQ(::send(pipe.get(), "hello", 5, 0), 5);
  EXPECT_EQ(ReadAll(pipe), "hello");
}

TEST_F(EngineProcessTest, InheritsNoOtherDescriptor) {
  const int other = ::fcntl(STDOUT_FILENO, F_DUPFD, 77);  // Not close-on-exec.
  ASSERT_EQ(other, 77);
  const std::string open = WhatItSays(
      "for n in 0 1 2 3 4 5 6 7 8 9 77; do"
      "  [ ! -e /proc/$$/fd/$n ] || echo $n; done >&4");
  ::close(other);
  EXPECT_EQ(open, "0\n1\n2\n3\n4\n");  // The shell's own are from 10 on.
}

TEST_F(EngineProcessTest, NeverRunsAsRoot) {
  const uid_t user = ::geteuid() == 0 ? kUnprivilegedUser : ::geteuid();
  EXPECT_EQ(WhatItSays("{ id -u; id -ru; } >&4"),
            absl::StrCat(user, "\n", user, "\n"));
  if (::geteuid() == 0) {
    EXPECT_EQ(WhatItSays("id -G >&4"), absl::StrCat(user, "\n"));
  }
}

TEST_F(EngineProcessTest, GetsItsOptionsAndLittleOfTheEnvironment) {
  ::setenv("ORVANE_TEST_SECRET", "secret", 1);
  ::setenv("TZ", "UTC", 1);
  EXPECT_THAT(WhatItSays("{ env; echo \"$*\"; } >&4"),
              AllOf(HasSubstr("TZ=UTC"), HasSubstr("--remote-debugging-pipe"),
                    HasSubstr("--site-per-process"), Not(HasSubstr("secret")),
                    Not(HasSubstr("no-sandbox")), Not(HasSubstr("port")),
                    Not(HasSubstr("user-data-dir"))));
}

TEST_F(EngineProcessTest, AProfileIsPassedOn) {
  const std::string path = folder_.path() + "/engine";
  std::ofstream(path) << "#!/bin/sh\necho \"$*\" >&4\n";
  ::chmod(path.c_str(), 0755);
  const auto process =
      EngineProcess::Start(&loop_, {.path = path, .profile = "/some/folder"});
  ASSERT_TRUE(process.ok());
  EXPECT_THAT(ReadAll((*process)->TakePipe()),
              HasSubstr("--user-data-dir=/some/folder"));
}

// The engine would say nothing and keep nothing.
TEST_F(EngineProcessTest, AProfileThatCannotBeWrittenIsAnError) {
  const std::string profile = folder_.path() + "/profile";
  ASSERT_EQ(::mkdir(profile.c_str(), 0555), 0);
  const auto process =
      EngineProcess::Start(&loop_, {.path = "/bin/true", .profile = profile});
  EXPECT_EQ(process.status().code(), absl::StatusCode::kPermissionDenied);
  EXPECT_THAT(std::string(process.status().message()),
              HasSubstr("the engine cannot keep its profile at " + profile +
                        ": Permission denied"));
}

TEST_F(EngineProcessTest, AMissingProgramIsAnErrorWithItsPath) {
  const auto process =
      EngineProcess::Start(&loop_, {.path = "/nowhere/engine"});
  EXPECT_EQ(process.status(),
            absl::NotFoundError(
                "no engine at /nowhere/engine: No such file or directory"));
}

TEST_F(EngineProcessTest, TellsHowItEndedAndItsLastWords) {
  const auto process =
      Start("echo first >&2; echo no sandbox here >&2; exit 7");
  ReadAll(process->TakePipe());
  EXPECT_EQ(process->End(),
            "ended with exit code 7, having written: no sandbox here");
}

TEST_F(EngineProcessTest, OneThatOnlyClosesItsPipeIsKilled) {
  const auto process = Start("exec 3<&- 4<&-; exec sleep 1000");
  ReadAll(process->TakePipe());
  EXPECT_EQ(process->End(), "was killed by signal 9");
}

TEST_F(EngineProcessTest, OutputWithoutEndDoesNotStopIt) {
  const auto process = Start("head -c 1000000 /dev/zero; echo done >&4");
  const orvane::OwnedDescriptor pipe = process->TakePipe();
  std::array<char, 16> bytes;
  while (::recv(pipe.get(), bytes.data(), bytes.size(), MSG_DONTWAIT) != 5)
    loop_.RunUntilIdle();
}

TEST_F(EngineProcessTest, ItsChildrenDieWithIt) {
  auto process = Start("sleep 1000 & echo started >&4; wait");
  const orvane::OwnedDescriptor pipe = process->TakePipe();
  std::array<char, 8> bytes;
  ASSERT_EQ(::recv(pipe.get(), bytes.data(), bytes.size(), 0), 8);
  process.reset();
  EXPECT_EQ(ReadAll(pipe), "");  // Ends when the last of them has.
}

}  // namespace
}  // namespace chromium
