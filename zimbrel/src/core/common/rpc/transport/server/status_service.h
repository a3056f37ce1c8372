// The service through which a server tells what it is doing.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_STATUS_SERVICE_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_STATUS_SERVICE_H_

#include <functional>

#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"
#include "google/protobuf/service.h"

#include "rpc/transport/status.pb.h"
#include "zimbrel/src/core/common/rpc/service.h"

namespace orvane::internal {

// rpc.transport.StatusRpc. Written by hand, since the generator needs the
// runtime that this is a part of.
class StatusService final : public Service {
 public:
  // `describe` fills an empty status in when a client asks for it.
  explicit StatusService(
      std::function<void(rpc::transport::ServerStatus*)> describe);

  const google::protobuf::ServiceDescriptor* GetDescriptor() override;
  void CallMethod(const google::protobuf::MethodDescriptor* method,
                  google::protobuf::RpcController* controller,
                  const google::protobuf::Message* request,
                  google::protobuf::Message* response,
                  google::protobuf::Closure* done) override;
  const google::protobuf::Message& GetRequestPrototype(
      const google::protobuf::MethodDescriptor* method) const override;
  const google::protobuf::Message& GetResponsePrototype(
      const google::protobuf::MethodDescriptor* method) const override;
  AbstractStream* OpenStream(const google::protobuf::MethodDescriptor* method,
                             StreamChannel channel) override;

 private:
  const std::function<void(rpc::transport::ServerStatus*)> describe_;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_STATUS_SERVICE_H_
