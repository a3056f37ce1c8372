#include "zimbrel/src/core/common/rpc/transport/wire/peer_watch.h"

#include <utility>
#include <vector>

#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/run_for.h"

namespace orvane::testing {
namespace {

using internal::PeerWatch;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr absl::Duration kPatience = absl::Milliseconds(3);

class PeerWatchTest : public ::testing::Test {
 protected:
  PeerWatch::Callbacks Callbacks() {
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

TEST_F(PeerWatchTest, OneThatDoesNotAnswerIsToldOnce) {
  PeerWatch watch(&loop_, kPatience, Callbacks());
  ASSERT_TRUE(loop_.RunUntil([this] { return !told_.empty(); }));
  EXPECT_GE(asked_, 1);  // Again, if this process was late itself.
  RunFor(loop_, 4 * kPatience);
  EXPECT_THAT(told_, ElementsAre(false));
}

TEST_F(PeerWatchTest, OneThatAnswersIsAskedAgainAndAgain) {
  PeerWatch* heard = nullptr;
  PeerWatch::Callbacks callbacks = Callbacks();
  callbacks.ask = [&] {
    ++asked_;
    heard->Heard();
    return true;
  };
  PeerWatch watch(&loop_, kPatience, std::move(callbacks));
  heard = &watch;
  ASSERT_TRUE(loop_.RunUntil([this] { return asked_ == 4; }));
  EXPECT_THAT(told_, IsEmpty());
}

TEST_F(PeerWatchTest, OneThatCannotBeAskedDoesNotHang) {
  can_ask_ = false;
  PeerWatch watch(&loop_, kPatience, Callbacks());
  ASSERT_TRUE(loop_.RunUntil([this] { return asked_ == 4; }));
  EXPECT_THAT(told_, IsEmpty());
}

TEST_F(PeerWatchTest, WhatHasComeAndIsNotReadCounts) {
  PeerWatch::Callbacks callbacks = Callbacks();
  callbacks.has_input = [this] {
    ++looks_;
    return true;
  };
  PeerWatch watch(&loop_, kPatience, std::move(callbacks));
  Look(6);
  EXPECT_EQ(asked_, 0);
  EXPECT_THAT(told_, IsEmpty());
}

TEST_F(PeerWatchTest, OneThatComesBackIsTold) {
  PeerWatch watch(&loop_, kPatience, Callbacks());
  ASSERT_TRUE(loop_.RunUntil([this] { return told_.size() == 1; }));
  watch.Heard();
  EXPECT_EQ(told_.size(), 1u);  // Later.
  ASSERT_TRUE(loop_.RunUntil([this] { return told_.size() == 2; }));
  EXPECT_THAT(told_, ElementsAre(false, true));
}

}  // namespace
}  // namespace orvane::testing
