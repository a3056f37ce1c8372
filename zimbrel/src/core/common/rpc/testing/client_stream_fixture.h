// For tests: a client with a stream, and a scripted server at the other end.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_CLIENT_STREAM_FIXTURE_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_CLIENT_STREAM_FIXTURE_H_

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "google/protobuf/descriptor.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/frames.h"
#include "zimbrel/src/core/common/rpc/testing/raw_peer.h"
#include "zimbrel/src/core/common/rpc/transport/client_stream.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace orvane::testing {

class ClientStreamFixture : public ::testing::Test {
 protected:
  ClientStreamFixture() {
    auto pair = ConnectedPair();
    server.emplace(std::move(pair->first));
    client = *SocketClient::Adopt(&loop, pair->second.Release());
  }

  static const google::protobuf::MethodDescriptor* Method(std::uint32_t index) {
    return rpc::BrowserWidgetRpc::descriptor()->method(static_cast<int>(index));
  }

  // What these are told goes to `told`; then they do what the test put into
  // `on_next` and `on_end`.
  ClientStreamHandlers Handlers() {
    return {[this](std::string_view payload, std::int64_t) {
              told.push_back("next " + std::string(payload));
              return on_next();
            },
            [this](const absl::Status& why) {
              told.push_back(absl::StrCat("end ",
                                          absl::StatusCodeToString(why.code()),
                                          why.ok() ? "" : ": ", why.message()));
              on_end();
            }};
  }

  // Stream 1, unless the test has begun something before.
  void Open() {
    stream = client->OpenStream(Method(kWhenTooltipChanged), Handlers());
  }

  void Say(const rpc::transport::StreamMessage& frame) { server->Send(frame); }

  // All in one piece, so that one is on its way while another is handled.
  void SayAtOnce(std::initializer_list<rpc::transport::StreamMessage> frames) {
    std::string bytes;
    for (const rpc::transport::StreamMessage& frame : frames)
      bytes += RawPeer::Bytes(frame);
    server->SendBytes(bytes);
  }

  static rpc::transport::StreamMessage Event(const std::string& payload,
                                             std::uint64_t id = 1) {
    return Frame(rpc::transport::StreamMessage::KIND_NEXT, id, payload);
  }

  static rpc::transport::StreamMessage Refusal(absl::StatusCode code,
                                               const std::string& text,
                                               std::uint64_t id = 1) {
    rpc::transport::StreamMessage frame =
        Frame(rpc::transport::StreamMessage::KIND_ERROR, id);
    frame.set_error_code(static_cast<int>(code));
    frame.set_error_text(text);
    return frame;
  }

  // Lets everything happen that can; returns what the server has heard since
  // the last time.
  std::vector<std::string> Settle() {
    loop.RunUntilIdle();
    server->frames.clear();
    server->Receive();
    std::vector<std::string> words;
    for (const rpc::transport::StreamMessage& frame : server->frames)
      words.push_back(InWords(frame));
    return words;
  }

  // What the end of the client tells is told to these, so they outlive it.
  std::vector<std::string> told;
  std::function<absl::Status()> on_next = [] { return absl::OkStatus(); };
  std::function<void()> on_end = [] {};

  EventLoop loop;
  std::optional<RawPeer> server;
  std::unique_ptr<SocketClient> client;
  std::unique_ptr<ClientStream> stream;
};

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_CLIENT_STREAM_FIXTURE_H_
