// Servers that do not keep to the protocol, or use it against their clients,
// and what a client makes of it.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/time/clock.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/testing/client_stream_fixture.h"
#include "zimbrel/src/core/common/rpc/transport/subscriptions.h"

namespace orvane::testing {
namespace {

using google::protobuf::Message;
using rpc::transport::Hello;
using rpc::transport::StreamMessage;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Le;
using ::testing::Lt;

// Nested far deeper than any parser may go: the beginnings of groups.
std::string DeeplyNested() { return std::string(60'000, '\x0b'); }

class HostileServerTest : public ClientStreamFixture {
 protected:
  // Another connection, to a server that says this hello.
  void Meet(const Hello& hello, const ClientOptions& options = {}) {
    client.reset();
    auto pair = ConnectedPair();
    server.emplace(std::move(pair->first), hello);
    client = *SocketClient::Adopt(&loop, pair->second.Release(), options);
  }

  static Hello HelloWithLimits(std::uint32_t limit) {
    Hello hello = internal::MakeHello(*rpc::BrowserWidgetRpc::descriptor());
    rpc::transport::Limits& limits = *hello.mutable_limits();
    limits.set_max_frame_bytes(limit);
    limits.set_max_message_depth(limit);
    limits.set_max_calls(limit);
    limits.set_max_streams(limit);
    limits.set_max_subscriptions(limit);
    limits.set_max_queued_bytes(limit);
    limits.set_max_frame_ms(limit);
    return hello;
  }

  // Calls Show; the outcome goes to `told`.
  void Call() {
    rpc::BrowserWidgetRpcClient(client.get())
        .Show(Browser(7), [this](const auto& answer) {
          told.push_back("call " +
                         absl::StatusCodeToString(answer.status().code()));
        });
  }
};

TEST_F(HostileServerTest, FramesForWhatWasNeverOpenedAreDropped) {
  Open();
  for (std::uint64_t id = 2; id < 300; ++id) {
    SayAtOnce({Event("x", id), Frame(StreamMessage::KIND_REPLY, id),
               Refusal(absl::StatusCode::kInternal, "x", id),
               CompleteFrame(id)});
    loop.RunUntilIdle();
  }
  Say(Event("the only one"));
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1"));
  EXPECT_THAT(told, ElementsAre("next the only one"));
  EXPECT_TRUE(client->status().ok());
}

TEST_F(HostileServerTest, FramesForAnotherKindOfThingAreDropped) {
  Open();
  Call();
  SayAtOnce({Event("for the call", 2), CompleteFrame(2),
             Frame(StreamMessage::KIND_REPLY, 1, "for the stream"),
             Event("for the stream"), Frame(StreamMessage::KIND_REPLY, 2)});
  Settle();
  EXPECT_THAT(told, ElementsAre("next for the stream", "call OK"));
}

TEST_F(HostileServerTest, AnAnswerThatComesTwiceCountsOnce) {
  Call();
  SayAtOnce({Frame(StreamMessage::KIND_REPLY, 1),
             Frame(StreamMessage::KIND_REPLY, 1),
             Refusal(absl::StatusCode::kInternal, "x")});
  Settle();
  EXPECT_THAT(told, ElementsAre("call OK"));
  EXPECT_TRUE(client->status().ok());
}

TEST_F(HostileServerTest, ASecondHelloEndsTheConnection) {
  Open();
  Say(Frame(StreamMessage::KIND_HELLO, 0,
            internal::MakeHello(*rpc::BrowserWidgetRpc::descriptor())
                .SerializeAsString()));
  Settle();
  EXPECT_THAT(client->status().message(), HasSubstr("must be a hello"));
  EXPECT_TRUE(server->closed);
  EXPECT_THAT(told, ElementsAre(HasSubstr("end UNAVAILABLE")));
}

TEST_F(HostileServerTest, LimitsThatAllowNothingLeaveShortFrames) {
  Meet(HelloWithLimits(0));
  loop.RunUntilIdle();
  Open();
  Call();
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1", "CALL 2"));
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(HostileServerTest, LimitsBeyondTheClientsOwnDoNotCount) {
  Meet(HelloWithLimits(~std::uint32_t{0}));
  loop.RunUntilIdle();
  rpc::KeyTypeRequest request;
  request.set_text(std::string(kDefaultMaxFrameBytes, 'x'));
  EXPECT_EQ(rpc::BrowserWidgetRpcClient(client.get())
                .ForwardKeyType(request)
                .status()
                .code(),
            absl::StatusCode::kResourceExhausted);
  EXPECT_TRUE(client->status().ok());
}

TEST_F(HostileServerTest, WhatNobodyKnowsOfAHelloIsNotKept) {
  Hello hello = HelloWithLimits(4096);
  for (Message* const message : {static_cast<Message*>(&hello),
                                 static_cast<Message*>(hello.mutable_limits())})
    message->GetReflection()->MutableUnknownFields(message)->AddLengthDelimited(
        1000, std::string(30'000, 'x'));
  Meet(hello);
  loop.RunUntilIdle();
  EXPECT_EQ(client->server_limits().max_calls(), 4096u);
  EXPECT_THAT(client->server_limits().SpaceUsedLong(), Lt(1000u));
}

TEST_F(HostileServerTest, AFrameThatIsNestedTooDeepEndsTheConnection) {
  const std::string nested = DeeplyNested();
  const auto length = static_cast<std::uint32_t>(nested.size());
  std::string bytes;
  for (int shift = 0; shift < 32; shift += 8)
    bytes += static_cast<char>(length >> shift & 0xff);
  server->SendBytes(bytes + nested);
  Settle();
  EXPECT_THAT(client->status().message(), HasSubstr("cannot be parsed"));
}

TEST_F(HostileServerTest, AHelloThatIsNestedTooDeepEndsTheConnection) {
  client.reset();
  auto pair = ConnectedPair();
  server.emplace(std::move(pair->first), std::nullopt);
  client = *SocketClient::Adopt(&loop, pair->second.Release());
  Say(Frame(StreamMessage::KIND_HELLO, 0, DeeplyNested()));
  Settle();
  EXPECT_THAT(client->status().message(), HasSubstr("hello cannot be parsed"));
}

TEST_F(HostileServerTest, AReplyThatIsNestedTooDeepFailsItsCall) {
  Call();
  Say(Frame(StreamMessage::KIND_REPLY, 1, DeeplyNested()));
  Settle();
  EXPECT_THAT(told, ElementsAre("call INTERNAL"));
  EXPECT_TRUE(client->status().ok());
}

TEST_F(HostileServerTest, AnEventThatIsNestedTooDeepEndsItsStream) {
  stream = rpc::BrowserWidgetRpcClient(client.get())
               .WhenTooltipChanged(
                   Browser(7), [this](const auto&) { told.push_back("event"); },
                   [this](const absl::Status& why) {
                     told.push_back(std::string(why.message()));
                   });
  Say(Event(DeeplyNested()));
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1", "NEXT 1", "COMPLETE 1"));
  EXPECT_THAT(told, ElementsAre(HasSubstr("cannot be parsed")));
  EXPECT_TRUE(client->status().ok());
}

// Streams parse what comes into the same message again and again, and a message
// keeps its memory when it is cleared.
TEST_F(HostileServerTest, TheMemoryOfALongEventIsGivenBack) {
  std::vector<std::size_t> used;
  stream = rpc::BrowserWidgetRpcClient(client.get())
               .WhenTooltipChanged(Browser(7),
                                   [&used](const rpc::TooltipChanged& event) {
                                     used.push_back(event.SpaceUsedLong());
                                   });
  Say(Event(Tooltip(std::string(60'000, 'x')).SerializeAsString()));
  loop.RunUntilIdle();
  Say(Event(Tooltip("short").SerializeAsString()));
  loop.RunUntilIdle();
  ASSERT_EQ(used.size(), 2u);
  EXPECT_THAT(used[1], Lt(1000u));
}

TEST_F(HostileServerTest, TheMessageOfALongCallIsNotUsedAgain) {
  std::vector<const Message*> used;
  stream = ServeCalls(
      client.get(),
      rpc::BrowserWidgetRpc::descriptor()->FindMethodByName("OnShowDropdown"),
      Browser(7), std::make_unique<rpc::ShowDropdown>(),
      [&used](Message& message, const PendingAnswer&) {
        used.push_back(&message);
      });
  rpc::ShowDropdown call;
  *call.mutable_browser_id() = Browser(7);
  call.mutable_call();
  Say(NextFrame(1, call, 1));
  rpc::ShowDropdown long_call = call;
  for (int i = 0; i < 10'000; ++i)
    long_call.GetReflection()
        ->MutableUnknownFields(&long_call)
        ->AddVarint(9, i);
  Say(NextFrame(1, long_call, 2));
  Say(NextFrame(1, call, 3));
  loop.RunUntilIdle();
  ASSERT_EQ(used.size(), 3u);
  EXPECT_EQ(used[1], used[0]);
  EXPECT_NE(used[2], used[1]);
}

TEST_F(HostileServerTest, CallsBeyondTheLimitFailUntilOthersAreAnswered) {
  Meet(internal::MakeHello(*rpc::BrowserWidgetRpc::descriptor()),
       {.max_served_calls = 2});
  std::vector<Responder<rpc::TakeFocus>> waiting;
  stream = rpc::BrowserWidgetRpcClient(client.get())
               .OnTakeFocus(Browser(7),
                            [&waiting](const rpc::TakeFocusCall&,
                                       Responder<rpc::TakeFocus> responder) {
                              waiting.push_back(std::move(responder));
                            });
  rpc::TakeFocus call;
  *call.mutable_browser_id() = Browser(7);
  call.mutable_call();
  for (const std::int64_t id : {1, 2}) Say(NextFrame(1, call, id));
  EXPECT_THAT(Settle(), ElementsAre("OPEN 1", "NEXT 1"));
  Say(NextFrame(1, call, 3));
  EXPECT_THAT(Settle(),
              ElementsAre(HasSubstr("the client serves 2 calls already")));
  EXPECT_EQ(waiting.size(), 2u);

  EXPECT_TRUE(std::move(waiting.back()).Respond({}).ok());
  waiting.pop_back();
  Say(NextFrame(1, call, 4));
  EXPECT_THAT(Settle(), ElementsAre("NEXT 1"));
  EXPECT_EQ(waiting.size(), 2u);
}

TEST_F(HostileServerTest, OtherTasksRunBetweenEventsThatTakeLong) {
  std::optional<std::size_t> told_before_task;
  on_next = [&] {
    if (told.size() == 1) loop.Post([&] { told_before_task = told.size(); });
    const absl::Time end = absl::Now() + absl::Milliseconds(2);
    while (absl::Now() < end) {
    }
    return absl::OkStatus();
  };
  Open();
  loop.RunUntilIdle();  // The hello takes no time, and comes alone.
  for (int i = 0; i < 10; ++i) Say(Event("x"));
  loop.RunUntilIdle();
  EXPECT_EQ(told.size(), 10u);
  ASSERT_TRUE(told_before_task.has_value());
  EXPECT_THAT(*told_before_task, Le(2u));
}

}  // namespace
}  // namespace orvane::testing
