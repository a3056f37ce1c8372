#include "tools/widgetctl/call.h"

#include "absl/strings/str_cat.h"

#include "tools/widgetctl/json.h"
#include "tools/widgetctl/methods.h"
#include "zimbrel/src/core/common/rpc/transport/client_controller.h"

namespace widgetctl {

using google::protobuf::Descriptor;
using google::protobuf::Message;
using google::protobuf::MessageFactory;
using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;

namespace {

std::unique_ptr<Message> NewMessage(const Descriptor* type) {
  const Message* const prototype =
      MessageFactory::generated_factory()->GetPrototype(type);
  return std::unique_ptr<Message>(prototype->New());
}

}  // namespace

absl::StatusOr<UnaryCall> PrepareCall(const ServiceDescriptor& service,
                                      const std::string& method,
                                      const std::string& request_json) {
  const absl::StatusOr<const MethodDescriptor*> found =
      FindMethod(service, method);
  if (!found.ok()) return found.status();
  if (!IsUnary(**found)) {
    return absl::InvalidArgumentError(
        absl::StrCat(method, " cannot be called: it is of kind ",
                     KindOf(**found), ", not unary"));
  }
  UnaryCall call{*found, NewMessage((*found)->input_type()),
                 NewMessage((*found)->output_type())};
  if (const absl::Status read = FromJson(request_json, call.request.get());
      !read.ok()) {
    return absl::InvalidArgumentError(
        absl::StrCat("the request of ", method, " is no JSON of ",
                     call.request->GetTypeName(), ": ", read.message()));
  }
  return call;
}

absl::Status MakeCall(const UnaryCall& call, absl::Duration timeout,
                      orvane::SocketClient& client) {
  orvane::ClientController controller(timeout);
  client.CallMethod(call.method, &controller, call.request.get(),
                    call.response.get(), /*done=*/nullptr);
  return controller.status();
}

}  // namespace widgetctl
