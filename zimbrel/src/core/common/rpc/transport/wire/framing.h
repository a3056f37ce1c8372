// Frames on a byte stream. A frame is a length, 32 bits little-endian, and a
// serialised rpc.transport.StreamMessage of that length.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_FRAMING_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_FRAMING_H_

#include <cstddef>
#include <optional>
#include <string_view>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "google/protobuf/message_lite.h"

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/transport/frame_limits.h"
#include "zimbrel/src/core/common/rpc/transport/wire/byte_buffer.h"

namespace orvane::internal {

inline constexpr std::size_t kFrameLengthBytes = 4;

// What is sent of an error's text: enough for people, and it fits every frame.
inline constexpr std::size_t kMaxErrorTextBytes = 2048;

// The limits of one connection. ServerLimits and ClientOptions document the
// members and set the defaults.
struct FrameLimits {
  std::size_t max_frame_bytes;
  std::size_t max_queued_bytes;
  absl::Duration max_frame_time;
};

// Cuts received bytes into frames. Any split of the same bytes gives the same
// frames. Memory grows with the bytes that have arrived, not with the length
// that a frame announces.
class FrameReader {
 public:
  explicit FrameReader(std::size_t max_frame_bytes)
      : max_frame_bytes_(max_frame_bytes) {}

  // Where to write the next bytes: at most `room()` of them, which is at least
  // one. Then call Received with their number.
  char* Space();
  std::size_t room() const { return received_.room(); }
  void Received(std::size_t bytes) { received_.Commit(bytes); }

  // The next whole frame, without its length; nullopt if more bytes are needed.
  // Valid until the next call of Next or Space. An error means that the rest of
  // the stream cannot be read.
  absl::StatusOr<std::optional<std::string_view>> Next() {
    received_.Consume(handed_out_);
    handed_out_ = 0;
    const std::string_view bytes = received_.content();
    if (bytes.size() < kFrameLengthBytes) return std::nullopt;
    std::uint32_t length = 0;
    for (std::size_t i = 0; i < kFrameLengthBytes; ++i) {
      length |= std::uint32_t{static_cast<unsigned char>(bytes[i])} << (8 * i);
    }
    if (length > max_frame_bytes_) return TooLong(length);
    if (bytes.size() - kFrameLengthBytes < length) return std::nullopt;
    handed_out_ = kFrameLengthBytes + length;
    return bytes.substr(kFrameLengthBytes, length);
  }

  // How many bytes of a frame have arrived that is not complete yet.
  std::size_t unfinished_bytes() const {
    return received_.content().size() - handed_out_;
  }

 private:
  absl::Status TooLong(std::size_t length) const;

  const std::size_t max_frame_bytes_;
  ByteBuffer received_;
  std::size_t handed_out_ = 0;  // Bytes of the frame that Next returned last.
};

// Appends one frame: `header` with `payload`, which is a message or the bytes
// of a serialised one. If `payload` is not empty, `header` must not have a
// payload of its own. kResourceExhausted if the frame would be longer than
// `max_frame_bytes`; nothing is appended then.
absl::Status AppendFrame(const rpc::transport::StreamMessage& header,
                         const google::protobuf::MessageLite& payload,
                         std::size_t max_frame_bytes, ByteBuffer* out);
absl::Status AppendFrame(const rpc::transport::StreamMessage& header,
                         std::string_view payload, std::size_t max_frame_bytes,
                         ByteBuffer* out);

// Parses a frame without its length. `payload` usually points into `frame`, and
// `header` then has none. If the frame has fields that are not numbers, or
// fields behind the payload, `header` has a copy of the payload and `payload`
// points to that. False if the frame cannot be parsed.
bool ParseFrame(std::string_view frame, rpc::transport::StreamMessage* header,
                std::string_view* payload);

// Parses a payload, in which messages may be nested `max_depth` levels deep.
// False if it cannot be parsed to its end.
bool ParsePayload(std::string_view payload, int max_depth,
                  google::protobuf::MessageLite* message);

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_FRAMING_H_
