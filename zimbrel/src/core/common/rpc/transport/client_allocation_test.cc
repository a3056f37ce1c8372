// The heap allocations of a client in the steady state. What the server sends
// was prepared before, so only the client's own allocations are counted.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/testing/client_stream_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/frames.h"
#include "zimbrel/src/core/common/rpc/testing/heap_probe.h"
#include "zimbrel/src/core/common/rpc/testing/raw_peer.h"

namespace orvane::testing {
namespace {

using rpc::transport::StreamMessage;

// Rounds before memory that is reused has been allocated, and rounds that are
// counted.
constexpr int kWarmUp = 20;
constexpr int kCounted = 100;

class ClientAllocation : public ClientStreamFixture {
 protected:
  ClientAllocation() { loop.RunUntilIdle(); }

  rpc::BrowserWidgetRpcClient widget{client.get()};
};

TEST_F(ClientAllocation, ACallTakesOneBeyondItsMessages) {
  std::vector<std::string> replies;
  for (int i = 1; i <= kWarmUp + kCounted; ++i) {
    replies.push_back(RawPeer::Bytes(
        Frame(StreamMessage::KIND_REPLY, static_cast<std::uint64_t>(i))));
  }
  const BrowserId browser = Browser(7);
  std::size_t allocations = 0;
  int answered = 0;
  for (int i = 0; i < kWarmUp + kCounted; ++i) {
    std::size_t before = heap_probe::Allocations();
    widget.Show(browser,
                [&answered](const auto& answer) { answered += answer.ok(); });
    loop.RunUntilIdle();
    std::size_t taken = heap_probe::Allocations() - before;

    server->SendBytes(replies[static_cast<std::size_t>(i)]);
    before = heap_probe::Allocations();
    loop.RunUntilIdle();
    taken += heap_probe::Allocations() - before;
    if (i >= kWarmUp) allocations += taken;
  }
  EXPECT_EQ(answered, kWarmUp + kCounted);
  // One for the response.
  EXPECT_LE(allocations, (1 + 1) * std::size_t{kCounted});
}

TEST_F(ClientAllocation, AnEventTakesNone) {
  int heard = 0;
  const auto tooltips = widget.WhenTooltipChanged(
      Browser(7), [&heard](const rpc::TooltipChanged&) { ++heard; });
  loop.RunUntilIdle();
  const std::string event = RawPeer::Bytes(NextFrame(1, Tooltip("short")));
  std::size_t allocations = 0;
  for (int i = 0; i < kWarmUp + kCounted; ++i) {
    server->SendBytes(event);
    const std::size_t before = heap_probe::Allocations();
    loop.RunUntilIdle();
    if (i >= kWarmUp) allocations += heap_probe::Allocations() - before;
  }
  EXPECT_EQ(heard, kWarmUp + kCounted);
  EXPECT_EQ(allocations, 0u);
}

}  // namespace
}  // namespace orvane::testing
