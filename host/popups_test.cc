#include "host/popups.h"

#include "gtest/gtest.h"

namespace orvane::host {
namespace {

rpc::CreateWebDialogCall DialogOf(const std::string& origin) {
  rpc::CreateWebDialogCall call;
  call.set_origin(origin);
  return call;
}

TEST(PopupsTest, OnlyOptionsThatAreEnabledCanBeChosen) {
  rpc::DropDownItem item;
  EXPECT_TRUE(CanBeChosen(item));
  item.set_type(rpc::DROP_DOWN_ITEM_TYPE_OPTION);
  EXPECT_TRUE(CanBeChosen(item));
  item.set_is_disabled(true);
  EXPECT_FALSE(CanBeChosen(item));
  item.set_is_disabled(false);
  item.set_type(rpc::DROP_DOWN_ITEM_TYPE_GROUP);
  EXPECT_FALSE(CanBeChosen(item));
  item.set_type(rpc::DROP_DOWN_ITEM_TYPE_SEPARATOR);
  EXPECT_FALSE(CanBeChosen(item));
}

TEST(PopupsTest, AnAlertCanOnlyBeAccepted) {
  auto call = DialogOf("https://example.com");
  call.mutable_alert()->set_message("Hello");
  const auto question = QuestionOf(call);
  ASSERT_TRUE(question.has_value());
  EXPECT_EQ(question->message, "Hello");
  EXPECT_EQ(question->decline, "");
  EXPECT_FALSE(question->answer.has_value());
}

TEST(PopupsTest, AConfirmCanBeDeclined) {
  auto call = DialogOf("https://example.com");
  call.mutable_confirm()->set_message("Sure?");
  EXPECT_EQ(QuestionOf(call)->message, "Sure?");
  EXPECT_EQ(QuestionOf(call)->decline, "Cancel");
}

TEST(PopupsTest, APromptHasALineToFillIn) {
  auto call = DialogOf("https://example.com");
  call.mutable_prompt()->set_message("Your name?");
  EXPECT_EQ(QuestionOf(call)->answer, "");
  call.mutable_prompt()->set_default_text("Ada");
  EXPECT_EQ(QuestionOf(call)->answer, "Ada");
}

TEST(PopupsTest, LeavingAndReloadingAreAskedInTheWindowsOwnWords) {
  auto call = DialogOf("https://example.com");
  call.mutable_before_unload();
  EXPECT_EQ(DialogTitleOf(call), "Leave this page?");
  EXPECT_EQ(QuestionOf(call)->accept, "Leave");
  call.mutable_before_unload()->set_is_reload(true);
  EXPECT_EQ(DialogTitleOf(call), "Reload this page?");
  EXPECT_EQ(QuestionOf(call)->accept, "Reload");
}

TEST(PopupsTest, ATitleSaysWhoseWordsTheseAre) {
  auto call = DialogOf("https://example.com");
  call.mutable_alert();
  EXPECT_EQ(DialogTitleOf(call), "https://example.com says");
  call.set_origin("null");
  EXPECT_EQ(DialogTitleOf(call), "This page says");
  call.set_is_embedded_cross_origin(true);
  EXPECT_EQ(DialogTitleOf(call), "A part of this page says");
  call.set_origin("https://ads.example");
  EXPECT_EQ(DialogTitleOf(call),
            "https://ads.example, a part of this page, says");
}

TEST(PopupsTest, ATitleSaysWhatThePageAsksFor) {
  auto call = DialogOf("https://example.com");
  call.mutable_color();
  EXPECT_EQ(DialogTitleOf(call), "https://example.com asks for a colour");
  call.mutable_file();
  EXPECT_EQ(DialogTitleOf(call), "https://example.com asks for a file");
  call.mutable_file()->set_mode(rpc::FILE_DIALOG_MODE_OPEN_MULTIPLE);
  EXPECT_EQ(DialogTitleOf(call), "https://example.com asks for files");
  call.mutable_file()->set_mode(rpc::FILE_DIALOG_MODE_OPEN_DIRECTORY);
  EXPECT_EQ(DialogTitleOf(call), "https://example.com asks for a folder");
  call.mutable_file()->set_mode(rpc::FILE_DIALOG_MODE_SAVE);
  EXPECT_EQ(DialogTitleOf(call), "https://example.com saves a file");
  call.mutable_file()->set_title("Export");
  EXPECT_EQ(DialogTitleOf(call), "Export");
}

TEST(PopupsTest, FilesColoursAndUnknownDialogsAreNoQuestions) {
  auto call = DialogOf("https://example.com");
  EXPECT_FALSE(QuestionOf(call).has_value());
  call.mutable_file();
  EXPECT_FALSE(QuestionOf(call).has_value());
  call.mutable_color();
  EXPECT_FALSE(QuestionOf(call).has_value());
}

}  // namespace
}  // namespace orvane::host
