// What a client does wrong, and what it is told.

#include <cstdint>
#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/testing/server_fixture.h"
#include "zimbrel/src/core/common/rpc/transport/frame_limits.h"

namespace orvane::testing {
namespace {

using rpc::transport::StreamMessage;
using ::testing::HasSubstr;
using ::testing::SizeIs;

using ServerConnectionTest = ServerFixture;

TEST_F(ServerConnectionTest, AnUnknownMethodIsAnError) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, kMethods));
  Settle(&client);
  EXPECT_EQ(OnlyError(client),
            "1/12: no method 52 in rpc.BrowserWidgetRpc, which has 52");
  ExpectServerLives();
}

TEST_F(ServerConnectionTest, TheLargestMethodNumberIsAnErrorToo) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, 0xffffffffu));
  Settle(&client);
  EXPECT_EQ(OnlyError(client),
            "1/12: no method 4294967295 in rpc.BrowserWidgetRpc, which has 52");
}

TEST_F(ServerConnectionTest, CallingAStreamIsAnError) {
  for (std::uint32_t method = kFirstStream; method < kMethods; ++method) {
    RawPeer client = ConnectRaw(*server);
    client.Send(CallFrame(1, method));
    Settle(&client);
    EXPECT_THAT(OnlyError(client),
                HasSubstr("is a stream and cannot be called"))
        << method;
  }
  ExpectServerLives();
}

TEST_F(ServerConnectionTest,
       ARequestThatCannotBeParsedIsAnErrorThatNamesItsType) {
  RawPeer client = ConnectRaw(*server);
  StreamMessage call = CallFrame(1, kSetDisplay);
  call.set_payload("\xff\xff\xff");
  client.Send(call);
  Settle(&client);
  EXPECT_EQ(OnlyError(client),
            "1/3: the request cannot be parsed as rpc.Display (malformed, or "
            "nested deeper than 100 levels)");
  ExpectServerLives();
}

TEST_F(ServerConnectionTest, AfterAnErrorReplyTheConnectionGoesOn) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, 99));
  client.Send(CallFrame(2, kShow));
  Settle(&client);
  ASSERT_THAT(client.frames, SizeIs(2));
  EXPECT_EQ(client.frames[1].kind(), StreamMessage::KIND_REPLY);
  EXPECT_FALSE(client.closed);
}

TEST_F(ServerConnectionTest, AFrameAboveTheLimitEndsTheConnectionInWords) {
  RawPeer bystander = ConnectRaw(*server);
  RawPeer client = ConnectRaw(*server);
  client.SendBytes(std::string("\x01\0\x40\0", 4));  // 4 MiB and a byte.
  Settle(&client);
  EXPECT_EQ(OnlyError(client),
            "0/8: frame of 4194305 bytes; the limit is 4194304");
  EXPECT_TRUE(client.closed);
  bystander.Send(CallFrame(1, kShow));
  Settle(&bystander);
  EXPECT_THAT(bystander.frames, SizeIs(1));
}

TEST_F(ServerConnectionTest, BytesThatAreNoFrameEndTheConnectionInWords) {
  RawPeer client = ConnectRaw(*server);
  client.SendBytes(std::string("\x03\0\0\0\xff\xff\xff", 7));
  Settle(&client);
  EXPECT_EQ(OnlyError(client),
            "0/3: a frame of 3 bytes cannot be parsed as StreamMessage");
  EXPECT_TRUE(client.closed);
  ExpectServerLives();
}

TEST_F(ServerConnectionTest,
       AFrameOfAKindThatClientsDoNotSendEndsTheConnectionInWords) {
  for (const int kind : {0, 2, 77}) {
    RawPeer client = ConnectRaw(*server);
    StreamMessage frame = CallFrame(1, kShow);
    frame.set_kind(static_cast<StreamMessage::Kind>(kind));
    client.Send(frame);
    Settle(&client);
    EXPECT_EQ(OnlyError(client), "0/3: frame of kind " + std::to_string(kind) +
                                     ", which a client never sends");
    EXPECT_TRUE(client.closed);
  }
  ExpectServerLives();
}

TEST_F(ServerConnectionTest, StreamId0EndsTheConnectionInWords) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(0, kShow));
  Settle(&client);
  EXPECT_EQ(OnlyError(client),
            "0/3: stream id 0 after 0; each must be greater than the last");
  EXPECT_TRUE(client.closed);
}

TEST_F(ServerConnectionTest, AStreamIdUsedTwiceEndsTheConnectionInWords) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(7, kHide));
  client.Send(CallFrame(7, kHide));
  Settle(&client);
  EXPECT_EQ(OnlyError(client),
            "0/3: stream id 7 after 7; each must be greater than the last");
  EXPECT_TRUE(client.closed);
  ASSERT_THAT(widget.held, SizeIs(1));
  EXPECT_TRUE(widget.held[0].controller->IsCanceled());
  widget.held[0].done->Run();
}

TEST_F(ServerConnectionTest, AStreamIdOutOfOrderEndsTheConnectionInWords) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(7, kShow));
  client.Send(CallFrame(6, kShow));
  Settle(&client);
  ASSERT_THAT(client.frames, SizeIs(2));
  EXPECT_EQ(client.frames[1].error_text(),
            "stream id 6 after 7; each must be greater than the last");
  EXPECT_TRUE(client.closed);
}

TEST_F(ServerConnectionTest,
       AClientThatDiesInTheMiddleOfAFrameLeavesNothingBehind) {
  {
    RawPeer client = ConnectRaw(*server);
    client.SendBytes(std::string("\x10\0\0\0half", 8));
    loop.RunUntilIdle();
    EXPECT_EQ(server->connections(), 1u);
  }
  loop.RunUntilIdle();
  EXPECT_EQ(server->connections(), 0u);
  ExpectServerLives();
}

class SmallFramesServerTest : public ServerFixture {
 protected:
  static constexpr std::size_t kLimit = kMinMaxFrameBytes;

  SmallFramesServerTest()
      : ServerFixture(ServerLimits{.max_frame_bytes = kLimit}) {}
};

TEST_F(SmallFramesServerTest,
       AResponseThatFitsNoFrameIsAnErrorForItsCallAlone) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, kGetAccessibilityToken, kLimit));
  client.Send(CallFrame(2, kGetAccessibilityToken, kLimit / 2));
  Settle(&client);
  ASSERT_THAT(client.frames, SizeIs(2));
  EXPECT_EQ(client.frames[0].kind(), StreamMessage::KIND_ERROR);
  EXPECT_THAT(client.frames[0].error_text(), HasSubstr("the limit is 4096"));
  EXPECT_EQ(client.frames[1].kind(), StreamMessage::KIND_REPLY);
}

TEST_F(SmallFramesServerTest, AFailuresTextIsCutSoThatItFitsAFrame) {
  widget.failure = std::string(100000, 'x');
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, kMinimize));
  Settle(&client);
  EXPECT_EQ(OnlyError(client), "1/2: " + std::string(2048, 'x'));
}

}  // namespace
}  // namespace orvane::testing
