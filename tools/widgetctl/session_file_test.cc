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

// "3 Show {} = {}" for a response, "3 Show {} ! text" for an error, and
// "3 # text" for a remark.
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
      const bool is_error = call->outcome == RecordedCall::Outcome::kError;
      words.push_back(absl::StrCat(line.number, " ", call->method, " ",
                                   call->request, is_error ? " ! " : " = ",
                                   call->answer));
    }
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

}  // namespace
}  // namespace widgetctl
