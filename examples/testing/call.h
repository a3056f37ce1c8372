// Calls as tests make them.

#ifndef EXAMPLES_TESTING_CALL_H_
#define EXAMPLES_TESTING_CALL_H_

#include <string>

#include "absl/status/status.h"
#include "google/protobuf/message.h"

#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace example_testing {

// Calls a method of rpc.BrowserWidgetRpc by its name and waits for the answer.
// The request is in protobuf's text format; `response` may be null.
absl::Status Call(orvane::SocketClient* client, const std::string& method,
                  const std::string& request,
                  google::protobuf::Message* response = nullptr);

}  // namespace example_testing

#endif  // EXAMPLES_TESTING_CALL_H_
