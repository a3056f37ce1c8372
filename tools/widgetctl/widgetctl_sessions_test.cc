// The program replays sessions with streams to a widget in this process.

#include <optional>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "tools/widgetctl/program_test.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"

namespace widgetctl {
namespace {

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;
using orvane::testing::ChildProcess;
using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

// A widget whose handlers publish events and make calls.
class LivelyWidget final : public rpc::BrowserWidgetRpc {
 public:
  // Changes the cursor.
  void Show(RpcController*, const BrowserId* browser, Empty*,
            Closure* done) override {
    rpc::CursorChanged event;
    *event.mutable_browser_id() = *browser;
    event.mutable_cursor()->set_type(rpc::CURSOR_TYPE_POINTER);
    orvane::Publish<rpc::CursorChanged>(*browser, event);
    done->Run();
  }

  // Asks the host to take the focus, and waits for that.
  void Focus(RpcController* controller, const rpc::FocusRequest* request,
             Empty*, Closure* done) override {
    rpc::TakeFocusCall call;
    call.set_direction(rpc::FOCUS_DIRECTION_FORWARD);
    orvane::Call<rpc::TakeFocus>(
        request->browser_id(), call,
        [controller,
         done](const absl::StatusOr<rpc::TakeFocusResponse>& answer) {
          if (absl::IsNotFound(answer.status())) {
            controller->SetFailed("nobody serves it");
          } else if (!answer.ok()) {
            controller->SetFailed("the host failed");
          } else if (!answer->taken()) {
            controller->SetFailed("it was not taken");
          }
          done->Run();
        });
  }

  // Ends the connection.
  void Detach(RpcController*, const BrowserId*, Empty*,
              Closure* done) override {
    server.reset();
    done->Run();
  }

  std::optional<orvane::SocketServer> server;
};

class WidgetctlSessionsTest : public ProgramTest<LivelyWidget> {
 protected:
  ChildProcess::Result Run(const std::string& session,
                           const std::string& timeout = "60") {
    return Widgetctl({"run", File("session", session), "--timeout", timeout});
  }
};

MATCHER_P2(Ends, exit_code, output, "") {
  *result_listener << "exit code " << arg.exit_code << ", errors "
                   << arg.errors;
  return arg.exit_code == exit_code &&
         ExplainMatchResult(output, arg.output, result_listener);
}

constexpr char kShow[] = "Show {\"value\": 1} => {}\n";
constexpr char kFocus[] = "Focus {\"browserId\": {\"value\": 1}} => {}\n";
constexpr char kEvent[] =
    "event WhenCursorChanged {\"browserId\": {\"value\": 1}, "
    "\"cursor\": {\"type\": \"CURSOR_TYPE_POINTER\"}}\n";
constexpr char kCalled[] =
    "called OnTakeFocus {\"browserId\": {\"value\": 1}, "
    "\"call\": {\"direction\": \"FOCUS_DIRECTION_FORWARD\"}}\n";

TEST_F(WidgetctlSessionsTest, PrintsATranscriptOfStreams) {
  EXPECT_THAT(
      Run(absl::StrCat("# Streams.\n"
                       "watch WhenCursorChanged 1\n",
                       kShow, kEvent,
                       "end WhenCursorChanged 1\n"
                       "\n"
                       "# Calls.\n"
                       "serve OnTakeFocus 1 => {\"taken\": true}\n",
                       kFocus, kCalled, "end OnTakeFocus 1\n")),
      Succeeds(ContainsRegex(
          "^# Streams.\n"
          "                      watch WhenCursorChanged "
          "\\{\"value\":\"1\"\\}\n"
          "ok +[0-9.]+ ms  Show \\{\"value\":\"1\"\\} => \\{\\}\n"
          "ok +[0-9.]+ ms  event WhenCursorChanged "
          "\\{\"browserId\":\\{\"value\":\"1\"\\},"
          "\"cursor\":\\{\"type\":\"CURSOR_TYPE_POINTER\"\\}\\}\n"
          "                      end WhenCursorChanged \\{\"value\":\"1\"\\}\n"
          "\n"
          "# Calls.\n"
          "                      serve OnTakeFocus \\{\"value\":\"1\"\\} => "
          "\\{\"taken\":true\\}\n"
          "ok +[0-9.]+ ms  Focus [^\n]* => \\{\\}\n"
          "ok +[0-9.]+ ms  called OnTakeFocus "
          "\\{\"browserId\":\\{\"value\":\"1\"\\},"
          "\"call\":\\{\"direction\":\"FOCUS_DIRECTION_FORWARD\"\\}\\}\n"
          "                      end OnTakeFocus \\{\"value\":\"1\"\\}\n"
          "\n"
          "2 calls, 1 event, 1 served call in [0-9.]+ ms: all as "
          "expected\n$")));
}

TEST_F(WidgetctlSessionsTest, FailsTheCallsThatItServesWithAnError) {
  EXPECT_THAT(Run(absl::StrCat("serve OnTakeFocus 1 => error: not now\n"
                               "Focus {\"browserId\": {\"value\": 1}} => "
                               "error: the host failed\n",
                               kCalled)),
              Succeeds(HasSubstr(": all as expected\n")));
}

TEST_F(WidgetctlSessionsTest, AnswersEveryCall) {
  EXPECT_THAT(
      Run(absl::StrCat("serve OnTakeFocus 1 => {\"taken\": true}\n", kFocus,
                       kFocus, kCalled, kCalled)),
      Succeeds(ContainsRegex("\n2 calls, 2 served calls in .*: all as ex")));
}

TEST_F(WidgetctlSessionsTest, ServesNoLongerThanToTheEnd) {
  EXPECT_THAT(Run(absl::StrCat("serve OnTakeFocus 1 => {}\n"
                               "end OnTakeFocus 1\n"
                               "Focus {\"browserId\": {\"value\": 1}} => "
                               "error: nobody serves it\n")),
              Succeeds(HasSubstr(": all as expected\n")));
}

TEST_F(WidgetctlSessionsTest, WatchesNoLongerThanToTheEnd) {
  EXPECT_THAT(Run(absl::StrCat("watch WhenCursorChanged 1\n"
                               "end WhenCursorChanged 1\n",
                               kShow)),
              Succeeds(ContainsRegex("\n1 call in .*: all as expected\n$")));
}

TEST_F(WidgetctlSessionsTest, KeepsTheEventsOfSeveralBrowsersInOrder) {
  EXPECT_THAT(
      Run("watch WhenCursorChanged 2\n"
          "watch WhenCursorChanged 1\n"
          "Show {\"value\": 1} => {}\n"
          "Show {\"value\": 2} => {}\n"
          "event WhenCursorChanged {\"browserId\": {\"value\": 1}, "
          "\"cursor\": {\"type\": \"CURSOR_TYPE_POINTER\"}}\n"
          "event WhenCursorChanged {\"browserId\": {\"value\": 2}, "
          "\"cursor\": {\"type\": \"CURSOR_TYPE_POINTER\"}}\n"),
      Succeeds(ContainsRegex("\n2 calls, 2 events in .*: all as expected\n$")));
}

TEST_F(WidgetctlSessionsTest, TellsWhichEventDiffersAndGoesOn) {
  EXPECT_THAT(
      Run(absl::StrCat("watch WhenCursorChanged 1\n", kShow,
                       "event WhenCursorChanged {\"cursor\": {\"type\": "
                       "\"CURSOR_TYPE_WAIT\"}}\n",
                       kShow, kEvent)),
      Ends(1, AllOf(ContainsRegex(
                        "\nDIFFERS +[0-9.]+ ms  event WhenCursorChanged\n"
                        "  line 3, expected: [^\n]*WAIT[^\n]*\n"
                        "  line 3, actual:   \\{\"browserId\":[^\n]*POINTER"),
                    ContainsRegex(
                        "\n2 calls, 2 events in .*: 1 not as expected\n$"))));
}

TEST_F(WidgetctlSessionsTest, AnEventMayHaveMoreThanIsExpected) {
  EXPECT_THAT(Run(absl::StrCat("watch WhenCursorChanged 1\n", kShow,
                               "event WhenCursorChanged {}\n")),
              Succeeds(HasSubstr("1 call, 1 event")));
}

TEST_F(WidgetctlSessionsTest, TellsWhichCallDiffers) {
  EXPECT_THAT(
      Run(absl::StrCat("serve OnTakeFocus 1 => {\"taken\": true}\n", kFocus,
                       "called OnTakeFocus {\"call\": {\"direction\": "
                       "\"FOCUS_DIRECTION_BACKWARD\"}}\n")),
      Ends(1, AllOf(ContainsRegex(
                        "\nDIFFERS +[0-9.]+ ms  called OnTakeFocus\n"
                        "  line 3, expected: [^\n]*BACKWARD[^\n]*\n"
                        "  line 3, actual:   \\{\"browserId\":[^\n]*FORWARD"),
                    HasSubstr(": 1 not as expected\n"))));
}

TEST_F(WidgetctlSessionsTest, WaitsForAnEventAsLongAsTheTimeout) {
  EXPECT_THAT(
      Run(absl::StrCat("watch WhenCursorChanged 1\n", kEvent, kShow), "0.5"),
      Ends(1, AllOf(HasSubstr("line 2, actual:   nothing within 500ms\n"),
                    HasSubstr("\nUNEXPECTED            event "
                              "WhenCursorChanged {\"browserId\":"),
                    ContainsRegex("\n1 call, 1 event in .*: 1 not as "
                                  "expected, 1 unexpected\n$"))));
}

TEST_F(WidgetctlSessionsTest, DoesNotWaitForWhatCanNoLongerArrive) {
  EXPECT_THAT(
      Run(absl::StrCat("watch WhenCursorChanged 1\n"
                       "end WhenCursorChanged 1\n",
                       kEvent)),
      Ends(1, HasSubstr("line 3, actual:   nothing, and no stream is open")));
}

TEST_F(WidgetctlSessionsTest, AnEventThatNobodyExpectedIsAnError) {
  EXPECT_THAT(
      Run(absl::StrCat("watch WhenCursorChanged 1\n", kShow, kShow, kEvent,
                       "end WhenCursorChanged 1\n")),
      Ends(1,
           AllOf(Not(HasSubstr("DIFFERS")),
                 HasSubstr("\nUNEXPECTED            event WhenCursorChanged "
                           "{\"browserId\":{\"value\":\"1\"}"),
                 ContainsRegex("\n2 calls, 1 event in .*: 1 unexpected\n$"))));
}

TEST_F(WidgetctlSessionsTest, ACallThatNobodyExpectedIsAnError) {
  EXPECT_THAT(
      Run(absl::StrCat("serve OnTakeFocus 1 => {\"taken\": true}\n", kFocus)),
      Ends(1, AllOf(HasSubstr("\nUNEXPECTED            called OnTakeFocus "
                              "{\"browserId\":{\"value\":\"1\"}"),
                    ContainsRegex("\n1 call in .*: 1 unexpected\n$"))));
}

TEST_F(WidgetctlSessionsTest, AStreamThatTheWidgetEndsIsAnError) {
  EXPECT_THAT(
      Run("watch WhenCursorChanged 1\n"
          "Detach {} => error: the server closed the connection\n"),
      Ends(3, AllOf(Not(HasSubstr("DIFFERS")),
                    HasSubstr("UNEXPECTED            end of WhenCursorChanged "
                              "{\"value\":\"1\"}\n"),
                    HasSubstr(": 1 unexpected\n"))));
}

TEST_F(WidgetctlSessionsTest, StopsWhenTheConnectionIsLostBeforeAnEvent) {
  const ChildProcess::Result result =
      Run(absl::StrCat("watch WhenCursorChanged 1\n"
                       "Detach {} => error: the server closed the connection\n",
                       kEvent, kShow));
  EXPECT_THAT(result,
              Ends(3, AllOf(HasSubstr("line 3, actual:   nothing, and no "
                                      "stream is open\n"),
                            HasSubstr("\nthe connection is gone; no further "
                                      "calls are made\n"),
                            Not(HasSubstr("Show")))));
  EXPECT_EQ(result.errors, "widgetctl: the server closed the connection\n");
}

}  // namespace
}  // namespace widgetctl
