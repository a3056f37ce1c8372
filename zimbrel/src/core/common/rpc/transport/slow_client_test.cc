// Clients that do not read, and other clients of the same server.

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

class SlowClientTest : public StreamFixture {
 protected:
  SlowClientTest()
      : StreamFixture(ServerLimits{.max_queued_bytes = std::size_t{1} << 20}) {}

  // A client that has subscribed to the events of browser 1.
  RawPeer Subscriber(std::uint32_t method) {
    RawPeer client = ConnectRaw(*server);
    client.Send(OpenFrame(1, method));
    client.Send(NextFrame(1, Subscribe(1)));
    loop.RunUntilIdle();
    return client;
  }

  // Publishes tooltips to a client that does not read, until they begin to
  // replace one another. Returns how many were published.
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

TEST_F(SlowClientTest, GetsTheLatestOfWhatIsOnlyWorthTheLatest) {
  RawPeer client = Subscriber(kWhenTooltipChanged);
  const int published = FillUp();
  for (int i = 0; i < 10000; ++i)
    Publish<rpc::TooltipChanged>(Browser(1), Tooltip(std::string(1000, 'y')));
  Publish<rpc::TooltipChanged>(Browser(1), Tooltip("latest"));
  EXPECT_EQ(server->connections(), 1u);

  std::vector<std::string> texts;
  while (texts.empty() || texts.back() != "latest") {
    Settle(&client);
    for (const auto& frame : client.frames) texts.push_back(TextOf(frame));
  }
  // The events that had been sent before one replaced another, and the latest.
  EXPECT_EQ(texts.size(), static_cast<std::size_t>(published - 2 + 1));
  EXPECT_EQ(server->counters().replaced_events, 10002u);
}

TEST_F(SlowClientTest, GetsTheLatestOfEachKey) {
  RawPeer client = Subscriber(kWhenTooltipChanged);
  client.Send(NextFrame(1, Subscribe(2)));
  FillUp();
  for (const char* const text : {"old", "new"}) {
    Publish<rpc::TooltipChanged>(Browser(1), Tooltip(text + std::string("1")));
    Publish<rpc::TooltipChanged>(Browser(2), Tooltip(text + std::string("2")));
  }
  std::vector<std::string> texts;
  while (texts.empty() || texts.back() != "new2") {
    Settle(&client);
    for (const auto& frame : client.frames) texts.push_back(TextOf(frame));
  }
  ASSERT_GT(texts.size(), 2u);
  EXPECT_EQ(texts[texts.size() - 2], "new1");
  EXPECT_THAT(std::vector(texts.begin(), texts.end() - 2), Each(SizeIs(1000)));
}

TEST_F(SlowClientTest, GetsNothingMoreOfAStreamThatItEnds) {
  RawPeer client = Subscriber(kWhenTooltipChanged);
  const int published = FillUp();
  client.Send(CompleteFrame(1));
  std::vector<std::string> words;
  while (words.empty() || words.back() != "COMPLETE 1") {
    for (const std::string& word : Settle(&client)) words.push_back(word);
  }
  // The events that had been sent before one replaced another, and the end.
  EXPECT_EQ(words.size(), static_cast<std::size_t>(published - 2 + 1));
}

TEST_F(SlowClientTest, GetsItsRepliesBeforeTheLatestEvents) {
  RawPeer client = Subscriber(kWhenTooltipChanged);
  FillUp();
  Publish<rpc::TooltipChanged>(Browser(1), Tooltip("latest"));
  client.Send(CallFrame(2, kShow));
  loop.RunUntilIdle();
  std::vector<std::string> words;
  while (words.empty() || words.back() != "REPLY 2") {
    const std::vector<std::string> more = Settle(&client);
    words.insert(words.end(), more.begin(), more.end());
    if (!words.empty() && words.back() == "NEXT 1" &&
        TextOf(client.frames.back()) == "latest") {
      break;
    }
  }
  ASSERT_GT(words.size(), 2u);
  EXPECT_THAT(std::vector(words.end() - 2, words.end()),
              ElementsAre("REPLY 2", "NEXT 1"));
}

TEST_F(SlowClientTest, IsThrownOutAtTheLimitWhereEveryEventCounts) {
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
  EXPECT_EQ(server->counters().refused, 1u);
  // The client gets what the socket had taken before, in order, then the end.
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

TEST_F(SlowClientTest, IsNotThrownOutForABurstThatItReads) {
  RawPeer client = Subscriber(kWhenDropDownCreated);
  // More than may wait, sent in one task: the socket takes part of it.
  bool done = false;
  std::size_t received = 0;
  rpc::DropDownCreated event;
  event.set_popup_id(1);
  loop.Post([&] {
    for (int i = 0; i < 20; ++i) {
      for (int j = 0; j < 10000; ++j)
        Publish<rpc::DropDownCreated>(Browser(1), event);
      client.frames.clear();
      client.Receive();
      received += client.frames.size();
    }
    done = true;
  });
  loop.RunUntil([&] { return done; });
  received += Settle(&client).size();
  EXPECT_EQ(server->connections(), 1u);
  EXPECT_EQ(received, 200000u);
}

}  // namespace
}  // namespace orvane::testing
