// The sessions among the examples, played to the widget server among them.

#include <csignal>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <variant>
#include <vector>

#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "examples/testing/child_process.h"
#include "examples/testing/temporary_folder.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "tools/widgetctl/methods.h"
#include "tools/widgetctl/session_file.h"

namespace widgetctl {
namespace {

using example_testing::ChildProcess;
using ::testing::ElementsAreArray;
using ::testing::Ge;
using ::testing::SizeIs;

const std::string kUnarySession = absl::StrCat(SESSIONS, "/unary.session");

std::vector<RecordedCall> CallsOf(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  const absl::StatusOr<std::vector<SessionLine>> lines =
      ParseSession(text.str());
  EXPECT_TRUE(lines.ok()) << lines.status();
  std::vector<RecordedCall> calls;
  if (!lines.ok()) return calls;
  for (const SessionLine& line : *lines) {
    if (const auto* const call = std::get_if<RecordedCall>(&line.content))
      calls.push_back(*call);
  }
  return calls;
}

TEST(UnarySession, CallsEveryUnaryMethodWithSuccess) {
  std::set<std::string> unary;
  const auto& service = *rpc::BrowserWidgetRpc::descriptor();
  for (int i = 0; i < service.method_count(); ++i) {
    if (IsUnary(*service.method(i))) unary.emplace(service.method(i)->name());
  }
  ASSERT_THAT(unary, SizeIs(40));

  const std::vector<RecordedCall> calls = CallsOf(kUnarySession);
  std::set<std::string> succeeding;
  for (const RecordedCall& call : calls) {
    if (call.outcome == RecordedCall::Outcome::kResponse)
      succeeding.insert(call.method);
  }
  EXPECT_THAT(calls, SizeIs(Ge(40)));
  EXPECT_THAT(succeeding, ElementsAreArray(unary));
}

TEST(UnarySession, IsWhatTheWidgetServerAnswers) {
  const example_testing::TemporaryFolder folder;
  const std::string socket = absl::StrCat(folder.path(), "/widget.sock");
  ChildProcess server({WIDGET_SERVER, "--socket", socket});
  ASSERT_EQ(server.ReadLine(),
            absl::StrCat("widget_server listens at ", socket));

  const ChildProcess::Result session =
      ChildProcess({WIDGETCTL, "--socket", socket, "run", kUnarySession})
          .Wait();
  EXPECT_EQ(session.exit_code, 0) << session.output << session.errors;

  server.Signal(SIGTERM);
  EXPECT_EQ(server.Wait().exit_code, 0);
}

}  // namespace
}  // namespace widgetctl
