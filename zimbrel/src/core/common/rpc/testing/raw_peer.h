// For tests of the transport: the other end of a connection, scripted.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_RAW_PEER_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_RAW_PEER_H_

#include <sys/socket.h>

#include <cerrno>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"
#include "zimbrel/src/core/common/rpc/transport/wire/byte_buffer.h"
#include "zimbrel/src/core/common/rpc/transport/wire/framing.h"
#include "zimbrel/src/core/common/rpc/transport/wire/handshake.h"

namespace orvane::testing {

// Of an end that speaks the first protocol only.
inline rpc::transport::Hello HelloOfProtocol1() {
  rpc::transport::Hello hello =
      internal::MakeHello(*rpc::BrowserWidgetRpc::descriptor());
  hello.set_newest_protocol(1);
  return hello;
}

// One end of a connection that says hello, and then just what a test tells it
// to, byte by byte.
class RawPeer {
 public:
  explicit RawPeer(OwnedDescriptor descriptor)
      : RawPeer(std::move(descriptor),
                internal::MakeHello(*rpc::BrowserWidgetRpc::descriptor())) {}

  // With a hello of the test's choice, or none.
  RawPeer(OwnedDescriptor descriptor,
          const std::optional<rpc::transport::Hello>& greeting)
      : descriptor_(std::move(descriptor)) {
    if (!greeting.has_value()) return;
    rpc::transport::StreamMessage frame;
    frame.set_kind(rpc::transport::StreamMessage::KIND_HELLO);
    frame.set_payload(greeting->SerializeAsString());
    // The other end may have refused the connection already.
    const std::string bytes = Bytes(frame);
    ::send(descriptor_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }

  // All at once; waits if the socket is full.
  void SendBytes(const std::string& bytes) {
    ASSERT_EQ(
        ::send(descriptor_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
        static_cast<ssize_t>(bytes.size()));
  }

  static std::string Bytes(const rpc::transport::StreamMessage& frame) {
    internal::ByteBuffer bytes;
    EXPECT_TRUE(
        internal::AppendFrame(frame, "", kDefaultMaxFrameBytes, &bytes).ok());
    return std::string(bytes.content());
  }

  void Send(const rpc::transport::StreamMessage& frame) {
    SendBytes(Bytes(frame));
  }

  void FinishSending() { ::shutdown(descriptor_.get(), SHUT_WR); }

  // Takes what has arrived, without waiting.
  void Receive() {
    while (true) {
      char* const space = reader_.Space();
      const ssize_t got =
          ::recv(descriptor_.get(), space, reader_.room(), MSG_DONTWAIT);
      if (got == 0 || (got < 0 && errno != EAGAIN)) closed = true;
      if (got <= 0) break;
      reader_.Received(static_cast<std::size_t>(got));
      TakeFrames();
    }
  }

  // All but the hello of the other end.
  std::vector<rpc::transport::StreamMessage> frames;
  std::optional<rpc::transport::Hello> hello;
  bool closed = false;

 private:
  void TakeFrames() {
    while (true) {
      const auto next = reader_.Next();
      ASSERT_TRUE(next.ok()) << next.status();
      if (!next->has_value()) return;
      rpc::transport::StreamMessage frame;
      ASSERT_TRUE(frame.ParseFromString(std::string(**next)));
      if (frame.kind() == rpc::transport::StreamMessage::KIND_HELLO) {
        ASSERT_FALSE(hello.has_value());
        ASSERT_TRUE(hello.emplace().ParseFromString(frame.payload()));
      } else {
        frames.push_back(std::move(frame));
      }
    }
  }

  OwnedDescriptor descriptor_;
  internal::FrameReader reader_{kDefaultMaxFrameBytes};
};

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_RAW_PEER_H_
