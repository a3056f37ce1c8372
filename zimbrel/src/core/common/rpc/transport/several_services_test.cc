// A server with several services, of which each connection chooses one.

#include <memory>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/browser/page.client.h"
#include "rpc/browser/page.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/in_process.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

namespace orvane::testing {
namespace {

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;
using ::testing::AllOf;
using ::testing::HasSubstr;

class Widgets final : public rpc::BrowserWidgetRpc {
 public:
  void Show(RpcController*, const BrowserId*, Empty*, Closure* done) override {
    ++shown;
    done->Run();
  }
  int shown = 0;
};

class Pages final : public rpc::PageRpc {
 public:
  void GetPage(RpcController*, const BrowserId*, rpc::PageState* response,
               Closure* done) override {
    response->set_title("A page");
    done->Run();
  }
};

class SeveralServicesTest : public ::testing::Test {
 protected:
  std::unique_ptr<SocketClient> Connect() {
    auto client = ConnectInProcess(&loop_, &server_);
    EXPECT_TRUE(client.ok()) << client.status();
    return *std::move(client);
  }

  EventLoop loop_;
  Widgets widgets_;
  Pages pages_;
  SocketServer server_{&loop_, {&widgets_, &pages_}};
  BrowserId browser_;
};

TEST_F(SeveralServicesTest, EachConnectionChoosesOne) {
  const auto for_widgets = Connect();
  const auto for_pages = Connect();
  rpc::BrowserWidgetRpcClient widgets(for_widgets.get());
  rpc::PageRpcClient pages(for_pages.get());
  EXPECT_TRUE(widgets.Show(browser_).ok());
  EXPECT_EQ(widgets_.shown, 1);
  const auto page = pages.GetPage(browser_);
  ASSERT_TRUE(page.ok()) << page.status();
  EXPECT_EQ(page->title(), "A page");
}

TEST_F(SeveralServicesTest, AServiceThatIsNotServedIsRefusedInWords) {
  SocketServer server(&loop_, &widgets_);
  const auto client = ConnectInProcess(&loop_, &server);
  ASSERT_TRUE(client.ok());
  rpc::PageRpcClient pages(client->get());
  const absl::Status status = pages.GetPage(browser_).status();
  EXPECT_EQ(status.code(), absl::StatusCode::kFailedPrecondition);
  EXPECT_THAT(std::string(status.message()),
              AllOf(HasSubstr("they differ in service"),
                    HasSubstr("rpc.PageRpc with 13 methods"),
                    HasSubstr("rpc.BrowserWidgetRpc with 52 methods")));
}

TEST_F(SeveralServicesTest, EventsReachTheSubscribersOfTheirService) {
  const auto for_widgets = Connect();
  const auto for_pages = Connect();
  rpc::BrowserWidgetRpcClient widgets(for_widgets.get());
  rpc::PageRpcClient pages(for_pages.get());
  std::string title;
  int cursors = 0;
  const auto watching_pages =
      pages.WhenPageChanged(browser_, [&](const rpc::PageChanged& event) {
        title = std::string(event.state().title());
      });
  const auto watching_cursors = widgets.WhenCursorChanged(
      browser_, [&](const rpc::CursorChanged&) { ++cursors; });
  loop_.RunUntilIdle();
  rpc::PageChanged event;
  *event.mutable_browser_id() = browser_;
  event.mutable_state()->set_title("Another one");
  EXPECT_EQ(Publish<rpc::PageChanged>(browser_, event), 1u);
  loop_.RunUntil([&] { return !title.empty(); });
  EXPECT_EQ(title, "Another one");
  EXPECT_EQ(cursors, 0);
}

}  // namespace
}  // namespace orvane::testing
