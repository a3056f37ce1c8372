#include "zimbrel/src/core/common/rpc/stream/event_stream.h"

namespace orvane::internal {

using google::protobuf::Message;

const rpc::EventSubscription& ReadSubscription(
    const Service& service, const google::protobuf::MethodDescriptor* method,
    const rpc::transport::StreamMessage& frame) {
  Message* const request = service.GetRequestPrototype(method).New(nullptr);
  // The result is ignored: a payload counts as far as it parsed.
  static_cast<void>(request->ParseFromString(frame.payload()));
  return static_cast<const rpc::EventSubscription&>(*request);
}

}  // namespace orvane::internal
