// What `widgetctl record` writes, and that `widgetctl run` plays it back.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "tools/widgetctl/program_test.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/testing/frames.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"
#include "zimbrel/src/core/common/rpc/testing/raw_peer.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace widgetctl {
namespace {

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;
using orvane::testing::Browser;
using orvane::testing::ChildProcess;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

// A widget whose numbers differ in each life.
class MovingWidget final : public rpc::BrowserWidgetRpc {
 public:
  // Changes the cursor twice.
  void Show(RpcController*, const BrowserId* browser, Empty*,
            Closure* done) override {
    for (const auto type : {rpc::CURSOR_TYPE_POINTER, rpc::CURSOR_TYPE_TEXT}) {
      rpc::CursorChanged event;
      *event.mutable_browser_id() = *browser;
      event.mutable_cursor()->set_type(type);
      orvane::Publish<rpc::CursorChanged>(*browser, event);
    }
    done->Run();
  }
  void Hide(RpcController* controller, const BrowserId*, Empty*,
            Closure* done) override {
    controller->SetFailed("it stays");
    done->Run();
  }
  void Unfocus(RpcController* controller, const BrowserId*, Empty*,
               Closure* done) override {
    controller->SetFailed("one line\nand another");
    done->Run();
  }
  // Sends a picture, and is done when the host has given it back.
  void Minimize(RpcController* controller, const BrowserId* browser, Empty*,
                Closure* done) override {
    rpc::UpdateSurfaceCall call;
    call.mutable_frame()->set_frame_id(next_frame_);
    call.mutable_frame()->set_inline_pixels("pixels");
    orvane::Call<rpc::UpdateSurface>(
        *browser, std::move(call),
        [=, frame = next_frame_++](
            const absl::StatusOr<rpc::UpdateSurfaceResponse>& answer) {
          if (!answer.ok() || answer->receipt().frame_id() != frame)
            controller->SetFailed("the picture was not given back");
          done->Run();
        });
  }
  // Asks the host to take the focus.
  void Focus(RpcController* controller, const rpc::FocusRequest* request,
             Empty*, Closure* done) override {
    orvane::Call<rpc::TakeFocus>(
        request->browser_id(), rpc::TakeFocusCall(),
        [=](const absl::StatusOr<rpc::TakeFocusResponse>& answer) {
          controller->SetFailed(answer.ok() && answer->taken() ? "taken"
                                                               : "left");
          done->Run();
        });
  }
  // Answers at the end.
  void Restore(RpcController*, const BrowserId*, Empty*,
               Closure* done) override {
    waiting_.emplace_back(done);
  }
  ~MovingWidget() override {
    for (Closure* const done : waiting_) done->Run();
  }
  void ForwardKeyType(RpcController*, const rpc::KeyTypeRequest* request,
                      Empty*, Closure* done) override {
    typed += request->text();
    done->Run();
  }
  void GetAccessibilityToken(RpcController*, const BrowserId*,
                             rpc::AccessibilityToken* token,
                             Closure* done) override {
    token->set_token(std::to_string(reinterpret_cast<std::uintptr_t>(this)));
    done->Run();
  }

  std::optional<orvane::SocketServer> server;
  std::string typed;

 private:
  std::vector<Closure*> waiting_;
  std::uint64_t next_frame_ = 1 + reinterpret_cast<std::uintptr_t>(this) % 1000;
};

class WidgetctlRecordTest : public ProgramTest<MovingWidget> {
 protected:
  void Record(std::vector<std::string> options = {}) {
    options.insert(options.begin(), {"record", file_, recorded_});
    record_.emplace(Command(std::move(options)));
    EXPECT_EQ(record_->ReadLine(), "hosts connect to " + recorded_);
  }

  // A new host, which is recorded.
  std::unique_ptr<orvane::SocketClient> Connect() {
    auto client = orvane::SocketClient::Connect(&host_loop_, recorded_);
    EXPECT_TRUE(client.ok()) << client.status();
    return *std::move(client);
  }

  // Waits until the recording knows that this has happened.
  void Await(const std::string& what) {
    std::string line = record_->ReadLine();
    while (!line.empty() && line != what) line = record_->ReadLine();
    EXPECT_EQ(line, what);
  }

  // The lines after the first, once the recording has ended.
  std::vector<std::string> Lines() {
    if (record_.has_value()) {
      record_->Signal(SIGTERM);
      const ChildProcess::Result ended = record_->Wait();
      EXPECT_EQ(ended.exit_code, 0) << ended.errors;
      record_.reset();
    }
    std::stringstream text;
    text << std::ifstream(file_).rdbuf();
    std::vector<std::string> lines =
        absl::StrSplit(text.str(), '\n', absl::SkipEmpty());
    EXPECT_THAT(lines.front(), HasSubstr("Recorded by widgetctl"));
    lines.erase(lines.begin());
    std::erase_if(lines, [](const std::string& line) {
      return line.starts_with("# ") && line.ends_with(" s");
    });
    return lines;
  }

  // To the process that records, which had little.
  void GiveRoomForFiles() {
    const auto connection = orvane::ConnectTo(recorded_);
    ASSERT_TRUE(connection.ok()) << connection.status();
    ucred process = {};
    socklen_t size = sizeof process;
    ASSERT_EQ(::getsockopt(connection->get(), SOL_SOCKET, SO_PEERCRED, &process,
                           &size),
              0);
    const rlimit room = {1 << 20, RLIM_INFINITY};
    ASSERT_EQ(::prlimit(process.pid, RLIMIT_FSIZE, &room, nullptr), 0);
  }

  ChildProcess::Result PlayBack() {
    return Widgetctl({"run", file_, "--timeout", "60"});
  }

  const std::string file_ = Path("a.session");
  const std::string recorded_ = Path("recorded.sock");
  orvane::EventLoop host_loop_;
  std::optional<ChildProcess> record_;
};

TEST_F(WidgetctlRecordTest, CallsAndTheirAnswersAreWritten) {
  Record();
  {
    const auto client = Connect();
    rpc::BrowserWidgetRpcClient widget(client.get());
    EXPECT_TRUE(widget.Show(Browser(1)).ok());
    EXPECT_FALSE(widget.Hide(Browser(1)).ok());
  }
  Await("connection 1 has ended");
  EXPECT_THAT(Lines(), ElementsAre("Show {\"value\":\"1\"} => {}",
                                   "Hide {\"value\":\"1\"} => error: it stays",
                                   "disconnect"));
  EXPECT_EQ(PlayBack().exit_code, 0);
}

TEST_F(WidgetctlRecordTest, TellsThatACallFailedInWordsOfSeveralLines) {
  Record();
  {
    const auto client = Connect();
    rpc::BrowserWidgetRpcClient widget(client.get());
    EXPECT_FALSE(widget.Unfocus(Browser(1)).ok());
  }
  Await("connection 1 has ended");
  EXPECT_THAT(Lines(),
              ElementsAre("# failed with a text that no line can hold: Unfocus "
                          "{\"value\":\"1\"}",
                          "disconnect"));
}

TEST_F(WidgetctlRecordTest, EventsAreExpectedWhereTheyCame) {
  Record();
  const auto client = Connect();
  rpc::BrowserWidgetRpcClient widget(client.get());
  int events = 0;
  const auto cursors = widget.WhenCursorChanged(
      Browser(1), [&](const rpc::CursorChanged&) { ++events; });
  EXPECT_TRUE(widget.Show(Browser(1)).ok());
  ASSERT_TRUE(host_loop_.RunUntil([&] { return events == 2; }));
  EXPECT_THAT(
      Lines(),
      ElementsAre("watch WhenCursorChanged 1", "Show {\"value\":\"1\"} => {}",
                  "event WhenCursorChanged {\"browserId\":{\"value\":\"1\"},"
                  "\"cursor\":{\"type\":\"CURSOR_TYPE_POINTER\"}}",
                  "event WhenCursorChanged {\"browserId\":{\"value\":\"1\"},"
                  "\"cursor\":{\"type\":\"CURSOR_TYPE_TEXT\"}}"));
  const ChildProcess::Result played = PlayBack();
  EXPECT_EQ(played.exit_code, 0) << played.output << played.errors;
}

// A window's parts may each watch the same.
TEST_F(WidgetctlRecordTest, WhatIsWatchedTwiceIsWrittenOnce) {
  Record();
  const auto client = Connect();
  rpc::BrowserWidgetRpcClient widget(client.get());
  int events = 0;
  const auto count = [&](const rpc::CursorChanged&) { ++events; };
  auto first = widget.WhenCursorChanged(Browser(1), count);
  auto second = widget.WhenCursorChanged(Browser(1), count);
  EXPECT_TRUE(widget.Show(Browser(1)).ok());
  ASSERT_TRUE(host_loop_.RunUntil([&] { return events == 4; }));
  first.reset();
  EXPECT_TRUE(widget.Show(Browser(1)).ok());
  ASSERT_TRUE(host_loop_.RunUntil([&] { return events == 6; }));
  second.reset();
  EXPECT_FALSE(widget.Hide(Browser(1)).ok());
  const std::string pointer =
      "event WhenCursorChanged {\"browserId\":{\"value\":\"1\"},"
      "\"cursor\":{\"type\":\"CURSOR_TYPE_POINTER\"}}";
  const std::string text =
      "event WhenCursorChanged {\"browserId\":{\"value\":\"1\"},"
      "\"cursor\":{\"type\":\"CURSOR_TYPE_TEXT\"}}";
  EXPECT_THAT(
      Lines(),
      ElementsAre("watch WhenCursorChanged 1", "Show {\"value\":\"1\"} => {}",
                  pointer, text, "Show {\"value\":\"1\"} => {}", pointer, text,
                  "end WhenCursorChanged 1",
                  "Hide {\"value\":\"1\"} => error: it stays"));
  const ChildProcess::Result played = PlayBack();
  EXPECT_EQ(played.exit_code, 0) << played.output << played.errors;
}

TEST_F(WidgetctlRecordTest, OfAVaryingStreamTheLatestEventCounts) {
  Record({"--varying", "WhenCursorChanged"});
  const auto client = Connect();
  rpc::BrowserWidgetRpcClient widget(client.get());
  int events = 0;
  const auto cursors = widget.WhenCursorChanged(
      Browser(1), [&](const rpc::CursorChanged&) { ++events; });
  EXPECT_TRUE(widget.Show(Browser(1)).ok());
  ASSERT_TRUE(host_loop_.RunUntil([&] { return events == 2; }));
  EXPECT_FALSE(widget.Hide(Browser(1)).ok());
  EXPECT_THAT(
      Lines(),
      ElementsAre("allow WhenCursorChanged", "watch WhenCursorChanged 1",
                  "Show {\"value\":\"1\"} => {}",
                  "event WhenCursorChanged {\"browserId\":{\"value\":\"1\"},"
                  "\"cursor\":{\"type\":\"CURSOR_TYPE_TEXT\"}}",
                  "Hide {\"value\":\"1\"} => error: it stays"));
  const ChildProcess::Result played = PlayBack();
  EXPECT_EQ(played.exit_code, 0) << played.output << played.errors;
}

TEST_F(WidgetctlRecordTest, PicturesAreGivenBackByTheirOwnIds) {
  Record();
  const auto client = Connect();
  rpc::BrowserWidgetRpcClient widget(client.get());
  const auto surfaces = widget.OnUpdateSurface(
      Browser(1), [](const rpc::UpdateSurfaceCall& call,
                     orvane::Responder<rpc::UpdateSurface> responder) {
        rpc::UpdateSurfaceResponse answer;
        answer.mutable_receipt()->set_frame_id(call.frame().frame_id());
        answer.mutable_receipt()->set_outcome(rpc::FRAME_OUTCOME_PRESENTED);
        answer.mutable_receipt()->set_presented_time_ns(12345);
        std::move(responder).Respond(answer).IgnoreError();
      });
  EXPECT_TRUE(widget.Minimize(Browser(1)).ok());
  EXPECT_TRUE(widget.Minimize(Browser(1)).ok());
  EXPECT_THAT(Lines(), ElementsAre("allow OnUpdateSurface",
                                   "serve OnUpdateSurface 1 => {\"receipt\":{"
                                   "\"frameId\":\"${frame.frameId}\","
                                   "\"outcome\":\"FRAME_OUTCOME_PRESENTED\"}}",
                                   "Minimize {\"value\":\"1\"} => {}",
                                   "called OnUpdateSurface "
                                   "{\"browserId\":{\"value\":\"1\"}}",
                                   "Minimize {\"value\":\"1\"} => {}"));
  const ChildProcess::Result played = PlayBack();
  EXPECT_EQ(played.exit_code, 0) << played.output << played.errors;
}

// A call that waits for the host's answer is made before it, and blocks here.
TEST_F(WidgetctlRecordTest, EachAnswerOfTheHostIsWritten) {
  Record();
  const auto client = Connect();
  rpc::BrowserWidgetRpcClient widget(client.get());
  bool takes = true;
  const auto focus = widget.OnTakeFocus(
      Browser(1), [&](const rpc::TakeFocusCall&,
                      orvane::Responder<rpc::TakeFocus> responder) {
        rpc::TakeFocusResponse answer;
        answer.set_taken(std::exchange(takes, false));
        std::move(responder).Respond(answer).IgnoreError();
      });
  rpc::FocusRequest request;
  *request.mutable_browser_id() = Browser(1);
  EXPECT_EQ(widget.Focus(request).status().message(), "taken");
  EXPECT_EQ(widget.Focus(request).status().message(), "left");
  EXPECT_THAT(
      Lines(),
      ElementsAre("serve OnTakeFocus 1",
                  "Focus {\"browserId\":{\"value\":\"1\"}} => error: taken",
                  "called OnTakeFocus {\"browserId\":{\"value\":\"1\"},"
                  "\"call\":{}} => {\"taken\":true}",
                  "Focus {\"browserId\":{\"value\":\"1\"}} => error: left",
                  "called OnTakeFocus {\"browserId\":{\"value\":\"1\"},"
                  "\"call\":{}} => {}"));
  const ChildProcess::Result played = PlayBack();
  EXPECT_EQ(played.exit_code, 0) << played.output << played.errors;
}

TEST_F(WidgetctlRecordTest, TokensAreNotExpected) {
  Record();
  const auto client = Connect();
  rpc::BrowserWidgetRpcClient widget(client.get());
  EXPECT_TRUE(widget.GetAccessibilityToken(Browser(1)).ok());
  EXPECT_THAT(Lines(),
              ElementsAre("GetAccessibilityToken {\"value\":\"1\"} =~ {}"));
}

TEST_F(WidgetctlRecordTest, ACallThatIsNeverAnsweredHoldsNothingBackForEver) {
  Record();
  const auto client = Connect();
  rpc::BrowserWidgetRpcClient widget(client.get());
  widget.Restore(Browser(1), [](const auto&) {});
  for (int i = 0; i < 2000; ++i) EXPECT_TRUE(widget.Show(Browser(1)).ok());
  record_->Signal(SIGKILL);
  record_->Wait();
  record_.reset();
  const std::vector<std::string> lines = Lines();
  EXPECT_THAT(lines.front(), "# without an answer: Restore {\"value\":\"1\"}");
  EXPECT_GT(lines.size(), 900u);
}

TEST_F(WidgetctlRecordTest, HostsHaveConnectionsOfTheirOwn) {
  Record();
  {
    const auto first = Connect();
    const auto second = Connect();
    EXPECT_TRUE(rpc::BrowserWidgetRpcClient(first.get()).Show(Browser(1)).ok());
    EXPECT_TRUE(
        rpc::BrowserWidgetRpcClient(second.get()).Show(Browser(2)).ok());
  }
  Await("connection 2 has ended");
  Await("connection 1 has ended");
  EXPECT_THAT(Lines(), ElementsAre("Show {\"value\":\"1\"} => {}",
                                   "@2 Show {\"value\":\"2\"} => {}",
                                   "@2 disconnect", "disconnect"));
  EXPECT_EQ(PlayBack().exit_code, 0);
}

TEST_F(WidgetctlRecordTest, StreamsEndWhereTheHostEndedThem) {
  Record();
  const auto client = Connect();
  rpc::BrowserWidgetRpcClient widget(client.get());
  {
    const auto cursors =
        widget.WhenCursorChanged(Browser(1), [](const rpc::CursorChanged&) {});
  }
  EXPECT_TRUE(widget.Show(Browser(1)).ok());
  EXPECT_THAT(Lines(), ElementsAre("watch WhenCursorChanged 1",
                                   "end WhenCursorChanged 1",
                                   "Show {\"value\":\"1\"} => {}"));
}

TEST_F(WidgetctlRecordTest, WhatIsTypedIsNotWritten) {
  Record();
  const auto client = Connect();
  rpc::KeyTypeRequest secret;
  *secret.mutable_browser_id() = Browser(1);
  secret.set_text("s3cret");
  EXPECT_TRUE(
      rpc::BrowserWidgetRpcClient(client.get()).ForwardKeyType(secret).ok());
  EXPECT_THAT(Lines(),
              ElementsAre("ForwardKeyType {\"browserId\":{\"value\":\"1\"},"
                          "\"text\":\"xxxxxx\"} => {}"));
}

TEST_F(WidgetctlRecordTest, TellsThatAServiceIsNotKnown) {
  Record();
  const ChildProcess::Result status =
      ChildProcess({WIDGETCTL, "--socket", recorded_, "status"}).Wait();
  EXPECT_EQ(status.exit_code, 0) << status.errors;
  Await(
      "connection 1 is for rpc.transport.StatusRpc, of which nothing is "
      "recorded");
}

TEST_F(WidgetctlRecordTest, OnlyThisUserMayReadTheFile) {
  Record();
  EXPECT_EQ(
      std::filesystem::status(file_).permissions(),
      std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST_F(WidgetctlRecordTest, AFileIsKeptIfNobodyCanConnect) {
  std::ofstream(file_) << "# kept\n";
  const ChildProcess::Result result =
      ChildProcess(
          {WIDGETCTL, "--socket", recorded_, "record", file_, recorded_})
          .Wait();
  EXPECT_EQ(result.exit_code, 2);
  std::stringstream text;
  text << std::ifstream(file_).rdbuf();
  EXPECT_EQ(text.str(), "# kept\n");
}

TEST_F(WidgetctlRecordTest, WhatIsTypedIsWrittenIfItIsAskedFor) {
  Record({"--text"});
  const auto client = Connect();
  rpc::KeyTypeRequest secret;
  *secret.mutable_browser_id() = Browser(1);
  secret.set_text("s3cret");
  EXPECT_TRUE(
      rpc::BrowserWidgetRpcClient(client.get()).ForwardKeyType(secret).ok());
  EXPECT_THAT(Lines(), ElementsAre(HasSubstr("s3cret")));
}

TEST_F(WidgetctlRecordTest, NamesWhatItDoesNotKnow) {
  const ChildProcess::Result result =
      Widgetctl({"record", file_, recorded_, "--varying", "frameIdd"});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_THAT(result.errors,
              HasSubstr("--varying: no field or event stream frameIdd; did "
                        "you mean frameId"));
}

TEST_F(WidgetctlRecordTest, TellsThatTheFileCannotBeWritten) {
  const ChildProcess::Result result =
      Widgetctl({"record", "/no/such/folder/file", recorded_});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_THAT(result.errors, HasSubstr("cannot write /no/such/folder/file"));
}

TEST_F(WidgetctlRecordTest, KeepsTheWholeLinesWhenTheDiskBecomesFull) {
  // The file may have one block.
  std::vector<std::string> command = {
      "/bin/bash", "-c", "trap '' XFSZ; ulimit -S -f 1; exec \"$@\"", "bash"};
  for (std::string& word : Command({"record", file_, recorded_}))
    command.push_back(std::move(word));
  record_.emplace(std::move(command));
  ASSERT_EQ(record_->ReadLine(), "hosts connect to " + recorded_);
  {
    const auto client = Connect();
    rpc::BrowserWidgetRpcClient widget(client.get());
    for (int i = 0; i < 100; ++i) EXPECT_TRUE(widget.Show(Browser(1)).ok());
  }
  Await("connection 1 has ended");
  GiveRoomForFiles();
  record_->Signal(SIGTERM);
  const ChildProcess::Result result = record_->Wait();
  record_.reset();
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_EQ(result.errors,
            absl::StrCat("widgetctl: cannot write ", file_,
                         ": File too large; the recording is not complete\n"));
  EXPECT_GT(Lines().size(), 10u);
  EXPECT_EQ(PlayBack().exit_code, 0);
}

TEST_F(WidgetctlRecordTest, DoesNotWaitForSomebodyToReadAPipe) {
  ASSERT_EQ(::mkfifo(file_.c_str(), 0600), 0);
  EXPECT_EQ(Widgetctl({"record", file_, recorded_}).exit_code, 2);
}

// The pipe's end would have ended the process, and with it all connections.
TEST_F(WidgetctlRecordTest, GoesOnWithoutAReaderOfItsPipe) {
  ASSERT_EQ(::mkfifo(file_.c_str(), 0600), 0);
  {
    const orvane::OwnedDescriptor reader(
        ::open(file_.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    Record();
  }
  {
    const auto client = Connect();
    rpc::BrowserWidgetRpcClient widget(client.get());
    EXPECT_TRUE(widget.Show(Browser(1)).ok());
    EXPECT_TRUE(widget.Show(Browser(1)).ok());
  }
  record_->Signal(SIGTERM);
  const ChildProcess::Result result = record_->Wait();
  record_.reset();
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_THAT(result.errors, HasSubstr("Broken pipe"));
}

TEST_F(WidgetctlRecordTest, TellsWhatItCannotWriteAsACall) {
  Record();
  {
    orvane::testing::RawPeer host(*orvane::ConnectTo(recorded_));
    host.Send(orvane::testing::CallFrame(1, 700));
    auto unreadable = orvane::testing::CallFrame(2, orvane::testing::kShow);
    unreadable.set_payload("\xff");
    host.Send(unreadable);
    host.FinishSending();
    Await("connection 1 has ended");
  }
  EXPECT_THAT(Lines(),
              ElementsAre("# a call of a method that is not known here",
                          "# Show cannot be read", "disconnect"));
}

TEST_F(WidgetctlRecordTest, TellsThatTheDiskIsFull) {
  record_.emplace(Command({"record", "/dev/full", recorded_}));
  const ChildProcess::Result result = record_->Wait();
  record_.reset();
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_THAT(result.errors, HasSubstr("cannot write /dev/full"));
}

}  // namespace
}  // namespace widgetctl
