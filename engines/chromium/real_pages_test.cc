// Whole sessions: where the host tells the page to go, and what it learns of
// it.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "engines/chromium/real_engine_fixture.h"
#include "zimbrel/src/core/common/rpc/owned_descriptor.h"

namespace chromium {
namespace {

using testing::AddressOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::kBegin;
using ::testing::SizeIs;
using testing::Stream;

class RealPagesTest : public testing::RealEngineFixture {
 protected:
  void Load(const std::string& address) {
    auto request = New<rpc::LoadRequest>();
    request.set_address(address);
    const auto loaded = pages_->Load(request);
    EXPECT_TRUE(loaded.ok()) << loaded.status();
  }
  static std::string Titled(const std::string& title) {
    return AddressOf("<!DOCTYPE html><title>" + title + "</title>");
  }
  void AwaitTitle(const std::string& title) {
    loop_.RunUntil([&] { return state_.title() == title; });
  }

  void KeepDialogsWaiting() {
    dialogs_ = widget_->OnCreateWebDialog(
        browser_, [this](const rpc::CreateWebDialogCall&,
                         orvane::Responder<rpc::CreateWebDialog> responder) {
          waiting_.push_back(std::move(responder));
        });
  }

  rpc::EvaluateResponse Evaluate(const std::string& script) {
    auto request = New<rpc::EvaluateRequest>();
    request.set_script(script);
    const auto outcome = pages_->Evaluate(request);
    EXPECT_TRUE(outcome.ok()) << outcome.status();
    return outcome.ok() ? *outcome : rpc::EvaluateResponse();
  }

  std::vector<orvane::Responder<rpc::CreateWebDialog>> waiting_;
};

TEST_F(RealPagesTest, PagesTakeInputOnceTheProgramListens) {
  Start("about:blank", {});
  ASSERT_TRUE(widget_->Attach(New<rpc::AttachRequest>()).ok());
  const auto pressed =
      widget_->ForwardKeyPress(New<rpc::KeyPressRequest>("key { key: 'a' }"));
  EXPECT_TRUE(pressed.ok()) << pressed.status();
}

TEST_F(RealPagesTest, AHostGoesSomewhereAndBackAndForth) {
  Open("");
  Load(Titled("First"));
  AwaitTitle("First");
  Load(Titled("Second"));
  AwaitTitle("Second");
  EXPECT_EQ(state_.address(), Titled("Second"));
  EXPECT_EQ(state_.security(), rpc::PAGE_SECURITY_LOCAL);
  loop_.RunUntil([this] { return state_.can_go_back(); });
  EXPECT_TRUE(pages_->GoBack(browser_).ok());
  AwaitTitle("First");
  loop_.RunUntil([this] { return state_.can_go_forward(); });
  EXPECT_TRUE(pages_->GoForward(browser_).ok());
  AwaitTitle("Second");
  loop_.RunUntil([this] { return !state_.is_loading(); });
}

TEST_F(RealPagesTest, TwoStepsBackAreTwo) {
  Open("");
  for (const char* const title : {"First", "Second", "Third"}) {
    Load(Titled(title));
    AwaitTitle(title);
  }
  loop_.RunUntil([this] { return state_.can_go_back(); });
  EXPECT_TRUE(pages_->GoBack(browser_).ok());
  EXPECT_TRUE(pages_->GoBack(browser_).ok());
  AwaitTitle("First");
  loop_.RunUntil([this] { return !state_.is_loading(); });
  EXPECT_EQ(state_.address(), Titled("First"));
}

TEST_F(RealPagesTest, TheFirstPageHasNothingBeforeIt) {
  Open("");
  EXPECT_EQ(pages_->GoBack(browser_).status().message(),
            "there is no page to go back to");
}

TEST_F(RealPagesTest, AnAddressThatCannotBeReachedIsToldInWords) {
  Open("");
  Load("http://127.0.0.1:1/");
  loop_.RunUntil([this] { return !state_.error().empty(); });
  EXPECT_EQ(state_.address(), "http://127.0.0.1:1/");
  EXPECT_THAT(std::string(state_.error()), HasSubstr("net::ERR_"));
  Load(Titled("Back again"));
  AwaitTitle("Back again");
  EXPECT_EQ(state_.error(), "");
}

TEST_F(RealPagesTest, APageThatWaitsForADialogCanBeLeft) {
  Open(
      "<script>addEventListener('click', () =>"
      "  setTimeout(() => alert('?')));</script>");
  KeepDialogsWaiting();
  Click(5, 5);
  loop_.RunUntil([this] { return !waiting_.empty(); });
  Load(Titled("Elsewhere"));
  AwaitTitle("Elsewhere");
}

// Of two pages of one site, which share a process.
class RealSiteTest : public RealPagesTest {
 protected:
  void Open(const std::string& body) {
    const std::string first = Write("first.html", kBegin + body);
    second_ = Write("second.html", "<!DOCTYPE html><title>Second</title>");
    LetTheEngineReadFiles();
    OpenAddress(first, {"--files", files_.path(), "--allow-scripts"});
    AwaitPage();
  }
  std::string Write(const std::string& name, const std::string& content) {
    const std::string path = files_.path() + "/" + name;
    std::ofstream(path) << content;
    return "file://" + path;
  }
  void ExpectThatItCanBeLeft() {
    Load(second_);
    AwaitTitle("Second");
    EXPECT_EQ(state_.address(), second_);
  }

  std::string second_;
};

TEST_F(RealSiteTest, APageThatOpensDialogAfterDialogCanBeLeft) {
  Open(
      "<script>onclick = () => setTimeout(() => {"
      "  for (const i of [1, 2, 3]) alert(i); });</script>");
  KeepDialogsWaiting();
  Click(5, 5);
  loop_.RunUntil([this] { return !waiting_.empty(); });
  ExpectThatItCanBeLeft();
  EXPECT_THAT(waiting_, SizeIs(1));
}

TEST_F(RealSiteTest, APageThatOpensDialogsWithoutEndCanBeLeft) {
  Open("<script>onclick = () => { for (;;) alert(1); };</script>");
  Click(5, 5);
  loop_.RunUntil([this] { return !asked_.empty(); });
  ExpectThatItCanBeLeft();
}

TEST_F(RealSiteTest, APageThatHangsCanBeLeft) {
  Open("");
  Evaluate("setTimeout(() => { for (;;); })");
  ExpectThatItCanBeLeft();
}

TEST_F(RealSiteTest, APageThatHangsWhenItIsLeftCanBeLeft) {
  for (const char* const type : {"beforeunload", "pagehide"}) {
    Open(absl::StrCat("<script>on", type, " = () => { for (;;); };</script>"));
    Click(5, 5);
    ExpectThatItCanBeLeft();
  }
}

TEST_F(RealSiteTest, AScriptThatHangsIsStopped) {
  Open("");
  Evaluate("setTimeout(() => { for (;;); })");
  EXPECT_TRUE(pages_->Stop(browser_).ok());
  EXPECT_EQ(Evaluate("1 + 1").json(), "2");
}

TEST_F(RealPagesTest, ATitleAndAnIconThatChangeAreTold) {
  Open(
      "<script>addEventListener('click', () => {"
      "  document.title = 'Another';"
      "  const link = document.createElement('link');"
      "  link.rel = 'icon';"
      "  link.href = `data:image/svg+xml,<svg xmlns='http://www.w3.org/2000/"
      "svg' width='8' height='4'><rect width='8' height='4' fill='%23f00'/>"
      "</svg>`;"
      "  document.head.append(link); });</script>");
  EXPECT_EQ(state_.icon_id(), 0u);
  Click(5, 5);
  AwaitTitle("Another");
  loop_.RunUntil([this] { return state_.icon_id() != 0; });
  const auto icon = pages_->GetPageIcon(browser_);
  ASSERT_TRUE(icon.ok()) << icon.status();
  EXPECT_EQ(icon->icon_id(), state_.icon_id());
  EXPECT_EQ(icon->image().size().width(), 8);
  EXPECT_EQ(icon->image().size().height(), 4);
  EXPECT_EQ(icon->image().pixels().substr(0, 4),
            std::string("\xff\x00\x00\xff", 4));
}

// Its server sends the first half and then no more.
TEST_F(RealPagesTest, ATitleIsToldWhileThePageIsStillLoading) {
  const orvane::OwnedDescriptor listener(
      ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::listen(listener.get(), 1), 0);
  sockaddr_in address = {};
  socklen_t length = sizeof address;
  ASSERT_EQ(::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address),
                          &length),
            0);
  Start(absl::StrCat("http://127.0.0.1:", ntohs(address.sin_port), "/"), {});
  const orvane::OwnedDescriptor server(
      ::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  const std::string half =
      "HTTP/1.1 200 OK\r\nContent-Type: text/html\r\nContent-Length: 1000\r\n"
      "\r\n<!DOCTYPE html><title>Half</title><p>Half";
  ASSERT_EQ(::send(server.get(), half.data(), half.size(), MSG_NOSIGNAL),
            static_cast<ssize_t>(half.size()));
  AwaitTitle("Half");
  EXPECT_TRUE(state_.is_loading());
  EXPECT_TRUE(pages_->Stop(browser_).ok());
  loop_.RunUntil([this] { return !state_.is_loading(); });
  EXPECT_EQ(state_.title(), "Half");
}

TEST_F(RealPagesTest, AWindowThatThePageWantsIsOffered) {
  Open("<a href='about:blank' target=_blank style='display:block'>Open</a>");
  std::vector<std::string> asked;
  const Stream serving = pages_->OnOpenWindow(
      browser_, [&](const rpc::OpenWindowCall& call,
                    orvane::Responder<rpc::OpenWindow> responder) {
        asked.emplace_back(call.address());
        EXPECT_TRUE(call.is_user_gesture());
        rpc::OpenWindowResponse answer;
        answer.set_load_here(true);
        EXPECT_TRUE(std::move(responder).Respond(answer).ok());
      });
  loop_.RunUntilIdle();
  Click(5, 5);
  loop_.RunUntil([this] { return state_.address() == "about:blank"; });
  EXPECT_THAT(asked, ElementsAre("about:blank"));
}

TEST_F(RealPagesTest, ADownloadIsSavedWhereTheHostSays) {
  Open(
      "<a href='data:text/plain,hello' download='name.txt'"
      " style='display:block'>Save</a>");
  const std::string path = files_.path() + "/saved.txt";
  std::vector<std::string> names;
  const Stream serving = pages_->OnDownload(
      browser_, [&](const rpc::DownloadCall& call,
                    orvane::Responder<rpc::Download> responder) {
        names.emplace_back(call.suggested_name());
        rpc::DownloadResponse answer;
        answer.set_path(path);
        EXPECT_TRUE(std::move(responder).Respond(answer).ok());
      });
  rpc::DownloadChanged latest;
  const Stream following = pages_->WhenDownloadChanged(
      browser_, [&](const rpc::DownloadChanged& event) { latest = event; });
  loop_.RunUntilIdle();
  Click(5, 5);
  loop_.RunUntil([&] {
    return latest.status() == rpc::DOWNLOAD_STATUS_COMPLETED ||
           latest.status() == rpc::DOWNLOAD_STATUS_FAILED;
  });
  EXPECT_EQ(latest.error(), "");
  EXPECT_THAT(names, ElementsAre("name.txt"));
  std::ifstream file(path);
  EXPECT_EQ(std::string((std::istreambuf_iterator<char>(file)), {}), "hello");
}

TEST_F(RealPagesTest, ScriptsRunIfTheServerAllowsThem) {
  Open("<script>let answer = 40;</script>", {"--allow-scripts"});
  EXPECT_EQ(Evaluate("answer + 2").json(), "42");
  EXPECT_EQ(Evaluate("Promise.resolve({ a: [1, null] })").json(),
            R"({"a":[1,null]})");
  EXPECT_EQ(Evaluate("undefined").json(), "null");
  EXPECT_THAT(std::string(Evaluate("throw new Error('no')").exception()),
              HasSubstr("Error: no"));
}

TEST_F(RealPagesTest, AScriptThatDoesNotEndIsEnded) {
  Open("", {"--allow-scripts"});
  auto request = New<rpc::EvaluateRequest>("script: 'for (;;);'");
  request.set_timeout_ms(100);
  EXPECT_FALSE(pages_->Evaluate(request).ok());
  EXPECT_EQ(Evaluate("1").json(), "1");
}

TEST_F(RealPagesTest, APageThatHangsIsToldAndCanBeStopped) {
  Open("<script>addEventListener('mousedown', () => { for (;;); });</script>");
  std::vector<rpc::PageFailure> failures;
  const Stream following =
      pages_->WhenPageFailed(browser_, [&](const rpc::PageFailed& event) {
        failures.push_back(event.failure());
      });
  loop_.RunUntilIdle();
  Click(5, 5);
  loop_.RunUntil([&] { return state_.is_unresponsive(); });
  EXPECT_THAT(failures, ElementsAre(rpc::PAGE_FAILURE_UNRESPONSIVE));
  EXPECT_TRUE(pages_->Stop(browser_).ok());
  loop_.RunUntil([&] { return !state_.is_unresponsive(); });
}

TEST_F(RealPagesTest, APageThatHangsCanBeLeft) {
  Open("<script>addEventListener('mousedown', () => { for (;;); });</script>");
  Click(5, 5);
  loop_.RunUntil([&] { return state_.is_unresponsive(); });
  Load(Titled("Elsewhere"));
  AwaitTitle("Elsewhere");
}

}  // namespace
}  // namespace chromium
