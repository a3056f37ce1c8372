// Clients that connect and disconnect leave nothing behind.

#include <cstddef>
#include <memory>
#include <string>

#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/testing/frames.h"
#include "zimbrel/src/core/common/rpc/testing/heap_probe.h"
#include "zimbrel/src/core/common/rpc/testing/open_descriptors.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace orvane::testing {
namespace {

constexpr int kVisits = 1000;

class ConnectsTest : public StreamFixture {
 protected:
  ConnectsTest() { EXPECT_TRUE(server->Listen(path_).ok()); }

  // A client connects, calls, serves callbacks, and disconnects.
  void Visit(bool watches) {
    {
      const auto client = SocketClient::Connect(&loop, path_);
      ASSERT_TRUE(client.ok()) << client.status();
      rpc::BrowserWidgetRpcClient browser_widget(client->get());
      ASSERT_TRUE(browser_widget.Show(Browser(7)).ok());
      const auto dialogs = browser_widget.OnCreateWebDialog(
          Browser(7), [](const auto&, auto) {});
      const auto tooltips =
          watches ? browser_widget.WhenTooltipChanged(
                        Browser(7), [](const rpc::TooltipChanged&) {})
                  : nullptr;
      ASSERT_TRUE(browser_widget.Show(Browser(7)).ok());
    }
    ASSERT_TRUE(loop.RunUntil([this] { return server->connections() == 0; }));
    loop.RunUntilIdle();
  }

  // Returns by how many blocks the heap grows.
  std::size_t Growth(int visits, bool watches) {
    const std::size_t before = heap_probe::LiveBlocks();
    for (int i = 0; i < visits; ++i) Visit(watches);
    return heap_probe::LiveBlocks() - before;
  }

 private:
  const TemporaryFolder folder_;
  const std::string path_ = folder_.path() + "/s";
};

TEST_F(ConnectsTest, AThousandInARowLeaveNothing) {
  Growth(10, /*watches=*/false);  // What is made once and reused.
  const std::ptrdiff_t descriptors = OpenDescriptors();
  EXPECT_EQ(Growth(kVisits, /*watches=*/false), 0u);
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

// An event stream keeps each subscription frame: the client's, and the one with
// which the server unsubscribes it.
TEST_F(ConnectsTest, AThousandThatWatchLeaveTheirSubscriptionFrames) {
  Growth(10, /*watches=*/true);
  const std::ptrdiff_t descriptors = OpenDescriptors();
  const std::size_t before = heap_probe::LiveBlocks();
  auto subscribe = std::make_unique<rpc::EventSubscription>(Subscribe(7));
  auto unsubscribe = std::make_unique<rpc::EventSubscription>(Unsubscribe(7));
  const std::size_t kept = heap_probe::LiveBlocks() - before;
  EXPECT_EQ(Growth(kVisits, /*watches=*/true), kVisits * kept);
  EXPECT_EQ(OpenDescriptors(), descriptors);
}

}  // namespace
}  // namespace orvane::testing
