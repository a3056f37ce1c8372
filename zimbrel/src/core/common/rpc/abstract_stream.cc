#include "zimbrel/src/core/common/rpc/abstract_stream.h"

#include <utility>

#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace orvane {

AbstractStream::AbstractStream(StreamChannel channel)
    : channel_(std::move(channel)) {}

AbstractStream::~AbstractStream() = default;

absl::Status AbstractStream::Send(const rpc::transport::StreamMessage& frame) {
  loop().CheckServiceThread("AbstractStream::Send");
  return channel_.endpoint_->Send(frame);
}

absl::Status AbstractStream::SendEvent(
    const rpc::transport::StreamMessage& frame,
    const google::protobuf::Message& key) {
  return channel_.endpoint_->SendEvent(frame, key);
}

void AbstractStream::CancelCall(std::int64_t call_id) {
  channel_.endpoint_->CancelCall(call_id);
}

EventLoop& AbstractStream::loop() const { return channel_.endpoint_->loop(); }

void AbstractStream::Complete() { channel_.endpoint_->Complete(); }

}  // namespace orvane
