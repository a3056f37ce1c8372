#include "zimbrel/src/core/common/rpc/stream/event_stream.h"

#include <algorithm>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/testing/event_host.h"
#include "zimbrel/src/core/common/rpc/testing/heap_probe.h"

namespace orvane::testing {
namespace {

using ::google::protobuf::Message;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::SizeIs;

using Stream = EventStream<rpc::CursorChanged>;

static_assert(
    std::is_same_v<decltype(Stream::stream_map_),
                   std::unordered_map<const Message*, std::set<Stream*>,
                                      MessageHash, MessageEqual>>);
static_assert(!std::is_copy_constructible_v<Stream>);
// A service and a method, and no list of keys.
static_assert(sizeof(Stream) == sizeof(AbstractStream) + 2 * sizeof(void*));

template <typename T>
concept HasEventStream = requires {
  typename EventStream<T>;
};
static_assert(HasEventStream<rpc::CursorChanged>);
static_assert(!HasEventStream<const rpc::CursorChanged>);
static_assert(!HasEventStream<volatile rpc::CursorChanged>);
static_assert(!HasEventStream<rpc::CursorChanged&>);
static_assert(!HasEventStream<Message>);
static_assert(!HasEventStream<std::string>);
static_assert(!HasEventStream<int>);

class EventStreamTest : public EventStreamFixture {
 protected:
  using Host = EventHost<rpc::CursorChanged>;

  static const Stream::Registry& registry() { return Stream::stream_map_; }

  static bool HasEntry(std::uint64_t browser) {
    const BrowserId key = Browser(browser);
    return registry().contains(&key);
  }
  // The entry must exist.
  static const Message* OwnKey(std::uint64_t browser) {
    const BrowserId key = Browser(browser);
    return registry().find(&key)->first;
  }
  static std::vector<Stream*> Listed(std::uint64_t browser) {
    const BrowserId key = Browser(browser);
    const auto& streams = registry().find(&key)->second;
    return {streams.begin(), streams.end()};
  }

  static void WatchKey(std::uint64_t browser) {
    heap_probe::Watch(OwnKey(browser));
  }

  // In the order of their addresses.
  Host first{&loop, &service};
  Host second{&loop, &service};
};

TEST_F(EventStreamTest, OpeningRegistersNothing) {
  EXPECT_THAT(registry(), IsEmpty());
  EXPECT_EQ(registry().max_load_factor(), 1.0F);
}

TEST_F(EventStreamTest, ASubscribeFrameListsTheStreamUnderItsKey) {
  first.Subscribe(7);
  EXPECT_EQ(registry().size(), 1u);
  EXPECT_THAT(Listed(7), ElementsAre(first.stream()));
  first.Leave();
}

TEST_F(EventStreamTest, ASecondEqualSubscriptionChangesNothing) {
  first.Subscribe(7);
  const Message* const key = OwnKey(7);
  first.Subscribe(7);
  EXPECT_EQ(registry().size(), 1u);
  EXPECT_EQ(OwnKey(7), key);
  EXPECT_THAT(Listed(7), ElementsAre(first.stream()));
  first.Leave();
}

TEST_F(EventStreamTest, OneUnsubscriptionUndoesTwoSubscriptions) {
  first.Subscribe(7);
  first.Subscribe(7);
  first.Unsubscribe(7);
  EXPECT_THAT(registry(), IsEmpty());
}

TEST_F(EventStreamTest, TheLastToUnsubscribeErasesTheEntryAndDestroysItsKey) {
  first.Subscribe(7);
  const Message* const key = OwnKey(7);
  WatchKey(7);
  first.Unsubscribe(7);
  EXPECT_THAT(registry(), IsEmpty());
  EXPECT_THAT(heap_probe::TakeFreed(), ElementsAre(key));
}

TEST_F(EventStreamTest, AnUnsubscriptionLeavesTheOtherSubscribersAndTheKey) {
  first.Subscribe(7);
  second.Subscribe(7);
  WatchKey(7);
  first.Unsubscribe(7);
  EXPECT_THAT(Listed(7), ElementsAre(second.stream()));
  EXPECT_THAT(heap_probe::TakeFreed(), IsEmpty());
  second.Leave();
  heap_probe::TakeFreed();
}

TEST_F(EventStreamTest, EqualKeysShareOneEntryThatListsStreamsByAddress) {
  second.Subscribe(7);
  const Message* const key = OwnKey(7);
  first.Subscribe(7);
  EXPECT_EQ(registry().size(), 1u);
  EXPECT_EQ(OwnKey(7), key);
  EXPECT_THAT(Listed(7), ElementsAre(first.stream(), second.stream()));
  first.Unsubscribe(7);
  second.Leave();
}

TEST_F(EventStreamTest, DifferentKeysHaveEntriesOfTheirOwn) {
  first.Subscribe(7);
  second.Subscribe(8);
  EXPECT_THAT(Listed(7), ElementsAre(first.stream()));
  EXPECT_THAT(Listed(8), ElementsAre(second.stream()));
  first.Leave();
  second.Leave();
}

TEST_F(EventStreamTest, SubscribeCopiesTheCallersKeyAndLeavesItAlone) {
  BrowserId key = Browser(7);
  first.stream()->Subscribe(key);
  EXPECT_NE(OwnKey(7), &key);
  key.set_value(8);
  EXPECT_TRUE(HasEntry(7));
  EXPECT_FALSE(HasEntry(8));
  first.Leave();
}

TEST_F(EventStreamTest, AKeyIsCopiedForItsFirstSubscriptionOnly) {
  const BrowserId key = Browser(7);
  first.stream()->Subscribe(key);
  const std::size_t before = heap_probe::LiveBlocks();
  first.stream()->Subscribe(key);
  const std::size_t after = heap_probe::LiveBlocks();
  EXPECT_EQ(after, before);
  first.Leave();
}

TEST_F(EventStreamTest, AKeyOfAnyMessageTypeIsCopiedAsThatType) {
  rpc::Cursor key;
  key.set_type(rpc::CURSOR_TYPE_HELP);
  first.stream()->Subscribe(key);
  const auto entry = registry().find(&key);
  ASSERT_NE(entry, registry().end());
  EXPECT_EQ(entry->first->GetDescriptor(), rpc::Cursor::descriptor());
  first.Leave();
}

TEST_F(EventStreamTest, UnsubscribingAnUnknownKeyDestroysTheCallersMessage) {
  const auto* const key = new BrowserId(Browser(7));
  heap_probe::Watch(key);
  first.stream()->Unsubscribe(*key);
  EXPECT_THAT(heap_probe::TakeFreed(), ElementsAre(key));
  EXPECT_THAT(registry(), IsEmpty());
}

TEST_F(EventStreamTest, UnsubscribingAnUnknownKeyLeavesTheOtherEntries) {
  second.Subscribe(8);
  first.Unsubscribe(7);
  EXPECT_EQ(registry().size(), 1u);
  EXPECT_THAT(Listed(8), ElementsAre(second.stream()));
  second.Leave();
}

TEST_F(EventStreamTest, UnsubscribingAKnownKeyLeavesTheCallersMessageAlone) {
  const auto key = std::make_unique<BrowserId>(Browser(7));
  first.stream()->Subscribe(*key);
  first.stream()->Unsubscribe(*key);
  EXPECT_THAT(registry(), IsEmpty());
  EXPECT_EQ(key->value(), 7u);
}

TEST_F(EventStreamTest, UnsubscribingWithTheEntrysOwnKeyErasesTheEntry) {
  first.Subscribe(7);
  const Message* const key = OwnKey(7);
  WatchKey(7);
  first.stream()->Unsubscribe(*key);
  EXPECT_THAT(registry(), IsEmpty());
  EXPECT_THAT(heap_probe::TakeFreed(), ElementsAre(key));
}

TEST_F(EventStreamTest, UnsubscribingAStreamThatIsNotListedLeavesTheEntry) {
  first.Subscribe(7);
  const Message* const key = OwnKey(7);
  second.Unsubscribe(7);
  EXPECT_EQ(OwnKey(7), key);
  EXPECT_THAT(Listed(7), ElementsAre(first.stream()));
  first.Leave();
}

// ---------------------------------------------------------------------------
// Frames.

TEST_F(EventStreamTest, AFrameWithoutAnActionChangesNothing) {
  first.Subscribe(7);
  first.Send(rpc::EventSubscription());
  EXPECT_EQ(registry().size(), 1u);
  EXPECT_THAT(Listed(7), ElementsAre(first.stream()));
  first.Leave();
}

TEST_F(EventStreamTest, AnEmptyPayloadChangesNothing) {
  first.Subscribe(7);
  first.SendPayload("");
  EXPECT_EQ(registry().size(), 1u);
  EXPECT_THAT(Listed(7), ElementsAre(first.stream()));
  first.Leave();
}

TEST_F(EventStreamTest, AnUnknownActionChangesNothing) {
  first.Subscribe(7);
  first.SendPayload("\x1a\x02\x08\x07");  // Field 3: a message.
  EXPECT_EQ(registry().size(), 1u);
  EXPECT_THAT(Listed(7), ElementsAre(first.stream()));
  first.Leave();
}

TEST_F(EventStreamTest, OfTwoActionsInOneFrameTheLastCounts) {
  const std::string subscribe_7 = Subscribe(7).SerializeAsString();
  const std::string unsubscribe_8 = Unsubscribe(8).SerializeAsString();
  first.SendPayload(unsubscribe_8 + subscribe_7);
  EXPECT_TRUE(HasEntry(7));
  first.SendPayload(subscribe_7 + Unsubscribe(7).SerializeAsString());
  EXPECT_FALSE(HasEntry(7));
  first.SendPayload(subscribe_7 + unsubscribe_8);
  EXPECT_FALSE(HasEntry(7));
}

TEST_F(EventStreamTest, ATruncatedPayloadCountsAsFarAsItWasRead) {
  // All of `subscribe`, then the first half of some field.
  first.SendPayload(Subscribe(7).SerializeAsString() + "\x1a\x05xy");
  EXPECT_THAT(Listed(7), ElementsAre(first.stream()));
  // `subscribe`, cut off before its value.
  const std::string whole = Subscribe(9).SerializeAsString();
  first.SendPayload(whole.substr(0, whole.size() - 1));
  EXPECT_THAT(Listed(0), ElementsAre(first.stream()));
  EXPECT_FALSE(HasEntry(9));
  first.Leave();
}

TEST_F(EventStreamTest, AMalformedPayloadCountsAsFarAsItWasRead) {
  first.SendPayload("\xff\xff\xff\xff");
  EXPECT_THAT(registry(), IsEmpty());
  first.SendPayload(Subscribe(7).SerializeAsString() + "\xff\xff");
  EXPECT_THAT(Listed(7), ElementsAre(first.stream()));
  first.SendPayload(Unsubscribe(7).SerializeAsString() + "\xff\xff");
  EXPECT_THAT(registry(), IsEmpty());
}

TEST_F(EventStreamTest, OnErrorChangesNothingAndLooksAtNothing) {
  first.Subscribe(7);
  first.stream()->OnError(nullptr);
  EXPECT_EQ(registry().size(), 1u);
  EXPECT_THAT(Listed(7), ElementsAre(first.stream()));
  first.Leave();
}

// Counts what a stream asks its service.
class AskedService final : public rpc::BrowserWidgetRpc {
 public:
  using MethodDescriptor = google::protobuf::MethodDescriptor;

  const Message& GetRequestPrototype(
      const MethodDescriptor* method) const override {
    asked.push_back(method);
    return BrowserWidgetRpc::GetRequestPrototype(method);
  }
  const Message& GetResponsePrototype(
      const MethodDescriptor* method) const override {
    ADD_FAILURE() << "An event stream never parses a response.";
    return BrowserWidgetRpc::GetResponsePrototype(method);
  }

  mutable std::vector<const MethodDescriptor*> asked;
};

TEST_F(EventStreamTest, AsksForTheRequestPrototypeOfItsMethodAtEachFrame) {
  AskedService asked_service;
  Host host(&loop, &asked_service);
  EXPECT_THAT(asked_service.asked, IsEmpty());
  host.Subscribe(7);
  host.Unsubscribe(7);
  const auto* const method = MethodOf<rpc::CursorChanged>();
  EXPECT_THAT(asked_service.asked, ElementsAre(method, method));
  host.Leave();
  EXPECT_EQ(asked_service.asked.size(), 2u);
}

// ---------------------------------------------------------------------------
// The end.

TEST_F(EventStreamTest, CompletionWithAnEmptyRegistryOnlyEndsTheStream) {
  first.Complete();
  EXPECT_EQ(first.completions, 1);
  EXPECT_THAT(registry(), IsEmpty());
}

TEST_F(EventStreamTest, CompletionErasesTheEntriesThatListTheStreamAlone) {
  std::vector<const Message*> keys;
  for (const std::uint64_t browser : {9, 7, 8}) {
    first.Subscribe(browser);
    keys.push_back(OwnKey(browser));
    WatchKey(browser);
  }
  std::sort(keys.begin(), keys.end());
  std::size_t left_when_ended = 99;
  first.on_complete = [&] { left_when_ended = registry().size(); };
  first.Complete();
  EXPECT_EQ(first.completions, 1);
  EXPECT_EQ(left_when_ended, 0u);
  EXPECT_THAT(heap_probe::TakeFreed(), ElementsAreArray(keys));
}

TEST_F(EventStreamTest, CompletionLeavesTheStreamUnderTheKeysThatItShares) {
  first.Subscribe(7);
  first.Subscribe(8);
  second.Subscribe(8);
  first.Complete();
  EXPECT_FALSE(HasEntry(7));
  EXPECT_THAT(Listed(8), ElementsAre(first.stream(), second.stream()));
  first.Vanish();
  EXPECT_THAT(Listed(8), ElementsAre(first.stream(), second.stream()));

  second.Unsubscribe(8);
  first.Open();
  first.Unsubscribe(8);
}

TEST_F(EventStreamTest, CompletionLeavesTheEntriesOfOthers) {
  second.Subscribe(7);
  first.Leave();
  EXPECT_THAT(Listed(7), ElementsAre(second.stream()));
  second.Leave();
}

TEST_F(EventStreamTest, CompletionErasesAnEntryThatListsNobody) {
  const auto* const key = new BrowserId(Browser(7));
  Stream::stream_map_.try_emplace(key);
  heap_probe::Watch(key);
  first.Complete();
  EXPECT_THAT(registry(), IsEmpty());
  EXPECT_THAT(heap_probe::TakeFreed(), ElementsAre(key));
}

TEST_F(EventStreamTest, CompletionMayDestroyTheStream) {
  first.Subscribe(7);
  first.on_complete = [&] { first.Vanish(); };
  first.Complete();
  EXPECT_FALSE(first.is_open());
  EXPECT_THAT(registry(), IsEmpty());
}

TEST_F(EventStreamTest, DestructionWithoutCompletionLeavesTheRegistryAlone) {
  first.Subscribe(7);
  first.Subscribe(8);
  second.Subscribe(8);
  first.Vanish();
  EXPECT_THAT(Listed(7), ElementsAre(first.stream()));
  EXPECT_THAT(Listed(8), ElementsAre(first.stream(), second.stream()));

  second.Unsubscribe(8);
  first.Open();
  first.Unsubscribe(8);
  first.Leave();
}

TEST_F(EventStreamTest, ADriverMayDeleteItThroughItsBase) {
  std::unique_ptr<AbstractStream> stream = std::make_unique<Stream>(
      &service, MethodOf<rpc::CursorChanged>(), first.MakeChannel());
  rpc::transport::StreamMessage frame;
  frame.set_payload(Subscribe(7).SerializeAsString());
  stream->OnNext(&frame);
  EXPECT_THAT(Listed(7), ElementsAre(stream.get()));
  stream->OnCompleted();
  heap_probe::Watch(stream.get());
  const void* const address = stream.get();
  stream.reset();
  const std::vector<const void*> freed = heap_probe::TakeFreed();
  ASSERT_THAT(freed, SizeIs(1));
  EXPECT_TRUE(freed[0] == address);
  EXPECT_THAT(registry(), IsEmpty());
}

// ---------------------------------------------------------------------------
// The six kinds.

using Events =
    ::testing::Types<rpc::CursorChanged, rpc::TooltipChanged,
                     rpc::DropDownCreated, rpc::DropDownDeleted,
                     rpc::DragCursorUpdated, rpc::AriaLiveRegionChanged>;

template <typename T>
class EachEventStreamTest : public EventStreamFixture {
 protected:
  static std::size_t EntriesOfAll() {
    return EventStream<rpc::CursorChanged>::stream_map_.size() +
           EventStream<rpc::TooltipChanged>::stream_map_.size() +
           EventStream<rpc::DropDownCreated>::stream_map_.size() +
           EventStream<rpc::DropDownDeleted>::stream_map_.size() +
           EventStream<rpc::DragCursorUpdated>::stream_map_.size() +
           EventStream<rpc::AriaLiveRegionChanged>::stream_map_.size();
  }
};
TYPED_TEST_SUITE(EachEventStreamTest, Events);

TYPED_TEST(EachEventStreamTest, ServesItsMethodWithARegistryOfItsOwn) {
  ASSERT_NE(MethodOf<TypeParam>(), nullptr);
  EXPECT_EQ(MethodOf<TypeParam>()->output_type(), TypeParam::descriptor());
  EventHost<TypeParam> host(&this->loop, &this->service);
  host.Subscribe(7);
  EXPECT_EQ(EventStream<TypeParam>::stream_map_.size(), 1u);
  EXPECT_EQ(this->EntriesOfAll(), 1u);
  host.Leave();
  EXPECT_EQ(this->EntriesOfAll(), 0u);
}

}  // namespace
}  // namespace orvane::testing
