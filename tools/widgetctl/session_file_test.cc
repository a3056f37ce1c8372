#include "tools/widgetctl/session_file.h"

#include <string>
#include <variant>
#include <vector>

#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace widgetctl {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string Words(const RecordedAnswer& answer) {
  switch (answer.kind) {
    case RecordedAnswer::Kind::kResponse:
      return absl::StrCat(" = ", answer.text);
    case RecordedAnswer::Kind::kFields:
      return absl::StrCat(" ~ ", answer.text);
    case RecordedAnswer::Kind::kError:
      return absl::StrCat(" ! ", answer.text);
  }
  return "";
}

std::string Words(const RecordedCall& call) {
  return absl::StrCat(call.method, " ", call.request, Words(call.answer));
}

std::string Words(const RecordedStep& step) {
  constexpr absl::string_view kVerbs[] = {
      "watch", "event", "serve", "called", "end", "allow", "disconnect"};
  std::string words =
      absl::StrCat(kVerbs[static_cast<int>(step.verb)], ": ", step.method);
  if (!step.json.empty()) absl::StrAppend(&words, " ", step.json);
  if (step.answer.has_value()) absl::StrAppend(&words, Words(*step.answer));
  return words;
}

// "3 Show {} = {}" for a response, "3 Show {} ! text" for an error, "3 # text"
// for a remark, and "3 watch: WhenDone 1" for a line with a verb. " @ b"
// follows if the line names a connection.
std::vector<std::string> Lines(absl::string_view text) {
  const absl::StatusOr<std::vector<SessionLine>> lines = ParseSession(text);
  EXPECT_TRUE(lines.ok()) << lines.status();
  std::vector<std::string> words;
  if (!lines.ok()) return words;
  for (const SessionLine& line : *lines) {
    if (const auto* const remark = std::get_if<Remark>(&line.content)) {
      words.push_back(absl::StrCat(line.number, " ", remark->text));
    }
    if (const auto* const call = std::get_if<RecordedCall>(&line.content)) {
      words.push_back(absl::StrCat(line.number, " ", Words(*call)));
    }
    if (const auto* const step = std::get_if<RecordedStep>(&line.content)) {
      words.push_back(absl::StrCat(line.number, " ", Words(*step)));
    }
    if (!line.connection.empty())
      absl::StrAppend(&words.back(), " @ ", line.connection);
  }
  return words;
}

std::string Complaint(absl::string_view text) {
  const absl::StatusOr<std::vector<SessionLine>> lines = ParseSession(text);
  return lines.ok() ? "none" : std::string(lines.status().message());
}

TEST(SessionFile, HasCallsWithResponsesAndErrors) {
  EXPECT_THAT(Lines("Show {\"value\": 1} => {}\n"
                    "Show {\"value\": 7} => error: no browser 7\n"),
              ElementsAre("1 Show {\"value\": 1} = {}",
                          "2 Show {\"value\": 7} ! no browser 7"));
}

TEST(SessionFile, MayEndWithoutANewline) {
  EXPECT_THAT(Lines("Show {} => {}"), ElementsAre("1 Show {} = {}"));
}

TEST(SessionFile, SkipsBlankLinesAndCountsThem) {
  EXPECT_THAT(Lines("\n \t\nShow {} => {}\n\n"), ElementsAre("3 Show {} = {}"));
}

TEST(SessionFile, KeepsRemarks) {
  EXPECT_THAT(Lines("# One => two\n  #three \n"),
              ElementsAre("1 # One => two", "2 #three"));
}

TEST(SessionFile, OfNothingHasNoLines) { EXPECT_THAT(Lines(""), IsEmpty()); }

TEST(SessionFile, NeedsNoSpacesAroundTheArrowAndTakesMany) {
  EXPECT_THAT(Lines("Show {}=>{}\n\tShow\t {}   =>   {} \t\n"),
              ElementsAre("1 Show {} = {}", "2 Show {} = {}"));
}

TEST(SessionFile, AnArrowInsideAStringIsNotTheOne) {
  EXPECT_THAT(
      Lines(R"(ForwardKeyType {"text": "a => \"b => c\\"} => {"d": "=>"})"),
      ElementsAre(
          R"(1 ForwardKeyType {"text": "a => \"b => c\\"} = {"d": "=>"})"));
}

TEST(SessionFile, AnErrorGoesToTheEndOfTheLineToTheLetter) {
  EXPECT_THAT(Lines("Show {} => error:  spaces # and \"all => that \n"),
              ElementsAre("1 Show {} !  spaces # and \"all => that "));
}

TEST(SessionFile, AnErrorMayHaveNoText) {
  EXPECT_THAT(Lines("Show {} => error:\nShow {} => error: \n"),
              ElementsAre("1 Show {} ! ", "2 Show {} ! "));
}

TEST(SessionFile, AResponseMayBeOtherThanAnObject) {
  EXPECT_THAT(Lines("AttachAccessibleWindow {} => false"),
              ElementsAre("1 AttachAccessibleWindow {} = false"));
}

TEST(SessionFile, RefusesACallWithoutAnAnswer) {
  EXPECT_EQ(Complaint("# fine\n\nShow {}\n"),
            "line 3: a call lacks its `=>` and answer");
  EXPECT_EQ(Complaint("Show {\"text\": \"=> {}\n"),
            "line 1: a call lacks its `=>` and answer");
  EXPECT_EQ(Complaint("Show {} =>  \n"),
            "line 1: Show lacks its answer; an empty response is written {}");
}

TEST(SessionFile, RefusesACallWithoutARequest) {
  EXPECT_EQ(Complaint("Show => {}\n"),
            "line 1: Show lacks its request; an empty one is written {}");
}

TEST(SessionFile, RefusesACallWithoutAMethod) {
  EXPECT_EQ(Complaint("Show {} => {}\n => {}\n"),
            "line 2: no method in front of `=>`");
}

TEST(SessionFile, WatchesAndEndsByKey) {
  EXPECT_THAT(Lines("watch WhenDone {\"value\": 1}\n"
                    "\twatch  WhenDone \t 1 \n"
                    "end WhenDone 1\n"),
              ElementsAre("1 watch: WhenDone {\"value\": 1}",
                          "2 watch: WhenDone 1", "3 end: WhenDone 1"));
}

TEST(SessionFile, ExpectsEventsAndCalls) {
  EXPECT_THAT(Lines("event WhenDone {\"text\": \"a => b\"}\n"
                    "called OnAsk {\"call\": {}}\n"),
              ElementsAre("1 event: WhenDone {\"text\": \"a => b\"}",
                          "2 called: OnAsk {\"call\": {}}"));
}

TEST(SessionFile, ServesWithAResponseOrAnError) {
  EXPECT_THAT(Lines("serve OnAsk {\"value\": 1} => {\"yes\": true}\n"
                    "serve OnAsk 2=>error: not now \n"),
              ElementsAre("1 serve: OnAsk {\"value\": 1} = {\"yes\": true}",
                          "2 serve: OnAsk 2 ! not now "));
}

TEST(SessionFile, TakesAMethodThatBeginsLikeAVerbForAMethod) {
  EXPECT_THAT(Lines("watches {} => {}\nserver {} => {}\n"),
              ElementsAre("1 watches {} = {}", "2 server {} = {}"));
}

TEST(SessionFile, RefusesAVerbWithoutAMethod) {
  EXPECT_EQ(Complaint("watch\n"), "line 1: watch lacks its method");
  EXPECT_EQ(Complaint("event \n"), "line 1: event lacks its method");
  EXPECT_EQ(Complaint("called\t\n"), "line 1: called lacks its method");
  EXPECT_EQ(Complaint("end"), "line 1: end lacks its method");
  EXPECT_EQ(Complaint("serve => {}"), "line 1: serve lacks its method");
  EXPECT_EQ(Complaint("allow"), "line 1: allow lacks its method");
}

TEST(SessionFile, RefusesAStreamWithoutAKey) {
  EXPECT_EQ(Complaint("watch WhenDone"),
            "line 1: watch WhenDone lacks its key");
  EXPECT_EQ(Complaint("end WhenDone "), "line 1: end WhenDone lacks its key");
  EXPECT_EQ(Complaint("serve OnAsk => {}"),
            "line 1: serve OnAsk lacks its key");
}

TEST(SessionFile, RefusesToExpectNothingInParticular) {
  EXPECT_EQ(Complaint("event WhenDone"),
            "line 1: event WhenDone lacks its event");
  EXPECT_EQ(Complaint("called OnAsk"), "line 1: called OnAsk lacks its call");
}

TEST(SessionFile, RefusesAnArrowWithoutAnAnswer) {
  EXPECT_EQ(Complaint("serve OnAsk 1 =>"),
            "line 1: OnAsk lacks its answer; an empty response is written {}");
  EXPECT_EQ(Complaint("called OnAsk {} => "),
            "line 1: OnAsk lacks its answer; an empty response is written {}");
  EXPECT_EQ(Complaint("Show {} =~"),
            "line 1: Show lacks its answer; an empty response is written {}");
}

TEST(SessionFile, AnswersCallsByTheirOwnLines) {
  EXPECT_THAT(
      Lines("serve OnAsk 1\n"
            "called OnAsk {} => {\"yes\": true}\n"
            "called OnAsk {} => error: no \n"),
      ElementsAre("1 serve: OnAsk 1", "2 called: OnAsk {} = {\"yes\": true}",
                  "3 called: OnAsk {} ! no "));
}

TEST(SessionFile, ExpectsSomeFieldsOfAResponse) {
  EXPECT_THAT(Lines("Show {} =~ {\"a\": \"=~\"}\nHide {}=~{}\n"),
              ElementsAre("1 Show {} ~ {\"a\": \"=~\"}", "2 Hide {} ~ {}"));
}

TEST(SessionFile, AnErrorIsNotExpectedInPart) {
  EXPECT_THAT(Lines("Show {} =~ error: x\n"),
              ElementsAre("1 Show {} ~ error: x"));
}

TEST(SessionFile, RefusesToAnswerInPart) {
  EXPECT_EQ(Complaint("serve OnAsk 1 =~ {}"),
            "line 1: serve OnAsk gives an answer, which needs `=>`");
  EXPECT_EQ(Complaint("called OnAsk {} =~ {}"),
            "line 1: called OnAsk gives an answer, which needs `=>`");
}

TEST(SessionFile, AllowsMethods) {
  EXPECT_THAT(Lines("allow WhenDone\n"), ElementsAre("1 allow: WhenDone"));
  EXPECT_EQ(Complaint("allow WhenDone 1"),
            "line 1: allow takes a method and nothing else");
}

TEST(SessionFile, NamesConnections) {
  EXPECT_THAT(Lines("@b Show {} => {}\n"
                    "  @b\twatch WhenDone 1\n"
                    "@other disconnect\n"
                    "disconnect \n"),
              ElementsAre("1 Show {} = {} @ b", "2 watch: WhenDone 1 @ b",
                          "3 disconnect:  @ other", "4 disconnect: "));
}

TEST(SessionFile, RefusesAConnectionWithoutANameOrALine) {
  EXPECT_EQ(Complaint("@ Show {} => {}"),
            "line 1: `@` lacks the connection's name");
  EXPECT_EQ(Complaint("@b"),
            "line 1: nothing is to be done over connection @b");
}

}  // namespace
}  // namespace widgetctl
