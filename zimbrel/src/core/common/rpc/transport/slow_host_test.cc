// Hosts that do not read, and those beside them.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/testing/frames.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"

namespace orvane::testing {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::SizeIs;

constexpr std::uint32_t kWhenDropDownCreated = 42;

class SlowHostTest : public StreamFixture {
 protected:
  SlowHostTest()
      : StreamFixture(ServerLimits{.max_queued_bytes = std::size_t{1} << 20}) {}

  // A host that has subscribed to the events of browser 1.
  RawPeer Subscriber(std::uint32_t method) {
    RawPeer host = ConnectRaw(*server);
    host.Send(OpenFrame(1, method));
    host.Send(NextFrame(1, Subscribe(1)));
    loop.RunUntilIdle();
    return host;
  }

  // Publishes tooltips until they begin to replace one another in front of a
  // host that does not read. Returns how many.
  int FillUp(std::uint64_t browser = 1) {
    int published = 0;
    const std::uint64_t before = server->counters().replaced_events;
    while (server->counters().replaced_events == before) {
      Publish<rpc::TooltipChanged>(Browser(browser),
                                   Tooltip(std::string(1000, 'x')));
      loop.RunUntilIdle();
      ++published;
    }
    return published;
  }

  static std::string TextOf(const rpc::transport::StreamMessage& frame) {
    rpc::TooltipChanged event;
    EXPECT_TRUE(event.ParseFromString(frame.payload()));
    return event.text();
  }
};

TEST_F(SlowHostTest, GetsTheLatestOfWhatIsOnlyWorthTheLatest) {
  RawPeer host = Subscriber(kWhenTooltipChanged);
  const int published = FillUp();
  for (int i = 0; i < 10000; ++i)
    Publish<rpc::TooltipChanged>(Browser(1), Tooltip(std::string(1000, 'y')));
  Publish<rpc::TooltipChanged>(Browser(1), Tooltip("latest"));
  EXPECT_EQ(server->connections(), 1u);

  std::vector<std::string> texts;
  while (texts.empty() || texts.back() != "latest") {
    Settle(&host);
    for (const auto& frame : host.frames) texts.push_back(TextOf(frame));
  }
  // What had left before two met in one place, and the latest.
  EXPECT_EQ(texts.size(), static_cast<std::size_t>(published - 2 + 1));
  EXPECT_EQ(server->counters().replaced_events, 10002u);
}

TEST_F(SlowHostTest, GetsTheLatestOfEachKey) {
  RawPeer host = Subscriber(kWhenTooltipChanged);
  host.Send(NextFrame(1, Subscribe(2)));
  FillUp();
  for (const char* const text : {"old", "new"}) {
    Publish<rpc::TooltipChanged>(Browser(1), Tooltip(text + std::string("1")));
    Publish<rpc::TooltipChanged>(Browser(2), Tooltip(text + std::string("2")));
  }
  std::vector<std::string> texts;
  while (texts.empty() || texts.back() != "new2") {
    Settle(&host);
    for (const auto& frame : host.frames) texts.push_back(TextOf(frame));
  }
  ASSERT_GT(texts.size(), 2u);
  EXPECT_EQ(texts[texts.size() - 2], "new1");
  EXPECT_THAT(std::vector(texts.begin(), texts.end() - 2), Each(SizeIs(1000)));
}

TEST_F(SlowHostTest, GetsNothingMoreOfAStreamThatItEnds) {
  RawPeer host = Subscriber(kWhenTooltipChanged);
  const int published = FillUp();
  host.Send(CompleteFrame(1));
  std::vector<std::string> words;
  while (words.empty() || words.back() != "COMPLETE 1") {
    for (const std::string& word : Settle(&host)) words.push_back(word);
  }
  // What had left before two met in one place, and the end.
  EXPECT_EQ(words.size(), static_cast<std::size_t>(published - 2 + 1));
}

TEST_F(SlowHostTest, GetsItsRepliesBeforeTheLatestEvents) {
  RawPeer host = Subscriber(kWhenTooltipChanged);
  FillUp();
  Publish<rpc::TooltipChanged>(Browser(1), Tooltip("latest"));
  host.Send(CallFrame(2, kShow));
  loop.RunUntilIdle();
  std::vector<std::string> words;
  while (words.empty() || words.back() != "REPLY 2") {
    const std::vector<std::string> more = Settle(&host);
    words.insert(words.end(), more.begin(), more.end());
    if (!words.empty() && words.back() == "NEXT 1" &&
        TextOf(host.frames.back()) == "latest") {
      break;
    }
  }
  ASSERT_GT(words.size(), 2u);
  EXPECT_THAT(std::vector(words.end() - 2, words.end()),
              ElementsAre("REPLY 2", "NEXT 1"));
}

TEST_F(SlowHostTest, IsThrownOutAtTheLimitWhereEveryEventCounts) {
  RawPeer stalled = Subscriber(kWhenDropDownCreated);
  RawPeer reading = Subscriber(kWhenDropDownCreated);
  rpc::DropDownCreated event;
  std::size_t received = 0;
  std::size_t published = 0;
  while (server->connections() == 2) {
    event.set_popup_id(++published);
    Publish<rpc::DropDownCreated>(Browser(1), event);
    received += Settle(&reading).size();
  }
  EXPECT_EQ(received, published);
  EXPECT_EQ(server->counters().thrown_out, 1u);
  // What the socket had taken before is there, in order, and then the end.
  std::uint64_t expected = 0;
  while (!stalled.closed) {
    stalled.frames.clear();
    stalled.Receive();
    for (const auto& frame : stalled.frames) {
      rpc::DropDownCreated seen;
      ASSERT_TRUE(seen.ParseFromString(frame.payload()));
      EXPECT_EQ(seen.popup_id(), ++expected);
    }
  }
  EXPECT_GT(expected, 0u);
}

TEST_F(SlowHostTest, IsNotThrownOutForABurstThatItReads) {
  RawPeer host = Subscriber(kWhenDropDownCreated);
  // More than may wait, in one task: written as far as the socket takes it.
  bool done = false;
  std::size_t received = 0;
  rpc::DropDownCreated event;
  event.set_popup_id(1);
  loop.Post([&] {
    for (int i = 0; i < 20; ++i) {
      for (int j = 0; j < 10000; ++j)
        Publish<rpc::DropDownCreated>(Browser(1), event);
      host.frames.clear();
      host.Receive();
      received += host.frames.size();
    }
    done = true;
  });
  loop.RunUntil([&] { return done; });
  received += Settle(&host).size();
  EXPECT_EQ(server->connections(), 1u);
  EXPECT_EQ(received, 200000u);
}

}  // namespace
}  // namespace orvane::testing
