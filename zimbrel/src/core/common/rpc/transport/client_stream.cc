#include "zimbrel/src/core/common/rpc/transport/client_stream.h"

#include <utility>

namespace orvane {

ClientStream::ClientStream(std::shared_ptr<ClientStreamSender> sender,
                           absl::AnyInvocable<void() &&> close)
    : sender_(std::move(sender)), close_(std::move(close)) {}

ClientStream::~ClientStream() { std::move(close_)(); }

}  // namespace orvane
