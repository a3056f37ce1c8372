// Runs the programs that the pages show.

#include <csignal>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/call_by_name.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace {

using ::orvane::testing::CallByName;
using ::orvane::testing::ChildProcess;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

class Examples : public testing::Test {
 protected:
  // One of the programs, which listens when this returns.
  std::unique_ptr<ChildProcess> Start(const std::string& program,
                                      const std::string& name) {
    auto server = std::make_unique<ChildProcess>(
        std::vector<std::string>{program, socket_});
    EXPECT_EQ(server->ReadLine(), name + " listens at " + socket_);
    return server;
  }

  std::unique_ptr<orvane::SocketClient> Connect() {
    auto client = orvane::SocketClient::Connect(&loop_, socket_);
    EXPECT_TRUE(client.ok()) << client.status();
    return *std::move(client);
  }

  // The next line that begins with `start`, or an empty one at the end.
  static std::string ReadUntil(ChildProcess& program,
                               const std::string& start) {
    std::string line = program.ReadLine();
    while (!line.empty() && !line.starts_with(start)) line = program.ReadLine();
    return line;
  }

  const orvane::testing::TemporaryFolder folder_;
  const std::string socket_ = folder_.path() + "/widget.sock";
  orvane::EventLoop loop_;
};

TEST_F(Examples, HostAndServiceWorkTogether) {
  const auto service = Start(SERVICE, "service");
  ChildProcess host({HOST, socket_});
  EXPECT_EQ(host.ReadLine(), "tooltip: Shown");
  EXPECT_EQ(host.ReadLine(), "the page gives the focus away");
  EXPECT_EQ(host.ReadLine(), "Tab: handled");
  service->Signal(SIGTERM);
  EXPECT_EQ(host.ReadLine(), "the widget has gone: in order");
  EXPECT_EQ(host.Wait().exit_code, 0);
  EXPECT_EQ(service->Wait().exit_code, 0);
}

TEST_F(Examples, ServiceAnswersInWordsAndFromAnotherThread) {
  const auto service = Start(SERVICE, "service");
  const auto client = Connect();
  EXPECT_EQ(CallByName(client.get(), "Show", "").message(),
            "browser 0 does not exist");
  EXPECT_EQ(CallByName(client.get(), "GetAccessibilityToken", "value: 7"),
            absl::OkStatus());
  EXPECT_EQ(
      CallByName(client.get(), "ForwardKeyPress", "browser_id { value: 7 }"),
      absl::OkStatus());
}

TEST_F(Examples, StreamsPublishesWhatAnotherThreadFound) {
  const auto streams = Start(STREAMS, "streams");
  ChildProcess host({HOST, socket_});
  // The other thread may be later than the answer to the host's next call.
  const std::string first = host.ReadLine();
  const std::string second = host.ReadLine();
  EXPECT_THAT(
      (std::vector{first, second}),
      UnorderedElementsAre("tooltip: A picture to drag", StartsWith("Tab: ")));
}

TEST_F(Examples, RoundTripTellsItsTimes) {
  const auto service = Start(SERVICE, "service");
  for (const char* const spin : {"0", "50"}) {
    const ChildProcess::Result result =
        ChildProcess({ROUND_TRIP, socket_, spin}).Wait();
    EXPECT_EQ(result.exit_code, 0) << result.errors;
    EXPECT_THAT(result.output, StartsWith("median "));
  }
}

TEST_F(Examples, OwnLoopGoesOnUntilTheWidgetHasGone) {
  auto service = Start(SERVICE, "service");
  ChildProcess host({OWN_LOOP, socket_});
  EXPECT_EQ(host.ReadLine(), "shown");
  service->Signal(SIGTERM);
  const ChildProcess::Result result = host.Wait();
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_THAT(result.output, EndsWith("the widget has gone\n"));
}

TEST_F(Examples, WindowShowsThePageOfEachWidget) {
  ChildProcess window({WINDOW, socket_});
  for (int widgets = 0; widgets < 2; ++widgets) {
    ChildProcess widget({WIDGET_SERVER, "--socket", socket_});
    EXPECT_EQ(ReadUntil(window, "attached"), "attached");
    EXPECT_EQ(ReadUntil(window, "picture"), "picture: 320 x 200 pixels");
    widget.Signal(SIGKILL);
  }
  window.Signal(SIGTERM);
  EXPECT_EQ(window.Wait().exit_code, 0);
}

TEST_F(Examples, WindowTellsTheCursorOverALink) {
  ChildProcess widget({WIDGET_SERVER, "--socket", socket_});
  ChildProcess window({WINDOW, socket_});
  EXPECT_EQ(ReadUntil(window, "cursor"), "cursor: pointer");
}

TEST_F(Examples, OwnWidgetShowsThePageAndEndsItInOrder) {
  ChildProcess host({OWN_WIDGET, WIDGET_SERVER});
  EXPECT_EQ(ReadUntil(host, "the page"), "the page is here");
  host.Signal(SIGTERM);
  const ChildProcess::Result result = host.Wait();
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_THAT(result.output, EndsWith("the widget exited with code 0\n"));
}

TEST_F(Examples, OwnWidgetStartsItAgain) {
  ChildProcess host({OWN_WIDGET, "false"});
  EXPECT_EQ(ReadUntil(host, "the widget exited"),
            "the widget exited with code 1; it is started again in 250ms");
  EXPECT_EQ(ReadUntil(host, "the widget runs"), "the widget runs again");
}

TEST_F(Examples, MetricsAreInTheFileAtTheEnd) {
  const std::string file = folder_.path() + "/metrics";
  ChildProcess metrics({METRICS, socket_, file});
  EXPECT_EQ(metrics.ReadLine(), "metrics listens at " + socket_);
  EXPECT_FALSE(CallByName(Connect().get(), "Show", "").ok());
  metrics.Signal(SIGTERM);
  EXPECT_EQ(metrics.Wait().exit_code, 0);
  std::stringstream text;
  text << std::ifstream(file).rdbuf();
  EXPECT_THAT(text.str(), HasSubstr("method=\"rpc.BrowserWidgetRpc.Show\","
                                    "code=\"UNKNOWN\"} 1"));
}

TEST_F(Examples, OperatingKeepsItsLimitsAndTells) {
  auto operating = Start(OPERATING, "operating");
  // A client that has said nothing would make room for the next one.
  const auto first = Connect();
  EXPECT_EQ(CallByName(first.get(), "Show", "").message(),
            "Method Show() not implemented.");
  const auto second = Connect();
  EXPECT_EQ(CallByName(second.get(), "Show", "").message(),
            "Method Show() not implemented.");
  const auto third = Connect();
  EXPECT_THAT(std::string(CallByName(third.get(), "Show", "").message()),
              HasSubstr("2 clients are connected; the limit is 2"));
  operating->Signal(SIGTERM);
  const ChildProcess::Result ended = operating->Wait();
  EXPECT_EQ(ended.exit_code, 0);
  EXPECT_THAT(ended.errors, HasSubstr("0 hosts, 0 refused, 0 events replaced"));
  EXPECT_THAT(ended.errors,
              HasSubstr("a client was refused: 2 clients are connected"));
}

TEST_F(Examples, DoorOpensOnceSomebodyConfirmsIt) {
  const ChildProcess::Result door = ChildProcess({DOOR}).Wait();
  EXPECT_EQ(door.exit_code, 0) << door.errors;
  EXPECT_EQ(door.output,
            "no client serves building.Confirm for {value: 1}\n"
            "open\n"
            "opened\n");
}

}  // namespace
