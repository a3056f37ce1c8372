#include "engines/chromium/page_service.h"

#include <sys/stat.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/escaping.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "engines/chromium/page_fixture.h"
#include "rpc/browser/page.client.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"

namespace chromium {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using Client = rpc::PageRpcClient;

// A second connection of the host's, for the page service.
class PageServiceTest : public testing::PageFixture {
 protected:
  PageServiceTest() {
    auto connected = orvane::ConnectInProcess(&loop_, &server_);
    EXPECT_TRUE(connected.ok()) << connected.status();
    page_connection_ = *std::move(connected);
    pages_.emplace(page_connection_.get());
    changes_ = pages_->WhenPageChanged(browser_,
                                       [this](const rpc::PageChanged& event) {
                                         states_.push_back(event.state());
                                       });
    failures_ =
        pages_->WhenPageFailed(browser_, [this](const rpc::PageFailed& event) {
          failed_.push_back(event.failure());
        });
    scripted_->NeverReplyTo("Page.navigate");
    TellOfPage("https://first.example/");
    scripted_->ForgetCommands();
  }

  absl::Status Load(const std::string& address) {
    auto request = New<rpc::LoadRequest>();
    request.set_address(address);
    const absl::Status status = pages_->Load(request).status();
    scripted_->Settle();
    return status;
  }

  void Reload(bool bypass_cache = false) {
    auto request = New<rpc::ReloadRequest>();
    request.set_bypass_cache(bypass_cache);
    EXPECT_TRUE(pages_->Reload(request).ok());
    scripted_->Settle();
  }

  // Its outcome will be in answer_.
  void Evaluate(const std::string& script) {
    auto request = New<rpc::EvaluateRequest>();
    request.set_script(script);
    pages_->Evaluate(request,
                     [this](absl::StatusOr<rpc::EvaluateResponse> outcome) {
                       answer_ = std::move(outcome);
                     });
  }

  // The engine's reply to the load of that number, by default the first.
  void EndLoad(const Json& result, std::size_t load = 0) {
    for (const Json& command : scripted_->commands()) {
      if (Text(command, "method") != "Page.navigate" || load-- > 0) continue;
      scripted_->SendMessage({{"id", Member(command, "id")},
                              {"result", result},
                              {"sessionId", "session"}});
    }
    scripted_->Settle();
  }

  void TellOfPage(const std::string& address,
                  const std::string& unreachable = "") {
    Tell("Page.frameNavigated", {{"frame",
                                  {{"id", "target"},
                                   {"url", address},
                                   {"unreachableUrl", unreachable}}}});
  }

  rpc::PageState State() const {
    const auto state = pages_->GetPage(browser_);
    EXPECT_TRUE(state.ok()) << state.status();
    return state.ok() ? *state : rpc::PageState();
  }

  Json LoadedAddresses() const {
    Json addresses = Json::array();
    for (const Json& params : scripted_->Params("Page.navigate"))
      addresses.push_back(Text(params, "url"));
    return addresses;
  }

  std::unique_ptr<orvane::SocketClient> page_connection_;
  mutable std::optional<Client> pages_;
  std::unique_ptr<orvane::ClientStream> changes_;
  std::unique_ptr<orvane::ClientStream> failures_;
  std::vector<rpc::PageState> states_;
  std::vector<rpc::PageFailure> failed_;
  std::optional<absl::StatusOr<rpc::EvaluateResponse>> answer_;
};

// Going somewhere

TEST_F(PageServiceTest, AnAddressIsLoaded) {
  EXPECT_EQ(Load("https://next.example/a"), absl::OkStatus());
  EXPECT_EQ(LoadedAddresses(), Json({"https://next.example/a"}));
  EXPECT_EQ(State().address(), "https://next.example/a");
  EndLoad(Json::object());
  TellOfPage("https://next.example/b");  // It redirects.
  EXPECT_EQ(State().address(), "https://next.example/b");
  EXPECT_EQ(State().security(), rpc::PAGE_SECURITY_SECURE);
  EXPECT_EQ(State().error(), "");
}

TEST_F(PageServiceTest, AnAddressThatIsNotAllowedIsRefusedAndThePageStays) {
  for (const char* const address : {"chrome://crash", "javascript:alert(1)",
                                    "file:///etc/passwd", "", "a"}) {
    EXPECT_FALSE(Load(address).ok()) << address;
  }
  EXPECT_THAT(LoadedAddresses(), IsEmpty());
  EXPECT_EQ(State().address(), "https://first.example/");
}

TEST_F(PageServiceTest, AnAddressThatIsTooLongIsRefused) {
  const std::string address =
      "https://a/" + std::string(std::size_t{2} << 20, 'a');
  EXPECT_THAT(Load(address).message(), HasSubstr("the limit is 2097152"));
}

TEST_F(PageServiceTest, AnUnknownBrowserIsAnErrorThatNamesThoseThatThereAre) {
  browser_.set_value(7);
  EXPECT_EQ(Load("about:blank").message(),
            "browser 7 does not exist; there is only 1");
}

TEST_F(PageServiceTest, AFailureIsToldInWords) {
  EXPECT_EQ(Load("https://nowhere.example/"), absl::OkStatus());
  EndLoad({{"errorText", "net::ERR_NAME_NOT_RESOLVED"}});
  TellOfPage("chrome-error://chromewebdata/", "https://nowhere.example/");
  EXPECT_EQ(State().address(), "https://nowhere.example/");
  EXPECT_EQ(State().error(), "net::ERR_NAME_NOT_RESOLVED");
  EXPECT_EQ(State().security(), rpc::PAGE_SECURITY_LOCAL);
}

TEST_F(PageServiceTest, AReloadOfWhatFailedLoadsTheAddressAgain) {
  TellOfPage("chrome-error://chromewebdata/", "https://nowhere.example/");
  Reload();
  EXPECT_EQ(LoadedAddresses(), Json({"https://nowhere.example/"}));
}

// The engine would load the page that is still shown, and forget the other.
TEST_F(PageServiceTest, AReloadOfWhatIsBeingLoadedLoadsThatAgain) {
  EXPECT_EQ(Load("https://slow.example/"), absl::OkStatus());
  Reload();
  EXPECT_THAT(scripted_->Params("Page.reload"), IsEmpty());
  EXPECT_EQ(LoadedAddresses(),
            Json({"https://slow.example/", "https://slow.example/"}));
}

TEST_F(PageServiceTest, AReloadBeforeTheFirstPageIsThereLoadsThatPage) {
  scripted_->Close();
  LaunchEngine();
  loop_.RunUntil([this] { return launches_ == 2; });
  AnswerTheVersion();
  scripted_->Settle();
  scripted_->ForgetCommands();
  Reload();
  EXPECT_THAT(scripted_->Params("Page.reload"), IsEmpty());
  EXPECT_EQ(LoadedAddresses(), Json({"https://first.example/"}));
}

// So that a host can wait until it has the page that it has asked for.
TEST_F(PageServiceTest, APageIsLoadingAsSoonAsThatIsAskedFor) {
  scripted_->ReplyTo("Page.navigate", {{"errorText", "net::ERR_ABORTED"}});
  scripted_->ReplyTo("Page.getNavigationHistory",
                     {{"currentIndex", 1},
                      {"entries", {{{"id", 10}}, {{"id", 11}}, {{"id", 12}}}}});
  TellOfPage("https://second.example/");
  const auto load = New<rpc::LoadRequest>("address: 'https://next.example/'");
  for (const auto& ask : std::vector<std::function<absl::Status()>>{
           [&] { return pages_->Load(load).status(); },
           [&] { return pages_->Reload(New<rpc::ReloadRequest>()).status(); },
           [&] { return pages_->GoBack(browser_).status(); },
           [&] { return pages_->GoForward(browser_).status(); }}) {
    EXPECT_FALSE(State().is_loading());
    EXPECT_EQ(ask(), absl::OkStatus());
    EXPECT_TRUE(State().is_loading());
    scripted_->Settle();
  }
  EXPECT_FALSE(State().is_loading());
}

TEST_F(PageServiceTest, ALoadThatIsStoppedLeavesThePage) {
  EXPECT_EQ(Load("https://slow.example/"), absl::OkStatus());
  EXPECT_TRUE(pages_->Stop(browser_).ok());
  scripted_->Settle();
  EXPECT_THAT(scripted_->Params("Page.stopLoading"), SizeIs(1));
  EndLoad({{"errorText", "net::ERR_ABORTED"}});
  EXPECT_EQ(State().address(), "https://first.example/");
  EXPECT_EQ(State().error(), "");
}

TEST_F(PageServiceTest, AStopDoesNotStopWhatIsAskedForAfterIt) {
  EXPECT_TRUE(pages_->Stop(browser_).ok());
  EXPECT_EQ(Load("https://next.example/"), absl::OkStatus());
  EXPECT_THAT(scripted_->Params("Page.stopLoading"), IsEmpty());
  EXPECT_EQ(LoadedAddresses(), Json({"https://next.example/"}));
}

// The engine has committed a step back, and never answers the load.
TEST_F(PageServiceTest, ALoadThatTheEngineForgetsIsBegunAgain) {
  EXPECT_EQ(Load("https://next.example/"), absl::OkStatus());
  TellOfPage("https://first.example/");
  EXPECT_TRUE(State().is_loading());
  EXPECT_EQ(State().address(), "https://next.example/");
  loop_.RunUntil([this] {
    scripted_->Settle();
    return LoadedAddresses().size() == 2;
  });
  EXPECT_EQ(LoadedAddresses(),
            Json({"https://next.example/", "https://next.example/"}));
}

TEST_F(PageServiceTest, OfTwoLoadsTheLatestCounts) {
  EXPECT_EQ(Load("https://second.example/"), absl::OkStatus());
  EXPECT_EQ(Load("https://third.example/"), absl::OkStatus());
  EndLoad({{"errorText", "net::ERR_ABORTED"}});
  EXPECT_EQ(State().address(), "https://third.example/");
}

TEST_F(PageServiceTest, AReloadCanBypassTheCache) {
  Reload(/*bypass_cache=*/true);
  ASSERT_THAT(scripted_->Params("Page.reload"), SizeIs(1));
  EXPECT_TRUE(Flag(scripted_->Params("Page.reload")[0], "ignoreCache"));
}

TEST_F(PageServiceTest, BackAndForwardFollowTheHistory) {
  EXPECT_EQ(pages_->GoBack(browser_).status().message(),
            "there is no page to go back to");
  scripted_->ReplyTo("Page.getNavigationHistory",
                     {{"currentIndex", 1},
                      {"entries", {{{"id", 10}}, {{"id", 11}}, {{"id", 12}}}}});
  TellOfPage("https://second.example/");
  EXPECT_TRUE(State().can_go_back());
  EXPECT_TRUE(State().can_go_forward());
  scripted_->ForgetCommands();
  EXPECT_TRUE(pages_->GoBack(browser_).ok());
  scripted_->Settle();
  EXPECT_TRUE(pages_->GoForward(browser_).ok());
  scripted_->Settle();
  const auto went = scripted_->Params("Page.navigateToHistoryEntry");
  ASSERT_THAT(went, SizeIs(2));
  EXPECT_EQ(Number(went[0], "entryId"), 10);
  EXPECT_EQ(Number(went[1], "entryId"), 12);
}

// Of three pages, the last one is shown.
class HistoryTest : public PageServiceTest {
 protected:
  HistoryTest() {
    scripted_->ReplyTo(
        "Page.getNavigationHistory",
        {{"currentIndex", 2},
         {"entries", {{{"id", 10}}, {{"id", 11}}, {{"id", 12}}}}});
    TellOfPage("https://third.example/");
    scripted_->ForgetCommands();
  }
  std::vector<Json> Went() {
    scripted_->Settle();
    return scripted_->Params("Page.navigateToHistoryEntry");
  }
};

TEST_F(HistoryTest, QuickStepsAddUp) {
  EXPECT_TRUE(pages_->GoBack(browser_).ok());
  EXPECT_TRUE(pages_->GoBack(browser_).ok());
  EXPECT_EQ(pages_->GoBack(browser_).status().message(),
            "there is no page to go back to");
  const auto went = Went();
  ASSERT_THAT(went, SizeIs(1));
  EXPECT_EQ(Number(went[0], "entryId"), 10);
}

TEST_F(HistoryTest, AStepBackCanBeTakenBack) {
  EXPECT_TRUE(pages_->GoBack(browser_).ok());
  EXPECT_TRUE(State().can_go_forward());
  EXPECT_TRUE(pages_->GoForward(browser_).ok());
  EXPECT_THAT(Went(), IsEmpty());
  EXPECT_FALSE(State().is_loading());
}

TEST_F(HistoryTest, ALoadReplacesTheStepBeforeIt) {
  EXPECT_TRUE(pages_->GoBack(browser_).ok());
  EXPECT_EQ(Load("https://next.example/"), absl::OkStatus());
  EXPECT_THAT(Went(), IsEmpty());
  EXPECT_EQ(LoadedAddresses(), Json({"https://next.example/"}));
}

TEST_F(HistoryTest, AStepReplacesTheLoadBeforeIt) {
  EXPECT_EQ(Load("https://next.example/"), absl::OkStatus());
  EXPECT_TRUE(pages_->GoBack(browser_).ok());
  EXPECT_EQ(State().address(), "https://third.example/");
  EXPECT_THAT(Went(), SizeIs(1));
  EndLoad({{"errorText", "net::ERR_ABORTED"}});
  EXPECT_FALSE(State().is_loading());
}

TEST_F(HistoryTest, AStepCanBeStopped) {
  EXPECT_TRUE(pages_->GoBack(browser_).ok());
  EXPECT_TRUE(pages_->Stop(browser_).ok());
  EXPECT_THAT(Went(), IsEmpty());
  EXPECT_FALSE(State().is_loading());
  EXPECT_FALSE(State().can_go_forward());
}

TEST_F(PageServiceTest, TheBlankPageBeforeTheFirstIsForgotten) {
  scripted_->NeverReplyTo("Page.resetNavigationHistory");
  scripted_->SendEvent("Target.targetDestroyed", {{"targetId", "target"}});
  scripted_->Settle();
  TellOfPage("https://first.example/");
  // At some moments the engine refuses.
  for (const Json& command : scripted_->commands()) {
    if (Text(command, "method") != "Page.resetNavigationHistory") continue;
    scripted_->SendMessage({{"id", Member(command, "id")},
                            {"error", {{"code", -32000}, {"message", "no"}}},
                            {"sessionId", "session"}});
  }
  scripted_->Settle();
  Tell("Page.frameStoppedLoading", {{"frameId", "target"}});
  EXPECT_THAT(scripted_->Params("Page.resetNavigationHistory"), SizeIs(2));
  // Until it is, there is nothing to go back to.
  EXPECT_THAT(scripted_->Params("Page.getNavigationHistory"), IsEmpty());
}

TEST_F(PageServiceTest, AnOpenDialogIsDeclinedBeforeThePageGoes) {
  std::vector<orvane::Responder<rpc::CreateWebDialog>> responders;
  const auto serving = host_->OnCreateWebDialog(
      browser_, [&](const rpc::CreateWebDialogCall&,
                    orvane::Responder<rpc::CreateWebDialog> responder) {
        responders.push_back(std::move(responder));
      });
  loop_.RunUntilIdle();
  Tell("Page.javascriptDialogOpening",
       {{"url", "https://a.example/"}, {"type", "confirm"}});
  ASSERT_THAT(responders, SizeIs(1));
  scripted_->ForgetCommands();
  EXPECT_EQ(Load("https://next.example/"), absl::OkStatus());
  std::vector<std::string> methods;
  for (const Json& command : scripted_->commands())
    methods.push_back(Text(command, "method"));
  EXPECT_THAT(methods, ElementsAre("Page.handleJavaScriptDialog",
                                   "Runtime.evaluate", "Page.navigate"));
  EXPECT_FALSE(
      Flag(scripted_->Params("Page.handleJavaScriptDialog")[0], "accept"));
}

TEST_F(PageServiceTest, APageThatIsToGoOpensNoDialogAnyMore) {
  std::vector<rpc::CreateWebDialogCall> asked;
  const auto serving = host_->OnCreateWebDialog(
      browser_,
      [&](const rpc::CreateWebDialogCall& call,
          orvane::Responder<rpc::CreateWebDialog>) { asked.push_back(call); });
  loop_.RunUntilIdle();
  EXPECT_EQ(Load("https://next.example/"), absl::OkStatus());
  for (const char* const type : {"alert", "beforeunload"}) {
    Tell("Page.javascriptDialogOpening",
         {{"url", "https://a.example/"}, {"type", type}});
  }
  ASSERT_THAT(asked, SizeIs(1));
  EXPECT_TRUE(asked[0].has_before_unload());
  TellOfPage("https://next.example/");
  Tell("Page.javascriptDialogOpening",
       {{"url", "https://a.example/"}, {"type", "alert"}});
  EXPECT_THAT(asked, SizeIs(2));
}

TEST_F(PageServiceTest, AnEngineThatEndsDuringALoadIsFollowedByOneThatLoads) {
  EXPECT_EQ(Load("https://slow.example/"), absl::OkStatus());
  scripted_->Close();
  LaunchEngine();
  loop_.RunUntil([this] { return launches_ == 2; });
  EXPECT_EQ(State().error(), "");
  AnswerTheVersion();
  scripted_->Settle();
  EXPECT_EQ(LoadedAddresses(), Json({"https://slow.example/"}));
}

TEST_F(PageServiceTest, WhatIsStoppedWhileThereIsNoEngineIsNotLoaded) {
  scripted_->Close();
  LaunchEngine();
  loop_.RunUntil([this] { return launches_ == 2; });
  EXPECT_TRUE(pages_->Stop(browser_).ok());
  AnswerTheVersion();
  scripted_->Settle();
  EXPECT_THAT(LoadedAddresses(), IsEmpty());
  EXPECT_FALSE(State().is_loading());
  Reload();
  EXPECT_EQ(LoadedAddresses(), Json({"https://first.example/"}));
}

TEST_F(PageServiceTest, WhatIsAskedForWhileThereIsNoEngineIsLoadedByTheNext) {
  scripted_->Close();
  loop_.RunUntilIdle();
  EXPECT_EQ(Load("https://next.example/"), absl::OkStatus());
  LaunchEngine();
  loop_.RunUntil([this] { return launches_ == 2; });
  AnswerTheVersion();
  scripted_->Settle();
  EXPECT_EQ(LoadedAddresses(), Json({"https://next.example/"}));
}

// What is told of the page

TEST_F(PageServiceTest, WhatHappensTogetherIsOneEvent) {
  states_.clear();
  TellOfDocument();
  scripted_->SendEvent("Page.frameStartedLoading", {{"frameId", "target"}},
                       "session");
  Report({{"kind", "title"}, {"title", "A title"}});
  ASSERT_THAT(states_, SizeIs(1));
  EXPECT_EQ(states_[0].title(), "A title");
  EXPECT_TRUE(states_[0].is_loading());
}

TEST_F(PageServiceTest, NothingIsToldThatHasNotChanged) {
  TellOfDocument();
  Report({{"kind", "title"}, {"title", "A title"}});
  states_.clear();
  Report({{"kind", "title"}, {"title", "A title"}});
  EXPECT_THAT(states_, IsEmpty());
}

TEST_F(PageServiceTest, ATitleIsCutBetweenCharacters) {
  TellOfDocument();
  std::string title = "x";
  while (title.size() < 5000) title += "\xe6\xbc\xa2";
  Report({{"kind", "title"}, {"title", title}});
  EXPECT_EQ(State().title(), title.substr(0, 4096));
  EXPECT_EQ((4096 - 1) % 3, 0);
}

TEST_F(PageServiceTest, TheTitleOfAFrameIsNotThePages) {
  Tell(
      "Runtime.executionContextCreated",
      {{"context",
        {{"id", 6}, {"name", "orvane"}, {"auxData", {{"frameId", "inner"}}}}}});
  Report({{"kind", "title"}, {"title", "Inner"}}, 6);
  EXPECT_EQ(State().title(), "");
}

TEST_F(PageServiceTest, AnIconIsKeptUntilThePageGoes) {
  TellOfDocument();
  const std::string clear(4, '\0');
  const std::string straight = std::string("\xff\x00\x00\x80", 4) + clear;
  Report({{"kind", "icon"},
          {"width", 2},
          {"height", 1},
          {"pixels", absl::Base64Escape(straight)}});
  const auto icon = pages_->GetPageIcon(browser_);
  ASSERT_TRUE(icon.ok());
  EXPECT_EQ(icon->icon_id(), State().icon_id());
  EXPECT_NE(icon->icon_id(), 0u);
  EXPECT_EQ(icon->image().size().width(), 2);
  EXPECT_EQ(icon->image().size().height(), 1);
  EXPECT_EQ(icon->image().pixels(), std::string("\x80\x00\x00\x80", 4) + clear);
  TellOfPage("https://second.example/");
  EXPECT_EQ(State().icon_id(), 0u);
  EXPECT_FALSE(pages_->GetPageIcon(browser_)->has_image());
}

TEST_F(PageServiceTest, AnIconThatIsNotOneIsNone) {
  TellOfDocument();
  const std::string pixel = absl::Base64Escape(std::string(4, '\0'));
  for (const Json& report : std::vector<Json>{
           {{"kind", "icon"}},
           {{"kind", "icon"}, {"width", 1}, {"height", 2}, {"pixels", pixel}},
           {{"kind", "icon"}, {"width", -1}, {"height", -1}, {"pixels", pixel}},
           {{"kind", "icon"}, {"width", 1e9}, {"height", 1}, {"pixels", pixel}},
           {{"kind", "icon"}, {"width", 1}, {"height", 1}, {"pixels", "%"}}}) {
    Report(report);
    EXPECT_EQ(State().icon_id(), 0u) << report;
  }
}

// Failures

TEST_F(PageServiceTest, ACrashIsTold) {
  Tell("Inspector.targetCrashed");
  EXPECT_THAT(failed_, ElementsAre(rpc::PAGE_FAILURE_CRASHED));
  EXPECT_THAT(scripted_->Params("Page.reload"), SizeIs(1));
}

TEST_F(PageServiceTest, ACrashWhileAnotherPageIsBeingLoadedLoadsThatAgain) {
  EXPECT_EQ(Load("https://slow.example/"), absl::OkStatus());
  Tell("Inspector.targetCrashed");
  EXPECT_THAT(scripted_->Params("Page.reload"), IsEmpty());
  EXPECT_EQ(LoadedAddresses(),
            Json({"https://slow.example/", "https://slow.example/"}));
}

// The engine says first that the load was aborted.
TEST_F(PageServiceTest, ALoadThatACrashAbortsIsBegunAgain) {
  EXPECT_EQ(Load("https://slow.example/"), absl::OkStatus());
  scripted_->NeverReplyTo("Runtime.evaluate");
  EndLoad({{"errorText", "net::ERR_ABORTED"}});
  scripted_->ReplyTo("Runtime.evaluate", Json::object());
  Tell("Inspector.targetCrashed");
  EXPECT_EQ(LoadedAddresses(),
            Json({"https://slow.example/", "https://slow.example/"}));
}

TEST_F(PageServiceTest, APageThatKeepsCrashingComesBackOnceItIsAskedFor) {
  for (int i = 0; i < 4; ++i) Tell("Inspector.targetCrashed");
  EXPECT_EQ(failed_.back(), rpc::PAGE_FAILURE_KEEPS_CRASHING);
  ASSERT_THAT(LoadedAddresses(), SizeIs(1));
  TellOfPage(LoadedAddresses()[0].get<std::string>());
  EXPECT_EQ(State().address(), "https://first.example/");
  EXPECT_EQ(State().error(), "the page keeps crashing");
  Reload();
  EXPECT_EQ(LoadedAddresses()[1], "https://first.example/");
}

// Scripts

TEST_F(PageServiceTest, AScriptsValueIsJson) {
  scripted_->ReplyTo("Runtime.evaluate",
                     {{"result", {{"type", "object"}, {"value", {1, "a"}}}}});
  Evaluate("[1, 'a']");
  while (!answer_.has_value()) scripted_->Settle();
  ASSERT_TRUE(answer_->ok()) << answer_->status();
  EXPECT_EQ((*answer_)->json(), "[1,\"a\"]");
  const Json params = scripted_->Params("Runtime.evaluate")[0];
  EXPECT_EQ(Text(params, "expression"), "[1, 'a']");
  EXPECT_EQ(Number(params, "timeout"), 5000);
}

TEST_F(PageServiceTest, WhatAScriptThrowsIsTold) {
  scripted_->ReplyTo(
      "Runtime.evaluate",
      {{"result", {{"type", "object"}}},
       {"exceptionDetails",
        {{"text", "Uncaught"},
         {"exception", {{"description", "Error: no\n    at 1:1"}}}}}});
  Evaluate("");
  while (!answer_.has_value()) scripted_->Settle();
  ASSERT_TRUE(answer_->ok()) << answer_->status();
  EXPECT_EQ((*answer_)->exception(), "Error: no\n    at 1:1");
}

TEST_F(PageServiceTest, AScriptWhoseEngineEndsFails) {
  scripted_->NeverReplyTo("Runtime.evaluate");
  Evaluate("");
  scripted_->Settle();
  scripted_->Close();
  loop_.RunUntil([this] { return answer_.has_value(); });
  EXPECT_FALSE(answer_->ok());
}

TEST(PageService, RunsNoScriptsUnlessItMay) {
  orvane::EventLoop loop;
  Engine engine(&loop, []() -> absl::StatusOr<LaunchedEngine> {
    return absl::UnavailableError("none");
  });
  const Addresses addresses;
  PageService service(/*allows_scripts=*/false);
  widget_server::WidgetService widgets(
      {1}, [&](std::uint64_t browser, rpc::BrowserWidgetRpc* widget_service) {
        auto page = std::make_shared<Page>(
            Page::Context{&loop, &engine, &addresses, &service, ""}, browser,
            "about:blank", widget_service);
        service.Add(browser, page.get());
        return page;
      });
  orvane::SocketServer server(&loop, &service);
  auto connection = orvane::ConnectInProcess(&loop, &server);
  ASSERT_TRUE(connection.ok());
  Client client(connection->get());
  rpc::EvaluateRequest request;
  request.mutable_browser_id()->set_value(1);
  EXPECT_EQ(client.Evaluate(request).status().message(),
            "this server runs no scripts for hosts; its option --allow-scripts "
            "lets it");
}

// Windows

TEST_F(PageServiceTest, AWindowIsTheHostsToOpen) {
  std::vector<std::string> asked;
  const auto serving = pages_->OnOpenWindow(
      browser_, [&](const rpc::OpenWindowCall& call,
                    orvane::Responder<rpc::OpenWindow> responder) {
        asked.emplace_back(call.address());
        EXPECT_TRUE(call.is_user_gesture());
        rpc::OpenWindowResponse answer;
        answer.set_load_here(true);
        EXPECT_TRUE(std::move(responder).Respond(answer).ok());
      });
  loop_.RunUntilIdle();
  Tell("Page.windowOpen",
       {{"url", "https://window.example/"}, {"userGesture", true}});
  EXPECT_THAT(asked, ElementsAre("https://window.example/"));
  EXPECT_EQ(LoadedAddresses(), Json({"https://window.example/"}));
}

TEST_F(PageServiceTest, AWindowThatNobodyServesDoesNotOpen) {
  Tell("Page.windowOpen",
       {{"url", "https://window.example/"}, {"userGesture", true}});
  EXPECT_THAT(LoadedAddresses(), IsEmpty());
}

TEST_F(PageServiceTest, WindowsAreOfferedOneAtATime) {
  std::vector<orvane::Responder<rpc::OpenWindow>> responders;
  const auto serving = pages_->OnOpenWindow(
      browser_, [&](const rpc::OpenWindowCall&,
                    orvane::Responder<rpc::OpenWindow> responder) {
        responders.push_back(std::move(responder));
      });
  loop_.RunUntilIdle();
  for (int i = 0; i < 10; ++i)
    Tell("Page.windowOpen", {{"url", "https://window.example/"}});
  EXPECT_THAT(responders, SizeIs(1));
}

// Downloads

class DownloadsTest : public PageServiceTest {
 protected:
  DownloadsTest() {
    watching_ = pages_->WhenDownloadChanged(
        browser_,
        [this](const rpc::DownloadChanged& event) { told_.push_back(event); });
    serving_ = pages_->OnDownload(
        browser_, [this](const rpc::DownloadCall& call,
                         orvane::Responder<rpc::Download> responder) {
          calls_.push_back(call);
          responders_.push_back(std::move(responder));
        });
    loop_.RunUntilIdle();
  }

  // The engine begins it, and has written the file.
  void Begin(const std::string& name = "a b.txt") {
    Tell("Page.downloadWillBegin", {{"guid", "d-1"},
                                    {"url", "https://first.example/file"},
                                    {"suggestedFilename", name}});
    std::ofstream(downloads_.path() + "/d-1") << "content";
  }
  void TellProgress(const std::string& state) {
    Tell("Page.downloadProgress", {{"guid", "d-1"},
                                   {"receivedBytes", 7},
                                   {"totalBytes", 7},
                                   {"state", state}});
  }
  void Answer(const std::string& path) {
    rpc::DownloadResponse answer;
    answer.set_path(path);
    EXPECT_TRUE(std::move(responders_.back()).Respond(answer).ok());
    responders_.pop_back();
    scripted_->Settle();
  }
  bool HasFile() const {
    return std::filesystem::exists(downloads_.path() + "/d-1");
  }
  static std::string ContentOf(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  const orvane::testing::TemporaryFolder target_;
  std::unique_ptr<orvane::ClientStream> watching_;
  std::unique_ptr<orvane::ClientStream> serving_;
  std::vector<rpc::DownloadCall> calls_;
  std::vector<orvane::Responder<rpc::Download>> responders_;
  std::vector<rpc::DownloadChanged> told_;
};

TEST_F(DownloadsTest, AFileGoesWhereTheHostSays) {
  Begin();
  ASSERT_THAT(calls_, SizeIs(1));
  EXPECT_EQ(calls_[0].suggested_name(), "a b.txt");
  EXPECT_EQ(calls_[0].address(), "https://first.example/file");
  const std::string path = target_.path() + "/saved";
  Answer(path);
  ASSERT_THAT(told_, SizeIs(1));
  EXPECT_EQ(told_[0].status(), rpc::DOWNLOAD_STATUS_IN_PROGRESS);
  TellProgress("completed");
  loop_.RunUntil([this] { return told_.size() == 2; });
  EXPECT_EQ(told_[1].status(), rpc::DOWNLOAD_STATUS_COMPLETED);
  EXPECT_EQ(told_[1].download_id(), calls_[0].download_id());
  EXPECT_EQ(told_[1].received_bytes(), 7u);
  EXPECT_EQ(ContentOf(path), "content");
  EXPECT_FALSE(HasFile());
}

TEST_F(DownloadsTest, AFileThatIsCompleteWaitsForTheHost) {
  Begin();
  TellProgress("completed");
  EXPECT_THAT(told_, IsEmpty());
  Answer(target_.path() + "/saved");
  loop_.RunUntil([this] { return !told_.empty(); });
  EXPECT_EQ(told_[0].status(), rpc::DOWNLOAD_STATUS_COMPLETED);
}

TEST_F(DownloadsTest, AFileThatIsNotWantedIsNotKept) {
  Begin();
  Answer("");
  EXPECT_THAT(scripted_->Params("Browser.cancelDownload"), SizeIs(1));
  EXPECT_FALSE(HasFile());
  TellProgress("completed");
  EXPECT_THAT(told_, IsEmpty());
}

TEST_F(DownloadsTest, AFileThatNobodyServesIsNotKept) {
  serving_.reset();
  loop_.RunUntilIdle();
  Begin();
  scripted_->Settle();
  EXPECT_THAT(scripted_->Params("Browser.cancelDownload"), SizeIs(1));
}

TEST_F(DownloadsTest, APathThatCannotBeWrittenIsToldInWords) {
  Begin();
  Answer(target_.path() + "/missing/saved");
  TellProgress("completed");
  loop_.RunUntil([this] { return told_.size() == 2; });
  EXPECT_EQ(told_[1].status(), rpc::DOWNLOAD_STATUS_FAILED);
  EXPECT_THAT(told_[1].error(), HasSubstr("No such file or directory"));
  EXPECT_FALSE(HasFile());
}

TEST_F(DownloadsTest, APathThatIsNotAbsoluteIsRefused) {
  Begin();
  Answer("saved");
  ASSERT_THAT(told_, SizeIs(1));
  EXPECT_EQ(told_[0].error(), "'saved' is not an absolute path");
}

// It was cut there, and the file saved under another name than the host's.
TEST_F(DownloadsTest, APathWithANulIsRefused) {
  Begin();
  Answer(target_.path() + "/a" + '\0' + "b");
  ASSERT_THAT(told_, SizeIs(1));
  EXPECT_EQ(told_[0].status(), rpc::DOWNLOAD_STATUS_FAILED);
  EXPECT_TRUE(std::filesystem::is_empty(target_.path()));
}

// A download to /dev/null put a file in its place.
TEST_F(DownloadsTest, ADeviceOrPipeIsNotReplaced) {
  const std::string path = target_.path() + "/pipe";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  Begin();
  Answer(path);
  TellProgress("completed");
  loop_.RunUntil([this] { return told_.size() == 2; });
  EXPECT_EQ(told_[1].status(), rpc::DOWNLOAD_STATUS_FAILED);
  EXPECT_THAT(told_[1].error(),
              HasSubstr("it exists and is not a regular file"));
  EXPECT_TRUE(std::filesystem::is_fifo(path));
}

// On a full disk it stayed full.
TEST_F(DownloadsTest, NothingIsLeftOfADownloadThatFails) {
  const std::string part = downloads_.path() + "/d-1.crdownload";
  Begin();
  Answer(target_.path() + "/saved");
  std::ofstream(part) << "some of it";
  TellProgress("canceled");
  EXPECT_FALSE(std::filesystem::exists(part));
}

TEST_F(DownloadsTest, ADownloadThatIsBrokenOffFails) {
  Begin();
  Answer(target_.path() + "/saved");
  TellProgress("canceled");
  EXPECT_EQ(told_.back().status(), rpc::DOWNLOAD_STATUS_FAILED);
  EXPECT_FALSE(std::filesystem::exists(target_.path() + "/saved"));
}

TEST_F(DownloadsTest, ADownloadEndsWithItsEngine) {
  Begin();
  Answer(target_.path() + "/saved");
  scripted_->Close();
  loop_.RunUntil([this] { return told_.size() == 2; });
  EXPECT_EQ(told_[1].status(), rpc::DOWNLOAD_STATUS_FAILED);
  EXPECT_EQ(told_[1].error(), "the page has gone");
}

TEST_F(DownloadsTest, ASuggestedNameHasNoFolders) {
  Begin("../../etc/pass\nwd");
  EXPECT_EQ(calls_[0].suggested_name(), "pass_wd");
}

TEST_F(DownloadsTest, APageCannotOfferAnyNumberOfFiles) {
  for (int i = 0; i < 20; ++i) {
    Tell("Page.downloadWillBegin", {{"guid", "d-" + std::to_string(i)}});
  }
  EXPECT_THAT(calls_, SizeIs(16));
  EXPECT_THAT(scripted_->Params("Browser.cancelDownload"), SizeIs(4));
}

}  // namespace
}  // namespace chromium
