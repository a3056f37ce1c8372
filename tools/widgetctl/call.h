// Unary calls as a user types them.

#ifndef TOOLS_WIDGETCTL_CALL_H_
#define TOOLS_WIDGETCTL_CALL_H_

#include <memory>
#include <string>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace widgetctl {

// The outcome of a call, in either direction: the response, or an error with
// the text of the failed call.
using Answer = absl::StatusOr<std::unique_ptr<google::protobuf::Message>>;

// A call that is ready to be made.
struct UnaryCall {
  const google::protobuf::MethodDescriptor* method;
  std::unique_ptr<google::protobuf::Message> request;
};

// Finds the method and reads the request. `service` must be in the generated
// pool. An unknown method, a stream and wrong JSON are errors with a text for
// the user.
absl::StatusOr<UnaryCall> PrepareCall(
    const google::protobuf::ServiceDescriptor& service,
    const std::string& method, const std::string& request_json);

// Makes the call and waits for its end. If the handler failed the call, the
// error has the handler's text.
Answer MakeCall(const UnaryCall& call, absl::Duration timeout,
                orvane::SocketClient& client);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_CALL_H_
