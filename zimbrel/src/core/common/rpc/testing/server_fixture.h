// For tests: a server of unary methods, and clients that talk to it.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_SERVER_FIXTURE_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_SERVER_FIXTURE_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "google/protobuf/service.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/frames.h"
#include "zimbrel/src/core/common/rpc/testing/link.h"
#include "zimbrel/src/core/common/rpc/testing/raw_peer.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

namespace orvane::testing {

// A call that a handler has not answered yet.
struct HeldCall {
  google::protobuf::RpcController* controller;
  google::protobuf::Closure* done;
};

// Show answers at once, Hide when the test says so, Minimize fails, Restore
// does what the test puts there, GetChromiumWindowHandle answers with the
// browser's id, GetAccessibilityToken with that many bytes. Nothing else is
// served.
class UnaryWidget final : public rpc::BrowserWidgetRpc {
 public:
  void Show(google::protobuf::RpcController*, const BrowserId* request,
            google::protobuf::Empty*,
            google::protobuf::Closure* done) override {
    shown.push_back(request->value());
    done->Run();
  }
  void Hide(google::protobuf::RpcController* controller, const BrowserId*,
            google::protobuf::Empty*,
            google::protobuf::Closure* done) override {
    held.push_back({controller, done});
  }
  void Minimize(google::protobuf::RpcController* controller, const BrowserId*,
                google::protobuf::Empty*,
                google::protobuf::Closure* done) override {
    controller->SetFailed(failure);
    done->Run();
  }
  void Restore(google::protobuf::RpcController*, const BrowserId*,
               google::protobuf::Empty*,
               google::protobuf::Closure* done) override {
    on_restore(done);
  }
  void GetChromiumWindowHandle(google::protobuf::RpcController*,
                               const BrowserId* request,
                               rpc::WindowHandle* response,
                               google::protobuf::Closure* done) override {
    response->set_handle(request->value());
    done->Run();
  }
  void GetAccessibilityToken(google::protobuf::RpcController*,
                             const BrowserId* request,
                             rpc::AccessibilityToken* response,
                             google::protobuf::Closure* done) override {
    response->set_token(std::string(request->value(), 'x'));
    done->Run();
  }

  std::vector<std::uint64_t> shown;
  std::vector<HeldCall> held;
  std::string failure = "it cannot be minimised";
  std::function<void(google::protobuf::Closure*)> on_restore;
};

class ServerFixture : public ::testing::Test {
 protected:
  ServerFixture() : ServerFixture(ServerLimits{}) {}
  explicit ServerFixture(ServerLimits limits) {
    server.emplace(&loop, &widget, limits);
  }

  // Lets everything happen that can, then looks at what the client has
  // received.
  void Settle(RawPeer* client) {
    loop.RunUntilIdle();
    client->Receive();
  }

  // The only frame that the client has received, an error: "stream/code: text".
  static std::string OnlyError(const RawPeer& client) {
    if (client.frames.size() != 1)
      return std::to_string(client.frames.size()) + " frames";
    const rpc::transport::StreamMessage& frame = client.frames.front();
    if (frame.kind() != rpc::transport::StreamMessage::KIND_ERROR)
      return "kind " + std::to_string(frame.kind());
    return std::to_string(frame.stream_id()) + "/" +
           std::to_string(frame.error_code()) + ": " + frame.error_text();
  }

  // Checks that a new client is served.
  void ExpectServerLives() {
    RawPeer client = ConnectRaw(*server);
    client.Send(CallFrame(1, kShow, 4711));
    Settle(&client);
    ASSERT_EQ(client.frames.size(), 1u);
    EXPECT_EQ(client.frames[0].kind(),
              rpc::transport::StreamMessage::KIND_REPLY);
    EXPECT_EQ(widget.shown.back(), 4711u);
  }

  EventLoop loop;
  UnaryWidget widget;
  std::optional<SocketServer> server;
};

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_SERVER_FIXTURE_H_
