#include "zimbrel/src/core/common/rpc/transport/server/server_call.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "gmock/gmock.h"
#include "google/protobuf/stubs/common.h"
#include "gtest/gtest.h"

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/testing/server_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/then.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace orvane::testing {
namespace {

using google::protobuf::Closure;
using rpc::transport::StreamMessage;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using ServerCallTest = ServerFixture;

TEST_F(ServerCallTest, AnswersACall) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(9, kGetChromiumWindowHandle, 1234));
  Settle(&client);
  ASSERT_THAT(client.frames, SizeIs(1));
  EXPECT_EQ(client.frames[0].kind(), StreamMessage::KIND_REPLY);
  EXPECT_EQ(client.frames[0].stream_id(), 9u);
  rpc::WindowHandle response;
  EXPECT_TRUE(response.ParseFromString(client.frames[0].payload()));
  EXPECT_EQ(response.handle(), 1234u);
}

TEST_F(ServerCallTest, AMethodThatIsNotOverriddenFailsInItsOwnWords) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, kDetach));
  Settle(&client);
  EXPECT_EQ(OnlyError(client), "1/2: Method Detach() not implemented.");
}

TEST_F(ServerCallTest, AHandlersFailureReachesTheClient) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, kMinimize));
  Settle(&client);
  EXPECT_EQ(OnlyError(client), "1/2: it cannot be minimised");
}

TEST_F(ServerCallTest, AFailureMayHaveAnyBytesAsItsText) {
  widget.failure = "\xff\xfe";
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, kMinimize));
  Settle(&client);
  EXPECT_EQ(OnlyError(client), "1/2: \xff\xfe");
}

TEST_F(ServerCallTest, CallsReachTheHandlersInTheOrderTheyWereSent) {
  RawPeer client = ConnectRaw(*server);
  std::vector<std::uint64_t> sent;
  std::string bytes;
  for (std::uint64_t id = 1; id <= 500; ++id) {
    bytes += RawPeer::Bytes(CallFrame(id, kShow, id));
    sent.push_back(id);
  }
  client.SendBytes(bytes);
  Settle(&client);
  EXPECT_EQ(widget.shown, sent);
  EXPECT_THAT(client.frames, SizeIs(500));
}

TEST_F(ServerCallTest, AHandlerMayAnswerLaterAndInAnyOrder) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, kHide));
  client.Send(CallFrame(2, kHide));
  client.Send(CallFrame(3, kShow));
  Settle(&client);
  ASSERT_THAT(widget.held, SizeIs(2));
  ASSERT_THAT(client.frames, SizeIs(1)) << "only Show has answered";
  widget.held[1].done->Run();
  widget.held[0].done->Run();
  Settle(&client);
  ASSERT_THAT(client.frames, SizeIs(3));
  EXPECT_EQ(client.frames[1].stream_id(), 2u);
  EXPECT_EQ(client.frames[2].stream_id(), 1u);
}

TEST_F(ServerCallTest, AHandlerMayAnswerFromAnotherThread) {
  const std::unique_ptr<SocketClient> client = Connect(&loop, *server);
  std::vector<std::thread> threads;
  widget.on_restore = [&](Closure* done) {
    threads.emplace_back([done] { done->Run(); });
  };
  for (int i = 0; i < 20; ++i) {
    const auto answer = client->CallAndWait(
        widget.GetDescriptor()->method(kRestore), BrowserId());
    EXPECT_TRUE(answer.ok()) << answer.status();
  }
  for (std::thread& thread : threads) thread.join();
}

TEST_F(ServerCallTest, AnAnswerToAClientThatHasGoneGoesNowhere) {
  {
    RawPeer client = ConnectRaw(*server);
    client.Send(CallFrame(1, kHide));
    Settle(&client);
  }
  loop.RunUntilIdle();
  EXPECT_EQ(server->connections(), 0u);
  ASSERT_THAT(widget.held, SizeIs(1));
  widget.held[0].done->Run();
  ExpectServerLives();
}

TEST_F(ServerCallTest,
       AnAnswerFromAnotherThreadToAClientThatHasGoneGoesNowhere) {
  {
    RawPeer client = ConnectRaw(*server);
    client.Send(CallFrame(1, kHide));
    Settle(&client);
  }
  loop.RunUntilIdle();
  std::thread([this] { widget.held.at(0).done->Run(); }).join();
  ExpectServerLives();
}

TEST_F(ServerCallTest, AnAnswerAfterTheServerHasGoneGoesNowhere) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, kHide));
  client.Send(CallFrame(2, kHide));
  Settle(&client);
  server.reset();
  ASSERT_THAT(widget.held, SizeIs(2));
  widget.held[0].done->Run();
  std::thread([this] { widget.held[1].done->Run(); }).join();
  Settle(&client);
  EXPECT_TRUE(client.closed);
  EXPECT_THAT(client.frames, IsEmpty());
}

TEST(ServerCallAfterItsLoop, AnAnswerFromAnotherThreadGoesNowhere) {
  UnaryWidget widget;
  {
    EventLoop loop;
    SocketServer server(&loop, &widget);
    auto pair = ConnectedPair();
    ASSERT_TRUE(server.Adopt(pair->first.Release()).ok());
    RawPeer client(std::move(pair->second));
    client.Send(CallFrame(1, kHide));
    loop.RunUntilIdle();
  }
  ASSERT_THAT(widget.held, SizeIs(1));
  std::thread([&widget] { widget.held[0].done->Run(); }).join();
}

TEST_F(ServerCallTest, AHandlerLearnsThatItsClientHasGone) {
  std::optional<RawPeer> client = ConnectRaw(*server);
  client->Send(CallFrame(1, kHide));
  loop.RunUntilIdle();
  ASSERT_THAT(widget.held, SizeIs(1));
  int told = 0;
  widget.held[0].controller->NotifyOnCancel(google::protobuf::NewCallback(
      +[](int* count) { ++*count; }, &told));
  EXPECT_FALSE(widget.held[0].controller->IsCanceled());
  client.reset();
  loop.RunUntilIdle();
  EXPECT_TRUE(widget.held[0].controller->IsCanceled());
  EXPECT_EQ(told, 1);
  widget.held[0].done->Run();
  EXPECT_EQ(told, 1);
}

// Each of them used to be touched again after it had been answered.
TEST_F(ServerCallTest, WhoLearnsThatItsClientHasGoneMayAnswerAllItsCalls) {
  std::optional<RawPeer> client = ConnectRaw(*server);
  for (std::uint64_t id = 1; id <= 5; ++id) client->Send(CallFrame(id, kHide));
  loop.RunUntilIdle();
  ASSERT_THAT(widget.held, SizeIs(5));
  int answered = 0;
  const std::vector<HeldCall> calls = widget.held;
  for (const HeldCall& call : calls) {
    call.controller->NotifyOnCancel(new Then([this, &answered] {
      for (const HeldCall& each : std::exchange(widget.held, {})) {
        ++answered;
        each.done->Run();
      }
    }));
  }
  client.reset();
  loop.RunUntilIdle();
  EXPECT_EQ(answered, 5);
  ExpectServerLives();
}

TEST_F(ServerCallTest, AHandlerLearnsThatItsCallIsCancelledAndNoAnswerIsSent) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, kHide));
  client.Send(Frame(StreamMessage::KIND_CANCEL, 1));
  Settle(&client);
  ASSERT_THAT(widget.held, SizeIs(1));
  EXPECT_TRUE(widget.held[0].controller->IsCanceled());
  int told = 0;
  widget.held[0].controller->NotifyOnCancel(google::protobuf::NewCallback(
      +[](int* count) { ++*count; }, &told));
  EXPECT_EQ(told, 1) << "cancelled already, so told at once";
  widget.held[0].done->Run();
  Settle(&client);
  EXPECT_THAT(client.frames, IsEmpty());
}

TEST_F(ServerCallTest,
       WhoAskedToBeToldOfACancellationIsToldWhenTheCallEndsWithoutOne) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, kHide));
  Settle(&client);
  int told = 0;
  widget.held.at(0).controller->NotifyOnCancel(google::protobuf::NewCallback(
      +[](int* count) { ++*count; }, &told));
  widget.held[0].done->Run();
  EXPECT_EQ(told, 1);
}

TEST_F(ServerCallTest, CancellingWhatIsNotThereIsHarmless) {
  RawPeer client = ConnectRaw(*server);
  client.Send(Frame(StreamMessage::KIND_CANCEL, 12));
  client.Send(CallFrame(13, kShow));
  Settle(&client);
  ASSERT_THAT(client.frames, SizeIs(1));
  EXPECT_EQ(client.frames[0].stream_id(), 13u);
}

TEST_F(ServerCallTest, AHandlerMayDestroyTheServer) {
  RawPeer client = ConnectRaw(*server);
  widget.on_restore = [this](Closure* done) {
    server.reset();
    done->Run();
  };
  client.Send(CallFrame(1, kRestore));
  client.Send(CallFrame(2, kShow));
  Settle(&client);
  EXPECT_TRUE(client.closed);
  EXPECT_THAT(widget.shown, IsEmpty());
}

TEST_F(ServerCallTest, AClientThatHasFinishedSendingStillGetsItsAnswers) {
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, kShow));
  client.FinishSending();
  Settle(&client);
  EXPECT_THAT(client.frames, SizeIs(1));
}

}  // namespace
}  // namespace orvane::testing
