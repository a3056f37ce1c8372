#include "tools/widgetctl/answer_template.h"

#include <string>

#include "absl/strings/string_view.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "tools/widgetctl/json.h"

namespace widgetctl {
namespace {

using ::testing::StartsWith;

// To calls of that method.
absl::StatusOr<AnswerTemplate> Read(
    absl::string_view json, const std::string& method = "OnUpdateSurface") {
  return AnswerTemplate::Read(
      *rpc::BrowserWidgetRpc::descriptor()->FindMethodByName(method),
      {RecordedAnswer::Kind::kResponse, std::string(json)});
}

std::string Complaint(absl::string_view json) {
  const auto read = Read(json);
  return read.ok() ? "none" : std::string(read.status().message());
}

TEST(AnswerTemplate, WithoutPlaceholdersIsTheAnswer) {
  const auto read = Read("{\"taken\": true}", "OnTakeFocus");
  ASSERT_TRUE(read.ok()) << read.status();
  const Answer answer = read->For(rpc::TakeFocus());
  ASSERT_TRUE(answer.ok()) << answer.status();
  EXPECT_EQ(ToJson(**answer), "{\"taken\":true}");
}

TEST(AnswerTemplate, TakesAFieldOfTheCallOver) {
  const auto read = Read(
      "{\"receipt\": {\"frameId\": \"${frame.frameId}\", "
      "\"outcome\": \"FRAME_OUTCOME_PRESENTED\"}}");
  ASSERT_TRUE(read.ok()) << read.status();
  rpc::UpdateSurface message;
  message.mutable_call()->mutable_frame()->set_frame_id(7);
  const Answer answer = read->For(message);
  ASSERT_TRUE(answer.ok()) << answer.status();
  EXPECT_EQ(ToJson(**answer),
            "{\"receipt\":{\"frameId\":\"7\",\"outcome\":"
            "\"FRAME_OUTCOME_PRESENTED\"}}");
}

TEST(AnswerTemplate, TakesAFieldOverThatTheCallDoesNotSet) {
  const auto read = Read("{\"receipt\":{\"frameId\":\"${frame.frameId}\"}}");
  ASSERT_TRUE(read.ok()) << read.status();
  const Answer answer = read->For(rpc::UpdateSurface());
  ASSERT_TRUE(answer.ok()) << answer.status();
  EXPECT_EQ(ToJson(**answer), "{\"receipt\":{}}");
}

TEST(AnswerTemplate, TakesTextOverToTheLetter) {
  const auto read = Read("{\"text\": \"${origin}\"}", "OnCreateWebDialog");
  ASSERT_TRUE(read.ok()) << read.status();
  rpc::CreateWebDialog message;
  message.mutable_call()->set_origin("\"${origin}\" \\");
  const Answer answer = read->For(message);
  ASSERT_TRUE(answer.ok()) << answer.status();
  EXPECT_EQ(static_cast<const rpc::CreateWebDialogResponse&>(**answer).text(),
            "\"${origin}\" \\");
}

TEST(AnswerTemplate, MayBeAnError) {
  const auto read = AnswerTemplate::Read(
      *rpc::BrowserWidgetRpc::descriptor()->FindMethodByName("OnTakeFocus"),
      {RecordedAnswer::Kind::kError, "not ${now}"});
  ASSERT_TRUE(read.ok()) << read.status();
  EXPECT_EQ(read->For(rpc::TakeFocus()).status().message(), "not ${now}");
  EXPECT_EQ(read->text(), "error: not ${now}");
}

TEST(AnswerTemplate, RefusesFieldsThatCallsDoNotHave) {
  EXPECT_EQ(Complaint("{\"receipt\": {\"frameId\": \"${frame.id}\"}}"),
            "a call of OnUpdateSurface has no field frame.id");
  EXPECT_EQ(Complaint("{\"receipt\": {\"frameId\": \"${frame.damage}\"}}"),
            "a call of OnUpdateSurface has no field frame.damage");
  EXPECT_EQ(Complaint("{\"receipt\": {\"frameId\": \"${}\"}}"),
            "a call of OnUpdateSurface has no field ");
}

TEST(AnswerTemplate, RefusesAFieldThatDoesNotFit) {
  EXPECT_THAT(Complaint("{\"receipt\": \"${frame.frameId}\"}"),
              StartsWith("the response of OnUpdateSurface is not valid JSON "
                         "for rpc.UpdateSurfaceResponse: "));
}

TEST(AnswerTemplate, APlaceholderWithoutItsEndIsText) {
  const auto read = Read("{\"text\": \"${origin\"}", "OnCreateWebDialog");
  ASSERT_TRUE(read.ok()) << read.status();
  const Answer answer = read->For(rpc::CreateWebDialog());
  ASSERT_TRUE(answer.ok()) << answer.status();
  EXPECT_EQ(ToJson(**answer), "{\"text\":\"${origin\"}");
}

}  // namespace
}  // namespace widgetctl
