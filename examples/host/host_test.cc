// The host program with widget_server, and with widgets that fail.

#include <cstdlib>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"
#include "zimbrel/src/core/common/rpc/version.h"

namespace {

using ::google::protobuf::Closure;
using ::google::protobuf::Empty;
using ::google::protobuf::RpcController;
using ::orvane::testing::ChildProcess;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

// Everything that the host prints with a new widget_server.
constexpr char kTranscript[] =
    R"(attached: 480 x 320 DIPs at scale 1
screen reader: the page is :1.1:/org/a11y/atspi/accessible/root
view: picture 1, 480 x 320 pixels, on average #f8f9fa
cursor: CURSOR_TYPE_GRAB
tooltip: A picture to drag
cursor: CURSOR_TYPE_POINTER
tooltip: Leads to the manual
cursor: CURSOR_TYPE_TEXT
tooltip: none
drag: a drop here would do DRAG_OPERATION_COPY
screen reader: "Hello"
view: picture 2, 480 x 320 pixels, on average #f7f9fa
drag out of the page: a drop here would do DRAG_OPERATION_UNSPECIFIED
view: picture 3, 480 x 320 pixels, on average #f6f8f9
layer 1: picture 4, 1 x 16 pixels, on average #202020
screen reader: "Hello,"
view: picture 5, 480 x 320 pixels, on average #f6f8f9
layer 1: moved to 142, 52
screen reader: "Hello, y"
view: picture 6, 480 x 320 pixels, on average #f6f8f9
layer 1: moved to 156, 52
screen reader: "Hello, you"
view: picture 7, 480 x 320 pixels, on average #f5f8f9
layer 1: moved to 170, 52
screen reader: ""
view: picture 8, 480 x 320 pixels, on average #f6f8fa
layer 1: moved to 100, 52
screen reader: now at :1.1:/org/a11y/atspi/accessible/list
view: picture 9, 480 x 320 pixels, on average #f7f9fa
layer 1: removed
screen reader: now at :1.1:/org/a11y/atspi/accessible/button
view: picture 10, 480 x 320 pixels, on average #f7f9fa
focus: leaves the page, FOCUS_DIRECTION_FORWARD
view: picture 11, 480 x 320 pixels, on average #f8f9fa
drop-down 1: opens
drop-down 1: Red Green Blue; the next one is chosen
drop-down 1: closed
screen reader: "Green"
view: picture 12, 480 x 320 pixels, on average #f7f9fa
dialog of https://example.com: What is your name? Ada
screen reader: "Hello, Ada"
view: picture 13, 480 x 320 pixels, on average #f8f9fa
detached
)";

// Dies in the middle of a call, or later while the host waits for events.
class DyingWidget final : public rpc::BrowserWidgetRpc {
 public:
  DyingWidget(orvane::EventLoop* loop, std::string dies_in)
      : loop_(loop), dies_in_(std::move(dies_in)) {}

  void Attach(RpcController*, const rpc::AttachRequest*,
              rpc::AttachResult* response, Closure* done) override {
    response->set_attached(dies_in_ != "refusal");
    response->set_refusal("no room");
    if (dies_in_ == "Attach") loop_->Stop();
    done_ = done;
    if (dies_in_ != "Attach") done->Run();
  }
  void GetAccessibilityToken(RpcController*, const BrowserId*,
                             rpc::AccessibilityToken*, Closure* done) override {
    done->Run();
  }
  void Show(RpcController*, const BrowserId*, Empty*, Closure* done) override {
    done->Run();
    loop_->Stop();
  }

  // For a call that was left unanswered.
  Closure* done() { return done_; }

 private:
  orvane::EventLoop* const loop_;
  const std::string dies_in_;
  Closure* done_ = nullptr;
};

// A page that has got hold of the widget.
class HostileWidget final : public rpc::BrowserWidgetRpc {
 public:
  void Attach(RpcController*, const rpc::AttachRequest* request,
              rpc::AttachResult* response, Closure* done) override {
    rpc::TooltipChanged event;
    event.set_text("\x1b[2J" + std::string(5000, 'x'));
    orvane::Publish<rpc::TooltipChanged>(request->browser_id(), event);
    orvane::Call<rpc::ShowDropdown>(
        request->browser_id(), rpc::ShowDropdownCall(),
        [this](absl::StatusOr<rpc::ShowDropdownResponse> answer) {
          dropdown = std::move(answer);
        });
    response->set_refusal("no\n\x1b]0;room\x07");
    done->Run();
  }

  absl::StatusOr<rpc::ShowDropdownResponse> dropdown;
};

class HostTest : public ::testing::Test {
 protected:
  static ChildProcess::Result Run(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), HOST);
    return ChildProcess(std::move(arguments)).Wait();
  }

  std::unique_ptr<ChildProcess> Serve() {
    auto server = std::make_unique<ChildProcess>(
        std::vector<std::string>{WIDGET_SERVER, "--socket=" + socket_});
    EXPECT_EQ(server->ReadLine(), "widget_server listens at " + socket_);
    return server;
  }

  // The same with a widget of this process, until the host has left.
  ChildProcess::Result RunWith(orvane::EventLoop& loop,
                               rpc::BrowserWidgetRpc& widget) {
    orvane::SocketServer server(&loop, &widget);
    EXPECT_EQ(server.Listen(socket_), absl::OkStatus());
    ChildProcess host({HOST, "--socket", socket_});
    loop.RunUntil([&] { return server.connections() == 1; });
    loop.RunUntil([&] { return server.connections() == 0; });
    return host.Wait();
  }

  const orvane::testing::TemporaryFolder folder_;
  const std::string socket_ = folder_.path() + "/widget.sock";
};

TEST_F(HostTest, TellsWhatHappensOnThePageInOrder) {
  const auto server = Serve();
  const ChildProcess::Result result = Run({"--socket", socket_});
  EXPECT_EQ(result.output,
            absl::StrCat("connected to ", socket_, "\n", kTranscript));
  EXPECT_THAT(result.errors, IsEmpty());
  EXPECT_EQ(result.exit_code, 0);
}

TEST_F(HostTest, CanBeRunAgainWithTheSameWidget) {
  const auto server = Serve();
  for (int run = 0; run < 3; ++run) {
    const ChildProcess::Result result = Run({"--socket", socket_});
    EXPECT_THAT(result.output, EndsWith("\ndetached\n"));
    EXPECT_EQ(result.exit_code, 0) << result.errors;
  }
}

TEST_F(HostTest, SavesTheLastPicture) {
  const auto server = Serve();
  const std::string path = folder_.path() + "/view.ppm";
  EXPECT_EQ(Run({"--socket", socket_, "--save", path}).exit_code, 0);
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  EXPECT_EQ(file.tellg(), 15 + 480 * 320 * 3);
}

TEST_F(HostTest, AFileThatCannotBeWrittenIsToldInWords) {
  const auto server = Serve();
  const ChildProcess::Result result =
      Run({"--socket", socket_, "--save", "/nowhere/view.ppm"});
  EXPECT_EQ(result.errors, "host: cannot write /nowhere/view.ppm\n");
  EXPECT_EQ(result.exit_code, 1);
}

TEST_F(HostTest, AWidgetThatIsNotThereIsToldInWords) {
  const ChildProcess::Result result = Run({"--socket", socket_});
  EXPECT_THAT(result.errors, StartsWith("host: "));
  EXPECT_THAT(result.errors, HasSubstr(socket_));
  EXPECT_EQ(result.exit_code, 1);
  EXPECT_THAT(result.output, IsEmpty());
}

TEST_F(HostTest, AWidgetThatDiesIsToldInWords) {
  for (const std::string dies_in : {"Attach", "Show"}) {
    orvane::EventLoop loop;
    DyingWidget widget(&loop, dies_in);
    std::optional<orvane::SocketServer> server(std::in_place, &loop, &widget);
    ASSERT_EQ(server->Listen(socket_), absl::OkStatus());
    ChildProcess host({HOST, "--socket", socket_});
    loop.Run();
    server.reset();
    const ChildProcess::Result result = host.Wait();
    EXPECT_EQ(result.errors, "host: the server closed the connection\n")
        << dies_in;
    EXPECT_EQ(result.exit_code, 1);
    if (dies_in == "Attach") widget.done()->Run();
  }
}

TEST_F(HostTest, ARefusalIsToldInTheWidgetsWords) {
  orvane::EventLoop loop;
  DyingWidget widget(&loop, "refusal");
  const ChildProcess::Result result = RunWith(loop, widget);
  EXPECT_EQ(result.errors, "host: no room\n");
  EXPECT_EQ(result.exit_code, 1);
}

TEST_F(HostTest, AHostileWidgetCannotEndItOrCommandTheTerminal) {
  orvane::EventLoop loop;
  HostileWidget widget;
  const ChildProcess::Result result = RunWith(loop, widget);
  EXPECT_THAT(result.output, HasSubstr("\ntooltip: \\033[2Jxxx"));
  EXPECT_THAT(result.output, HasSubstr("xxx...\n"));
  EXPECT_THAT(result.output, HasSubstr("\ndrop-down 0: nothing to choose\n"));
  EXPECT_EQ(result.errors, "host: no\\n\\033]0;room\\007\n");
  EXPECT_EQ(result.exit_code, 1);
  ASSERT_TRUE(widget.dropdown.ok()) << widget.dropdown.status();
  EXPECT_FALSE(widget.dropdown->accepted());
}

TEST_F(HostTest, HelpTellsTheOptions) {
  const ChildProcess::Result result = Run({"--help"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_THAT(result.output, StartsWith("Usage: host "));
  EXPECT_THAT(result.output, HasSubstr("--socket PATH"));
  EXPECT_THAT(result.output, HasSubstr("--save FILE.ppm"));
}

TEST_F(HostTest, TellsItsVersion) {
  const ChildProcess::Result result = Run({"--version"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.output, "host " + std::string(orvane::kVersion) + "\n");
}

TEST_F(HostTest, RefusesWhatIsNoOption) {
  const ChildProcess::Result unknown = Run({"--colour"});
  EXPECT_EQ(unknown.exit_code, 2);
  EXPECT_THAT(unknown.errors, EndsWith("See host --help.\n"));
  const ChildProcess::Result stray = Run({"widget.sock"});
  EXPECT_EQ(stray.exit_code, 2);
  EXPECT_EQ(stray.errors,
            "host: unexpected argument 'widget.sock'\nSee host --help.\n");
}

}  // namespace
