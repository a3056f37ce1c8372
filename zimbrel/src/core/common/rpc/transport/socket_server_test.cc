#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
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

#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/raw_peer.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/testing/then.h"
#include "zimbrel/src/core/common/rpc/transport/client_controller.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"
#include "zimbrel/src/core/common/rpc/transport/wire/framing.h"

namespace orvane::testing {
namespace {

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;
using ::rpc::transport::StreamMessage;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::uint32_t kDetach = 3;
constexpr std::uint32_t kShow = 5;
constexpr std::uint32_t kHide = 6;
constexpr std::uint32_t kSetDisplay = 9;
constexpr std::uint32_t kGetAccessibilityToken = 25;
constexpr std::uint32_t kWhenCursorChanged = 40;

// A call that a handler has not answered yet.
struct HeldCall {
  RpcController* controller;
  Closure* done;
};

// Show answers at once, Hide when the test says so, Minimize fails, Restore
// does what the test puts there, GetChromiumWindowHandle answers with the
// browser's id, GetAccessibilityToken with that many bytes. Nothing else is
// served.
class Widget final : public rpc::BrowserWidgetRpc {
 public:
  void Show(RpcController*, const BrowserId* request, Empty*,
            Closure* done) override {
    shown.push_back(request->value());
    done->Run();
  }
  void Hide(RpcController* controller, const BrowserId*, Empty*,
            Closure* done) override {
    held.push_back({controller, done});
  }
  void Minimize(RpcController* controller, const BrowserId*, Empty*,
                Closure* done) override {
    controller->SetFailed(failure);
    done->Run();
  }
  void Restore(RpcController*, const BrowserId*, Empty*,
               Closure* done) override {
    on_restore(done);
  }
  void GetChromiumWindowHandle(RpcController*, const BrowserId* request,
                               rpc::WindowHandle* response,
                               Closure* done) override {
    response->set_handle(request->value());
    done->Run();
  }
  void GetAccessibilityToken(RpcController*, const BrowserId* request,
                             rpc::AccessibilityToken* response,
                             Closure* done) override {
    response->set_token(std::string(request->value(), 'x'));
    done->Run();
  }

  std::vector<std::uint64_t> shown;
  std::vector<HeldCall> held;
  std::string failure = "it cannot be minimised";
  std::function<void(Closure*)> on_restore;
};

StreamMessage Call(std::uint64_t id, std::uint32_t method,
                   std::uint64_t browser = 1) {
  BrowserId request;
  request.set_value(browser);
  StreamMessage frame;
  frame.set_kind(StreamMessage::KIND_CALL);
  frame.set_stream_id(id);
  frame.set_method(method);
  frame.set_payload(request.SerializeAsString());
  return frame;
}

class SocketServerTest : public ::testing::Test {
 protected:
  SocketServerTest() : SocketServerTest(ServerLimits{}) {}
  explicit SocketServerTest(ServerLimits limits) {
    server.emplace(&loop, &widget, limits);
  }

  RawPeer ConnectRaw() {
    auto pair = ConnectedPair();
    EXPECT_TRUE(server->Adopt(pair->first.Release()).ok());
    return RawPeer(std::move(pair->second));
  }

  std::unique_ptr<SocketClient> Connect() {
    auto pair = ConnectedPair();
    EXPECT_TRUE(server->Adopt(pair->first.Release()).ok());
    return *SocketClient::Adopt(&loop, pair->second.Release());
  }

  // Lets everything happen that can, then looks at what the host has received.
  void Settle(RawPeer* host) {
    loop.RunUntilIdle();
    host->Receive();
  }

  // The words of the only frame that the host has received, an error.
  static std::string OnlyError(const RawPeer& host) {
    if (host.frames.size() != 1)
      return std::to_string(host.frames.size()) + " frames";
    const StreamMessage& frame = host.frames.front();
    if (frame.kind() != StreamMessage::KIND_ERROR)
      return "kind " + std::to_string(frame.kind());
    return std::to_string(frame.stream_id()) + "/" +
           std::to_string(frame.error_code()) + ": " + frame.error_text();
  }

  // Proof of life: a fresh host is served.
  void ExpectServerLives() {
    RawPeer host = ConnectRaw();
    host.Send(Call(1, kShow, 4711));
    Settle(&host);
    ASSERT_THAT(host.frames, SizeIs(1));
    EXPECT_EQ(host.frames[0].kind(), StreamMessage::KIND_REPLY);
    EXPECT_EQ(widget.shown.back(), 4711u);
  }

  EventLoop loop;
  Widget widget;
  std::optional<SocketServer> server;
};

TEST_F(SocketServerTest, AnswersACall) {
  RawPeer host = ConnectRaw();
  host.Send(Call(9, 11, 1234));
  Settle(&host);
  ASSERT_THAT(host.frames, SizeIs(1));
  EXPECT_EQ(host.frames[0].kind(), StreamMessage::KIND_REPLY);
  EXPECT_EQ(host.frames[0].stream_id(), 9u);
  rpc::WindowHandle response;
  EXPECT_TRUE(response.ParseFromString(host.frames[0].payload()));
  EXPECT_EQ(response.handle(), 1234u);
}

TEST_F(SocketServerTest, AMethodThatIsNotOverriddenFailsInItsOwnWords) {
  RawPeer host = ConnectRaw();
  host.Send(Call(1, kDetach));
  Settle(&host);
  EXPECT_EQ(OnlyError(host), "1/2: Method Detach() not implemented.");
}

TEST_F(SocketServerTest, AHandlersFailureReachesTheHost) {
  RawPeer host = ConnectRaw();
  host.Send(Call(1, 7));
  Settle(&host);
  EXPECT_EQ(OnlyError(host), "1/2: it cannot be minimised");
}

TEST_F(SocketServerTest, AFailureMayHaveAnyBytesAsItsText) {
  widget.failure = "\xff\xfe";
  RawPeer host = ConnectRaw();
  host.Send(Call(1, 7));
  Settle(&host);
  EXPECT_EQ(OnlyError(host), "1/2: \xff\xfe");
}

TEST_F(SocketServerTest, CallsReachTheHandlersInTheOrderTheyWereSent) {
  RawPeer host = ConnectRaw();
  std::vector<std::uint64_t> sent;
  std::string bytes;
  for (std::uint64_t id = 1; id <= 500; ++id) {
    bytes += RawPeer::Bytes(Call(id, kShow, id));
    sent.push_back(id);
  }
  host.SendBytes(bytes);
  Settle(&host);
  EXPECT_EQ(widget.shown, sent);
  EXPECT_THAT(host.frames, SizeIs(500));
}

TEST_F(SocketServerTest, AHandlerMayAnswerLaterAndInAnyOrder) {
  RawPeer host = ConnectRaw();
  host.Send(Call(1, kHide));
  host.Send(Call(2, kHide));
  host.Send(Call(3, kShow));
  Settle(&host);
  ASSERT_THAT(widget.held, SizeIs(2));
  ASSERT_THAT(host.frames, SizeIs(1)) << "only Show has answered";
  widget.held[1].done->Run();
  widget.held[0].done->Run();
  Settle(&host);
  ASSERT_THAT(host.frames, SizeIs(3));
  EXPECT_EQ(host.frames[1].stream_id(), 2u);
  EXPECT_EQ(host.frames[2].stream_id(), 1u);
}

TEST_F(SocketServerTest, AHandlerMayAnswerFromAnotherThread) {
  const std::unique_ptr<SocketClient> client = Connect();
  std::vector<std::thread> threads;
  widget.on_restore = [&](Closure* done) {
    threads.emplace_back([done] { done->Run(); });
  };
  for (int i = 0; i < 20; ++i) {
    ClientController controller;
    BrowserId request;
    Empty response;
    client->CallMethod(widget.GetDescriptor()->method(8), &controller, &request,
                       &response, nullptr);
    EXPECT_TRUE(controller.status().ok()) << controller.status();
  }
  for (std::thread& thread : threads) thread.join();
}

TEST_F(SocketServerTest, AnAnswerToAHostThatHasGoneGoesNowhere) {
  {
    RawPeer host = ConnectRaw();
    host.Send(Call(1, kHide));
    Settle(&host);
  }
  loop.RunUntilIdle();
  EXPECT_EQ(server->connections(), 0u);
  ASSERT_THAT(widget.held, SizeIs(1));
  widget.held[0].done->Run();
  ExpectServerLives();
}

TEST_F(SocketServerTest,
       AnAnswerFromAnotherThreadToAHostThatHasGoneGoesNowhere) {
  {
    RawPeer host = ConnectRaw();
    host.Send(Call(1, kHide));
    Settle(&host);
  }
  loop.RunUntilIdle();
  std::thread([this] { widget.held.at(0).done->Run(); }).join();
  ExpectServerLives();
}

TEST_F(SocketServerTest, AnAnswerAfterTheServerHasGoneGoesNowhere) {
  RawPeer host = ConnectRaw();
  host.Send(Call(1, kHide));
  host.Send(Call(2, kHide));
  Settle(&host);
  server.reset();
  ASSERT_THAT(widget.held, SizeIs(2));
  widget.held[0].done->Run();
  std::thread([this] { widget.held[1].done->Run(); }).join();
  Settle(&host);
  EXPECT_TRUE(host.closed);
  EXPECT_THAT(host.frames, IsEmpty());
}

TEST(SocketServerAfterItsLoop, AnAnswerFromAnotherThreadGoesNowhere) {
  Widget widget;
  {
    EventLoop loop;
    SocketServer server(&loop, &widget);
    auto pair = ConnectedPair();
    ASSERT_TRUE(server.Adopt(pair->first.Release()).ok());
    RawPeer host(std::move(pair->second));
    host.Send(Call(1, kHide));
    loop.RunUntilIdle();
  }
  ASSERT_THAT(widget.held, SizeIs(1));
  std::thread([&widget] { widget.held[0].done->Run(); }).join();
}

TEST_F(SocketServerTest, AHandlerLearnsThatItsHostHasGone) {
  std::optional<RawPeer> host = ConnectRaw();
  host->Send(Call(1, kHide));
  loop.RunUntilIdle();
  ASSERT_THAT(widget.held, SizeIs(1));
  int told = 0;
  widget.held[0].controller->NotifyOnCancel(google::protobuf::NewCallback(
      +[](int* count) { ++*count; }, &told));
  EXPECT_FALSE(widget.held[0].controller->IsCanceled());
  host.reset();
  loop.RunUntilIdle();
  EXPECT_TRUE(widget.held[0].controller->IsCanceled());
  EXPECT_EQ(told, 1);
  widget.held[0].done->Run();
  EXPECT_EQ(told, 1);
}

// Each of them used to be touched again after it had been answered.
TEST_F(SocketServerTest, WhoLearnsThatItsHostHasGoneMayAnswerAllItsCalls) {
  std::optional<RawPeer> host = ConnectRaw();
  for (std::uint64_t id = 1; id <= 5; ++id) host->Send(Call(id, kHide));
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
  host.reset();
  loop.RunUntilIdle();
  EXPECT_EQ(answered, 5);
  ExpectServerLives();
}

TEST_F(SocketServerTest,
       AHandlerLearnsThatItsCallIsCancelledAndNoAnswerIsSent) {
  RawPeer host = ConnectRaw();
  host.Send(Call(1, kHide));
  StreamMessage cancel;
  cancel.set_kind(StreamMessage::KIND_CANCEL);
  cancel.set_stream_id(1);
  host.Send(cancel);
  Settle(&host);
  ASSERT_THAT(widget.held, SizeIs(1));
  EXPECT_TRUE(widget.held[0].controller->IsCanceled());
  int told = 0;
  widget.held[0].controller->NotifyOnCancel(google::protobuf::NewCallback(
      +[](int* count) { ++*count; }, &told));
  EXPECT_EQ(told, 1) << "cancelled already, so told at once";
  widget.held[0].done->Run();
  Settle(&host);
  EXPECT_THAT(host.frames, IsEmpty());
}

TEST_F(SocketServerTest,
       WhoAskedToBeToldOfACancellationIsToldWhenTheCallEndsWithoutOne) {
  RawPeer host = ConnectRaw();
  host.Send(Call(1, kHide));
  Settle(&host);
  int told = 0;
  widget.held.at(0).controller->NotifyOnCancel(google::protobuf::NewCallback(
      +[](int* count) { ++*count; }, &told));
  widget.held[0].done->Run();
  EXPECT_EQ(told, 1);
}

TEST_F(SocketServerTest, CancellingWhatIsNotThereIsHarmless) {
  RawPeer host = ConnectRaw();
  StreamMessage cancel;
  cancel.set_kind(StreamMessage::KIND_CANCEL);
  cancel.set_stream_id(12);
  host.Send(cancel);
  host.Send(Call(13, kShow));
  Settle(&host);
  ASSERT_THAT(host.frames, SizeIs(1));
  EXPECT_EQ(host.frames[0].stream_id(), 13u);
}

TEST_F(SocketServerTest, AHandlerMayDestroyTheServer) {
  RawPeer host = ConnectRaw();
  widget.on_restore = [this](Closure* done) {
    server.reset();
    done->Run();
  };
  host.Send(Call(1, 8));
  host.Send(Call(2, kShow));
  Settle(&host);
  EXPECT_TRUE(host.closed);
  EXPECT_THAT(widget.shown, IsEmpty());
}

TEST_F(SocketServerTest, AHostThatHasFinishedSendingStillGetsItsAnswers) {
  RawPeer host = ConnectRaw();
  host.Send(Call(1, kShow));
  host.FinishSending();
  Settle(&host);
  EXPECT_THAT(host.frames, SizeIs(1));
}

// What a host does wrong, and what it hears.

TEST_F(SocketServerTest, AnUnknownMethodIsAnError) {
  RawPeer host = ConnectRaw();
  host.Send(Call(1, 52));
  Settle(&host);
  EXPECT_EQ(OnlyError(host),
            "1/12: no method 52 in rpc.BrowserWidgetRpc, which has 52");
  ExpectServerLives();
}

TEST_F(SocketServerTest, TheLargestMethodNumberIsAnErrorToo) {
  RawPeer host = ConnectRaw();
  host.Send(Call(1, 0xffffffffu));
  Settle(&host);
  EXPECT_EQ(OnlyError(host),
            "1/12: no method 4294967295 in rpc.BrowserWidgetRpc, which has 52");
}

TEST_F(SocketServerTest, CallingAStreamIsAnError) {
  for (std::uint32_t method = kWhenCursorChanged; method < 52; ++method) {
    RawPeer host = ConnectRaw();
    host.Send(Call(1, method));
    Settle(&host);
    EXPECT_THAT(OnlyError(host), HasSubstr("is a stream and cannot be called"))
        << method;
  }
  ExpectServerLives();
}

TEST_F(SocketServerTest, ARequestThatCannotBeParsedIsAnErrorThatNamesItsType) {
  RawPeer host = ConnectRaw();
  StreamMessage call = Call(1, kSetDisplay);
  call.set_payload("\xff\xff\xff");
  host.Send(call);
  Settle(&host);
  EXPECT_EQ(OnlyError(host),
            "1/3: the request is no rpc.Display, or nested deeper than 100");
  ExpectServerLives();
}

TEST_F(SocketServerTest, AfterAnErrorReplyTheConnectionGoesOn) {
  RawPeer host = ConnectRaw();
  host.Send(Call(1, 99));
  host.Send(Call(2, kShow));
  Settle(&host);
  ASSERT_THAT(host.frames, SizeIs(2));
  EXPECT_EQ(host.frames[1].kind(), StreamMessage::KIND_REPLY);
  EXPECT_FALSE(host.closed);
}

TEST_F(SocketServerTest, AFrameAboveTheLimitEndsTheConnectionInWords) {
  RawPeer bystander = ConnectRaw();
  RawPeer host = ConnectRaw();
  host.SendBytes(std::string("\x01\0\x40\0", 4));  // 4 MiB and a byte.
  Settle(&host);
  EXPECT_EQ(OnlyError(host),
            "0/8: frame of 4194305 bytes; the limit is 4194304");
  EXPECT_TRUE(host.closed);
  bystander.Send(Call(1, kShow));
  Settle(&bystander);
  EXPECT_THAT(bystander.frames, SizeIs(1));
}

TEST_F(SocketServerTest, BytesThatAreNoFrameEndTheConnectionInWords) {
  RawPeer host = ConnectRaw();
  host.SendBytes(std::string("\x03\0\0\0\xff\xff\xff", 7));
  Settle(&host);
  EXPECT_EQ(OnlyError(host), "0/3: frame of 3 bytes that is no StreamMessage");
  EXPECT_TRUE(host.closed);
  ExpectServerLives();
}

TEST_F(SocketServerTest,
       AFrameOfAKindThatHostsDoNotSendEndsTheConnectionInWords) {
  for (const int kind : {0, 2, 77}) {
    RawPeer host = ConnectRaw();
    StreamMessage frame = Call(1, kShow);
    frame.set_kind(static_cast<StreamMessage::Kind>(kind));
    host.Send(frame);
    Settle(&host);
    EXPECT_EQ(OnlyError(host), "0/3: frame of kind " + std::to_string(kind) +
                                   ", which a host never sends");
    EXPECT_TRUE(host.closed);
  }
  ExpectServerLives();
}

TEST_F(SocketServerTest, StreamId0EndsTheConnectionInWords) {
  RawPeer host = ConnectRaw();
  host.Send(Call(0, kShow));
  Settle(&host);
  EXPECT_EQ(OnlyError(host),
            "0/3: stream id 0 after 0; each must be greater than the last");
  EXPECT_TRUE(host.closed);
}

TEST_F(SocketServerTest, AStreamIdUsedTwiceEndsTheConnectionInWords) {
  RawPeer host = ConnectRaw();
  host.Send(Call(7, kHide));
  host.Send(Call(7, kHide));
  Settle(&host);
  EXPECT_EQ(OnlyError(host),
            "0/3: stream id 7 after 7; each must be greater than the last");
  EXPECT_TRUE(host.closed);
  ASSERT_THAT(widget.held, SizeIs(1));
  EXPECT_TRUE(widget.held[0].controller->IsCanceled());
  widget.held[0].done->Run();
}

TEST_F(SocketServerTest, AStreamIdOutOfOrderEndsTheConnectionInWords) {
  RawPeer host = ConnectRaw();
  host.Send(Call(7, kShow));
  host.Send(Call(6, kShow));
  Settle(&host);
  ASSERT_THAT(host.frames, SizeIs(2));
  EXPECT_EQ(host.frames[1].error_text(),
            "stream id 6 after 7; each must be greater than the last");
  EXPECT_TRUE(host.closed);
}

TEST_F(SocketServerTest, AHostThatDiesInTheMiddleOfAFrameLeavesNothingBehind) {
  {
    RawPeer host = ConnectRaw();
    host.SendBytes(std::string("\x10\0\0\0half", 8));
    loop.RunUntilIdle();
    EXPECT_EQ(server->connections(), 1u);
  }
  loop.RunUntilIdle();
  EXPECT_EQ(server->connections(), 0u);
  ExpectServerLives();
}

class SmallFramesServerTest : public SocketServerTest {
 protected:
  static constexpr std::size_t kLimit = kMinMaxFrameBytes;

  SmallFramesServerTest()
      : SocketServerTest(ServerLimits{.max_frame_bytes = kLimit}) {}
};

TEST_F(SmallFramesServerTest,
       AResponseThatFitsNoFrameIsAnErrorForItsCallAlone) {
  RawPeer host = ConnectRaw();
  host.Send(Call(1, kGetAccessibilityToken, kLimit));
  host.Send(Call(2, kGetAccessibilityToken, kLimit / 2));
  Settle(&host);
  ASSERT_THAT(host.frames, SizeIs(2));
  EXPECT_EQ(host.frames[0].kind(), StreamMessage::KIND_ERROR);
  EXPECT_THAT(host.frames[0].error_text(), HasSubstr("the limit is 4096"));
  EXPECT_EQ(host.frames[1].kind(), StreamMessage::KIND_REPLY);
}

TEST_F(SmallFramesServerTest, AFailuresTextIsCutSoThatItFitsAFrame) {
  widget.failure = std::string(100000, 'x');
  RawPeer host = ConnectRaw();
  host.Send(Call(1, 7));
  Settle(&host);
  EXPECT_EQ(OnlyError(host), "1/2: " + std::string(2048, 'x'));
}

// Listening.

class ListeningServerTest : public SocketServerTest {
 protected:
  ~ListeningServerTest() override { server.reset(); }

  const TemporaryFolder folder;
  const std::string path = folder.path() + "/s";
};

TEST_F(ListeningServerTest, ServesSeveralHostsAtItsPath) {
  ASSERT_TRUE(server->Listen(path).ok());
  const auto first = SocketClient::Connect(&loop, path);
  const auto second = SocketClient::Connect(&loop, path);
  ASSERT_TRUE(first.ok() && second.ok());
  for (const auto& client : {first->get(), second->get()}) {
    ClientController controller;
    BrowserId request;
    request.set_value(3);
    Empty response;
    client->CallMethod(widget.GetDescriptor()->method(kShow), &controller,
                       &request, &response, nullptr);
    EXPECT_TRUE(controller.status().ok()) << controller.status();
  }
  EXPECT_THAT(widget.shown, ElementsAre(3, 3));
  EXPECT_EQ(server->connections(), 2u);
}

TEST_F(ListeningServerTest, RemovesItsSocketWhenItIsDestroyed) {
  ASSERT_TRUE(server->Listen(path).ok());
  EXPECT_TRUE(std::filesystem::exists(path));
  server.reset();
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(ListeningServerTest, ListensOnceOnly) {
  ASSERT_TRUE(server->Listen(path).ok());
  EXPECT_TRUE(absl::IsFailedPrecondition(server->Listen(path)));
}

TEST_F(ListeningServerTest, TheSecondServerAtAPathIsRefused) {
  ASSERT_TRUE(server->Listen(path).ok());
  SocketServer second(&loop, &widget);
  EXPECT_THAT(second.Listen(path).message(), HasSubstr("already"));
}

TEST_F(SocketServerTest, AdoptRefusesWhatIsNoSocketAndClosesIt) {
  const int descriptor = ::dup(STDIN_FILENO);
  ASSERT_GE(descriptor, 0);
  EXPECT_FALSE(server->Adopt(descriptor).ok());
  EXPECT_LT(::fcntl(descriptor, F_GETFD), 0);
}

}  // namespace
}  // namespace orvane::testing
