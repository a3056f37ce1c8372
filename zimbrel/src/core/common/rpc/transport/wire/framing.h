// Frames on a byte stream: each a serialised rpc.transport.StreamMessage behind
// its length, 32 bits little-endian, which does not count itself.

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

// What is sent of an error's text. Words for people need no more, and so they
// always fit a frame.
inline constexpr std::size_t kMaxErrorTextBytes = 2048;

// What a connection holds for its peer at the most. ServerLimits and
// ClientOptions document the members and have the defaults.
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

  // Where to put the next bytes: `room()` of them at the most, at least one.
  // Received says how many there were.
  char* Space();
  std::size_t room() const { return received_.room(); }
  void Received(std::size_t bytes) { received_.Commit(bytes); }

  // The next whole frame, without its length; nullopt if more bytes are needed.
  // Valid until the next call of Next or Space. An error, in words, means that
  // the rest of the stream cannot be read.
  absl::StatusOr<std::optional<std::string_view>> Next();

  // The bytes of a frame that has begun but is not whole yet.
  std::size_t unfinished_bytes() const {
    return received_.content().size() - handed_out_;
  }

 private:
  const std::size_t max_frame_bytes_;
  ByteBuffer received_;
  std::size_t handed_out_ = 0;  // Bytes of the frame that Next returned last.
};

// Appends one frame: `header`, with `payload` as its payload: serialised in
// place, or bytes that were serialised before. `header` has no payload of its
// own unless that is empty. An error says that the frame would be longer than
// `max_frame_bytes`; nothing was appended.
absl::Status AppendFrame(const rpc::transport::StreamMessage& header,
                         const google::protobuf::MessageLite& payload,
                         std::size_t max_frame_bytes, ByteBuffer* out);
absl::Status AppendFrame(const rpc::transport::StreamMessage& header,
                         std::string_view payload, std::size_t max_frame_bytes,
                         ByteBuffer* out);

// Reads a frame into `header` and `payload`, which stays where it is, in
// `frame`, and out of `header`. Only where fields other than numbers come too,
// or any behind the payload, it is copied into `header`, and `payload` is that.
// False if the frame cannot be read.
bool ParseFrame(std::string_view frame, rpc::transport::StreamMessage* header,
                std::string_view* payload);

// Reads a payload, whose messages may be nested `max_depth` deep. False if it
// cannot be read as far as its end.
bool ParsePayload(std::string_view payload, int max_depth,
                  google::protobuf::MessageLite* message);

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_FRAMING_H_
