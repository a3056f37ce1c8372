// One unary call, from words to words.

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

// What comes of a call, whoever makes it: the response, or an error whose text
// is that of the failed call.
using Answer = absl::StatusOr<std::unique_ptr<google::protobuf::Message>>;

// A call that is ready to be made.
struct UnaryCall {
  const google::protobuf::MethodDescriptor* method;
  std::unique_ptr<google::protobuf::Message> request;
};

// Finds the method in `service`, which is one of the generated pool, and reads
// the request. Errors, for people: an unknown method, a stream, wrong JSON.
absl::StatusOr<UnaryCall> PrepareCall(
    const google::protobuf::ServiceDescriptor& service,
    const std::string& method, const std::string& request_json);

// Makes the call and waits for its end. The text of an error is that of the
// handler, if it was the handler that failed the call.
Answer MakeCall(const UnaryCall& call, absl::Duration timeout,
                orvane::SocketClient& client);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_CALL_H_
