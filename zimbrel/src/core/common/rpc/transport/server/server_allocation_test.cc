// The heap allocations of a server in the steady state. What the clients send
// was prepared before, so only the server's own allocations are counted.

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/frames.h"
#include "zimbrel/src/core/common/rpc/testing/heap_probe.h"
#include "zimbrel/src/core/common/rpc/testing/raw_peer.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

namespace orvane::testing {
namespace {

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;

// Rounds before memory that is reused has been allocated, and rounds that are
// counted.
constexpr int kWarmUp = 20;
constexpr int kCounted = 100;

class AnsweringWidget final : public rpc::BrowserWidgetRpc {
 public:
  void Show(RpcController*, const BrowserId*, Empty*, Closure* done) override {
    ++shown;
    done->Run();
  }
  int shown = 0;
};

class ServerAllocation : public ::testing::Test {
 protected:
  ServerAllocation() {
    std::array<int, 2> ends{};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
    EXPECT_TRUE(server_.Adopt(ends[0]).ok());
    client_ = std::make_unique<RawPeer>(OwnedDescriptor(ends[1]));
    descriptor_ = ends[1];
    loop_.RunUntilIdle();
    DiscardReceived();
  }

  void SendBytes(const std::string& bytes) const {
    ASSERT_EQ(::send(descriptor_, bytes.data(), bytes.size(), 0),
              static_cast<ssize_t>(bytes.size()));
  }

  // Returns whether there was something.
  bool DiscardReceived() const {
    std::array<char, 65536> bytes;
    return ::recv(descriptor_, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0;
  }

  AnsweringWidget widget_;
  EventLoop loop_;
  SocketServer server_{&loop_, &widget_};
  std::unique_ptr<RawPeer> client_;
  int descriptor_ = -1;  // The client's.
};

TEST_F(ServerAllocation, ACallTakesOneBeyondItsMessages) {
  const int calls = kWarmUp + kCounted;
  std::vector<std::string> frames;
  for (int i = 1; i <= calls; ++i) {
    frames.push_back(
        RawPeer::Bytes(CallFrame(static_cast<std::uint64_t>(i), kShow)));
  }
  std::size_t allocations = 0;
  for (int i = 0; i < calls; ++i) {
    SendBytes(frames[static_cast<std::size_t>(i)]);
    const std::size_t before = heap_probe::Allocations();
    loop_.RunUntilIdle();
    if (i >= kWarmUp) allocations += heap_probe::Allocations() - before;
    ASSERT_TRUE(DiscardReceived());
  }
  EXPECT_EQ(widget_.shown, calls);
  // One for the request and one for the response.
  EXPECT_LE(allocations, (1 + 2) * std::size_t{kCounted});
}

TEST_F(ServerAllocation, AnEventTakesNone) {
  SendBytes(RawPeer::Bytes(OpenFrame(1, kWhenTooltipChanged)) +
            RawPeer::Bytes(NextFrame(1, Subscribe(7))));
  loop_.RunUntilIdle();
  const BrowserId key = Browser(7);
  const rpc::TooltipChanged event = Tooltip(std::string(1000, 'x'));
  std::size_t allocations = 0;
  for (int i = 0; i < kWarmUp + kCounted; ++i) {
    const std::size_t before = heap_probe::Allocations();
    ASSERT_EQ(Publish<rpc::TooltipChanged>(key, event), 1u);
    loop_.RunUntilIdle();
    if (i >= kWarmUp) allocations += heap_probe::Allocations() - before;
    ASSERT_TRUE(DiscardReceived());
  }
  EXPECT_EQ(allocations, 0u);
}

// Nine to begin the call: its message's two parts and bytes, a key and two
// entries of tables, its state, and two closures. Ten to end it: the answer is
// parsed twice, once to be checked, into a key, a response and a text each, the
// first of them into a message of its own; then it is moved into another and
// posted.
TEST_F(ServerAllocation, ACallOfAClientTakesNineteen) {
  SendBytes(RawPeer::Bytes(OpenFrame(1, kOnCreateWebDialog)) +
            RawPeer::Bytes(NextFrame(1, Serve(7))));
  loop_.RunUntilIdle();
  const BrowserId key = Browser(7);
  std::size_t allocations = 0;
  int answered = 0;
  for (int i = 0; i < kWarmUp + kCounted; ++i) {
    std::size_t before = heap_probe::Allocations();
    Call<rpc::CreateWebDialog>(
        key, {}, [&answered](const auto& answer) { answered += answer.ok(); });
    loop_.RunUntilIdle();
    std::size_t taken = heap_probe::Allocations() - before;

    client_->frames.clear();
    client_->Receive();
    ASSERT_EQ(client_->frames.size(), 1u);
    SendBytes(RawPeer::Bytes(
        NextFrame(1, Answer(7, "yes"), client_->frames[0].call_id())));

    before = heap_probe::Allocations();
    loop_.RunUntilIdle();
    taken += heap_probe::Allocations() - before;
    if (i >= kWarmUp) allocations += taken;
  }
  EXPECT_EQ(answered, kWarmUp + kCounted);
  EXPECT_LE(allocations, 19 * std::size_t{kCounted});
}

TEST_F(ServerAllocation, ABurstOfEventsTakesNone) {
  SendBytes(RawPeer::Bytes(OpenFrame(1, kWhenTooltipChanged)) +
            RawPeer::Bytes(NextFrame(1, Subscribe(7))));
  loop_.RunUntilIdle();
  const BrowserId key = Browser(7);
  const rpc::TooltipChanged event = Tooltip("short");
  std::size_t allocations = 0;
  for (int i = 0; i < kWarmUp + kCounted; ++i) {
    const std::size_t before = heap_probe::Allocations();
    for (int j = 0; j < 50; ++j) Publish<rpc::TooltipChanged>(key, event);
    loop_.RunUntilIdle();
    if (i >= kWarmUp) allocations += heap_probe::Allocations() - before;
    ASSERT_TRUE(DiscardReceived());
  }
  EXPECT_EQ(allocations, 0u);
}

}  // namespace
}  // namespace orvane::testing
