#include "engines/chromium/dialogs.h"

#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "engines/chromium/page_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"

namespace chromium {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

class DialogsTest : public testing::PageFixture {
 protected:
  // Serves dialogs without answering them.
  void Serve() {
    serving_ = host_->OnCreateWebDialog(
        browser_, [this](const rpc::CreateWebDialogCall& call,
                         orvane::Responder<rpc::CreateWebDialog> responder) {
          calls_.push_back(call);
          responders_.push_back(std::move(responder));
        });
    loop_.RunUntilIdle();
  }
  void Answer(const std::string& text) {
    ASSERT_THAT(responders_, Not(IsEmpty()));
    EXPECT_TRUE(
        std::move(responders_.back())
            .Respond(
                orvane::testing::Parsed<rpc::CreateWebDialogResponse>(text))
            .ok());
    responders_.pop_back();
    scripted_->Settle();
  }
  void OpenDialog(const std::string& type) {
    Tell("Page.javascriptDialogOpening", {{"url", "https://a.example/x"},
                                          {"frameId", "target"},
                                          {"type", type},
                                          {"message", "?"},
                                          {"defaultPrompt", "!"}});
  }
  std::vector<Json> Closed() const {
    return scripted_->Params("Page.handleJavaScriptDialog");
  }

  std::unique_ptr<orvane::ClientStream> serving_;
  std::vector<rpc::CreateWebDialogCall> calls_;
  std::vector<orvane::Responder<rpc::CreateWebDialog>> responders_;
};

TEST_F(DialogsTest, TheHostsAnswerIsTheEngines) {
  Serve();
  OpenDialog("prompt");
  ASSERT_THAT(calls_, SizeIs(1));
  EXPECT_EQ(calls_[0].origin(), "https://a.example");
  EXPECT_EQ(calls_[0].prompt().message(), "?");
  EXPECT_EQ(calls_[0].prompt().default_text(), "!");
  EXPECT_THAT(Closed(), IsEmpty());
  Answer("accepted: true text: 'Ada'");
  EXPECT_THAT(Closed(),
              ElementsAre(Json{{"accept", true}, {"promptText", "Ada"}}));
}

TEST_F(DialogsTest, UnservedOnesAreDeclinedButPagesAreLeft) {
  OpenDialog("confirm");
  OpenDialog("beforeunload");
  EXPECT_THAT(Closed(),
              ElementsAre(Json{{"accept", false}, {"promptText", ""}},
                          Json{{"accept", true}, {"promptText", ""}}));
}

TEST_F(DialogsTest, AHostThatDiesLeavesThePageUsable) {
  Serve();
  OpenDialog("alert");
  connection_.reset();
  scripted_->Settle();
  EXPECT_THAT(Closed(),
              ElementsAre(Json{{"accept", false}, {"promptText", ""}}));
}

TEST_F(DialogsTest, AfterACrashTheHostLearnsThatItsDialogHasGone) {
  Serve();
  OpenDialog("confirm");
  EXPECT_FALSE(responders_.back().is_given_up());
  Tell("Inspector.targetCrashed");
  EXPECT_TRUE(responders_.back().is_given_up());
  EXPECT_THAT(Closed(), IsEmpty());
}

TEST_F(DialogsTest, AFramesOriginIsShownAsEmbedded) {
  Serve();
  Tell("Page.frameNavigated",
       {{"frame", {{"id", "target"}, {"url", "https://main.example/"}}}});
  Tell("Page.javascriptDialogOpening", {{"url", "https://ad.example/"},
                                        {"frameId", "inner"},
                                        {"type", "alert"},
                                        {"message", ""}});
  ASSERT_THAT(calls_, SizeIs(1));
  EXPECT_EQ(calls_[0].origin(), "https://ad.example");
  EXPECT_TRUE(calls_[0].is_embedded_cross_origin());
}

TEST_F(DialogsTest, AReloadIsToldApart) {
  Serve();
  Tell("Page.frameRequestedNavigation", {{"reason", "reload"}});
  OpenDialog("beforeunload");
  ASSERT_THAT(calls_, SizeIs(1));
  EXPECT_TRUE(calls_[0].before_unload().is_reload());
}

// Files

TEST_F(DialogsTest, ChosenFilesMustBeThere) {
  const orvane::testing::TemporaryFolder folder;
  const std::string file = folder.path() + "/a";
  std::ofstream(file) << "x";
  Serve();
  scripted_->ReplyTo(
      "DOM.describeNode",
      {{"node", {{"attributes", {"type", "file", "accept", ".a, b/*"}}}}});
  scripted_->ReplyTo("DOM.resolveNode", {{"object", {{"objectId", "o"}}}});
  for (const std::string& path :
       {file, folder.path(), std::string("relative"), file + "x"}) {
    Tell("Page.fileChooserOpened", {{"frameId", "target"},
                                    {"mode", "selectSingle"},
                                    {"backendNodeId", 3}});
    Answer("accepted: true file_paths: '" + path + "'");
  }
  EXPECT_THAT(calls_[0].file().accept_filters(), ElementsAre(".a", "b/*"));
  EXPECT_THAT(scripted_->Params("DOM.setFileInputFiles"),
              ElementsAre(Json{{"files", {file}}, {"backendNodeId", 3}}));
  EXPECT_THAT(scripted_->Params("Runtime.callFunctionOn"), SizeIs(3));
}

TEST_F(DialogsTest, AFolderIsChosenAsOne) {
  const orvane::testing::TemporaryFolder folder;
  Serve();
  scripted_->ReplyTo("DOM.describeNode",
                     {{"node", {{"attributes", {"webkitdirectory", ""}}}}});
  Tell("Page.fileChooserOpened", {{"frameId", "target"},
                                  {"mode", "selectMultiple"},
                                  {"backendNodeId", 3}});
  EXPECT_EQ(calls_[0].file().mode(), rpc::FILE_DIALOG_MODE_OPEN_DIRECTORY);
  Answer("accepted: true file_paths: '" + folder.path() + "'");
  EXPECT_THAT(scripted_->Params("DOM.setFileInputFiles"), SizeIs(1));
}

TEST(OriginOf, IsWhatAHostShows) {
  EXPECT_EQ(OriginOf("https://user@a.example:8080/p?q#f"),
            "https://a.example:8080");
  EXPECT_EQ(OriginOf("http://a.example"), "http://a.example");
  EXPECT_EQ(OriginOf("file:///home/x"), "file://");
  EXPECT_EQ(OriginOf("data:text/html,https://a.example/"), "null");
  EXPECT_EQ(OriginOf("about:blank"), "null");
}

// Colours

class ColorsTest : public DialogsTest {
 protected:
  ColorsTest() {
    Attach();
    TellOfDocument();
    Serve();
    scripted_->ForgetCommands();
    Report({{"kind", "color"},
            {"color", 4},
            {"value", "#102030"},
            {"suggested", {"#ffffff", "red", 7}}});
  }
};

TEST_F(ColorsTest, AColourIsTheHostsToChoose) {
  ASSERT_THAT(calls_, SizeIs(1));
  EXPECT_EQ(calls_[0].color().initial_color_rgb(), 0x102030u);
  EXPECT_THAT(calls_[0].color().suggested_colors_rgb(), ElementsAre(0xffffffu));
  Answer("accepted: true color_rgb: 0x0a0b0c");
  EXPECT_THAT(Scripts(), ElementsAre("orvaneAgent.chooseColor(4, '#0a0b0c')"));
}

TEST_F(ColorsTest, OneThatIsNotChosenIsNotChanged) {
  Answer("");
  EXPECT_THAT(Scripts(), ElementsAre("orvaneAgent.chooseColor(4, null)"));
}

TEST_F(ColorsTest, OneThatIsNoneIsNotChosen) {
  Answer("accepted: true color_rgb: 0x1000000");
  EXPECT_THAT(Scripts(), ElementsAre("orvaneAgent.chooseColor(4, null)"));
}

TEST_F(ColorsTest, OnlyTheLatestIsAskedFor) {
  Report({{"kind", "color"}, {"color", 5}, {"value", "#000000"}});
  EXPECT_THAT(Scripts(), ElementsAre("orvaneAgent.chooseColor(4, null)"));
  EXPECT_THAT(calls_, SizeIs(2));
}

}  // namespace
}  // namespace chromium
