#include "zimbrel/src/core/common/rpc/transport/wire/outbox.h"

#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace orvane::internal {
namespace {

using rpc::transport::StreamMessage;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Bytes of a frame whose payload has `size` bytes, at least one.
std::size_t BytesOf(std::size_t size) {
  ByteBuffer buffer;
  EXPECT_TRUE(
      AppendFrame({}, std::string(size, 'x'), kDefaultMaxFrameBytes, &buffer)
          .ok());
  return buffer.content().size();
}

class OutboxTest : public ::testing::Test {
 protected:
  // Takes everything, and returns the payloads in order.
  std::vector<std::string> Drain() {
    std::vector<std::string> payloads;
    FrameReader reader(kDefaultMaxFrameBytes);
    while (!outbox.Front().empty()) {
      const std::string_view bytes = outbox.Front();
      for (const char byte : bytes) {
        *reader.Space() = byte;
        reader.Received(1);
        const auto frame = reader.Next();
        if (!frame.ok() || !frame->has_value()) continue;
        StreamMessage message;
        EXPECT_TRUE(message.ParseFromString(std::string(**frame)));
        payloads.push_back(message.payload());
      }
      outbox.Consume(bytes.size());
    }
    return payloads;
  }

  Outbox outbox{FrameLimits{.max_frame_bytes = kDefaultMaxFrameBytes,
                            .max_queued_bytes = 2 * BytesOf(10),
                            .max_frame_time = absl::InfiniteDuration()}};
};

TEST_F(OutboxTest, FramesLeaveInOrder) {
  EXPECT_TRUE(outbox.Add({}, "a").ok());
  EXPECT_TRUE(outbox.Add({}, "b").ok());
  EXPECT_THAT(Drain(), ElementsAre("a", "b"));
}

TEST_F(OutboxTest, OneByteBelowTheLimitAFrameIsTaken) {
  EXPECT_TRUE(outbox.Add({}, std::string(10, 'x')).ok());
  EXPECT_TRUE(outbox.Add({}, std::string(9, 'x')).ok());
  EXPECT_TRUE(outbox.Add({}, "last").ok());
  EXPECT_FALSE(outbox.has_overflowed());
}

TEST_F(OutboxTest, AtTheLimitNoFrameIsTaken) {
  EXPECT_TRUE(outbox.Add({}, std::string(10, 'x')).ok());
  EXPECT_TRUE(outbox.Add({}, std::string(10, 'x')).ok());
  EXPECT_EQ(outbox.Add({}, "x").message(),
            "32 bytes wait for the peer to read them; the limit is 32");
  EXPECT_TRUE(outbox.has_overflowed());
}

TEST_F(OutboxTest, AboveTheLimitNoFrameIsTaken) {
  EXPECT_TRUE(outbox.Add({}, std::string(100, 'x')).ok());
  EXPECT_TRUE(absl::IsResourceExhausted(outbox.Add({}, "x")));
}

TEST_F(OutboxTest, WhatHasLeftMakesRoom) {
  EXPECT_TRUE(outbox.Add({}, std::string(100, 'x')).ok());
  EXPECT_FALSE(outbox.Add({}, "x").ok());
  Drain();
  EXPECT_TRUE(outbox.Add({}, "x").ok());
}

TEST_F(OutboxTest, AFrameThatIsTooLongLeavesTheRestAlone) {
  EXPECT_TRUE(outbox.Add({}, "a").ok());
  EXPECT_FALSE(outbox.Add({}, std::string(kDefaultMaxFrameBytes, 'x')).ok());
  EXPECT_FALSE(outbox.has_overflowed());
  EXPECT_THAT(Drain(), ElementsAre("a"));
}

TEST_F(OutboxTest, TheLatestOfASlotLeavesBehindWhatIsQueued) {
  EXPECT_EQ(*outbox.Replace({}, "old", {1, "key"}),
            Outbox::Placed::kBehindTheOthers);
  EXPECT_TRUE(outbox.Add({}, "a").ok());
  EXPECT_EQ(*outbox.Replace({}, "new", {1, "key"}),
            Outbox::Placed::kInsteadOfAnother);
  EXPECT_THAT(Drain(), ElementsAre("a", "new"));
}

TEST_F(OutboxTest, EachStreamAndKeyHasASlotOfItsOwn) {
  EXPECT_EQ(*outbox.Replace({}, "a", {1, "x"}),
            Outbox::Placed::kBehindTheOthers);
  EXPECT_EQ(*outbox.Replace({}, "b", {1, "y"}),
            Outbox::Placed::kBehindTheOthers);
  EXPECT_EQ(*outbox.Replace({}, "c", {2, "x"}),
            Outbox::Placed::kBehindTheOthers);
  EXPECT_THAT(Drain(), ElementsAre("a", "b", "c"));
}

TEST_F(OutboxTest, SlotsCountAgainstTheLimitButMayBeFilledAnew) {
  EXPECT_TRUE(outbox.Replace({}, std::string(100, 'x'), {1, "x"}).ok());
  EXPECT_FALSE(outbox.Replace({}, "b", {1, "y"}).ok());
  EXPECT_FALSE(outbox.Add({}, "b").ok());
  EXPECT_TRUE(outbox.Replace({}, "c", {1, "x"}).ok());
  EXPECT_EQ(outbox.size(), BytesOf(1));
}

TEST_F(OutboxTest, TheSlotsOfAStreamAreDroppedAlone) {
  EXPECT_TRUE(outbox.Replace({}, "a", {1, "x"}).ok());
  EXPECT_TRUE(outbox.Replace({}, "b", {2, "x"}).ok());
  outbox.DropSlots(1);
  EXPECT_EQ(outbox.size(), BytesOf(1));
  EXPECT_THAT(Drain(), ElementsAre("b"));
  EXPECT_THAT(Drain(), IsEmpty());
}

}  // namespace
}  // namespace orvane::internal
