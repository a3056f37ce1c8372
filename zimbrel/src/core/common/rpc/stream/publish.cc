#include "zimbrel/src/core/common/rpc/stream/publish.h"

namespace orvane::internal {

using rpc::transport::StreamMessage;

const StreamMessage* MakeEventFrame(const google::protobuf::Message& event) {
  static auto& frame = *new StreamMessage;
  // Required fields that are missing are for the reader to miss.
  if (!event.SerializePartialToString(frame.mutable_payload())) return nullptr;
  return &frame;
}

}  // namespace orvane::internal
