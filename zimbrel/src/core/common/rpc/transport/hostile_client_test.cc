// Clients that take more than their part, one way after the other, and what the
// streams, the server and other clients notice of it.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/log/log_entry.h"
#include "absl/log/log_sink.h"
#include "absl/log/log_sink_registry.h"
#include "absl/time/clock.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/abstract_stream.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"

namespace orvane::testing {
namespace {

using rpc::transport::Hello;
using rpc::transport::StreamMessage;
using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Lt;
using ::testing::Not;
using ::testing::Property;

// Takes the service thread for a while, as slow code does.
void WorkFor(absl::Duration time) {
  const absl::Time end = absl::Now() + time;
  while (absl::Now() < end) {
  }
}

// `message` with a field in it that nobody knows.
template <typename T>
T WithUnknownField(T message) {
  message.GetReflection()->MutableUnknownFields(&message)->AddLengthDelimited(
      1000, std::string(100, 'x'));
  return message;
}

// Its streams note what they are told, and do nothing else.
class NotingWidget final : public rpc::BrowserWidgetRpc {
 public:
  AbstractStream* OpenStream(const google::protobuf::MethodDescriptor*,
                             StreamChannel channel) override {
    return new NotingStream(this, std::move(channel));
  }
  void Show(google::protobuf::RpcController*, const BrowserId*,
            google::protobuf::Empty*,
            google::protobuf::Closure* done) override {
    notes.push_back("show");
    done->Run();
  }

  std::vector<std::string> notes;
  std::vector<std::string> payloads;  // Of what was "next".
  absl::Duration time_of_an_end;

 private:
  class NotingStream final : public AbstractStream {
   public:
    NotingStream(NotingWidget* widget, StreamChannel channel)
        : AbstractStream(std::move(channel)), widget_(widget) {}

    void OnNext(StreamMessage* frame) override {
      widget_->notes.push_back("next");
      widget_->payloads.push_back(frame->payload());
    }
    void OnError(StreamMessage*) override { widget_->notes.push_back("error"); }
    void OnCompleted() override {
      widget_->notes.push_back("completed");
      WorkFor(widget_->time_of_an_end);
      Complete();
    }

   private:
    NotingWidget* const widget_;
  };
};

class HostileClientTest : public StreamFixture {
 protected:
  HostileClientTest() = default;
  explicit HostileClientTest(const ServerLimits& limits)
      : StreamFixture(limits) {}
  ~HostileClientTest() override {
    server.reset();
    for (const auto& call : std::exchange(widget.held, {})) call.done->Run();
  }

  void UseNotingWidget() { server.emplace(&loop, &noting); }

  // Waits until the server has handled all that the client has sent.
  void WaitForServer(RawPeer* client, std::uint64_t next_id) {
    client->Send(CallFrame(next_id, kShow));
    loop.RunUntil([client] {
      client->Receive();
      return !client->frames.empty() &&
             client->frames.back().kind() == StreamMessage::KIND_REPLY;
    });
  }

  absl::Duration TimeSinceBegin() const { return absl::Now() - begun_; }

  NotingWidget noting;

 private:
  const absl::Time begun_ = absl::Now();
};

// Keys -----------------------------------------------------------------------

TEST_F(HostileClientTest, AnEventStreamIsToldWhatIsKnownOfAKey) {
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kWhenTooltipChanged));
  rpc::EventSubscription request;
  *request.mutable_subscribe() = WithUnknownField(Browser(7));
  client.Send(NextFrame(1, WithUnknownField(request)));
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_EQ(ListedForTooltips(7), 1u);
  *request.mutable_unsubscribe() = WithUnknownField(Browser(7));
  client.Send(NextFrame(1, request));
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_EQ(RegisteredKeys(), 0u);
}

TEST_F(HostileClientTest, ACallbackStreamIsToldWhatIsKnownOfAKey) {
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kOnCreateWebDialog));
  rpc::CreateWebDialog serve = Serve(7);
  *serve.mutable_browser_id() = WithUnknownField(Browser(7));
  client.Send(NextFrame(1, serve));
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_TRUE(IsServed<rpc::CreateWebDialog>(Browser(7)));
  EXPECT_EQ(RegisteredKeys(), 1u);
}

TEST_F(HostileClientTest, AnAnswerFindsItsCallByWhatIsKnownOfTheKey) {
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kOnCreateWebDialog));
  client.Send(NextFrame(1, Serve(7)));
  loop.RunUntilIdle();
  Ask(7, "answered?");
  Ask(7, "failed?");
  EXPECT_THAT(Settle(&client), ElementsAre("NEXT 1", "NEXT 1"));
  const std::int64_t first = client.frames[0].call_id();
  rpc::CreateWebDialog answer = Answer(7, "yes");
  *answer.mutable_browser_id() = WithUnknownField(Browser(7));
  client.Send(NextFrame(1, answer, first));
  client.Send(ErrorFrame(1, answer, first + 1));
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("answered? yes", "failed? UNKNOWN"));
}

TEST_F(HostileClientTest, AKeyThatIsTooLongEndsItsStream) {
  server.emplace(&loop, &widget, ServerLimits{.max_key_bytes = 3});
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kWhenTooltipChanged));
  client.Send(NextFrame(1, Subscribe(0x3fff)));
  EXPECT_THAT(Settle(&client), IsEmpty());
  client.Send(NextFrame(1, Subscribe(0x4000)));
  EXPECT_THAT(
      Settle(&client),
      ElementsAre("ERROR 1 RESOURCE_EXHAUSTED: key of 4 bytes; the limit is 3",
                  "COMPLETE 1"));
}

// Frames that would change nothing -------------------------------------------

TEST_F(HostileClientTest, AnEventStreamIsNotToldWhatChangesNothing) {
  UseNotingWidget();
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kWhenTooltipChanged));
  client.Send(NextFrame(1, Unsubscribe(7)));
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_THAT(noting.notes, IsEmpty());
  client.Send(NextFrame(1, Subscribe(7)));
  client.Send(NextFrame(1, Subscribe(7)));
  client.Send(NextFrame(1, Unsubscribe(7)));
  client.Send(NextFrame(1, Unsubscribe(7)));
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_THAT(noting.payloads, ElementsAre(Subscribe(7).SerializeAsString(),
                                           Unsubscribe(7).SerializeAsString()));
}

TEST_F(HostileClientTest, ACallbackStreamIsNotToldWhatChangesNothing) {
  UseNotingWidget();
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kOnCreateWebDialog));
  client.Send(NextFrame(1, Serve(7, false)));
  client.Send(NextFrame(1, Answer(7, "nobody asked"), 1));
  client.Send(ErrorFrame(1, About(7), 1));
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_THAT(noting.notes, IsEmpty());
  client.Send(NextFrame(1, Serve(7)));
  client.Send(NextFrame(1, Serve(7)));
  client.Send(NextFrame(1, Serve(7, false)));
  client.Send(NextFrame(1, Serve(7, false)));
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_THAT(noting.notes, ElementsAre("next", "next"));
}

// The other stream's frames change what the first one's would.
TEST_F(HostileClientTest, AKeyThatWasTakenOverMayBeTakenBack) {
  RawPeer first = ConnectRaw(*server);
  RawPeer second = ConnectRaw(*server);
  for (RawPeer* const client : {&first, &second}) {
    client->Send(OpenFrame(1, kOnCreateWebDialog));
    client->Send(NextFrame(1, Serve(7)));
    loop.RunUntilIdle();
  }
  first.Send(NextFrame(1, Serve(7)));
  loop.RunUntilIdle();
  Ask(7, "who?");
  EXPECT_THAT(Settle(&first), ElementsAre("NEXT 1"));
  EXPECT_THAT(Settle(&second), IsEmpty());
}

TEST_F(HostileClientTest, AKeyThatAnotherStreamUnsubscribedMayBeServedAgain) {
  RawPeer first = ConnectRaw(*server);
  RawPeer second = ConnectRaw(*server);
  for (RawPeer* const client : {&first, &second})
    client->Send(OpenFrame(1, kOnCreateWebDialog));
  first.Send(NextFrame(1, Serve(7)));
  loop.RunUntilIdle();
  second.Send(NextFrame(1, Serve(7, false)));
  loop.RunUntilIdle();
  EXPECT_FALSE(IsServed<rpc::CreateWebDialog>(Browser(7)));
  first.Send(NextFrame(1, Serve(7)));
  loop.RunUntilIdle();
  EXPECT_TRUE(IsServed<rpc::CreateWebDialog>(Browser(7)));
}

TEST_F(HostileClientTest, TheEndOfAStreamLeavesTheKeyToWhoeverTookItOver) {
  std::optional<RawPeer> first = ConnectRaw(*server);
  RawPeer second = ConnectRaw(*server);
  for (RawPeer* const client : {&*first, &second}) {
    client->Send(OpenFrame(1, kOnCreateWebDialog));
    client->Send(NextFrame(1, Serve(7)));
    loop.RunUntilIdle();
  }
  first.reset();
  loop.RunUntilIdle();
  EXPECT_TRUE(IsServed<rpc::CreateWebDialog>(Browser(7)));
}

// Numbers --------------------------------------------------------------------

TEST_F(HostileClientTest, KeysOfCallbackStreamsCountToo) {
  server.emplace(&loop, &widget, ServerLimits{.max_subscriptions = 2});
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kOnCreateWebDialog));
  for (const std::uint64_t browser : {1, 2, 2, 3})
    client.Send(NextFrame(1, Serve(browser)));
  EXPECT_THAT(
      Settle(&client),
      ElementsAre("ERROR 1 RESOURCE_EXHAUSTED: 2 subscriptions; the limit is 2",
                  "COMPLETE 1"));
}

TEST_F(HostileClientTest, ACancelledCallCountsUntilItsHandlerIsDone) {
  server.emplace(&loop, &widget, ServerLimits{.max_calls = 1});
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, kHide));
  client.Send(Frame(StreamMessage::KIND_CANCEL, 1));
  client.Send(CallFrame(2, kHide));
  EXPECT_THAT(Settle(&client),
              ElementsAre("ERROR 2 RESOURCE_EXHAUSTED: 1 calls in progress; "
                          "the limit is 1"));
  std::exchange(widget.held, {}).front().done->Run();
  client.Send(CallFrame(3, kHide));
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_EQ(widget.held.size(), 1u);
}

TEST_F(HostileClientTest, ACallCountsUntilItsHandlerIsDoneThoughItsClientLeft) {
  server.emplace(&loop, &widget,
                 ServerLimits{.max_connections = 1, .max_total_calls = 2});
  for (int i = 0; i < 4; ++i) {
    RawPeer client = ConnectRaw(*server);
    client.Send(CallFrame(1, kHide));
    loop.RunUntilIdle();
    client.FinishSending();
    loop.RunUntilIdle();
  }
  EXPECT_EQ(widget.held.size(), 2u);
}

TEST_F(HostileClientTest, BytesOfRequestsAreLimited) {
  server.emplace(&loop, &widget, ServerLimits{.max_request_bytes = 3});
  RawPeer client = ConnectRaw(*server);
  client.Send(CallFrame(1, kHide));
  client.Send(CallFrame(2, kHide));
  EXPECT_THAT(
      Settle(&client),
      ElementsAre("ERROR 2 RESOURCE_EXHAUSTED: 2 + 2 bytes of requests in "
                  "progress; the limit is 3"));
}

TEST_F(HostileClientTest, ARequestThatCannotBeReadTakesNothing) {
  server.emplace(&loop, &widget, ServerLimits{.max_calls = 1});
  RawPeer client = ConnectRaw(*server);
  StreamMessage frame = CallFrame(1, kHide);
  frame.set_payload("\x08");
  client.Send(frame);
  client.Send(CallFrame(2, kHide));
  EXPECT_THAT(Settle(&client),
              ElementsAre(HasSubstr("ERROR 1 INVALID_ARGUMENT")));
  EXPECT_EQ(widget.held.size(), 1u);
}

TEST_F(HostileClientTest, SubscriptionsOfAServersLifeAreLimited) {
  server.emplace(
      &loop, &widget,
      ServerLimits{.max_connections = 1, .max_lifetime_subscriptions = 2});
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kWhenTooltipChanged));
  for (int i = 0; i < 2; ++i) {
    client.Send(NextFrame(1, Subscribe(7)));
    client.Send(NextFrame(1, Unsubscribe(7)));
  }
  EXPECT_THAT(Settle(&client), IsEmpty());
  client.Send(NextFrame(1, Subscribe(7)));
  EXPECT_THAT(Settle(&client),
              ElementsAre(HasSubstr("2 subscriptions since the server was "
                                    "made, of all clients; the limit is 2"),
                          "COMPLETE 1"));
  // Other streams keep nothing.
  client.Send(OpenFrame(2, kOnCreateWebDialog));
  client.Send(NextFrame(2, Serve(7)));
  EXPECT_THAT(Settle(&client), IsEmpty());
}

// Rates ----------------------------------------------------------------------

// Beyond two at once, each takes 100 ms. So four take 200 ms at the least.
constexpr RateLimit kSlow = {.at_once = 2, .per_second = 10};
constexpr absl::Duration kTimeOfFour = absl::Milliseconds(200);

constexpr RateLimit kOneAnHour = {.at_once = 1, .per_second = 1. / 3600};

TEST_F(HostileClientTest, SubscriptionsBeyondTheRateAreSlowedAndNoneIsLost) {
  server.emplace(&loop, &widget, ServerLimits{.max_subscription_rate = kSlow});
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kWhenTooltipChanged));
  for (const std::uint64_t browser : {1, 2, 3, 4})
    client.Send(NextFrame(1, Subscribe(browser)));
  WaitForServer(&client, 2);
  EXPECT_GE(TimeSinceBegin(), kTimeOfFour);
  EXPECT_EQ(RegisteredKeys(), 4u);
}

TEST_F(HostileClientTest, StreamsBeyondTheRateAreSlowed) {
  server.emplace(&loop, &widget, ServerLimits{.max_stream_rate = kSlow});
  RawPeer client = ConnectRaw(*server);
  for (const std::uint64_t id : {1, 2, 3, 4}) {
    client.Send(OpenFrame(id, kWhenTooltipChanged));
    client.Send(CompleteFrame(id));
  }
  WaitForServer(&client, 5);
  EXPECT_GE(TimeSinceBegin(), kTimeOfFour);
}

TEST_F(HostileClientTest, TakeoversBeyondTheRateAreSlowed) {
  server.emplace(&loop, &widget, ServerLimits{.max_takeover_rate = kSlow});
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kOnCreateWebDialog));
  client.Send(OpenFrame(2, kOnCreateWebDialog));
  for (const std::uint64_t id : {1, 2, 1, 2, 1})
    client.Send(NextFrame(id, Serve(7)));
  WaitForServer(&client, 3);
  EXPECT_GE(TimeSinceBegin(), kTimeOfFour);
}

TEST_F(HostileClientTest, ManyClientsTogetherAreSlowed) {
  server.emplace(&loop, &widget, ServerLimits{.max_total_stream_rate = kSlow});
  RawPeer first = ConnectRaw(*server);
  RawPeer second = ConnectRaw(*server);
  for (const std::uint64_t id : {1, 2})
    first.Send(OpenFrame(id, kWhenTooltipChanged));
  EXPECT_THAT(Settle(&first), IsEmpty());
  for (const std::uint64_t id : {1, 2})
    second.Send(OpenFrame(id, kWhenTooltipChanged));
  WaitForServer(&second, 3);
  EXPECT_GE(TimeSinceBegin(), kTimeOfFour);
}

TEST_F(HostileClientTest, OthersAreServedWhileAClientIsSlowed) {
  server.emplace(&loop, &widget, ServerLimits{.max_stream_rate = kOneAnHour});
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kWhenTooltipChanged));
  client.Send(OpenFrame(2, kWhenTooltipChanged));
  client.Send(CallFrame(3, kShow));
  EXPECT_THAT(Settle(&client), IsEmpty());
  RawPeer other = ConnectRaw(*server);
  other.Send(CallFrame(1, kShow));
  EXPECT_THAT(Settle(&other), ElementsAre("REPLY 1"));
  EXPECT_THAT(Settle(&client), IsEmpty());
}

TEST_F(HostileClientTest, AClientThatLeavesWhileItIsSlowedIsGone) {
  server.emplace(&loop, &widget, ServerLimits{.max_stream_rate = kOneAnHour});
  {
    RawPeer client = ConnectRaw(*server);
    for (const std::uint64_t id : {1, 2, 3})
      client.Send(OpenFrame(id, kWhenTooltipChanged));
    EXPECT_THAT(Settle(&client), IsEmpty());
    client.Send(OpenFrame(4, kWhenTooltipChanged));
  }
  loop.RunUntilIdle();
  EXPECT_EQ(server->connections(), 0u);
}

TEST_F(HostileClientTest, AClientThatFinishesSendingWhileItIsSlowedIsHeard) {
  server.emplace(&loop, &widget, ServerLimits{.max_stream_rate = kSlow});
  RawPeer client = ConnectRaw(*server);
  for (const std::uint64_t id : {1, 2, 3})
    client.Send(OpenFrame(id, kWhenTooltipChanged));
  EXPECT_THAT(Settle(&client), IsEmpty());
  client.Send(CallFrame(4, kShow));
  client.FinishSending();
  loop.RunUntil([&client] {
    client.Receive();
    return client.closed;
  });
  EXPECT_THAT(client.frames, Contains(Property(&StreamMessage::kind,
                                               StreamMessage::KIND_REPLY)));
}

TEST_F(HostileClientTest, AServerEndsWhileAClientIsSlowed) {
  server.emplace(&loop, &widget, ServerLimits{.max_stream_rate = kOneAnHour});
  RawPeer client = ConnectRaw(*server);
  client.Send(OpenFrame(1, kWhenTooltipChanged));
  client.Send(OpenFrame(2, kWhenTooltipChanged));
  EXPECT_THAT(Settle(&client), IsEmpty());
  bool has_ended = false;
  server->Shutdown(absl::Hours(1), [&has_ended] { has_ended = true; });
  EXPECT_THAT(Settle(&client), ElementsAre("COMPLETE 1", "COMPLETE 2"));
  EXPECT_TRUE(has_ended);
}

// Turns ----------------------------------------------------------------------

class HostileClientTurnsTest : public HostileClientTest {
 protected:
  HostileClientTurnsTest() {
    widget.on_show = [this](std::uint64_t browser) {
      shown.push_back(browser);
      if (browser == kSlowBrowser) WorkFor(absl::Milliseconds(2));
    };
    loop.RunUntilIdle();
  }

  static constexpr std::uint64_t kSlowBrowser = 1;
  static constexpr std::uint64_t kQuickBrowser = 2;
  static constexpr std::uint64_t kOthersBrowser = 3;

  std::vector<std::uint64_t> shown;
  RawPeer slow = ConnectRaw(*server);
  RawPeer other = ConnectRaw(*server);
};

// Sixteen frames were handled before the clock was looked at.
TEST_F(HostileClientTurnsTest, OthersHaveTheirTurnsBetweenFramesThatTakeLong) {
  for (std::uint64_t id = 1; id <= 10; ++id)
    slow.Send(CallFrame(id, kShow, kSlowBrowser));
  other.Send(CallFrame(1, kShow, kOthersBrowser));
  loop.RunUntilIdle();
  ASSERT_EQ(shown.size(), 11u);
  EXPECT_THAT((std::vector(shown.begin(), shown.begin() + 3)),
              Contains(kOthersBrowser));
}

TEST_F(HostileClientTurnsTest, OthersHaveTheirTurnsThoughQuickFramesComeFirst) {
  slow.Send(CallFrame(1, kShow, kQuickBrowser));
  for (std::uint64_t id = 2; id <= 40; ++id)
    slow.Send(CallFrame(id, kShow, kSlowBrowser));
  other.Send(CallFrame(1, kShow, kOthersBrowser));
  loop.RunUntilIdle();
  ASSERT_EQ(shown.size(), 41u);
  EXPECT_THAT((std::vector(shown.begin(), shown.begin() + 12)),
              Contains(kOthersBrowser));
}

TEST_F(HostileClientTest, OthersHaveTheirTurnsWhileTheStreamsOfOneEnd) {
  UseNotingWidget();
  noting.time_of_an_end = absl::Milliseconds(2);
  std::optional<RawPeer> client = ConnectRaw(*server);
  RawPeer other = ConnectRaw(*server);
  for (std::uint64_t id = 1; id <= 10; ++id)
    client->Send(OpenFrame(id, kWhenTooltipChanged));
  loop.RunUntilIdle();
  client.reset();
  other.Send(CallFrame(1, kShow));
  EXPECT_THAT(Settle(&other), ElementsAre("REPLY 1"));
  ASSERT_EQ(noting.notes.size(), 11u);
  EXPECT_THAT((std::vector(noting.notes.begin(), noting.notes.begin() + 3)),
              Contains("show"));
  EXPECT_EQ(server->connections(), 1u);
}

// The end of a stream walks all keys of its kind. Thousands of streams and keys
// took minutes.
TEST_F(HostileClientTest, ShutdownUnsubscribesAllStreamsBeforeItEndsThem) {
  UseNotingWidget();
  RawPeer first = ConnectRaw(*server);
  RawPeer second = ConnectRaw(*server);
  for (RawPeer* const client : {&first, &second}) {
    client->Send(OpenFrame(1, kWhenTooltipChanged));
    client->Send(OpenFrame(2, kOnCreateWebDialog));
    client->Send(NextFrame(1, Subscribe(7)));
    client->Send(NextFrame(2, Serve(7)));
    loop.RunUntilIdle();
  }
  noting.notes.clear();
  server->Shutdown(absl::Hours(1), nullptr);
  loop.RunUntilIdle();
  EXPECT_THAT(noting.notes, ElementsAre("next", "next", "next", "completed",
                                        "completed", "completed", "completed"));
}

// Hello ----------------------------------------------------------------------

TEST_F(HostileClientTest, AClientThatSaysNoHelloInTimeHasToLeave) {
  server.emplace(&loop, &widget,
                 ServerLimits{.max_hello_time = absl::Milliseconds(20)});
  RawPeer greeting = ConnectRaw(*server);
  RawPeer silent = ConnectRaw(*server, std::nullopt);
  loop.RunUntil([this] { return server->connections() == 1; });
  EXPECT_THAT(Settle(&silent),
              ElementsAre("ERROR 0 DEADLINE_EXCEEDED: no hello within 20ms"));
  EXPECT_TRUE(silent.closed);
  greeting.Send(CallFrame(1, kShow));
  EXPECT_THAT(Settle(&greeting), ElementsAre("REPLY 1"));
}

TEST_F(HostileClientTest, ClientsThatSayNothingMakeRoomTheOldestFirst) {
  server.emplace(&loop, &widget, ServerLimits{.max_connections = 2});
  RawPeer oldest = ConnectRaw(*server, std::nullopt);
  RawPeer older = ConnectRaw(*server, std::nullopt);
  RawPeer client = ConnectRaw(*server);
  EXPECT_THAT(
      Settle(&oldest),
      ElementsAre(
          "ERROR 0 RESOURCE_EXHAUSTED: closed to make room: it "
          "had said nothing, and 2 clients are connected; the limit is 2"));
  EXPECT_THAT(Settle(&older), IsEmpty());
  EXPECT_FALSE(older.closed);
  client.Send(CallFrame(1, kShow));
  EXPECT_THAT(Settle(&client), ElementsAre("REPLY 1"));
}

// The log --------------------------------------------------------------------

class Log final : public absl::LogSink {
 public:
  Log() { absl::AddLogSink(this); }
  ~Log() override { absl::RemoveLogSink(this); }
  void Send(const absl::LogEntry& entry) override {
    texts.push_back(std::string(entry.text_message()));
  }

  std::vector<std::string> texts;
};

TEST_F(HostileClientTest, TheNameOfAServiceCannotForgeLinesOfTheLog) {
  Log log;
  Hello hello;
  hello.set_oldest_protocol(1);
  hello.set_newest_protocol(1);
  hello.set_service("evil\nWARNING \x1b[2J" + std::string(5000, 'x'));
  // Not every refusal is logged, but one a second.
  while (log.texts.empty()) {
    RawPeer client = ConnectRaw(*server, hello);
    EXPECT_THAT(Settle(&client),
                ElementsAre(HasSubstr("evil\\nWARNING \\033[2Jxxx")));
  }
  ASSERT_THAT(log.texts, ElementsAre(HasSubstr("evil")));
  EXPECT_THAT(log.texts[0], Not(AnyOf(HasSubstr("\n"), HasSubstr("\x1b"))));
  EXPECT_THAT(log.texts[0].size(), Lt(600u));
}

}  // namespace
}  // namespace orvane::testing
