#include "zimbrel/src/core/common/rpc/stream/callback_stream_internal.h"

#include "zimbrel/src/core/common/logging/log_message.h"

namespace orvane::internal {

using google::protobuf::Message;

std::unique_ptr<Message> ReadPayload(
    const Message& prototype, const rpc::transport::StreamMessage& frame) {
  std::unique_ptr<Message> message(prototype.New(nullptr));
  // The result is ignored: a payload counts as far as it parsed.
  static_cast<void>(message->ParseFromString(frame.payload()));
  return message;
}

void WarnOfTakeover(const Message& key) {
  if (!logging::ShouldCreateLogMessage(logging::kWarning)) return;
  // Path and line are a fixed interface: filters and alerts know the record by
  // them. They do not follow this file when it moves.
  logging::LogMessage(
      "../../zimbrel/src/core/common/rpc/stream/callback_stream", 204,
      logging::kWarning)
          .stream()
      << "The subscriber is already associated with another stream. "
      << key.ShortDebugString();
}

}  // namespace orvane::internal
