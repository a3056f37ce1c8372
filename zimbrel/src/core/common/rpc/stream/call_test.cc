#include "zimbrel/src/core/common/rpc/stream/call.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/testing/call_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/scripted_host.h"
#include "zimbrel/src/core/common/rpc/testing/when_destroyed.h"

namespace orvane::testing {
namespace {

using rpc::CreateWebDialog;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using testing::WhenDestroyed;

static_assert(CallMessage<rpc::CreateWebDialog> &&
              CallMessage<rpc::UpdateSurface> &&
              CallMessage<rpc::UpdateLayer> && CallMessage<rpc::ShowDropdown> &&
              CallMessage<rpc::TakeFocus> &&
              CallMessage<rpc::AccessibilityRequestFocus>);

using CallTest = CallFixture;

// Making a call -------------------------------------------------------------

TEST_F(CallTest, ReachesTheHostWithTheKeyTheCallAndItsId) {
  host.Subscribe(kBrowser);
  Ask(kBrowser, "name?");
  ASSERT_EQ(host.received().size(), 1u);
  const CreateWebDialog& message = host.received()[0].message;
  EXPECT_EQ(message.browser_id().value(), kBrowser.value());
  EXPECT_EQ(message.call().prompt().message(), "name?");
  EXPECT_THAT(host.stream().pending_calls_, ::testing::SizeIs(1));
  EXPECT_EQ(host.stream().CallsOf(kBrowser).second.begin()->first,
            host.last_id());
}

TEST_F(CallTest, TakesAnIdThatNoOtherCallHas) {
  Host second(&loop, &service);
  host.Subscribe(kBrowser);
  second.Subscribe(kOther);
  Ask(kBrowser, "a");
  Ask(kBrowser, "b");
  Ask(kOther, "c");
  EXPECT_NE(host.received()[0].id, host.received()[1].id);
  EXPECT_NE(host.received()[1].id, second.received()[0].id);
}

TEST_F(CallTest, EndsInATaskOfItsOwnWhenNobodyServesTheKey) {
  host.Subscribe(kOther);
  Ask(kBrowser, "a");
  EXPECT_THAT(ends, IsEmpty()) << "ran inside the call";
  loop.RunUntilIdle();
  EXPECT_THAT(
      ends, ElementsAre(AllOf(StartsWith("a NOT_FOUND"),
                              HasSubstr("no client serves rpc.CreateWebDialog "
                                        "for {value: 7}"))));
  EXPECT_THAT(host.received(), IsEmpty());
}

TEST_F(CallTest, NeedsNoContinuation) {
  Call<CreateWebDialog>(kBrowser, {});
  host.Subscribe(kBrowser);
  Call<CreateWebDialog>(kBrowser, {});
  host.Answer(kBrowser, host.last_id(), Text("yes"));
  Call<CreateWebDialog>(kBrowser, {}, nullptr,
                        {.timeout = absl::Milliseconds(1)});
  loop.RunUntilIdle();
  EXPECT_EQ(host.received().size(), 2u);
}

TEST_F(CallTest, EndsInATaskOfItsOwnWhenTheFrameCannotBeSent) {
  host.Subscribe(kBrowser);
  host.send_result = absl::ResourceExhaustedError("too slow");
  Ask(kBrowser, "a");
  EXPECT_THAT(host.stream().pending_calls_, IsEmpty());
  EXPECT_THAT(ends, IsEmpty()) << "ran inside the call";
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("a RESOURCE_EXHAUSTED: too slow"));
  host.send_result = absl::OkStatus();
  Ask(kBrowser, "b");
  EXPECT_EQ(host.received().size(), 1u);
}

TEST_F(CallTest, IsServedWhileALivingStreamServesTheKey) {
  EXPECT_FALSE(IsServed<CreateWebDialog>(kBrowser));
  host.Subscribe(kBrowser);
  EXPECT_TRUE(IsServed<CreateWebDialog>(kBrowser));
  EXPECT_FALSE(IsServed<CreateWebDialog>(kOther));
  EXPECT_FALSE(IsServed<rpc::TakeFocus>(kBrowser));
  host.Unsubscribe(kBrowser);
  EXPECT_FALSE(IsServed<CreateWebDialog>(kBrowser));
}

TEST_F(CallTest, IsNotServedByAStreamThatVanished) {
  host.Subscribe(kBrowser);
  host.Vanish();
  EXPECT_FALSE(IsServed<CreateWebDialog>(kBrowser));
  RemoveRegistration<CreateWebDialog>(kBrowser);
}

// How a call ends -----------------------------------------------------------

TEST_F(CallTest, EndsWithTheAnswerAfterTheFrameWasHandled) {
  host.Subscribe(kBrowser);
  Ask(kBrowser, "name?");
  host.Answer(kBrowser, host.last_id(), Text("Ada"));
  EXPECT_THAT(host.stream().pending_calls_, IsEmpty());
  EXPECT_THAT(ends, IsEmpty()) << "ran inside the handler";
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("name? Ada"));
}

TEST_F(CallTest, IgnoresASecondAnswerAndAnswersThatNobodyAskedFor) {
  host.Subscribe(kBrowser);
  Ask(kBrowser, "name?");
  host.Answer(kBrowser, host.last_id() + 1, Text("wrong id"));
  host.Answer(kOther, host.last_id(), Text("wrong key"));
  loop.RunUntilIdle();
  EXPECT_THAT(ends, IsEmpty());
  host.Answer(kBrowser, host.last_id(), Text("Ada"));
  host.Answer(kBrowser, host.last_id(), Text("Bob"));
  host.Fail(kBrowser, host.last_id());
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("name? Ada"));
}

TEST_F(CallTest, EndsWhenTheHostAnswersWithAnError) {
  host.Subscribe(kBrowser);
  Ask(kBrowser, "a");
  host.Fail(kBrowser, host.last_id());
  EXPECT_THAT(ends, IsEmpty()) << "ran inside the handler";
  loop.RunUntilIdle();
  EXPECT_THAT(ends,
              ElementsAre("a UNKNOWN: the client answered with an error"));
}

TEST_F(CallTest, EndsWhenItsTimeIsOver) {
  host.Subscribe(kBrowser);
  Ask(kBrowser, "a", nullptr, {.timeout = absl::Milliseconds(2)});
  Ask(kBrowser, "b", nullptr, {.timeout = absl::Hours(1)});
  EXPECT_EQ(host.stream().CallsOf(kBrowser).second.size(), 2u);
  RunUntilEnds(1);
  EXPECT_THAT(
      ends,
      ElementsAre("a DEADLINE_EXCEEDED: the client did not answer within 2ms"));
  EXPECT_EQ(host.stream().CallsOf(kBrowser).second.size(), 1u);
  host.Answer(kBrowser, host.received()[0].id, Text("late"));
  host.Answer(kBrowser, host.received()[1].id, Text("in time"));
  loop.RunUntilIdle();
  EXPECT_THAT(ends,
              ElementsAre(StartsWith("a DEADLINE_EXCEEDED"), "b in time"));
}

TEST_F(CallTest, WithoutTimeIsNotSentAndEndsAsSoonAsTheLoopRuns) {
  host.Subscribe(kBrowser);
  Ask(kBrowser, "a", nullptr, {.timeout = absl::Seconds(-1)});
  EXPECT_THAT(ends, IsEmpty());
  RunUntilEnds(1);
  EXPECT_THAT(ends, ElementsAre("a DEADLINE_EXCEEDED: the call's timeout is "
                                "not above 0"));
  EXPECT_THAT(host.received(), IsEmpty());
  EXPECT_THAT(host.stream().pending_calls_, IsEmpty());
}

TEST_F(CallTest, AnAnswerInTimeLeavesNothingForTheDeadline) {
  host.Subscribe(kBrowser);
  Ask(kBrowser, "a", nullptr, {.timeout = absl::Milliseconds(1)});
  host.Answer(kBrowser, host.last_id(), Text("yes"));
  bool later = false;
  const auto timer =
      loop.RunAfter(absl::Milliseconds(2), [&later] { later = true; });
  EXPECT_TRUE(loop.RunUntil([&later] { return later; }));
  EXPECT_THAT(ends, ElementsAre("a yes"));
}

TEST_F(CallTest, EndsWhenTheHostUnsubscribesTheKey) {
  host.Subscribe(kBrowser);
  host.Subscribe(kOther);
  Ask(kBrowser, "a");
  Ask(kOther, "b");
  host.Unsubscribe(kBrowser);
  EXPECT_THAT(ends, IsEmpty()) << "ran inside the handler";
  loop.RunUntilIdle();
  EXPECT_THAT(
      ends,
      ElementsAre("a CANCELLED: the client unsubscribed the key or ended the "
                  "stream before it answered"));
}

TEST_F(CallTest, EndsWhenTheStreamIsCompletedInTheOrderOfTheCalls) {
  host.Subscribe(kBrowser);
  Ask(kBrowser, "a");
  Ask(kBrowser, "b");
  host.End();
  EXPECT_THAT(ends, IsEmpty()) << "ran inside the handler";
  loop.RunUntilIdle();
  EXPECT_THAT(
      ends, ElementsAre(StartsWith("a CANCELLED"), StartsWith("b CANCELLED")));
}

TEST_F(CallTest, EndsWhenTheStreamIsDestroyedWithoutBeingCompleted) {
  host.Subscribe(kBrowser);
  Ask(kBrowser, "a", nullptr, {.timeout = absl::Hours(1)});
  EXPECT_EQ(host.Vanish(), 1u);
  EXPECT_THAT(ends, IsEmpty()) << "ran inside the destructor";
  loop.RunUntilIdle();
  EXPECT_THAT(
      ends,
      ElementsAre(
          "a CANCELLED: the stream was destroyed before the client answered"));
  RemoveRegistration<CreateWebDialog>(kBrowser);
}

TEST_F(CallTest, EndsAsCancelledWhenItIsAddedBehindTheWalkThatCancelsItsKey) {
  host.Subscribe(kBrowser);
  host.stream().CallsOf(kBrowser).second.emplace(
      INT64_MAX,
      Stream::StreamCall{[](CreateWebDialog&) { FAIL(); },
                         [&](StreamCallFailure) { Ask(kBrowser, "a"); }});
  host.stream().CancelPendingRequests(kBrowser);
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre(StartsWith("a CANCELLED")));
}

TEST_F(CallTest, WaitsOnWhenAnotherStreamTakesTheKeyOver) {
  Host second(&loop, &service);
  host.Subscribe(kBrowser);
  Ask(kBrowser, "old");
  second.Subscribe(kBrowser);
  Ask(kBrowser, "new");
  loop.RunUntilIdle();
  EXPECT_THAT(ends, IsEmpty());
  ASSERT_EQ(host.received().size(), 1u);
  ASSERT_EQ(second.received().size(), 1u);
  second.Answer(kBrowser, host.last_id(), Text("from the wrong host"));
  host.Answer(kBrowser, host.last_id(), Text("from the first"));
  second.Answer(kBrowser, second.last_id(), Text("from the second"));
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("old from the first", "new from the second"));
}

TEST_F(CallTest,
       WaitsOnWhenAnotherStreamUnsubscribesTheKeyWhichNobodyServesThen) {
  Host second(&loop, &service);
  host.Subscribe(kBrowser);
  Ask(kBrowser, "old");
  second.Unsubscribe(kBrowser);
  Ask(kBrowser, "new");
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre(StartsWith("new NOT_FOUND")));
  host.Answer(kBrowser, host.last_id(), Text("yes"));
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre(StartsWith("new NOT_FOUND"), "old yes"));
}

TEST_F(CallTest, DestroysTheContinuationUnrunWithTheLoop) {
  const auto held = std::make_shared<int>(0);
  auto own_loop = std::make_unique<EventLoop>();
  Host own_host(own_loop.get(), &service);
  own_host.Subscribe(kBrowser);
  Ask(kBrowser, "a", [held] { FAIL(); });
  own_host.End();
  EXPECT_GT(held.use_count(), 1);
  own_loop.reset();
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_THAT(ends, IsEmpty());
}

// Streams that are gone -----------------------------------------------------

TEST_F(CallTest, NeverTouchesADestroyedStreamThatTheRegistryStillNames) {
  host.Subscribe(kBrowser);
  host.Vanish();
  EXPECT_EQ(Stream::stream_map_.size(), 1u);
  Ask(kBrowser, "a");
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre(StartsWith("a NOT_FOUND")));
  RemoveRegistration<CreateWebDialog>(kBrowser);
}

// Streams of one address after another, and how many frames they sent.
class StreamsInOnePlace {
 public:
  StreamsInOnePlace(EventLoop* loop, rpc::BrowserWidgetRpc* service)
      : loop_(loop), service_(service) {}

  CallbackStream<CreateWebDialog>& Open() {
    return stream_.emplace(service_, ScriptedHost<CreateWebDialog>::Method(),
                           StreamChannel(std::make_unique<Endpoint>(this)));
  }

  int sent = 0;

 private:
  struct Endpoint final : StreamEndpoint {
    explicit Endpoint(StreamsInOnePlace* all) : owner(all) {}
    absl::Status Send(const rpc::transport::StreamMessage&) override {
      ++owner->sent;
      return absl::OkStatus();
    }
    void Complete() override {}
    EventLoop& loop() override { return *owner->loop_; }
    StreamsInOnePlace* const owner;
  };

  EventLoop* const loop_;
  rpc::BrowserWidgetRpc* const service_;
  std::optional<CallbackStream<CreateWebDialog>> stream_;
};

TEST_F(CallTest, NeverReachesAStreamThatOnlyHasTheAddressOfOneThatSubscribed) {
  StreamsInOnePlace streams(&loop, &service);
  streams.Open().Subscribe(kBrowser);
  const Stream& second = streams.Open();
  EXPECT_EQ(Serving(kBrowser), &second);
  Ask(kBrowser, "a");
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre(StartsWith("a NOT_FOUND")));
  EXPECT_EQ(streams.sent, 0);
  RemoveRegistration<CreateWebDialog>(kBrowser);
}

TEST_F(CallTest, ReachesAStreamThatSubscribesAsOneOfItsAddressDidBefore) {
  StreamsInOnePlace streams(&loop, &service);
  streams.Open().Subscribe(kBrowser);
  Stream& second = streams.Open();
  second.Subscribe(kBrowser);
  Ask(kBrowser, "a");
  EXPECT_EQ(streams.sent, 1);
  second.OnCompleted();
}

// Cancelling ----------------------------------------------------------------

TEST_F(CallTest, IsCancelledByItsHandleOnce) {
  host.Subscribe(kBrowser);
  auto call = Ask(kBrowser, "a", nullptr, {.timeout = absl::Hours(1)});
  call.Cancel();
  call.Cancel();
  EXPECT_THAT(ends, IsEmpty()) << "ran inside Cancel";
  EXPECT_THAT(host.stream().pending_calls_, IsEmpty());
  host.Answer(kBrowser, host.last_id(), Text("late"));
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("a CANCELLED: cancelled by the caller"));
}

TEST_F(CallTest, CancellingLeavesTheOtherCallsOfTheKey) {
  host.Subscribe(kBrowser);
  auto first = Ask(kBrowser, "a");
  Ask(kBrowser, "b");
  first.Cancel();
  host.Answer(kBrowser, host.last_id(), Text("yes"));
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre(StartsWith("a CANCELLED"), "b yes"));
}

TEST_F(CallTest, OutlivesItsHandle) {
  host.Subscribe(kBrowser);
  { const auto call = Ask(kBrowser, "a"); }
  host.Answer(kBrowser, host.last_id(), Text("yes"));
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("a yes"));
}

TEST_F(CallTest, CancellingAfterTheEndDoesNothing) {
  host.Subscribe(kBrowser);
  auto call = Ask(kBrowser, "a");
  host.Answer(kBrowser, host.last_id(), Text("yes"));
  call.Cancel();
  loop.RunUntilIdle();
  call.Cancel();
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("a yes"));
}

TEST_F(CallTest, CancellingAfterTheStreamIsGoneDoesNothing) {
  host.Subscribe(kBrowser);
  auto call = Ask(kBrowser, "a");
  host.End();
  call.Cancel();
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre(StartsWith("a CANCELLED: the client")));
}

// What a call that was listed by hand holds is destroyed where a call that Call
// made may be half gone. Its handle is safe even there.

TEST_F(CallTest, CancellingInsideTheHandlerThatEndedTheCallDoesNothing) {
  host.Subscribe(kBrowser);
  auto call = Ask(kBrowser, "a");
  List(host, kBrowser, INT64_MAX, [&] { call.Cancel(); });
  host.Unsubscribe(kBrowser);
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("9223372036854775807 cancelled",
                                StartsWith("a CANCELLED: the client")));
}

TEST_F(CallTest, MayBeCancelledWhileItsStreamIsBeingDestroyed) {
  host.Subscribe(kBrowser);
  auto call = Ask(kBrowser, "a");
  auto canceller = WhenDestroyed([&] { call.Cancel(); });
  List(host, kBrowser, INT64_MAX, [canceller] { FAIL(); });
  canceller.reset();
  host.Vanish();
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre(StartsWith("a CANCELLED")));
  RemoveRegistration<CreateWebDialog>(kBrowser);
}

TEST_F(CallTest, MayBeCancelledWhileItsEntryIsBeingErased) {
  host.Subscribe(kBrowser);
  List(host, kOther, 1);  // So that there is something to look up among.
  CallHandle call;
  auto canceller = WhenDestroyed([&] { call.Cancel(); });
  // Behind the walk, so that the call is dropped without being told.
  List(host, kBrowser, INT64_MAX,
       [&, canceller] { call = Ask(kBrowser, "a"); });
  canceller.reset();
  host.stream().CancelPendingRequests(kBrowser);
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre("9223372036854775807 cancelled",
                                StartsWith("a CANCELLED")));
}

}  // namespace
}  // namespace orvane::testing
