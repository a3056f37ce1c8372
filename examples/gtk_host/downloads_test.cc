// The window with a widget that offers files, as a hostile one does.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "examples/gtk_host/window_fixture.h"
#include "orvane/server.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/browser/page.rpc.h"

namespace gtk_host::testing {
namespace {

using ::testing::ElementsAre;

// There is no page to be seen, only words about that.
class WindowDownloadsTest : public WindowFixture {
 protected:
  WindowDownloadsTest() : WindowFixture(0, {0, 0}) {}

  void Start() {
    StartWidget();
    StartHost(MakeFolderForFiles());
    AwaitWindow();
    // Once the window has asked for the page, it serves its downloads.
    AwaitTitle("A page");
  }
  void StartWidget() {
    server_.emplace(&screen_->loop(),
                    std::vector<orvane::Service*>{&widget_service_, &pages_});
    ASSERT_TRUE(server_->Listen(socket()).ok());
  }

  // Answers the paths that the host chooses.
  std::vector<std::string> Offer(const std::vector<std::string>& names) {
    struct Answers {
      std::vector<std::string> paths;
      std::size_t count = 0;
    };
    const auto answers = std::make_shared<Answers>();
    for (const std::string& name : names) {
      rpc::DownloadCall call;
      call.set_download_id(++last_id_);
      call.set_suggested_name(name);
      orvane::Call<rpc::Download>(
          browser_, call,
          [answers](const absl::StatusOr<rpc::DownloadResponse>& answer) {
            ++answers->count;
            if (answer.ok()) answers->paths.emplace_back(answer->path());
          });
    }
    Await("the paths", [&] { return answers->count == names.size(); });
    return answers->paths;
  }
  void End(std::uint64_t id, rpc::DownloadStatus status) {
    rpc::DownloadChanged event;
    event.set_download_id(id);
    event.set_status(status);
    event.set_error("no reason");
    orvane::Publish<rpc::DownloadChanged>(browser_, event);
  }

  std::vector<std::string> Files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(files()))
      names.push_back(entry.path().filename());
    return names;
  }

  class Pages final : public rpc::PageRpc {
    void GetPage(google::protobuf::RpcController*, const BrowserId*,
                 rpc::PageState* response,
                 google::protobuf::Closure* done) override {
      response->set_title("A page");
      done->Run();
    }
  };

  rpc::BrowserWidgetRpc widget_service_;
  Pages pages_;
  std::optional<orvane::SocketServer> server_;
  std::uint64_t last_id_ = 0;
};

TEST_F(WindowDownloadsTest, NamesOfNonsenseStayInTheFolder) {
  Start();
  const std::vector<std::string> paths =
      Offer({"../../x", "..", "", "a\nb\x1b[2J", "/etc/passwd", ".hidden",
             std::string(100'000, 'y') + ".pdf"});
  EXPECT_THAT(paths,
              ElementsAre(files() + "/x", files() + "/download",
                          files() + "/download (2)", files() + "/a_b_[2J",
                          files() + "/passwd", files() + "/hidden",
                          files() + "/" + std::string(196, 'y') + ".pdf"));
}

TEST_F(WindowDownloadsTest, AFileThatIsNotSavedLeavesNothing) {
  Start();
  EXPECT_THAT(Offer({"x"}), ElementsAre(files() + "/x"));
  EXPECT_THAT(Files(), ElementsAre("x"));
  End(1, rpc::DOWNLOAD_STATUS_FAILED);
  Await("the end of the file", [this] { return Files().empty(); });
}

// The reason reaches further to the right than "Saving x…".
TEST_F(WindowDownloadsTest, AWidgetThatGoesLeavesNothingAndIsTold) {
  Start();
  Offer({"x"});
  const auto colors_of_the_reason = [&] {
    const Area place = screen_->PlaceOf(window());
    const Image image =
        screen_->Take({place.x + 180, place.y + place.height - 30, 80, 20});
    return std::set<Rgb>(image.pixels().begin(), image.pixels().end()).size();
  };
  // The window can grow for them.
  Await("the words about the file", [&] {
    const Area place = screen_->PlaceOf(window());
    return screen_->ColorAt({place.x + 5, place.y + place.height - 5}) !=
               screen_->ColorAt({place.x + 5, place.y + place.height / 2}) &&
           colors_of_the_reason() == 1;
  });
  server_.reset();
  Await("the end of the file", [this] { return Files().empty(); });
  Await("the reason", [&] { return colors_of_the_reason() > 1; });
}

TEST_F(WindowDownloadsTest, OfTenThousandFilesTheWindowKeepsFewLines) {
  constexpr int kBatch = 50;
  constexpr int kBatches = 200;
  Start();
  const int height = screen_->PlaceOf(window()).height;
  for (int batch = 0; batch < kBatches && !HasFailure(); ++batch) {
    std::vector<std::string> names;
    for (int i = 0; i < kBatch; ++i)
      names.push_back(absl::StrCat("x", batch * kBatch + i));
    const std::uint64_t first = last_id_ + 1;
    ASSERT_EQ(Offer(names).size(), names.size());
    for (std::uint64_t id = first; id <= last_id_; ++id)
      End(id, rpc::DOWNLOAD_STATUS_COMPLETED);
  }
  EXPECT_EQ(Files().size(), std::size_t{kBatch * kBatches});
  const long ping = screen_->Ping(window());
  Await("an answer of the window",
        [ping] { return screen_->HasAnswered(ping); });
  EXPECT_EQ(screen_->PlaceOf(window()).height, height);
}

}  // namespace
}  // namespace gtk_host::testing
