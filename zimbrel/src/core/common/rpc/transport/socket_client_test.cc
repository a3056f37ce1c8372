#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/statusor.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/event_subscription.pb.h"
#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/frames.h"
#include "zimbrel/src/core/common/rpc/testing/raw_peer.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"
#include "zimbrel/src/core/common/rpc/transport/subscriptions.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace orvane::testing {
namespace {

using google::protobuf::Message;
using google::protobuf::MethodDescriptor;
using ::rpc::transport::StreamMessage;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// The client with a scripted server. All calls are of GetChromiumWindowHandle.
class SocketClientTest : public ::testing::Test {
 protected:
  // A call, and how it ended.
  struct PendingCall {
    void End(absl::StatusOr<std::unique_ptr<Message>> answer) {
      ++ended;
      status = answer.status();
      if (answer.ok()) response.CopyFrom(**answer);
    }

    BrowserId request;
    CallOptions options;
    CallHandle handle;
    int ended = 0;
    absl::Status status = absl::UnknownError("not ended");
    rpc::WindowHandle response;
  };

  SocketClientTest() {
    auto pair = ConnectedPair();
    server.emplace(std::move(pair->first));
    client = *SocketClient::Adopt(&loop, pair->second.Release());
  }

  static const MethodDescriptor* Method() {
    return rpc::BrowserWidgetRpc::descriptor()->FindMethodByName(
        "GetChromiumWindowHandle");
  }

  void Begin(
      PendingCall* call, std::function<void()> then = [] {}) {
    call->handle = client->Call(
        Method(), call->request,
        [call, then = std::move(then)](
            absl::StatusOr<std::unique_ptr<Message>> answer) {
          call->End(std::move(answer));
          then();
        },
        call->options);
  }

  void Wait(PendingCall* call) {
    call->End(client->CallAndWait(Method(), call->request, call->options));
  }

  void Settle() {
    loop.RunUntilIdle();
    server->Receive();
  }

  void Reply(std::uint64_t id, std::uint64_t handle) {
    rpc::WindowHandle response;
    response.set_handle(handle);
    StreamMessage frame;
    frame.set_kind(StreamMessage::KIND_REPLY);
    frame.set_stream_id(id);
    frame.set_payload(response.SerializeAsString());
    server->Send(frame);
  }

  void Fail(std::uint64_t id, absl::StatusCode code, const std::string& text) {
    StreamMessage frame;
    frame.set_kind(StreamMessage::KIND_ERROR);
    frame.set_stream_id(id);
    frame.set_error_code(static_cast<int>(code));
    frame.set_error_text(text);
    server->Send(frame);
  }

  EventLoop loop;
  std::optional<RawPeer> server;
  std::unique_ptr<SocketClient> client;
};

TEST_F(SocketClientTest, SendsTheMethodsIndexAndTheRequest) {
  PendingCall call;
  call.request.set_value(77);
  Begin(&call);
  Settle();
  ASSERT_THAT(server->frames, SizeIs(1));
  const StreamMessage& frame = server->frames[0];
  EXPECT_EQ(frame.kind(), StreamMessage::KIND_CALL);
  EXPECT_EQ(frame.stream_id(), 1u);
  EXPECT_EQ(frame.method(), 11u);
  EXPECT_EQ(frame.payload(), call.request.SerializeAsString());
  client.reset();
}

TEST_F(SocketClientTest, EndsACallWithItsResponse) {
  PendingCall call;
  Begin(&call);
  Settle();
  EXPECT_EQ(call.ended, 0);
  Reply(1, 5);
  Settle();
  EXPECT_EQ(call.ended, 1);
  EXPECT_TRUE(call.status.ok()) << call.status;
  EXPECT_EQ(call.response.handle(), 5u);
}

TEST_F(SocketClientTest, AnswersMayComeInAnyOrder) {
  PendingCall first;
  PendingCall second;
  std::vector<int> order;
  Begin(&first, [&] { order.push_back(1); });
  Begin(&second, [&] { order.push_back(2); });
  Settle();
  Reply(2, 0);
  Reply(1, 0);
  Settle();
  EXPECT_THAT(order, ElementsAre(2, 1));
}

TEST_F(SocketClientTest, ABlockingCallReturnsWhenItHasEnded) {
  PendingCall call;
  loop.Post([this] { Reply(1, 6); });
  Wait(&call);
  EXPECT_TRUE(call.status.ok()) << call.status;
  EXPECT_EQ(call.response.handle(), 6u);
}

TEST_F(SocketClientTest, AFailedCallCarriesCodeAndWords) {
  PendingCall call;
  Begin(&call);
  Fail(1, absl::StatusCode::kUnimplemented, "no such thing");
  Settle();
  EXPECT_EQ(call.ended, 1);
  EXPECT_EQ(call.status, absl::UnimplementedError("no such thing"));
}

TEST_F(SocketClientTest, AnErrorWithoutACodeIsAnErrorStill) {
  PendingCall call;
  Begin(&call);
  Fail(1, absl::StatusCode::kOk, "words");
  Settle();
  EXPECT_EQ(call.status, absl::UnknownError("words"));
}

TEST_F(SocketClientTest, AResponseThatCannotBeParsedFailsItsCall) {
  PendingCall call;
  Begin(&call);
  StreamMessage frame;
  frame.set_kind(StreamMessage::KIND_REPLY);
  frame.set_stream_id(1);
  frame.set_payload("\xff\xff");
  server->Send(frame);
  Settle();
  EXPECT_EQ(
      call.status,
      absl::InternalError("the response cannot be parsed as rpc.WindowHandle"));
}

TEST_F(SocketClientTest, AnAnswerToACallThatIsNotThereIsIgnored) {
  PendingCall call;
  Begin(&call);
  Reply(99, 1);
  Reply(1, 2);
  Reply(1, 3);
  Settle();
  EXPECT_EQ(call.ended, 1);
  EXPECT_EQ(call.response.handle(), 2u);
}

TEST_F(SocketClientTest, ACallNeedsNoContinuation) {
  client->Call(Method(), BrowserId(), nullptr);
  client->Call(Method(), BrowserId(), nullptr).Cancel();
  client->Call(Method(), BrowserId(), nullptr);
  Reply(1, 0);
  server.reset();
  loop.RunUntilIdle();
  EXPECT_TRUE(absl::IsUnavailable(client->status()));
}

// Deadlines and cancellation.

TEST_F(SocketClientTest, ACallThatTakesTooLongFailsAndTheServerIsTold) {
  PendingCall call;
  call.options.timeout = absl::Milliseconds(1);
  Wait(&call);
  EXPECT_EQ(call.status, absl::DeadlineExceededError("no answer within 1ms"));
  Settle();
  ASSERT_THAT(server->frames, SizeIs(2));
  EXPECT_EQ(server->frames[1].kind(), StreamMessage::KIND_CANCEL);
  EXPECT_EQ(server->frames[1].stream_id(), 1u);
}

TEST_F(SocketClientTest, AnAnswerAfterTheDeadlineIsDropped) {
  PendingCall call;
  call.options.timeout = absl::Milliseconds(1);
  Begin(&call);
  loop.RunUntil([&] { return call.ended == 1; });
  Reply(1, 9);
  Settle();
  EXPECT_EQ(call.ended, 1);
  EXPECT_TRUE(absl::IsDeadlineExceeded(call.status));
}

TEST_F(SocketClientTest, ACallWithoutTimeIsNotSent) {
  PendingCall call;
  call.options.timeout = absl::ZeroDuration();
  Wait(&call);
  EXPECT_TRUE(absl::IsDeadlineExceeded(call.status));
  Settle();
  EXPECT_THAT(server->frames, IsEmpty());
}

TEST_F(SocketClientTest,
       CancellingEndsTheCallSoonButNotInsideAndTellsTheServer) {
  PendingCall call;
  Begin(&call);
  call.handle.Cancel();
  EXPECT_EQ(call.ended, 0);
  Settle();
  EXPECT_EQ(call.ended, 1);
  EXPECT_TRUE(absl::IsCancelled(call.status));
  ASSERT_THAT(server->frames, SizeIs(2));
  EXPECT_EQ(server->frames[1].kind(), StreamMessage::KIND_CANCEL);
}

TEST_F(SocketClientTest, CancellingTwiceOrWithoutACallIsHarmless) {
  PendingCall call;
  call.handle.Cancel();
  Begin(&call);
  call.handle.Cancel();
  call.handle.Cancel();
  Settle();
  call.handle.Cancel();
  Settle();
  EXPECT_EQ(call.ended, 1);
  EXPECT_THAT(server->frames, SizeIs(2));
}

TEST_F(SocketClientTest, StoppingTheLoopCancelsABlockingCall) {
  PendingCall call;
  loop.Post([this] { loop.Stop(); });
  Wait(&call);
  EXPECT_EQ(call.status, absl::CancelledError("the loop was stopped"));
}

// The connection's end.

TEST_F(SocketClientTest, WhenTheServerGoesEveryCallFailsInTheOrderOfTheCalls) {
  PendingCall calls[3];
  std::vector<int> order;
  for (int i = 0; i < 3; ++i)
    Begin(&calls[i], [&order, i] { order.push_back(i); });
  Settle();
  server.reset();
  loop.RunUntilIdle();
  EXPECT_THAT(order, ElementsAre(0, 1, 2));
  for (const PendingCall& call : calls) {
    EXPECT_EQ(call.status,
              absl::UnavailableError("the server closed the connection"));
  }
  EXPECT_TRUE(absl::IsUnavailable(client->status()));
}

TEST_F(SocketClientTest, ACallAfterTheConnectionsEndFailsButNotInsideTheCall) {
  server.reset();
  loop.RunUntilIdle();
  PendingCall call;
  Begin(&call);
  EXPECT_EQ(call.ended, 0);
  loop.RunUntilIdle();
  EXPECT_EQ(call.ended, 1);
  EXPECT_TRUE(absl::IsUnavailable(call.status));
}

TEST_F(SocketClientTest, ABlockingCallAfterTheConnectionsEndFails) {
  server.reset();
  loop.RunUntilIdle();
  PendingCall call;
  Wait(&call);
  EXPECT_TRUE(absl::IsUnavailable(call.status));
}

TEST_F(SocketClientTest, TheServersReasonForEndingTheConnectionIsPassedOn) {
  PendingCall call;
  Begin(&call);
  Fail(0, absl::StatusCode::kInvalidArgument, "nonsense");
  Settle();
  EXPECT_EQ(call.status, absl::UnavailableError(
                             "the server ended the connection: nonsense"));
}

TEST_F(SocketClientTest, AFrameThatServersDoNotSendEndsTheConnection) {
  PendingCall call;
  Begin(&call);
  StreamMessage frame;
  frame.set_kind(StreamMessage::KIND_CALL);
  frame.set_stream_id(1);
  server->Send(frame);
  Settle();
  EXPECT_EQ(call.status,
            absl::UnavailableError(
                "the server sent a frame of kind 1, which a server never "
                "sends"));
}

TEST_F(SocketClientTest, AnswersTheQuestionWhetherItIsThere) {
  client->Call(Method(), BrowserId(), nullptr);
  server->Send(Frame(StreamMessage::KIND_PONG, 0));  // Nobody has asked.
  server->Send(Frame(StreamMessage::KIND_PING, 0));
  Settle();
  ASSERT_EQ(server->frames.size(), 2u);
  EXPECT_EQ(InWords(server->frames.back()), "PONG 0");
}

TEST_F(SocketClientTest, BytesThatAreNoFrameEndTheConnection) {
  PendingCall call;
  Begin(&call);
  server->SendBytes(std::string("\x01\0\0\0\xff", 5));
  Settle();
  EXPECT_THAT(call.status.message(),
              HasSubstr("cannot be parsed as StreamMessage"));
  EXPECT_TRUE(absl::IsUnavailable(call.status));
}

// It used to be refused as if it were made inside a callback.
TEST_F(SocketClientTest, ABlockingCallAfterBytesThatAreNoFrameIsUnavailable) {
  server->SendBytes(std::string("\x01\0\0\0\xff", 5));
  loop.RunUntilIdle();
  PendingCall call;
  Wait(&call);
  EXPECT_TRUE(absl::IsUnavailable(call.status)) << call.status;
}

TEST_F(SocketClientTest, ARequestThatFitsNoFrameFailsAndTheConnectionGoesOn) {
  rpc::Display request;
  request.GetReflection()->MutableUnknownFields(&request)->AddLengthDelimited(
      1000, std::string(kDefaultMaxFrameBytes, 'x'));
  EXPECT_TRUE(absl::IsResourceExhausted(
      client->CallAndWait(Method(), request).status()));
  loop.Post([this] { Reply(2, 1); });
  PendingCall call;
  Wait(&call);
  EXPECT_TRUE(call.status.ok());
}

// The server used to keep such a call and such a stream as long as the
// connection.
TEST_F(SocketClientTest, EndsReachAServerThatWasNotReading) {
  auto pair = ConnectedPair();
  server.emplace(std::move(pair->first));
  client = *SocketClient::Adopt(&loop, pair->second.Release(),
                                {.max_queued_bytes = 10000});
  auto stream = client->OpenStream(
      rpc::BrowserWidgetRpc::descriptor()->FindMethodByName("OnTakeFocus"), {});
  PendingCall first;
  Begin(&first);
  loop.RunUntilIdle();
  std::list<PendingCall> calls;
  do {
    calls.emplace_back()
        .request.GetReflection()
        ->MutableUnknownFields(&calls.back().request)
        ->AddLengthDelimited(1000, std::string(100'000, 'x'));
    Begin(&calls.back());
    loop.RunUntilIdle();
  } while (calls.back().ended == 0);
  EXPECT_TRUE(absl::IsResourceExhausted(calls.back().status));

  first.handle.Cancel();
  stream.reset();
  while (server->frames.size() < 2 ||
         server->frames.back().kind() != StreamMessage::KIND_COMPLETE) {
    Settle();
  }
  const auto cancel = server->frames.rbegin() + 1;
  EXPECT_EQ(cancel->kind(), StreamMessage::KIND_CANCEL);
  EXPECT_EQ(cancel->stream_id(), 2u);
  EXPECT_EQ(server->frames.back().stream_id(), 1u);
  client.reset();
}

// Things that a continuation may do.

TEST_F(SocketClientTest, DestroyingTheClientFailsItsCalls) {
  PendingCall call;
  Begin(&call);
  client.reset();
  EXPECT_EQ(call.ended, 1);
  EXPECT_EQ(call.status, absl::CancelledError("the client was destroyed"));
}

TEST_F(SocketClientTest, AContinuationMayDestroyTheClient) {
  PendingCall first;
  PendingCall second;
  Begin(&first, [this] { client.reset(); });
  Begin(&second);
  Reply(1, 0);
  Reply(2, 0);
  Settle();
  EXPECT_EQ(first.ended, 1);
  EXPECT_EQ(second.ended, 1);
  EXPECT_TRUE(absl::IsCancelled(second.status));
}

TEST_F(SocketClientTest,
       AContinuationMayDestroyTheClientWhenTheConnectionEnds) {
  PendingCall first;
  PendingCall second;
  Begin(&first, [this] { client.reset(); });
  Begin(&second);
  server.reset();
  loop.RunUntilIdle();
  EXPECT_EQ(first.ended, 1);
  EXPECT_EQ(second.ended, 1);
}

TEST_F(SocketClientTest, AContinuationMayCallAgain) {
  PendingCall first;
  PendingCall second;
  Begin(&first, [&] { Begin(&second); });
  Reply(1, 0);
  Settle();
  Reply(2, 0);
  Settle();
  EXPECT_EQ(second.ended, 1);
}

TEST_F(SocketClientTest, ABlockingCallInsideAContinuationIsRefused) {
  PendingCall first;
  PendingCall second;
  Begin(&first, [&] { Wait(&second); });
  Reply(1, 0);
  Settle();
  EXPECT_TRUE(absl::IsFailedPrecondition(second.status));
}

TEST_F(SocketClientTest, ConnectingWhereNobodyListensIsUnavailable) {
  EXPECT_TRUE(absl::IsUnavailable(
      SocketClient::Connect(&loop, ::testing::TempDir() + "nobody").status()));
}

TEST(ServeCallsTest, AMethodOfAnotherKindIsRefused) {
  EventLoop loop;
  rpc::BrowserWidgetRpc widget;
  SocketServer server(&loop, &widget);
  auto pair = ConnectedPair();
  ASSERT_EQ(server.Adopt(pair->first.Release()), absl::OkStatus());
  const auto client = *SocketClient::Adopt(&loop, pair->second.Release());
  absl::Status why;
  const auto stream =
      ServeCalls(client.get(),
                 rpc::BrowserWidgetRpc::descriptor()->FindMethodByName(
                     "WhenCursorChanged"),
                 BrowserId(), std::make_unique<rpc::EventSubscription>(),
                 nullptr, [&why](const absl::Status& end) { why = end; });
  loop.RunUntilIdle();
  EXPECT_TRUE(absl::IsInvalidArgument(why)) << why;
}

}  // namespace
}  // namespace orvane::testing
