#include "zimbrel/src/core/common/rpc/stream/publish.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

namespace orvane::internal {

using rpc::transport::StreamMessage;

const StreamMessage* MakeEventFrame(const google::protobuf::Message& event) {
  const std::size_t bytes = event.ByteSizeLong();
  if (bytes > std::numeric_limits<std::int32_t>::max()) return nullptr;
  static auto& frame = *new StreamMessage;
  // Events of one kind are mostly of one size, and then nothing is filled with
  // zeros first. Required fields that are missing are for the reader to miss.
  std::string& payload = *frame.mutable_payload();
  payload.resize(bytes);
  event.SerializeWithCachedSizesToArray(
      reinterpret_cast<std::uint8_t*>(payload.data()));
  return &frame;
}

}  // namespace orvane::internal
