// What tests of the program share.

#ifndef TOOLS_WIDGETCTL_PROGRAM_TEST_H_
#define TOOLS_WIDGETCTL_PROGRAM_TEST_H_

#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

namespace widgetctl {

// Starts the program as a child process, to talk to a widget in this one, which
// lives on a thread of its own. Widget has a member `server` to be listened
// with, an optional SocketServer.
template <typename Widget>
class ProgramTest : public testing::Test {
 protected:
  ProgramTest() {
    widget_.server.emplace(&loop_, &widget_);
    const absl::Status listens = widget_.server->Listen(socket_);
    EXPECT_TRUE(listens.ok()) << listens;
    service_thread_ = std::thread([this] { loop_.Run(); });
  }

  ~ProgramTest() override {
    loop_.Stop();
    service_thread_.join();
  }

  std::vector<std::string> Command(std::vector<std::string> arguments) const {
    std::vector<std::string> command = {WIDGETCTL, "--socket", socket_};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
  }

  orvane::testing::ChildProcess::Result Widgetctl(
      std::vector<std::string> arguments) const {
    return orvane::testing::ChildProcess(Command(std::move(arguments))).Wait();
  }

  std::string File(const std::string& name, const std::string& text) const {
    std::string path = Path(name);
    std::ofstream(path) << text;
    return path;
  }

  std::string Path(const std::string& name) const {
    return absl::StrCat(folder_.path(), "/", name);
  }

  // The service thread's, except for Post.
  orvane::EventLoop& loop() { return loop_; }
  Widget& widget() { return widget_; }

 private:
  const orvane::testing::TemporaryFolder folder_;
  const std::string socket_ = Path("widget.sock");
  orvane::EventLoop loop_;
  Widget widget_;
  std::thread service_thread_;
};

MATCHER_P(Succeeds, output, "") {
  *result_listener << "exit code " << arg.exit_code << ", errors "
                   << arg.errors;
  return arg.exit_code == 0 && arg.errors.empty() &&
         ExplainMatchResult(output, arg.output, result_listener);
}

MATCHER_P2(Fails, exit_code, errors, "") {
  *result_listener << "exit code " << arg.exit_code << ", errors "
                   << arg.errors;
  return arg.exit_code == exit_code && arg.output.empty() &&
         ExplainMatchResult(errors, arg.errors, result_listener);
}

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_PROGRAM_TEST_H_
