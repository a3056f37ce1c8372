#include "zimbrel/src/core/common/rpc/transport/wire/outbox.h"

#include <utility>

#include "absl/strings/str_cat.h"

namespace orvane::internal {

using google::protobuf::MessageLite;
using rpc::transport::StreamMessage;

absl::Status Outbox::Add(const StreamMessage& header,
                         const MessageLite& payload) {
  if (absl::Status room = CheckRoom(); !room.ok()) return room;
  return AppendFrame(header, payload, limits_.max_frame_bytes, &queue_);
}

absl::Status Outbox::Add(const StreamMessage& header,
                         std::string_view payload) {
  if (absl::Status room = CheckRoom(); !room.ok()) return room;
  return AppendFrame(header, payload, limits_.max_frame_bytes, &queue_);
}

absl::Status Outbox::AddEnd(const StreamMessage& header) {
  return AppendFrame(header, std::string_view(), limits_.max_frame_bytes,
                     &queue_);
}

absl::StatusOr<Outbox::Placed> Outbox::Replace(const StreamMessage& header,
                                               std::string_view payload,
                                               Slot slot) {
  if (!slots_.contains(slot)) {
    if (absl::Status room = CheckRoom(); !room.ok()) return room;
  }
  ByteBuffer frame;
  if (absl::Status appended =
          AppendFrame(header, payload, limits_.max_frame_bytes, &frame);
      !appended.ok()) {
    return appended;
  }
  const auto [place, is_new] = slots_.try_emplace(std::move(slot));
  slot_bytes_ -= place->second.size();
  place->second = frame.content();
  slot_bytes_ += place->second.size();
  return is_new ? Placed::kBehindTheOthers : Placed::kInsteadOfAnother;
}

void Outbox::DropSlots(std::uint64_t stream_id) {
  auto slot = slots_.lower_bound({stream_id, ""});
  while (slot != slots_.end() && slot->first.stream_id == stream_id) {
    slot_bytes_ -= slot->second.size();
    slot = slots_.erase(slot);
  }
}

std::string_view Outbox::Front() {
  if (queue_.empty() && !slots_.empty()) {
    for (const auto& [slot, frame] : std::exchange(slots_, {})) {
      frame.copy(queue_.Reserve(frame.size()), frame.size());
      queue_.Commit(frame.size());
    }
    slot_bytes_ = 0;
  }
  return queue_.content();
}

absl::Status Outbox::CheckRoom() {
  if (size() < limits_.max_queued_bytes) return absl::OkStatus();
  has_overflowed_ = true;
  return absl::ResourceExhaustedError(absl::StrCat(
      size(), " bytes wait for the peer to read them; the limit is ",
      limits_.max_queued_bytes));
}

}  // namespace orvane::internal
