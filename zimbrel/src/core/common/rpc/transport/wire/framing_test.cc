#include "zimbrel/src/core/common/rpc/transport/wire/framing.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace orvane::internal {
namespace {

using ::rpc::transport::StreamMessage;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// Adds the length, as on the wire.
std::string Frame(const std::string& content) {
  std::string bytes;
  for (int shift = 0; shift < 32; shift += 8) {
    bytes.push_back(static_cast<char>(content.size() >> shift & 0xff));
  }
  return bytes + content;
}

void Receive(std::string_view bytes, FrameReader* reader) {
  while (!bytes.empty()) {
    char* const space = reader->Space();
    const std::size_t taken = std::min(bytes.size(), reader->room());
    std::copy_n(bytes.data(), taken, space);
    reader->Received(taken);
    bytes.remove_prefix(taken);
  }
}

std::vector<std::string> Frames(FrameReader* reader) {
  std::vector<std::string> frames;
  while (true) {
    const auto next = reader->Next();
    EXPECT_TRUE(next.ok()) << next.status();
    if (!next.ok() || !next->has_value()) return frames;
    frames.emplace_back(**next);
  }
}

// Everything that AppendFrame wrote, as its reader would see it.
StreamMessage Decode(const ByteBuffer& bytes) {
  FrameReader reader(kDefaultMaxFrameBytes);
  Receive(bytes.content(), &reader);
  const std::vector<std::string> frames = Frames(&reader);
  EXPECT_THAT(frames, SizeIs(1));
  StreamMessage message;
  EXPECT_TRUE(message.ParseFromString(frames.at(0)));
  return message;
}

TEST(FrameReader, CutsAtLengthsInLittleEndian) {
  FrameReader reader(1000);
  Receive(std::string("\x03\0\0\0abc\x01\0\0\0d", 12), &reader);
  EXPECT_THAT(Frames(&reader), ElementsAre("abc", "d"));
}

TEST(FrameReader, GivesTheSameFramesForEverySplit) {
  const std::string bytes =
      Frame("first") + Frame("") + Frame(std::string(300, 'x')) + Frame("last");
  for (std::size_t split = 0; split <= bytes.size(); ++split) {
    FrameReader reader(1000);
    std::vector<std::string> frames;
    for (const std::string& part :
         {bytes.substr(0, split), bytes.substr(split)}) {
      Receive(part, &reader);
      for (std::string& frame : Frames(&reader))
        frames.push_back(std::move(frame));
    }
    EXPECT_THAT(frames, ElementsAre("first", "", std::string(300, 'x'), "last"))
        << "split at " << split;
  }
}

TEST(FrameReader, GivesTheSameFramesByteByByte) {
  FrameReader reader(1000);
  std::vector<std::string> frames;
  for (const char byte : Frame("one") + Frame("two")) {
    Receive(std::string_view(&byte, 1), &reader);
    for (std::string& frame : Frames(&reader))
      frames.push_back(std::move(frame));
  }
  EXPECT_THAT(frames, ElementsAre("one", "two"));
}

TEST(FrameReader, AnEmptyFrameIsAFrame) {
  FrameReader reader(0);
  Receive(Frame(""), &reader);
  EXPECT_THAT(Frames(&reader), ElementsAre(""));
}

TEST(FrameReader, WaitsForTheRestOfAFrame) {
  FrameReader reader(1000);
  Receive(Frame("abc").substr(0, 6), &reader);
  EXPECT_THAT(Frames(&reader), IsEmpty());
}

TEST(FrameReader, AcceptsAFrameAtItsLimit) {
  FrameReader reader(8);
  Receive(Frame("12345678"), &reader);
  EXPECT_THAT(Frames(&reader), ElementsAre("12345678"));
}

TEST(FrameReader, RefusesALengthAboveItsLimitBeforeTheContentArrives) {
  FrameReader reader(8);
  Receive(Frame("123456789").substr(0, kFrameLengthBytes), &reader);
  EXPECT_EQ(reader.Next().status(),
            absl::ResourceExhaustedError("frame of 9 bytes; the limit is 8"));
}

TEST(FrameReader, TakesMemoryForWhatHasArrivedNotForWhatIsAnnounced) {
  FrameReader reader(std::size_t{1} << 30);
  Receive(std::string("\0\0\0\x3f", 4), &reader);  // Announces a gigabyte.
  EXPECT_THAT(Frames(&reader), IsEmpty());
  reader.Space();
  EXPECT_LE(reader.room(), ByteBuffer::kUsualBytes);
}

TEST(FrameReader, ReadsFramesMuchLongerThanItsBuffer) {
  const std::string content(3 * ByteBuffer::kUsualBytes + 17, 'y');
  FrameReader reader(kDefaultMaxFrameBytes);
  Receive(Frame(content) + Frame("next"), &reader);
  EXPECT_THAT(Frames(&reader), ElementsAre(content, "next"));
}

void Pass(std::size_t bytes, ByteBuffer* buffer) {
  buffer->Reserve(bytes);
  buffer->Commit(bytes);
  buffer->Consume(bytes);
}

TEST(ByteBuffer, KeepsItsMemoryWhileContentsAreLarge) {
  ByteBuffer buffer;
  Pass(10 * ByteBuffer::kUsualBytes, &buffer);
  Pass(9 * ByteBuffer::kUsualBytes, &buffer);
  buffer.Consume(0);
  EXPECT_EQ(buffer.room(), 10 * ByteBuffer::kUsualBytes);
}

TEST(ByteBuffer, GivesMemoryBackOnceASmallContentFollowsALargeOne) {
  ByteBuffer buffer;
  Pass(10 * ByteBuffer::kUsualBytes, &buffer);
  Pass(1, &buffer);
  buffer.Reserve(1);
  EXPECT_EQ(buffer.room(), ByteBuffer::kUsualBytes);
}

// A frame and the result of ParseFrame.
class ParseFrameTest : public ::testing::Test {
 protected:
  ParseFrameTest() {
    header_.set_kind(StreamMessage::KIND_NEXT);
    header_.set_stream_id(300);
    header_.set_method(39);
    header_.set_call_id(-5);
  }

  bool Parse(const std::string& frame) {
    frame_ = frame;
    return ParseFrame(frame_, &parsed_, &payload_);
  }
  bool is_in_frame() const {
    return payload_.data() > frame_.data() &&
           payload_.data() < frame_.data() + frame_.size();
  }
  static std::string Payload(std::size_t bytes) {
    StreamMessage message;
    message.set_payload(std::string(bytes, 'x'));
    return message.SerializeAsString();
  }

  StreamMessage header_;
  std::string frame_;
  StreamMessage parsed_;
  std::string_view payload_;
};

TEST_F(ParseFrameTest, LeavesAPayloadOfAnyLengthInItsFrame) {
  for (const std::size_t bytes : {1, 3, 10000}) {
    ASSERT_TRUE(Parse(header_.SerializeAsString() + Payload(bytes)));
    EXPECT_EQ(parsed_.SerializeAsString(), header_.SerializeAsString());
    EXPECT_EQ(payload_, std::string(bytes, 'x'));
    EXPECT_TRUE(is_in_frame());
  }
}

TEST_F(ParseFrameTest, ForgetsWhatTheFrameBeforeSaid) {
  ASSERT_TRUE(Parse(Payload(3) + header_.SerializeAsString()));
  ASSERT_TRUE(Parse(""));
  EXPECT_EQ(parsed_.SerializeAsString(), "");
  EXPECT_EQ(payload_, "");
}

TEST_F(ParseFrameTest, ReadsKindsThatAreNotKnown) {
  ASSERT_TRUE(Parse("\x08\x63"));
  EXPECT_EQ(static_cast<int>(parsed_.kind()), 99);
}

TEST_F(ParseFrameTest, ReadsTextsToo) {
  header_.set_error_code(2);
  header_.set_error_text("before the payload");
  ASSERT_TRUE(Parse(header_.SerializeAsString() + Payload(10000)));
  EXPECT_EQ(parsed_.error_text(), "before the payload");
  EXPECT_EQ(parsed_.error_code(), 2);
  EXPECT_EQ(parsed_.call_id(), -5);
  EXPECT_EQ(payload_, std::string(10000, 'x'));
}

TEST_F(ParseFrameTest, CopiesAPayloadWithOtherFieldsBehindIt) {
  ASSERT_TRUE(Parse(Payload(10000) + header_.SerializeAsString()));
  EXPECT_EQ(parsed_.stream_id(), 300u);
  EXPECT_EQ(payload_, std::string(10000, 'x'));
  EXPECT_FALSE(is_in_frame());
}

TEST_F(ParseFrameTest, TakesTheLastOfTwoPayloads) {
  ASSERT_TRUE(Parse(header_.SerializeAsString() + Payload(10000) + Payload(3)));
  EXPECT_EQ(payload_, "xxx");
}

TEST_F(ParseFrameTest, PassesOverFieldsThatAreNotKnown) {
  const std::string bytes("\xfa\x01\x02zz", 5);  // Field 31: two bytes.
  const std::string number("\xf0\x01\x07", 3);   // Field 30: a number.
  for (const std::string& unknown : {bytes, number}) {
    ASSERT_TRUE(Parse(unknown + header_.SerializeAsString() + Payload(3)));
    EXPECT_EQ(parsed_.stream_id(), 300u);
    EXPECT_EQ(payload_, "xxx");
  }
}

TEST_F(ParseFrameTest, RefusesAFrameCutShortAnywhereInAField) {
  const std::string header = header_.SerializeAsString();
  const std::string frame = header + Payload(3);
  for (std::size_t bytes = header.size() + 1; bytes < frame.size(); ++bytes)
    EXPECT_FALSE(Parse(frame.substr(0, bytes))) << bytes;
  EXPECT_FALSE(Parse(header.substr(0, header.size() - 1)));
}

TEST_F(ParseFrameTest, RefusesAHeaderThatCannotBeRead) {
  EXPECT_FALSE(Parse("\x07" + Payload(3)));
  EXPECT_FALSE(Parse(std::string(1, '\0') + Payload(3)));
}

TEST_F(ParseFrameTest, RefusesANumberOfMoreBytesThanAnyHas) {
  EXPECT_FALSE(Parse("\x10" + std::string(10, '\xff') + "\x01"));
}

TEST(AppendFrame, WritesTheLengthAndTheSerialisedMessage) {
  StreamMessage frame;
  frame.set_kind(StreamMessage::KIND_REPLY);
  frame.set_stream_id(5);
  frame.set_payload("abc");
  ByteBuffer out;
  ASSERT_TRUE(AppendFrame(frame, "", 1000, &out).ok());
  EXPECT_EQ(out.content(), Frame(frame.SerializeAsString()));
}

TEST(AppendFrame, PutsAHeaderInFrontOfAPayloadSerialisedInPlace) {
  StreamMessage header;
  header.set_kind(StreamMessage::KIND_CALL);
  header.set_stream_id(77);
  header.set_method(39);
  StreamMessage payload;  // Any type of message can be used here.
  payload.set_error_text("content of the payload");
  ByteBuffer out;
  ASSERT_TRUE(AppendFrame(header, payload, 1000, &out).ok());
  const StreamMessage read = Decode(out);
  EXPECT_EQ(read.kind(), StreamMessage::KIND_CALL);
  EXPECT_EQ(read.stream_id(), 77u);
  EXPECT_EQ(read.method(), 39u);
  EXPECT_EQ(read.payload(), payload.SerializeAsString());
}

TEST(AppendFrame, LeavesAnEmptyPayloadOut) {
  StreamMessage header;
  header.set_stream_id(77);
  ByteBuffer out;
  ASSERT_TRUE(AppendFrame(header, StreamMessage(), 1000, &out).ok());
  EXPECT_EQ(out.content(), Frame(header.SerializeAsString()));
}

TEST(AppendFrame, RefusesWhatIsTooLongAndAppendsNothing) {
  StreamMessage header;
  header.set_stream_id(1);
  StreamMessage payload;
  payload.set_payload(std::string(100, 'x'));
  StreamMessage whole = header;
  whole.set_payload(payload.SerializeAsString());
  const std::size_t length = whole.ByteSizeLong();

  ByteBuffer out;
  EXPECT_TRUE(AppendFrame(header, payload, length, &out).ok());
  EXPECT_TRUE(AppendFrame(whole, "", length, &out).ok());
  const std::size_t before = out.content().size();
  EXPECT_EQ(AppendFrame(header, payload, length - 1, &out),
            absl::ResourceExhaustedError("frame of " + std::to_string(length) +
                                         " bytes; the limit is " +
                                         std::to_string(length - 1)));
  EXPECT_FALSE(AppendFrame(whole, "", length - 1, &out).ok());
  EXPECT_EQ(out.content().size(), before);
}

}  // namespace
}  // namespace orvane::internal
