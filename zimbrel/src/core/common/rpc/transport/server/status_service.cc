#include "zimbrel/src/core/common/rpc/transport/server/status_service.h"

#include <utility>

#include "absl/log/log.h"
#include "google/protobuf/empty.pb.h"

namespace orvane::internal {

using google::protobuf::Closure;
using google::protobuf::Message;
using google::protobuf::MethodDescriptor;
using google::protobuf::RpcController;
using google::protobuf::ServiceDescriptor;
using rpc::transport::ServerStatus;

StatusService::StatusService(std::function<void(ServerStatus*)> describe)
    : describe_(std::move(describe)) {}

const ServiceDescriptor* StatusService::GetDescriptor() {
  return ServerStatus::descriptor()->file()->service(0);
}

void StatusService::CallMethod(const MethodDescriptor*, RpcController*,
                               const Message*, Message* response,
                               Closure* done) {
  describe_(static_cast<ServerStatus*>(response));
  done->Run();
}

const Message& StatusService::GetRequestPrototype(
    const MethodDescriptor*) const {
  return google::protobuf::Empty::default_instance();
}

const Message& StatusService::GetResponsePrototype(
    const MethodDescriptor*) const {
  return ServerStatus::default_instance();
}

AbstractStream* StatusService::OpenStream(const MethodDescriptor* method,
                                          StreamChannel) {
  LOG(FATAL) << method->full_name() << " is not a stream";
}

}  // namespace orvane::internal
