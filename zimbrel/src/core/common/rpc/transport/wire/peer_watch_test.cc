// A client finds out that its server hangs.

#include "zimbrel/src/core/common/rpc/transport/client/server_watch.h"

#include <memory>
#include <string>
#include <vector>

#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/testing/client_stream_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/frames.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace orvane::testing {
namespace {

using internal::ServerWatch;
using rpc::transport::StreamMessage;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr absl::Duration kPatience = absl::Milliseconds(3);

class ServerWatchTest : public ::testing::Test {
 protected:
  ServerWatch::Callbacks Callbacks() {
    return {.ask =
                [this] {
                  ++asked_;
                  return can_ask_;
                },
            .has_input = [this] { return has_input_; },
            .on_change = [this](bool responds) { told_.push_back(responds); }};
  }
  // Until it has looked so often.
  void Look(int times) {
    const int end = looks_ + times;
    loop_.RunUntil([&] { return looks_ == end; });
  }

  EventLoop loop_;
  int asked_ = 0;
  bool can_ask_ = true;
  bool has_input_ = false;
  int looks_ = 0;
  std::vector<bool> told_;
};

TEST_F(ServerWatchTest, OneThatDoesNotAnswerIsToldOnce) {
  ServerWatch watch(&loop_, kPatience, Callbacks());
  ASSERT_TRUE(loop_.RunUntil([this] { return !told_.empty(); }));
  EXPECT_EQ(asked_, 1);
  bool is_later = false;
  const auto later = loop_.RunAfter(4 * kPatience, [&] { is_later = true; });
  ASSERT_TRUE(loop_.RunUntil([&] { return is_later; }));
  EXPECT_THAT(told_, ElementsAre(false));
}

TEST_F(ServerWatchTest, OneThatAnswersIsAskedAgainAndAgain) {
  ServerWatch* heard = nullptr;
  ServerWatch::Callbacks callbacks = Callbacks();
  callbacks.ask = [&] {
    ++asked_;
    heard->Heard();
    return true;
  };
  ServerWatch watch(&loop_, kPatience, std::move(callbacks));
  heard = &watch;
  ASSERT_TRUE(loop_.RunUntil([this] { return asked_ == 4; }));
  EXPECT_THAT(told_, IsEmpty());
}

TEST_F(ServerWatchTest, OneThatCannotBeAskedDoesNotHang) {
  can_ask_ = false;
  ServerWatch watch(&loop_, kPatience, Callbacks());
  ASSERT_TRUE(loop_.RunUntil([this] { return asked_ == 4; }));
  EXPECT_THAT(told_, IsEmpty());
}

TEST_F(ServerWatchTest, WhatHasComeAndIsNotReadCounts) {
  ServerWatch::Callbacks callbacks = Callbacks();
  callbacks.has_input = [this] {
    ++looks_;
    return true;
  };
  ServerWatch watch(&loop_, kPatience, std::move(callbacks));
  Look(6);
  EXPECT_EQ(asked_, 0);
  EXPECT_THAT(told_, IsEmpty());
}

TEST_F(ServerWatchTest, OneThatComesBackIsTold) {
  ServerWatch watch(&loop_, kPatience, Callbacks());
  ASSERT_TRUE(loop_.RunUntil([this] { return told_.size() == 1; }));
  watch.Heard();
  EXPECT_EQ(told_.size(), 1u);  // Later.
  ASSERT_TRUE(loop_.RunUntil([this] { return told_.size() == 2; }));
  EXPECT_THAT(told_, ElementsAre(false, true));
}

class WatchedServerTest : public ClientStreamFixture {
 protected:
  void Watch() {
    client->WatchServer(kPatience, [this](const Responsiveness& found) {
      told.push_back(found.responds ? "responds" : "hangs");
      if (found.oldest_call != nullptr)
        told.back() += " in " + std::string(found.oldest_call->name());
    });
  }
  void AwaitTold(std::size_t count) {
    ASSERT_TRUE(loop.RunUntil([&] { return told.size() >= count; }));
  }
};

TEST_F(WatchedServerTest, IsToldWithTheCallThatWaitsLongest) {
  rpc::BrowserWidgetRpcClient widget(client.get());
  widget.Show(Browser(7), [](const auto&) {});
  widget.Hide(Browser(7), [](const auto&) {});
  Watch();
  AwaitTold(1);
  EXPECT_THAT(told, ElementsAre("hangs in Show"));
  EXPECT_THAT(Settle(), ElementsAre("CALL 1", "CALL 2", "CALL 3"));
}

TEST_F(WatchedServerTest, RespondsWithWhateverItSays) {
  Open();
  Watch();
  AwaitTold(1);
  Say(Event("here"));
  AwaitTold(3);
  EXPECT_THAT(told, ElementsAre("hangs", "next here", "responds"));
}

TEST_F(WatchedServerTest, IsNotAskedBeforeItIsUsed) {
  Watch();
  bool is_later = false;
  const auto later = loop.RunAfter(4 * kPatience, [&] { is_later = true; });
  ASSERT_TRUE(loop.RunUntil([&] { return is_later; }));
  EXPECT_THAT(Settle(), IsEmpty());
  EXPECT_THAT(told, IsEmpty());
}

TEST_F(WatchedServerTest, MayBeLeftWhenItHangs) {
  Open();
  client->WatchServer(kPatience,
                      [this](const Responsiveness&) { client.reset(); });
  EXPECT_TRUE(loop.RunUntil([this] { return client == nullptr; }));
}

TEST_F(WatchedServerTest, MayBeWatchedOtherwiseWhenItHangs) {
  Open();
  client->WatchServer(kPatience, [this](const Responsiveness&) { Watch(); });
  AwaitTold(1);
  EXPECT_THAT(told, ElementsAre("hangs"));
}

TEST_F(WatchedServerTest, IsNotToldAfterTheConnectionsEnd) {
  Open();
  Watch();
  bool has_asked = false;
  const auto asked = loop.RunAfter(kPatience / 2, [&] { has_asked = true; });
  ASSERT_TRUE(loop.RunUntil([&] { return has_asked; }));
  server.reset();
  ASSERT_TRUE(loop.RunUntil([this] { return !client->status().ok(); }));
  const std::size_t count = told.size();
  bool is_later = false;
  const auto later = loop.RunAfter(4 * kPatience, [&] { is_later = true; });
  ASSERT_TRUE(loop.RunUntil([&] { return is_later; }));
  EXPECT_EQ(told.size(), count);
}

TEST_F(WatchedServerTest, IsNotWatchedAnyMoreWithoutAnEndToPatience) {
  Open();
  Watch();
  client->WatchServer(absl::InfiniteDuration(), nullptr);
  bool is_later = false;
  const auto later = loop.RunAfter(4 * kPatience, [&] { is_later = true; });
  ASSERT_TRUE(loop.RunUntil([&] { return is_later; }));
  EXPECT_THAT(told, IsEmpty());
}

}  // namespace
}  // namespace orvane::testing
