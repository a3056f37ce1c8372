#include "host/page.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/browser/page.rpc.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

namespace orvane::host {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr char kRefused[] = "The address cannot be loaded: not allowed";

// Records its calls in words, and tells the page that it has.
class PageServer final : public rpc::PageRpc {
 public:
  void CallMethod(const google::protobuf::MethodDescriptor* method,
                  google::protobuf::RpcController* controller,
                  const google::protobuf::Message* request,
                  google::protobuf::Message* response,
                  google::protobuf::Closure* done) override {
    if (method->name() == "GetPage") {
      static_cast<rpc::PageState*>(response)->set_title("First");
    } else if (method->name() == "GetPageIcon") {
      ++icon_questions;
      *static_cast<rpc::PageIcon*>(response) = icon;
    } else if (method->name() == "Load") {
      const auto& load = static_cast<const rpc::LoadRequest&>(*request);
      calls.push_back("Load " + load.address());
      if (load.address() == "gopher://") controller->SetFailed("not allowed");
    } else {
      calls.push_back(method->name());
    }
    done->Run();
  }

  std::vector<std::string> calls;
  rpc::PageIcon icon;
  int icon_questions = 0;
};

rpc::PageIcon Icon(
    int width, int height, const std::string& pixels,
    rpc::PixelFormat format = rpc::PIXEL_FORMAT_RGBA_8888_PREMULTIPLIED) {
  rpc::PageIcon icon;
  icon.mutable_image()->mutable_size()->set_width(width);
  icon.mutable_image()->mutable_size()->set_height(height);
  icon.mutable_image()->set_format(format);
  icon.mutable_image()->set_pixels(pixels);
  return icon;
}

class PageTest : public ::testing::Test {
 protected:
  void StartWidget() {
    server_.emplace(&loop_, &service_);
    EXPECT_EQ(server_->Listen(socket_), absl::OkStatus());
  }
  void Connect() {
    page_->Connect();
    loop_.RunUntilIdle();
  }
  std::vector<std::string> Calls() {
    loop_.RunUntilIdle();
    return std::exchange(service_.calls, {});
  }

  // Tells `state_` too.
  void TellTitle(const std::string& title) {
    rpc::PageChanged event;
    *event.mutable_state() = state_;
    event.mutable_state()->set_title(title);
    Publish<rpc::PageChanged>(testing::Browser(7), event);
    loop_.RunUntilIdle();
  }
  void TellIcon(std::uint64_t icon_id) {
    state_.set_icon_id(icon_id);
    TellTitle("A page with an icon");
  }
  static std::string PixelsOf(const Picture& picture) {
    return {picture.pixels().begin(), picture.pixels().end()};
  }
  void Offer(std::uint64_t id, const std::string& name) {
    rpc::DownloadCall call;
    call.set_download_id(id);
    call.set_suggested_name(name);
    Call<rpc::Download>(
        testing::Browser(7), call,
        [this](const absl::StatusOr<rpc::DownloadResponse>& answer) {
          paths_.push_back(answer.ok()
                               ? std::string(answer->path())
                               : std::string(answer.status().message()));
        });
    loop_.RunUntilIdle();
  }
  static std::string WordsOf(const rpc::DownloadChanged& event) {
    if (event.status() == rpc::DOWNLOAD_STATUS_IN_PROGRESS) return " goes on";
    if (event.status() == rpc::DOWNLOAD_STATUS_COMPLETED) return " is there";
    return absl::StrCat(": ", event.error());
  }
  void TellDownload(std::uint64_t id, rpc::DownloadStatus status,
                    const std::string& error = "") {
    rpc::DownloadChanged event;
    event.set_download_id(id);
    event.set_status(status);
    event.set_error(error);
    Publish<rpc::DownloadChanged>(testing::Browser(7), event);
    loop_.RunUntilIdle();
  }
  void Fail(rpc::PageFailure failure) {
    rpc::PageFailed event;
    event.set_failure(failure);
    Publish<rpc::PageFailed>(testing::Browser(7), event);
    loop_.RunUntilIdle();
  }

  const orvane::testing::TemporaryFolder folder_;
  const std::string socket_ = folder_.path() + "/widget.sock";
  EventLoop loop_;
  PageServer service_;
  std::optional<SocketServer> server_;
  rpc::PageState state_;
  std::vector<std::string> titles_;    // "gone" once the widget has gone.
  std::vector<std::string> problems_;  // As the titles were told.
  std::vector<std::string> icons_;     // Their pixels.
  std::vector<std::string> windows_;
  std::vector<std::string> paths_;      // Where offered files are to be saved.
  std::vector<std::string> downloads_;  // What has become of them.
  std::optional<Page> page_{
      std::in_place, ConnectorTo(&loop_, socket_), testing::Browser(7),
      PageHandlers{
          .on_state =
              [this](const rpc::PageState* state) {
                titles_.push_back(state == nullptr ? "gone" : state->title());
                problems_.push_back(page_->ProblemText());
              },
          .on_icon =
              [this](const Picture* icon) {
                icons_.push_back(icon == nullptr ? "none" : PixelsOf(*icon));
              },
          .on_open_window =
              [this](const rpc::OpenWindowCall& call) {
                windows_.push_back(call.address());
                return call.is_user_gesture();
              },
          .on_download =
              [](const rpc::DownloadCall& call) {
                const std::string name(call.suggested_name());
                return name == "unwanted" ? "" : "/files/" + name;
              },
          .on_download_changed =
              [this](const std::string& path,
                     const rpc::DownloadChanged& event) {
                downloads_.push_back(path + WordsOf(event));
              }}};
};

TEST(AddressOfTest, AWholeAddressStaysAsItIs) {
  EXPECT_EQ(AddressOf("https://example.com/a:b"), "https://example.com/a:b");
  EXPECT_EQ(AddressOf("about:blank"), "about:blank");
  EXPECT_EQ(AddressOf("data:text/html,hello"), "data:text/html,hello");
}

TEST(AddressOfTest, WhatLacksTheSchemeGetsIt) {
  EXPECT_EQ(AddressOf(" example.com "), "https://example.com");
  EXPECT_EQ(AddressOf("example.com:8443/x"), "https://example.com:8443/x");
  EXPECT_EQ(AddressOf("localhost:8080"), "http://localhost:8080");
  EXPECT_EQ(AddressOf("127.0.0.1/x"), "http://127.0.0.1/x");
  EXPECT_EQ(AddressOf("/srv/index.html"), "file:///srv/index.html");
}

TEST_F(PageTest, ThePageIsToldAtOnceAndWhenItChanges) {
  StartWidget();
  Connect();
  EXPECT_THAT(titles_, ElementsAre("First"));
  TellTitle("Second");
  EXPECT_THAT(titles_, ElementsAre("First", "Second"));
}

TEST_F(PageTest, AWidgetWithoutThePageServiceTellsNothing) {
  rpc::BrowserWidgetRpc other;
  SocketServer server(&loop_, &other);
  ASSERT_EQ(server.Listen(socket_), absl::OkStatus());
  Connect();
  page_->Reload();
  page_->Load("https://example.com");
  loop_.RunUntilIdle();
  EXPECT_THAT(titles_, IsEmpty());
}

TEST_F(PageTest, EachButtonIsACall) {
  StartWidget();
  page_->Reload();  // There is no widget yet.
  Connect();
  page_->Load("https://example.com");
  page_->Reload();
  page_->Stop();
  page_->GoBack();
  page_->GoForward();
  EXPECT_THAT(Calls(), ElementsAre("Load https://example.com", "Reload", "Stop",
                                   "GoBack", "GoForward"));
}

TEST_F(PageTest, AnAddressThatIsRefusedIsAProblemUntilAnotherIsLoaded) {
  StartWidget();
  Connect();
  EXPECT_EQ(page_->ProblemText(), "");
  page_->Load("gopher://");
  loop_.RunUntilIdle();
  EXPECT_THAT(problems_, ElementsAre("", kRefused));
  page_->Load("https://example.com");
  EXPECT_EQ(page_->ProblemText(), "");
}

TEST_F(PageTest, AnAddressThatIsRefusedIsForgottenOnceThePageIsAtAnother) {
  StartWidget();
  Connect();
  page_->Load("gopher://");
  loop_.RunUntilIdle();
  TellTitle("Another title");
  EXPECT_EQ(page_->ProblemText(), kRefused);
  state_.set_address("https://example.com");
  TellTitle("Elsewhere");
  EXPECT_EQ(page_->ProblemText(), "");
}

TEST_F(PageTest, APageThatIsNotLoadedIsAProblemInShortPlainWords) {
  StartWidget();
  Connect();
  state_.set_error("\x1b[2J" + std::string(100'000, 'x'));
  TellTitle("No page");
  EXPECT_EQ(page_->ProblemText(), "The page cannot be loaded: \\033[2J" +
                                      std::string(296, 'x') + "...");
  state_.clear_error();
  TellTitle("A page");
  EXPECT_EQ(page_->ProblemText(), "");
}

TEST_F(PageTest, APageThatCrashesIsAProblemUntilTheUserReloadsIt) {
  StartWidget();
  Connect();
  Fail(rpc::PAGE_FAILURE_CRASHED);
  EXPECT_EQ(page_->ProblemText(), "The page has crashed and was loaded again.");
  state_.set_error("the page keeps crashing");
  TellTitle("It keeps crashing");
  Fail(rpc::PAGE_FAILURE_KEEPS_CRASHING);
  EXPECT_EQ(page_->ProblemText(),
            "The page keeps crashing and is not loaded again.");
  state_.clear_error();
  page_->Reload();
  TellTitle("Again");
  EXPECT_EQ(page_->ProblemText(), "");
}

TEST_F(PageTest, APageThatDoesNotRespondIsAProblemWhileItDoesNot) {
  StartWidget();
  Connect();
  Fail(rpc::PAGE_FAILURE_UNRESPONSIVE);
  EXPECT_EQ(page_->ProblemText(), "");
  state_.set_is_unresponsive(true);
  TellTitle("Busy");
  EXPECT_EQ(page_->ProblemText(), "The page does not respond.");
  state_.set_is_unresponsive(false);
  TellTitle("Ready");
  EXPECT_EQ(page_->ProblemText(), "");
}

TEST_F(PageTest, APageMayEndBeforeTheAnswer) {
  StartWidget();
  Connect();
  page_->Load("gopher://");
  page_.reset();
  loop_.RunUntilIdle();
  EXPECT_THAT(problems_, ElementsAre(""));
}

TEST_F(PageTest, TheIconIsToldWhenItChanges) {
  StartWidget();
  Connect();
  service_.icon = Icon(1, 1, "RGBA");
  TellIcon(5);
  TellTitle("Another title");
  service_.icon = Icon(1, 1, "rgba");
  TellIcon(6);
  TellIcon(0);
  TellTitle("A page without one");
  EXPECT_THAT(icons_, ElementsAre("BGRA", "bgra", "none"));
  EXPECT_EQ(service_.icon_questions, 2);
}

TEST_F(PageTest, AnIconOfNonsenseIsNone) {
  StartWidget();
  Connect();
  service_.icon = Icon(1, 1, "RGBA");
  TellIcon(1);
  const std::vector<rpc::PageIcon> icons = {
      {},
      Icon(0, 0, ""),
      Icon(1, 1, "RGB"),
      Icon(-1, -1, "RGBA"),
      Icon(65, 1, std::string(65 * 4, 'x')),
      Icon(1 << 30, 1 << 30, "RGBA"),
      Icon(1, 1, "RGBA", rpc::PIXEL_FORMAT_UNSPECIFIED),
      Icon(1, 1, "RGBA", static_cast<rpc::PixelFormat>(4711))};
  for (std::uint64_t i = 0; i < icons.size(); ++i) {
    service_.icon = icons[i];
    TellIcon(2 + i);
  }
  EXPECT_THAT(icons_, ElementsAre("BGRA", "none"));
}

TEST_F(PageTest, OfAnIconThatChangesAllTheTimeOneIsAskedForAtATime) {
  StartWidget();
  Connect();
  service_.icon = Icon(1, 1, "RGBA");
  for (std::uint64_t id = 1; id <= 10'000; ++id) {
    rpc::PageChanged event;
    event.mutable_state()->set_icon_id(id);
    Publish<rpc::PageChanged>(testing::Browser(7), event);
  }
  loop_.RunUntilIdle();
  EXPECT_THAT(icons_, ElementsAre("BGRA"));
  EXPECT_LE(service_.icon_questions, 100);
}

TEST_F(PageTest, TheIconGoesWithTheWidget) {
  StartWidget();
  Connect();
  service_.icon = Icon(1, 1, "RGBA");
  TellIcon(5);
  server_.reset();
  loop_.RunUntilIdle();
  EXPECT_THAT(icons_, ElementsAre("BGRA", "none"));
}

TEST_F(PageTest, TheHostDecidesAboutWindows) {
  StartWidget();
  Connect();
  rpc::OpenWindowCall call;
  call.set_address("https://example.com/popup");
  call.set_is_user_gesture(true);
  std::optional<bool> is_loaded_here;
  Call<rpc::OpenWindow>(
      testing::Browser(7), call,
      [&](const absl::StatusOr<rpc::OpenWindowResponse>& answer) {
        is_loaded_here = answer->load_here();
      });
  loop_.RunUntilIdle();
  EXPECT_THAT(windows_, ElementsAre("https://example.com/popup"));
  EXPECT_EQ(is_loaded_here, true);
}

TEST_F(PageTest, TheHostSaysWhereAFileIsSavedAndIsToldWhenItIs) {
  StartWidget();
  Connect();
  Offer(1, "a");
  Offer(2, "b");
  TellDownload(1, rpc::DOWNLOAD_STATUS_IN_PROGRESS);
  TellDownload(2, rpc::DOWNLOAD_STATUS_FAILED, "the disk is full");
  TellDownload(1, rpc::DOWNLOAD_STATUS_COMPLETED);
  EXPECT_THAT(paths_, ElementsAre("/files/a", "/files/b"));
  EXPECT_THAT(downloads_,
              ElementsAre("/files/a goes on", "/files/b: the disk is full",
                          "/files/a is there"));
}

TEST_F(PageTest, OfAFileThatIsNotWantedNothingIsTold) {
  StartWidget();
  Connect();
  Offer(1, "unwanted");
  TellDownload(1, rpc::DOWNLOAD_STATUS_COMPLETED);
  EXPECT_THAT(paths_, ElementsAre(""));
  EXPECT_THAT(downloads_, IsEmpty());
}

TEST_F(PageTest, TheEndOfADownloadIsToldOnce) {
  StartWidget();
  Connect();
  Offer(1, "a");
  TellDownload(1, rpc::DOWNLOAD_STATUS_UNSPECIFIED);
  TellDownload(1, static_cast<rpc::DownloadStatus>(4711));
  TellDownload(1, rpc::DOWNLOAD_STATUS_COMPLETED);
  TellDownload(1, rpc::DOWNLOAD_STATUS_FAILED, "too late");
  TellDownload(1, rpc::DOWNLOAD_STATUS_IN_PROGRESS);
  TellDownload(4711, rpc::DOWNLOAD_STATUS_COMPLETED);
  server_.reset();
  loop_.RunUntilIdle();
  EXPECT_THAT(downloads_, ElementsAre("/files/a is there"));
}

TEST_F(PageTest, ADownloadNeedsANumberOfItsOwn) {
  StartWidget();
  Connect();
  Offer(0, "a");
  Offer(1, "b");
  Offer(1, "c");
  EXPECT_THAT(paths_, ElementsAre("", "/files/b", ""));
  TellDownload(1, rpc::DOWNLOAD_STATUS_COMPLETED);
  EXPECT_THAT(downloads_, ElementsAre("/files/b is there"));
}

TEST_F(PageTest, OfTenThousandDownloads64AreSavedAtATime) {
  StartWidget();
  Connect();
  for (std::uint64_t id = 1; id <= 10'000; ++id) Offer(id, "a");
  EXPECT_THAT(paths_, SizeIs(10'000));
  EXPECT_EQ(std::count(paths_.begin(), paths_.end(), ""), 10'000 - 64);
  TellDownload(1, rpc::DOWNLOAD_STATUS_COMPLETED);
  Offer(10'001, "b");
  EXPECT_EQ(paths_.back(), "/files/b");
}

TEST_F(PageTest, ADownloadFailsWithTheWidget) {
  StartWidget();
  Connect();
  Offer(1, "a");
  server_.reset();
  loop_.RunUntilIdle();
  EXPECT_THAT(downloads_, ElementsAre("/files/a: the browser has ended"));
}

TEST_F(PageTest, ADownloadFailsIfThePageConnectsAnew) {
  StartWidget();
  Connect();
  Offer(1, "a");
  Connect();
  EXPECT_THAT(downloads_, ElementsAre("/files/a: the browser has ended"));
  Offer(1, "b");
  EXPECT_THAT(paths_, ElementsAre("/files/a", "/files/b"));
}

TEST_F(PageTest, ThePageIsNotKnownOnceTheWidgetHasGone) {
  StartWidget();
  Connect();
  server_.reset();
  loop_.RunUntilIdle();
  page_->Reload();
  EXPECT_THAT(titles_, ElementsAre("First", "gone"));
  StartWidget();
  Connect();
  EXPECT_THAT(titles_, ElementsAre("First", "gone", "First"));
}

TEST_F(PageTest, ThePageIsNotKnownBetweenOneWidgetAndTheNext) {
  StartWidget();
  Connect();
  Connect();
  EXPECT_THAT(titles_, ElementsAre("First", "gone", "First"));
}

}  // namespace
}  // namespace orvane::host
