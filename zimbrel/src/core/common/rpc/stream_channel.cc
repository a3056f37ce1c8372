#include "zimbrel/src/core/common/rpc/stream_channel.h"

#include <utility>

namespace orvane {

absl::Status StreamEndpoint::SendEvent(
    const rpc::transport::StreamMessage& frame,
    const google::protobuf::Message& /*key*/) {
  return Send(frame);
}

void StreamEndpoint::CancelCall(std::int64_t /*call_id*/) {}

StreamChannel::StreamChannel(std::unique_ptr<StreamEndpoint> endpoint)
    : endpoint_(std::move(endpoint)) {}

StreamChannel::StreamChannel(StreamChannel&&) noexcept = default;

StreamChannel::~StreamChannel() = default;

}  // namespace orvane
