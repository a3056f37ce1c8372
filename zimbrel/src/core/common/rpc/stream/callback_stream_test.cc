#include "zimbrel/src/core/common/rpc/stream/callback_stream.h"

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "absl/base/log_severity.h"
#include "absl/log/globals.h"
#include "absl/log/log_entry.h"
#include "absl/log/log_sink.h"
#include "absl/log/log_sink_registry.h"
#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/testing/call_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/scripted_host.h"
#include "zimbrel/src/core/common/rpc/testing/when_destroyed.h"

namespace orvane::testing {
namespace {

using google::protobuf::Message;
using rpc::CreateWebDialog;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::WhenDestroyed;
using Stream = CallbackStream<CreateWebDialog>;

static_assert(CallbackMessage<rpc::CreateWebDialog>);
static_assert(CallbackMessage<rpc::AccessibilityRequestFocus>);
static_assert(!CallbackMessage<rpc::CursorChanged>, "has no oneof of ours");
static_assert(!CallbackMessage<const rpc::CreateWebDialog>);
static_assert(!CallbackMessage<BrowserId>);
static_assert(!CallbackMessage<int>);

static_assert(
    std::is_same_v<
        decltype(Stream::stream_map_),
        std::unordered_map<const Message*, CallbackStream<CreateWebDialog>*,
                           MessageHash, MessageEqual>>);
static_assert(std::is_same_v<
              decltype(Stream::pending_calls_),
              std::unordered_map<const Message*,
                                 std::map<std::int64_t, Stream::StreamCall>,
                                 MessageHash, MessageEqual>>);
static_assert(sizeof(StreamCallFailure) == 4);
static_assert(static_cast<int>(StreamCallFailure::kCancelled) == 1);
static_assert(static_cast<int>(StreamCallFailure::kRemoteError) == 2);

class CallbackStreamTest : public CallFixture, private absl::LogSink {
 protected:
  CallbackStreamTest() { absl::AddLogSink(this); }
  ~CallbackStreamTest() override { absl::RemoveLogSink(this); }

  std::vector<std::string> records;

 private:
  void Send(const absl::LogEntry& entry) override {
    records.push_back(absl::StrCat(absl::LogSeverityName(entry.log_severity()),
                                   " ", entry.source_filename(), ":",
                                   entry.source_line(), " ",
                                   entry.text_message()));
  }
};

// Subscribing ---------------------------------------------------------------

TEST_F(CallbackStreamTest, ANewStreamServesNothingAndWaitsForNothing) {
  EXPECT_THAT(Stream::stream_map_, IsEmpty());
  EXPECT_THAT(host.stream().pending_calls_, IsEmpty());
}

TEST_F(CallbackStreamTest, ASubscriptionMakesTheStreamServeTheKey) {
  host.Subscribe(kBrowser);
  EXPECT_EQ(Serving(kBrowser), &host.stream());
  EXPECT_EQ(Serving(kOther), nullptr);
  EXPECT_THAT(records, IsEmpty());
}

TEST_F(CallbackStreamTest, TheRegistryOwnsACopyOfTheKey) {
  auto key = std::make_unique<BrowserId>(kBrowser);
  host.stream().Subscribe(*key);
  EXPECT_NE(Stream::stream_map_.begin()->first, key.get());
  key.reset();
  EXPECT_EQ(Serving(kBrowser), &host.stream());
}

TEST_F(CallbackStreamTest, SubscribingTwiceChangesNothingAndLogsNothing) {
  host.Subscribe(kBrowser);
  const Message* const key = Stream::stream_map_.begin()->first;
  host.Subscribe(kBrowser);
  EXPECT_EQ(Stream::stream_map_.size(), 1u);
  EXPECT_EQ(Stream::stream_map_.begin()->first, key);
  EXPECT_EQ(Serving(kBrowser), &host.stream());
  EXPECT_THAT(records, IsEmpty());
}

TEST_F(CallbackStreamTest, AllSubscriptionsWithoutABrowserShareTheEmptyKey) {
  Host second(&loop, &service);
  CreateWebDialog no_browser;
  no_browser.set_subscribe(true);
  host.Send(no_browser);
  EXPECT_EQ(Serving(BrowserId()), &host.stream());
  second.Send(no_browser);
  EXPECT_EQ(Serving(BrowserId()), &second.stream());
  EXPECT_EQ(Stream::stream_map_.size(), 1u);
}

TEST_F(CallbackStreamTest, TakingAKeyOverLogsOneWarningAndKeepsTheEntry) {
  Host second(&loop, &service);
  host.Subscribe(kBrowser);
  const Message* const key = Stream::stream_map_.begin()->first;
  second.Subscribe(kBrowser);
  EXPECT_EQ(Serving(kBrowser), &second.stream());
  EXPECT_EQ(Stream::stream_map_.begin()->first, key);
  EXPECT_THAT(
      records,
      ElementsAre(absl::StrCat(
          "WARNING "
          "../../zimbrel/src/core/common/rpc/stream/callback_stream:204 "
          "The subscriber is already associated with another stream. ",
          kBrowser.ShortDebugString())));
}

TEST_F(CallbackStreamTest, TakingAKeyOverNeedsNoWarnings) {
  const absl::log_internal::ScopedMinLogLevel only_errors(
      absl::LogSeverityAtLeast::kError);
  Host second(&loop, &service);
  host.Subscribe(kBrowser);
  second.Subscribe(kBrowser);
  EXPECT_EQ(Serving(kBrowser), &second.stream());
  EXPECT_THAT(records, IsEmpty());
}

TEST_F(CallbackStreamTest,
       AStreamThatLostItsKeyStillReceivesTheAnswersToItsCalls) {
  Host second(&loop, &service);
  host.Subscribe(kBrowser);
  List(host, kBrowser, 1);
  second.Subscribe(kBrowser);
  EXPECT_THAT(ends, IsEmpty());
  host.Answer(kBrowser, 1, Text("late"));
  EXPECT_THAT(ends, ElementsAre("1 answered late"));
}

TEST_F(CallbackStreamTest, RegistriesOfDifferentMessagesAreIndependent) {
  ScriptedHost<rpc::TakeFocus> focus(&loop, &service);
  host.Subscribe(kBrowser);
  EXPECT_THAT(CallbackStream<rpc::TakeFocus>::stream_map_, IsEmpty());
  focus.Subscribe(kBrowser);
  EXPECT_EQ(Serving(kBrowser), &host.stream());
  EXPECT_THAT(records, IsEmpty());
}

// Unsubscribing -------------------------------------------------------------

TEST_F(CallbackStreamTest,
       UnsubscribingErasesTheEntryAndCancelsTheCallsOfTheKey) {
  host.Subscribe(kBrowser);
  host.Subscribe(kOther);
  List(host, kBrowser, 1);
  List(host, kOther, 2);
  host.Unsubscribe(kBrowser);
  EXPECT_EQ(Serving(kBrowser), nullptr);
  EXPECT_EQ(Serving(kOther), &host.stream());
  EXPECT_THAT(ends, ElementsAre("1 cancelled"));
  EXPECT_THAT(Pending(host, kOther), ElementsAre(2));
  EXPECT_EQ(host.stream().pending_calls_.size(), 1u);
}

TEST_F(CallbackStreamTest,
       UnsubscribingTheKeyOfAnotherStreamErasesItAndCancelsOnlyOwnCalls) {
  Host second(&loop, &service);
  host.Subscribe(kBrowser);
  List(host, kBrowser, 1);
  List(second, kBrowser, 2);
  second.Unsubscribe(kBrowser);
  EXPECT_EQ(Serving(kBrowser), nullptr);
  EXPECT_THAT(ends, ElementsAre("2 cancelled"));
  EXPECT_THAT(Pending(host, kBrowser), ElementsAre(1));
}

TEST_F(CallbackStreamTest, UnsubscribingAKeyThatNobodyServesStillCancels) {
  List(host, kBrowser, 1);
  host.Unsubscribe(kBrowser);
  EXPECT_THAT(ends, ElementsAre("1 cancelled"));
  host.Unsubscribe(kBrowser);
  EXPECT_THAT(ends, ElementsAre("1 cancelled"));
}

// Who may be called ---------------------------------------------------------

TEST_F(CallbackStreamTest, TheLedgerFollowsTheRegistry) {
  const auto& ledger = internal::Registrations::Get();
  Host second(&loop, &service);
  host.Subscribe(kBrowser);
  const Message* const key = Stream::stream_map_.begin()->first;
  EXPECT_TRUE(ledger.Has(&host.stream(), key));
  second.Subscribe(kBrowser);
  EXPECT_FALSE(ledger.Has(&host.stream(), key));
  EXPECT_TRUE(ledger.Has(&second.stream(), key));
  host.Unsubscribe(kBrowser);
  EXPECT_FALSE(ledger.Has(&second.stream(), key));
}

// Answers -------------------------------------------------------------------

TEST_F(CallbackStreamTest, AnAnswerEndsItsCallOnceAndTheEntryWithTheLastCall) {
  List(host, kBrowser, 1);
  List(host, kBrowser, 2);
  host.Answer(kBrowser, 2, Text("yes"));
  EXPECT_THAT(ends, ElementsAre("2 answered yes"));
  EXPECT_THAT(Pending(host, kBrowser), ElementsAre(1));
  host.Answer(kBrowser, 1, Text("no"));
  EXPECT_THAT(ends, ElementsAre("2 answered yes", "1 answered no"));
  EXPECT_THAT(host.stream().pending_calls_, IsEmpty());
  host.Answer(kBrowser, 1);
  EXPECT_EQ(ends.size(), 2u);
}

TEST_F(CallbackStreamTest, AnAnswerToAnUnknownKeyOrIdIsIgnored) {
  List(host, kBrowser, 1);
  host.Answer(kOther, 1);
  host.Answer(kBrowser, 2);
  EXPECT_THAT(ends, IsEmpty());
  EXPECT_THAT(Pending(host, kBrowser), ElementsAre(1));
}

TEST_F(CallbackStreamTest, AnAnswerToAnUnknownIdErasesAnEntryWithoutCalls) {
  host.stream().CallsOf(kBrowser);
  host.Answer(kBrowser, 1);
  EXPECT_THAT(host.stream().pending_calls_, IsEmpty());
}

TEST_F(CallbackStreamTest, ACallIsListedUntilItsCallableReturns) {
  std::vector<std::int64_t> inside;
  List(host, kBrowser, 1, [&] { inside = Pending(host, kBrowser); });
  host.Answer(kBrowser, 1);
  EXPECT_THAT(inside, ElementsAre(1));
}

TEST_F(CallbackStreamTest, TheCallableThatDidNotRunIsDestroyedWithTheOther) {
  const auto held = std::make_shared<int>(0);
  host.stream().CallsOf(kBrowser).second.emplace(
      1, Stream::StreamCall{[held](CreateWebDialog&) {},
                            [held](StreamCallFailure) { FAIL(); }});
  EXPECT_EQ(held.use_count(), 3);
  host.Answer(kBrowser, 1);
  EXPECT_EQ(held.use_count(), 1);
}

// The entry used to be erased first, and what was added came into a new one.
TEST_F(CallbackStreamTest,
       CallablesAreDestroyedBeforeTheEntryIsLookedAtAndMayAddToIt) {
  std::size_t entries = 0;
  auto adder = WhenDestroyed([&] {
    entries = host.stream().pending_calls_.size();
    EXPECT_THAT(Pending(host, kBrowser), IsEmpty()) << "not out of the table";
    List(host, kBrowser, 2);
  });
  host.stream().CallsOf(kBrowser).second.emplace(
      1, Stream::StreamCall{[adder](CreateWebDialog&) {},
                            [](StreamCallFailure) { FAIL(); }});
  adder.reset();
  host.Answer(kBrowser, 1);
  EXPECT_EQ(entries, 1u);
  EXPECT_THAT(Pending(host, kBrowser), ElementsAre(2));
}

TEST_F(CallbackStreamTest, AnAnswerMayBeMovedFromWithItsKey) {
  std::string text;
  const auto take = [&](CreateWebDialog& reply) {
    const CreateWebDialog taken(std::move(reply));
    EXPECT_EQ(taken.browser_id().value(), kBrowser.value());
    text = taken.response().text();
  };
  host.stream().CallsOf(kBrowser).second.emplace(
      1, Stream::StreamCall{take, [](StreamCallFailure) { FAIL(); }});
  host.Answer(kBrowser, 1, Text("moved"));
  EXPECT_EQ(text, "moved");
  EXPECT_THAT(host.stream().pending_calls_, IsEmpty());
}

// Errors --------------------------------------------------------------------

TEST_F(CallbackStreamTest, AnErrorThatCarriesOnlyTheBrowserFailsItsCall) {
  List(host, kBrowser, 1);
  host.Fail(kBrowser, 1);
  EXPECT_THAT(ends, ElementsAre("1 failed"));
  EXPECT_THAT(host.stream().pending_calls_, IsEmpty());
}

TEST_F(CallbackStreamTest, TheOneofOfAnErrorDoesNotMatter) {
  host.Subscribe(kBrowser);
  List(host, kBrowser, 1);
  List(host, kBrowser, 2);
  List(host, kBrowser, 3);
  CreateWebDialog error;
  *error.mutable_browser_id() = kBrowser;
  error.set_subscribe(false);
  host.SendError(error, 1);
  error.mutable_response();
  host.SendError(error, 2);
  error.mutable_call();
  host.SendError(error, 3);
  EXPECT_THAT(ends, ElementsAre("1 failed", "2 failed", "3 failed"));
  EXPECT_EQ(Serving(kBrowser), &host.stream());
}

TEST_F(CallbackStreamTest, AnErrorOfAnUnknownKeyOrIdIsIgnored) {
  List(host, kBrowser, 1);
  host.stream().CallsOf(kOther);
  host.Fail(Browser(9), 1);
  host.Fail(kBrowser, 2);
  EXPECT_THAT(ends, IsEmpty());
  EXPECT_THAT(Pending(host, kBrowser), ElementsAre(1));
  host.Fail(kOther, 1);
  EXPECT_EQ(host.stream().pending_calls_.size(), 1u)
      << "an entry without calls is erased";
}

// Payloads ------------------------------------------------------------------

TEST_F(CallbackStreamTest, APayloadThatDoesNotParseCountsAsFarAsItWasRead) {
  host.SendPayload(
      "\x0a\x02\x08\x07\x10\x01\xff");  // browser 7, subscribe, nonsense
  EXPECT_EQ(Serving(kBrowser), &host.stream());
}

TEST_F(CallbackStreamTest, ATruncatedPayloadCountsAsFarAsItWasRead) {
  List(host, kBrowser, 1);
  host.SendPayload("\x0a\x02\x08\x07\x22\x05",
                   1);  // browser 7, 5 bytes of response missing
  EXPECT_THAT(ends, ElementsAre("1 answered "));
}

TEST_F(CallbackStreamTest, AnErrorWithAnEmptyPayloadIsOfTheEmptyKey) {
  List(host, BrowserId(), 1);
  rpc::transport::StreamMessage frame;
  frame.set_call_id(1);
  host.stream().OnError(&frame);
  EXPECT_THAT(ends, ElementsAre("1 failed"));
}

}  // namespace
}  // namespace orvane::testing
