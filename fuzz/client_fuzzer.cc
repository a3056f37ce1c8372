// A server that is not to be trusted answers a client. Whatever it sends, each
// call and each stream of the client ends once, the loop comes to rest, and
// another client of the same loop is served as before.
//
// If the first byte is odd, the server sends a valid hello before the other
// bytes.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"
#include "zimbrel/src/core/common/rpc/testing/raw_peer.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"
#include "zimbrel/src/core/common/rpc/transport/wire/handshake.h"

using orvane::ClientStream;
using orvane::ConnectedPair;
using orvane::EventLoop;
using orvane::SocketClient;
using orvane::SocketServer;
using orvane::internal::MakeHello;
using orvane::testing::Browser;
using orvane::testing::RawPeer;
using rpc::BrowserWidgetRpcClient;
using rpc::transport::Hello;

namespace {

// What a socket takes at once while nobody reads.
constexpr std::size_t kMaxInputBytes = std::size_t{64} << 10;

std::optional<Hello> ProperHello() {
  return MakeHello(*rpc::BrowserWidgetRpc::descriptor());
}

// Serves Show.
class Widget final : public rpc::BrowserWidgetRpc {
 public:
  void Show(google::protobuf::RpcController*, const BrowserId*,
            google::protobuf::Empty*,
            google::protobuf::Closure* done) override {
    done->Run();
  }
};

// Calls and streams of each kind on one connection.
class Host {
 public:
  explicit Host(SocketClient* client) : widget_(client) {
    // Call 1 and 2, streams 3 to 5.
    widget_.Show(Browser(7), [this](const auto&) { ++ended_[0]; });
    widget_.GetAccessibilityToken(Browser(7),
                                  [this](const auto&) { ++ended_[1]; });
    streams_.push_back(widget_.WhenTooltipChanged(
        Browser(7), [](const auto&) {}, Ends(2)));
    streams_.push_back(widget_.OnShowDropdown(
        Browser(7),
        [](const rpc::ShowDropdownCall& call,
           orvane::Responder<rpc::ShowDropdown> responder) {
          rpc::ShowDropdownResponse answer;
          answer.set_accepted(call.items_size() > 0);
          std::move(responder).Respond(std::move(answer)).IgnoreError();
        },
        Ends(3)));
    // Answered when the next one comes, or never.
    streams_.push_back(widget_.OnTakeFocus(
        Browser(7),
        [this](const auto&, orvane::Responder<rpc::TakeFocus> responder) {
          if (kept_.has_value()) std::move(*kept_).Fail("late");
          kept_.emplace(std::move(responder));
        },
        Ends(4)));
  }

  const std::vector<int>& ended() const { return ended_; }

 private:
  orvane::OnEnd Ends(std::size_t what) {
    return [this, what](const absl::Status&) { ++ended_[what]; };
  }

  std::vector<int> ended_ = std::vector<int>(5);
  BrowserWidgetRpcClient widget_;
  std::optional<orvane::Responder<rpc::TakeFocus>> kept_;
  std::vector<std::unique_ptr<ClientStream>> streams_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  if (size == 0 || size > kMaxInputBytes) return 0;
  EventLoop loop;
  Widget widget;
  SocketServer healthy_server(&loop, &widget);
  auto healthy_pair = ConnectedPair();
  EXPECT_TRUE(healthy_server.Adopt(healthy_pair->first.Release()).ok());
  const auto healthy =
      *SocketClient::Adopt(&loop, healthy_pair->second.Release());

  auto pair = ConnectedPair();
  auto client = *SocketClient::Adopt(&loop, pair->second.Release());
  Host host(client.get());
  RawPeer server(std::move(pair->first),
                 data[0] % 2 == 1 ? ProperHello() : std::nullopt);
  server.SendBytes(std::string(data + 1, data + size));
  loop.RunUntilIdle();
  server.Receive();  // Fails if the client sent something else than frames.
  for (const int ended : host.ended()) EXPECT_LE(ended, 1);
  EXPECT_TRUE(BrowserWidgetRpcClient(healthy.get()).Show(Browser(1)).ok());
  client.reset();
  loop.RunUntilIdle();
  for (const int ended : host.ended()) EXPECT_EQ(ended, 1);
  return 0;
}
