#include "zimbrel/src/core/common/rpc/stream_channel.h"

#include <utility>

namespace orvane {

StreamChannel::StreamChannel(std::unique_ptr<StreamEndpoint> endpoint)
    : endpoint_(std::move(endpoint)) {}

StreamChannel::StreamChannel(StreamChannel&&) noexcept = default;

StreamChannel::~StreamChannel() = default;

}  // namespace orvane
