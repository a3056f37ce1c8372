// A page whose widget sends what it likes.

#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "host/page.h"
#include "rpc/browser/page.rpc.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"
#include "zimbrel/src/core/common/rpc/testing/raw_peer.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace orvane::host {
namespace {

using ::orvane::testing::RawPeer;
using rpc::transport::StreamMessage;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class HostilePageTest : public ::testing::Test {
 protected:
  HostilePageTest() {
    page_.Connect();
    widget_.emplace(OwnedDescriptor(::accept4(listening_.get(), nullptr,
                                              nullptr, SOCK_CLOEXEC)),
                    internal::MakeHello(*rpc::PageRpc::descriptor()));
    Run();
  }
  void Run() {
    loop_.RunUntilIdle();
    widget_->Receive();
  }

  static std::uint32_t IndexOf(const std::string& method) {
    return static_cast<std::uint32_t>(
        rpc::PageRpc::descriptor()->FindMethodByName(method)->index());
  }
  int CountCalls(const std::string& method) const {
    return static_cast<int>(
        std::count_if(widget_->frames.begin(), widget_->frames.end(),
                      [&](const StreamMessage& frame) {
                        return frame.kind() == StreamMessage::KIND_CALL &&
                               frame.method() == IndexOf(method);
                      }));
  }

  // The widget sends a frame of the latest call or stream of that method.
  void Send(const std::string& method, StreamMessage::Kind kind,
            const std::string& payload = "", std::int64_t call_id = 0) {
    const auto begun =
        std::find_if(widget_->frames.rbegin(), widget_->frames.rend(),
                     [&](const StreamMessage& frame) {
                       return (frame.kind() == StreamMessage::KIND_CALL ||
                               frame.kind() == StreamMessage::KIND_OPEN) &&
                              frame.method() == IndexOf(method);
                     });
    ASSERT_NE(begun, widget_->frames.rend()) << method;
    StreamMessage frame;
    frame.set_kind(kind);
    frame.set_stream_id(begun->stream_id());
    frame.set_call_id(call_id);
    frame.set_payload(payload);
    widget_->Send(frame);
    Run();
  }
  void TellIcon(std::uint64_t icon_id) {
    rpc::PageChanged event;
    event.mutable_state()->set_icon_id(icon_id);
    Send("WhenPageChanged", StreamMessage::KIND_NEXT,
         event.SerializeAsString());
  }
  void Offer(std::uint64_t download) {
    rpc::Download message;
    *message.mutable_browser_id() = testing::Browser(7);
    message.mutable_call()->set_download_id(download);
    Send("OnDownload", StreamMessage::KIND_NEXT, message.SerializeAsString(),
         static_cast<std::int64_t>(download));
  }

  const orvane::testing::TemporaryFolder folder_;
  const std::string socket_ = folder_.path() + "/widget.sock";
  absl::StatusOr<ListeningSocket> files_ = ListeningSocket::Open(socket_);
  const OwnedDescriptor listening_{files_->ReleaseDescriptor()};
  EventLoop loop_;
  std::optional<RawPeer> widget_;
  int states_ = 0;
  std::vector<std::string> icons_;
  std::vector<std::uint64_t> offered_;
  std::vector<std::string> ended_;
  Page page_{ConnectorTo(&loop_, socket_),
             testing::Browser(7),
             {.on_state = [this](const rpc::PageState*) { ++states_; },
              .on_icon =
                  [this](const Picture* icon) {
                    icons_.emplace_back(icon == nullptr ? "none" : "icon");
                  },
              .on_download =
                  [this](const rpc::DownloadCall& call) {
                    offered_.push_back(call.download_id());
                    return absl::StrCat("/files/", call.download_id());
                  },
              .on_download_changed =
                  [this](const std::string& path, const rpc::DownloadChanged&) {
                    ended_.push_back(path);
                  }}};
};

TEST_F(HostilePageTest, AFailureBeforeThereIsAPageIsNotTold) {
  rpc::PageFailed event;
  event.set_failure(rpc::PAGE_FAILURE_CRASHED);
  Send("WhenPageFailed", StreamMessage::KIND_NEXT, event.SerializeAsString());
  Send("WhenPageChanged", StreamMessage::KIND_COMPLETE);
  EXPECT_EQ(states_, 0);
  EXPECT_EQ(page_.ProblemText(), "");
}

TEST_F(HostilePageTest, OneIconIsAskedForAtATime) {
  for (std::uint64_t id = 1; id <= 10'000; ++id) TellIcon(id);
  EXPECT_EQ(CountCalls("GetPageIcon"), 1);
  Send("GetPageIcon", StreamMessage::KIND_REPLY);
  EXPECT_EQ(CountCalls("GetPageIcon"), 2);
  Send("GetPageIcon", StreamMessage::KIND_REPLY);
  EXPECT_EQ(CountCalls("GetPageIcon"), 2);
  EXPECT_THAT(icons_, IsEmpty());
}

TEST_F(HostilePageTest, AnIconThatComesTooLateIsNotTold) {
  rpc::PageIcon icon;
  icon.mutable_image()->mutable_size()->set_width(1);
  icon.mutable_image()->mutable_size()->set_height(1);
  icon.mutable_image()->set_format(rpc::PIXEL_FORMAT_RGBA_8888_PREMULTIPLIED);
  icon.mutable_image()->set_pixels("RGBA");
  TellIcon(1);
  TellIcon(0);
  Send("GetPageIcon", StreamMessage::KIND_REPLY, icon.SerializeAsString());
  EXPECT_THAT(icons_, IsEmpty());
  TellIcon(2);
  Send("GetPageIcon", StreamMessage::KIND_REPLY, icon.SerializeAsString());
  EXPECT_THAT(icons_, ElementsAre("icon"));
}

TEST_F(HostilePageTest, OneThatTellsNoDownloadsAnyMoreSavesNone) {
  Offer(1);
  Send("WhenDownloadChanged", StreamMessage::KIND_COMPLETE);
  Offer(2);
  EXPECT_THAT(offered_, ElementsAre(1));
  EXPECT_THAT(ended_, ElementsAre("/files/1"));
}

TEST_F(HostilePageTest, MessagesThatCannotBeReadEndTheirStreamAlone) {
  Offer(1);
  Send("WhenDownloadChanged", StreamMessage::KIND_NEXT, "\xff");
  EXPECT_THAT(ended_, ElementsAre("/files/1"));
  TellIcon(1);
  EXPECT_EQ(states_, 1);
}

}  // namespace
}  // namespace orvane::host
