#include "zimbrel/src/core/common/rpc/stream/publish.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

namespace orvane::internal {

using rpc::transport::StreamMessage;

namespace {

// Holds what most events take; see Publish.
constexpr std::size_t kMaxKeptBytes = std::size_t{256} << 10;

StreamMessage& SharedFrame() ABSL_EXCLUSIVE_LOCKS_REQUIRED(kServiceThread) {
  static auto& frame = *new StreamMessage;
  return frame;
}

}  // namespace

EventFrame::EventFrame(const google::protobuf::Message& event) {
  const std::size_t bytes = event.ByteSizeLong();
  if (bytes > std::numeric_limits<std::int32_t>::max()) return;
  frame_ = &SharedFrame();
  // Events of one kind are mostly of one size, and then nothing is filled with
  // zeros first. Missing required fields are reported by the receiver.
  std::string& payload = *frame_->mutable_payload();
  payload.resize(bytes);
  static_cast<void>(event.SerializeWithCachedSizesToArray(
      reinterpret_cast<std::uint8_t*>(payload.data())));
}

EventFrame::~EventFrame() {
  if (frame_ == nullptr) return;
  std::string& payload = *frame_->mutable_payload();
  if (payload.capacity() > kMaxKeptBytes) std::string().swap(payload);
}

}  // namespace orvane::internal
