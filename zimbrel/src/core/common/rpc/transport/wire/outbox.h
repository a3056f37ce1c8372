// The frames that wait to be sent on a connection.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_OUTBOX_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_OUTBOX_H_

#include <algorithm>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "google/protobuf/message_lite.h"

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/transport/wire/byte_buffer.h"
#include "zimbrel/src/core/common/rpc/transport/wire/framing.h"

namespace orvane::internal {

// A bounded queue of frames, which leave in order. A frame can also wait in a
// slot, where a later one replaces it; slots leave after everything queued.
class Outbox {
 public:
  // Where a frame was queued.
  enum class Placed { kBehindTheOthers, kInsteadOfAnother };

  struct Slot {
    std::uint64_t stream_id;
    std::string key;

    // clang-tidy 14 sees a null pointer in it.
    // NOLINTNEXTLINE(modernize-use-nullptr)
    friend auto operator<=>(const Slot&, const Slot&) = default;
  };

  explicit Outbox(const FrameLimits& limits) : limits_(limits) {}

  // The peer takes frames of this length only, if that is less than the limit.
  void ReduceMaxFrameBytes(std::size_t max_frame_bytes) {
    limits_.max_frame_bytes =
        std::min(limits_.max_frame_bytes, max_frame_bytes);
  }

  // Queues a frame; see AppendFrame. An error means that nothing was queued:
  // the frame is too long, or too many bytes wait already.
  absl::Status Add(const rpc::transport::StreamMessage& header,
                   const google::protobuf::MessageLite& payload);
  absl::Status Add(const rpc::transport::StreamMessage& header,
                   std::string_view payload);

  // Queues a frame without a payload that ends a call or a stream, also if
  // there is no room: otherwise the peer would keep what it ends. There are no
  // more of these frames than of those which began the calls and streams.
  absl::Status AddEnd(const rpc::transport::StreamMessage& header);

  // Queues a frame in a slot, in place of the frame that waits there, if any.
  absl::StatusOr<Placed> Replace(const rpc::transport::StreamMessage& header,
                                 std::string_view payload, Slot slot);

  // Drops the frames in a stream's slots.
  void DropSlots(std::uint64_t stream_id);

  // The bytes to be sent next; empty if nothing is left. Valid until the next
  // call of another operation.
  std::string_view Front();
  void Consume(std::size_t bytes) { queue_.Consume(bytes); }

  std::size_t size() const { return queue_.content().size() + slot_bytes_; }

  // Whether a frame was refused because too many bytes waited.
  bool has_overflowed() const { return has_overflowed_; }

 private:
  absl::Status CheckRoom();

  FrameLimits limits_;
  ByteBuffer queue_;
  std::map<Slot, std::string> slots_;  // Each a whole frame.
  std::size_t slot_bytes_ = 0;
  bool has_overflowed_ = false;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_OUTBOX_H_
