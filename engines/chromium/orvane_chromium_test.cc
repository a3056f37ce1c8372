// The program's command line, and what it says when there is no engine.

#include <string>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/version.h"

namespace {

using ::orvane::testing::ChildProcess;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

ChildProcess::Result RunProgram(const std::vector<std::string>& arguments) {
  std::vector<std::string> command = {ORVANE_CHROMIUM};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return ChildProcess(std::move(command)).Wait();
}

void ExpectRefused(const std::vector<std::string>& arguments,
                   const std::string& words) {
  const ChildProcess::Result result = RunProgram(arguments);
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_THAT(result.output, IsEmpty());
  EXPECT_THAT(result.errors, HasSubstr(words));
}

TEST(OrvaneChromium, ExplainsItself) {
  const ChildProcess::Result help = RunProgram({"--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_THAT(help.output, StartsWith("Usage: orvane-chromium --page ID=URL"));
  EXPECT_THAT(help.errors, IsEmpty());
  const ChildProcess::Result version = RunProgram({"--version"});
  EXPECT_EQ(version.output,
            "orvane-chromium " + std::string(orvane::kVersion) + "\n");
}

TEST(OrvaneChromium, RefusesAWrongCommandLineInWords) {
  ExpectRefused({}, "no browser to serve");
  ExpectRefused({"--page", "about:blank"}, "--page takes ID=URL");
  ExpectRefused({"--page", "x=about:blank"}, "--page takes ID=URL");
  ExpectRefused({"--page", "1="}, "--page takes ID=URL");
  ExpectRefused({"--page", "1=about:blank", "--page", "1=about:blank"},
                "names browser 1 twice");
  ExpectRefused({"--page", "1=about:blank", "more"},
                "unexpected argument 'more'");
  ExpectRefused({"--schemes", "javascript", "--page", "1=about:blank"},
                "scheme 'javascript' cannot be allowed");
  ExpectRefused({"--files", "/nowhere", "--page", "1=about:blank"},
                "there is no folder '/nowhere'");
  std::vector<std::string> many;
  for (int i = 0; i < 33; ++i) {
    many.push_back("--page");
    many.push_back(std::to_string(i) + "=about:blank");
  }
  ExpectRefused(many, "there are more than 32");
}

TEST(OrvaneChromium, RefusesAddressesThatAreNotAllowed) {
  ExpectRefused({"--page", "1=chrome://crash"}, "scheme 'chrome'");
  ExpectRefused({"--page", "1=file:///etc/passwd"},
                "in no folder whose files are allowed");
  // Whatever the order of the options.
  ExpectRefused({"--page", "1=http://example.com", "--schemes", "https"},
                "scheme 'http'");
}

TEST(OrvaneChromium, DoesNotStartWithoutAnEngine) {
  const ChildProcess::Result result =
      RunProgram({"--page", "1=about:blank", "--engine", "/nowhere/engine"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.output, IsEmpty());
  EXPECT_THAT(result.errors,
              HasSubstr("orvane-chromium: no engine at /nowhere/engine: No "
                        "such file or directory"));
}

TEST(OrvaneChromium, TellsWhyAnEngineDoesNotComeUp) {
  const ChildProcess::Result result =
      RunProgram({"--page", "1=about:blank", "--engine", "/bin/false"});
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.errors, HasSubstr("it ended with exit code 1"));
}

}  // namespace
