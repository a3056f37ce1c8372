// A stranger connects to the example widget and sends bytes. Apart from what
// its calls do, these must have no effect: another host is served as before,
// and nothing is left when the stranger has disconnected.
//
// If the first byte is odd, the stranger sends a valid hello before the other
// bytes.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "gtest/gtest.h"

#include "examples/widget_server/widget_service.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/frames.h"
#include "zimbrel/src/core/common/rpc/testing/raw_peer.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"
#include "zimbrel/src/core/common/rpc/transport/wire/handshake.h"

using orvane::ConnectedPair;
using orvane::EventLoop;
using orvane::SocketServer;
using orvane::internal::MakeHello;
using orvane::testing::CallFrame;
using orvane::testing::RawPeer;
using orvane::testing::RegisteredKeys;
using rpc::transport::Hello;
using rpc::transport::StreamMessage;

namespace {

// What a socket takes at once while nobody reads.
constexpr std::size_t kMaxInputBytes = std::size_t{64} << 10;

const std::optional<Hello>& ProperHello() {
  static const std::optional<Hello> hello =
      MakeHello(*rpc::BrowserWidgetRpc::descriptor());
  return hello;
}

RawPeer Connect(SocketServer& server, const std::optional<Hello>& hello) {
  auto pair = ConnectedPair();
  EXPECT_TRUE(server.Adopt(pair->first.Release()).ok());
  return {std::move(pair->second), hello};
}

void ExpectServed(RawPeer& host, EventLoop& loop) {
  host.Send(CallFrame(1, orvane::testing::kShow));
  loop.RunUntilIdle();
  host.Receive();
  ASSERT_EQ(host.frames.size(), 1u);
  EXPECT_EQ(host.frames[0].stream_id(), 1u);
  // Show may fail because of what the stranger did.
  EXPECT_TRUE(host.frames[0].kind() == StreamMessage::KIND_REPLY ||
              host.frames[0].kind() == StreamMessage::KIND_ERROR);
  EXPECT_FALSE(host.closed);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  if (size == 0 || size > kMaxInputBytes) return 0;
  EventLoop loop;
  widget_server::WidgetService service(/*browsers=*/2);
  SocketServer server(&loop, &service);
  RawPeer healthy = Connect(server, ProperHello());
  {
    RawPeer stranger = Connect(
        server, data[0] % 2 == 1 ? ProperHello() : std::optional<Hello>());
    stranger.SendBytes(std::string(data + 1, data + size));
    loop.RunUntilIdle();
    stranger.Receive();  // Fails if the server sent something else than frames.
  }
  loop.RunUntilIdle();
  EXPECT_EQ(server.connections(), 1u);
  EXPECT_EQ(RegisteredKeys(), 0u);
  ExpectServed(healthy, loop);
  return 0;
}
