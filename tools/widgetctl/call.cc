#include "tools/widgetctl/call.h"

#include "absl/strings/str_cat.h"

#include "tools/widgetctl/json.h"
#include "tools/widgetctl/methods.h"
#include "zimbrel/src/core/common/rpc/method_kind.h"

namespace widgetctl {

using google::protobuf::Message;
using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;

absl::StatusOr<UnaryCall> PrepareCall(const ServiceDescriptor& service,
                                      const std::string& method,
                                      const std::string& request_json) {
  const absl::StatusOr<const MethodDescriptor*> found =
      FindMethodOfKind(service, method, orvane::MethodKind::kUnary, "called");
  if (!found.ok()) return found.status();
  UnaryCall call{*found, NewMessage((*found)->input_type())};
  if (absl::Status read = ReadJson(absl::StrCat("the request of ", method),
                                   request_json, call.request.get());
      !read.ok()) {
    return read;
  }
  return call;
}

Answer MakeCall(const UnaryCall& call, absl::Duration timeout,
                orvane::SocketClient& client) {
  return client.CallAndWait(call.method, *call.request, {.timeout = timeout});
}

}  // namespace widgetctl
