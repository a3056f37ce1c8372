// The input is the bytes that arrive on a connection. Every split of them must
// give the same frames and the same error, and frames that were read must be
// written the same.

#include "zimbrel/src/core/common/rpc/transport/wire/framing.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "gtest/gtest.h"

#include "rpc/transport/stream_message.pb.h"

using orvane::kMinMaxFrameBytes;
using orvane::internal::AppendFrame;
using orvane::internal::ByteBuffer;
using orvane::internal::FrameReader;
using rpc::transport::StreamMessage;

namespace {

// Small, so that frames beyond it are found easily.
constexpr std::size_t kMaxFrameBytes = 100;

// Every split of a longer input takes too long.
constexpr std::size_t kMaxInputBytes = 512;

struct Reading {
  explicit Reading(std::size_t max_frame_bytes = kMaxFrameBytes)
      : reader(max_frame_bytes) {}

  // Receives the next bytes.
  void Receive(std::string_view bytes) {
    while (!bytes.empty() && error.empty()) {
      char* const space = reader.Space();
      ASSERT_GE(reader.room(), 1u);
      const std::size_t taken = std::min(bytes.size(), reader.room());
      std::memcpy(space, bytes.data(), taken);
      reader.Received(taken);
      bytes.remove_prefix(taken);
      CutFrames();
    }
  }

  void CutFrames() {
    while (true) {
      const auto next = reader.Next();
      if (!next.ok()) {
        error = next.status().ToString();
        return;
      }
      if (!next->has_value()) return;
      frames.emplace_back(**next);
    }
  }

  FrameReader reader;
  std::vector<std::string> frames;
  std::string error;
};

void ExpectSame(const Reading& split, const Reading& whole) {
  EXPECT_EQ(split.frames, whole.frames);
  EXPECT_EQ(split.error, whole.error);
  if (whole.error.empty()) {
    EXPECT_EQ(split.reader.unfinished_bytes(), whole.reader.unfinished_bytes());
  }
}

// A frame that can be parsed must be the same message after it was written and
// parsed again. It may become longer, since a negative number may have had a
// shorter encoding.
void ExpectWrittenAsRead(const std::string& frame) {
  StreamMessage message;
  if (!message.ParseFromString(frame)) return;
  StreamMessage header = message;
  header.clear_payload();
  ByteBuffer written;
  ASSERT_TRUE(
      AppendFrame(header, message.payload(), kMinMaxFrameBytes, &written).ok());

  Reading again(kMinMaxFrameBytes);
  again.Receive(written.content());
  ASSERT_EQ(again.error, "");
  ASSERT_EQ(again.frames.size(), 1u);
  StreamMessage same;
  ASSERT_TRUE(same.ParseFromString(again.frames[0]));
  EXPECT_EQ(same.SerializeAsString(), message.SerializeAsString());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data),
                               std::min(size, kMaxInputBytes));
  Reading whole;
  whole.Receive(bytes);

  for (std::size_t at = 1; at < bytes.size(); ++at) {
    Reading in_two;
    in_two.Receive(bytes.substr(0, at));
    in_two.Receive(bytes.substr(at));
    ExpectSame(in_two, whole);
  }
  Reading byte_by_byte;
  for (std::size_t i = 0; i < bytes.size(); ++i)
    byte_by_byte.Receive(bytes.substr(i, 1));
  ExpectSame(byte_by_byte, whole);

  for (const std::string& frame : whole.frames) ExpectWrittenAsRead(frame);
  return 0;
}
