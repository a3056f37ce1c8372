// Plays the recorded sessions in examples/ to the widget server in examples/.

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

#include "rpc/browser/browser_widget.rpc.h"
#include "tools/widgetctl/methods.h"
#include "tools/widgetctl/session_file.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"

namespace widgetctl {
namespace {

using orvane::testing::ChildProcess;
using ::testing::ElementsAreArray;
using ::testing::SizeIs;

const std::string kWidgetSession = absl::StrCat(SESSIONS, "/widget.session");

// The methods that succeed in a session: a call that gets a response, a watch
// with an event, and a serve with a call.
std::set<std::string> UsedBy(const std::string& path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  const absl::StatusOr<std::vector<SessionLine>> lines =
      ParseSession(text.str());
  EXPECT_TRUE(lines.ok()) << lines.status();
  std::set<std::string> used;
  if (!lines.ok()) return used;
  for (const SessionLine& line : *lines) {
    const auto* const call = std::get_if<RecordedCall>(&line.content);
    const auto* const step = std::get_if<RecordedStep>(&line.content);
    if (call != nullptr && call->answer.kind != RecordedAnswer::Kind::kError)
      used.insert(call->method);
    if (step != nullptr && (step->verb == RecordedStep::Verb::kEvent ||
                            step->verb == RecordedStep::Verb::kCalled)) {
      used.insert(step->method);
    }
  }
  return used;
}

TEST(WidgetSession, UsesEveryMethodWithSuccess) {
  std::set<std::string> all;
  const auto& service = *rpc::BrowserWidgetRpc::descriptor();
  for (int i = 0; i < service.method_count(); ++i)
    all.emplace(service.method(i)->name());
  ASSERT_THAT(all, SizeIs(52));
  EXPECT_THAT(UsedBy(kWidgetSession), ElementsAreArray(all));
}

TEST(WidgetSession, IsWhatTheWidgetServerAnswers) {
  const orvane::testing::TemporaryFolder folder;
  const std::string socket = absl::StrCat(folder.path(), "/widget.sock");
  ChildProcess server({WIDGET_SERVER, "--socket", socket});
  ASSERT_EQ(server.ReadLine(),
            absl::StrCat("widget_server listens at ", socket));

  const ChildProcess::Result session =
      ChildProcess({WIDGETCTL, "--socket", socket, "run", kWidgetSession})
          .Wait();
  EXPECT_EQ(session.exit_code, 0) << session.output << session.errors;

  server.Signal(SIGTERM);
  EXPECT_EQ(server.Wait().exit_code, 0);
}

}  // namespace
}  // namespace widgetctl
