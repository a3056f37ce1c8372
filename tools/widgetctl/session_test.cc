#include "tools/widgetctl/session.h"

#include <string>
#include <variant>
#include <vector>

#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/browser/page.rpc.h"

namespace widgetctl {
namespace {

using ::testing::SizeIs;
using ::testing::StartsWith;

absl::StatusOr<std::vector<SessionStep>> Load(absl::string_view text) {
  return LoadSession({rpc::BrowserWidgetRpc::descriptor()}, text);
}

std::string Complaint(absl::string_view text) {
  const auto steps = Load(text);
  return steps.ok() ? "none" : std::string(steps.status().message());
}

TEST(Session, HasAStepForEachLine) {
  const auto steps = Load(
      "# Remark\n"
      "Show {\"value\": 1} => {}\n"
      "\n"
      "watch WhenCursorChanged 1\n"
      "serve OnTakeFocus 1 => {\"taken\": true}\n"
      "event WhenCursorChanged {}\n"
      "called OnTakeFocus {\"call\": {}}\n"
      "end WhenCursorChanged 1\n");
  ASSERT_TRUE(steps.ok()) << steps.status();
  ASSERT_THAT(*steps, SizeIs(7));
  EXPECT_TRUE(std::holds_alternative<Remark>((*steps)[0].action));
  EXPECT_TRUE(std::holds_alternative<CallStep>((*steps)[1].action));
  EXPECT_TRUE(std::holds_alternative<WatchStep>((*steps)[2].action));
  EXPECT_TRUE(std::holds_alternative<ServeStep>((*steps)[3].action));
  EXPECT_TRUE(std::holds_alternative<ArrivalStep>((*steps)[4].action));
  EXPECT_TRUE(std::holds_alternative<ArrivalStep>((*steps)[5].action));
  EXPECT_TRUE(std::holds_alternative<EndStep>((*steps)[6].action));
  EXPECT_EQ((*steps)[6].line, 8);
}

TEST(Session, KnowsAKeyByItsContent) {
  EXPECT_EQ(Complaint("watch WhenCursorChanged 1\n"
                      "end WhenCursorChanged {\"value\": \"1\"}\n"),
            "none");
}

TEST(Session, MayOpenAgainWhatHasEnded) {
  EXPECT_EQ(Complaint("watch WhenCursorChanged 1\n"
                      "end WhenCursorChanged 1\n"
                      "watch WhenCursorChanged 1\n"),
            "none");
}

TEST(Session, MayServeSeveralBrowsers) {
  EXPECT_EQ(Complaint("serve OnTakeFocus 1 => {}\n"
                      "serve OnTakeFocus 2 => error: no\n"),
            "none");
}

TEST(Session, ServesWithTheErrorToTheLetter) {
  const auto steps = Load("serve OnTakeFocus 1 => error: no \n");
  ASSERT_TRUE(steps.ok()) << steps.status();
  const auto* const serve = std::get_if<ServeStep>(&steps->front().action);
  ASSERT_NE(serve, nullptr);
  EXPECT_EQ(serve->answer->text(), "error: no ");
}

TEST(Session, FindsTheServiceOfEachMethod) {
  const auto steps = LoadSession(
      {rpc::BrowserWidgetRpc::descriptor(), rpc::PageRpc::descriptor()},
      "Show {\"value\": 1} => {}\n"
      "GetPage {\"value\": 1} => {}\n");
  ASSERT_TRUE(steps.ok()) << steps.status();
  const auto* const page = std::get_if<CallStep>(&(*steps)[1].action);
  ASSERT_NE(page, nullptr);
  EXPECT_EQ(page->call.method->service(), rpc::PageRpc::descriptor());
}

TEST(Session, MayOpenTheSameOverAnotherConnection) {
  EXPECT_EQ(Complaint("watch WhenCursorChanged 1\n"
                      "@b watch WhenCursorChanged 1\n"),
            "none");
  EXPECT_EQ(Complaint("@b watch WhenCursorChanged 1\n"
                      "end WhenCursorChanged 1\n"),
            "line 2: WhenCursorChanged {\"value\":\"1\"} is not open");
}

TEST(Session, MayOpenTheSameAfterTheConnectionsEnd) {
  EXPECT_EQ(Complaint("watch WhenCursorChanged 1\n"
                      "disconnect\n"
                      "watch WhenCursorChanged 1\n"),
            "none");
}

TEST(Session, AnswersWhereTheStreamDoesNot) {
  EXPECT_EQ(Complaint("serve OnTakeFocus 1\n"
                      "called OnTakeFocus {} => {\"taken\": true}\n"
                      "called OnTakeFocus {} => error: no\n"),
            "none");
  EXPECT_EQ(Complaint("serve OnTakeFocus 1 => {}\n"
                      "called OnTakeFocus {} => {}\n"),
            "line 2: the calls of OnTakeFocus are answered in line 1");
}

TEST(Session, RefusesToAllowACall) {
  EXPECT_EQ(Complaint("allow Show\n"),
            "line 1: Show cannot be allowed: it is of kind unary");
}

TEST(Session, RefusesToOpenWhatIsOpen) {
  EXPECT_EQ(Complaint("watch WhenCursorChanged 1\n\n"
                      "watch WhenCursorChanged {\"value\": 1}\n"),
            "line 3: WhenCursorChanged {\"value\":\"1\"} is watched since "
            "line 1");
  EXPECT_EQ(Complaint("serve OnTakeFocus 1 => {}\n"
                      "serve OnTakeFocus 1 => error: no\n"),
            "line 2: OnTakeFocus {\"value\":\"1\"} is served since line 1");
}

TEST(Session, RefusesToEndWhatIsNotOpen) {
  EXPECT_EQ(Complaint("watch WhenCursorChanged 1\n"
                      "end WhenCursorChanged 2\n"),
            "line 2: WhenCursorChanged {\"value\":\"2\"} is not open");
  EXPECT_EQ(Complaint("serve OnTakeFocus 1 => {}\n"
                      "end OnTakeFocus 1\n"
                      "end OnTakeFocus 1\n"),
            "line 3: OnTakeFocus {\"value\":\"1\"} is not open");
}

TEST(Session, RefusesToExpectWhatCannotArrive) {
  EXPECT_EQ(Complaint("event WhenCursorChanged {}\n"
                      "watch WhenCursorChanged 1\n"),
            "line 1: WhenCursorChanged was not watched before");
  EXPECT_EQ(Complaint("called OnTakeFocus {}\n"),
            "line 1: OnTakeFocus was not served before");
}

TEST(Session, RefusesMethodsOfAnotherKind) {
  EXPECT_EQ(Complaint("watch Show 1\n"),
            "line 1: Show cannot be watched: it is of kind unary, not event "
            "stream");
  EXPECT_EQ(Complaint("serve WhenCursorChanged 1 => {}\n"),
            "line 1: WhenCursorChanged cannot be served: it is of kind event "
            "stream, not callback stream");
  EXPECT_EQ(Complaint("event OnTakeFocus {}\n"),
            "line 1: OnTakeFocus cannot be watched: it is of kind callback "
            "stream, not event stream");
  EXPECT_EQ(Complaint("called Show {}\n"),
            "line 1: Show cannot be served: it is of kind unary, not callback "
            "stream");
  EXPECT_EQ(Complaint("end Show 1\n"),
            "line 1: Show cannot be ended: it is of kind unary");
}

TEST(Session, RefusesUnknownMethodsBehindAVerb) {
  for (const std::string line :
       {"watch WhenCursorChange 1", "event WhenCursorChange {}",
        "allow WhenCursorChange", "serve WhenCursorChange 1",
        "end WhenCursorChange 1", "serve WhenCursorChange 1 => {}",
        "called WhenCursorChange {}"}) {
    EXPECT_EQ(Complaint(line),
              "line 1: no method WhenCursorChange in rpc.BrowserWidgetRpc; did "
              "you mean WhenCursorChanged?");
  }
}

TEST(Session, RefusesJsonThatDoesNotFit) {
  EXPECT_THAT(
      Complaint("watch WhenCursorChanged one\n"),
      StartsWith("line 1: the key of WhenCursorChanged is not valid JSON for "
                 "BrowserId: "));
  EXPECT_THAT(
      Complaint("serve OnTakeFocus 1 => {\"took\": true}\n"),
      StartsWith("line 1: the response of OnTakeFocus is not valid JSON for "
                 "rpc.TakeFocusResponse: "));
  EXPECT_THAT(
      Complaint("event WhenCursorChanged {\"cursor\": 1}\n"),
      StartsWith("line 1: the event of WhenCursorChanged is not valid JSON for "
                 "rpc.CursorChanged: "));
  EXPECT_THAT(
      Complaint("called OnTakeFocus {\"direction\": 1}\n"),
      StartsWith("line 1: the call of OnTakeFocus is not valid JSON for "
                 "rpc.TakeFocus: "));
}

}  // namespace
}  // namespace widgetctl
