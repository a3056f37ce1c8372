// For tests: calls of methods by their names.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_CALL_BY_NAME_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_CALL_BY_NAME_H_

#include <string>

#include "absl/status/status.h"
#include "google/protobuf/message.h"

#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace orvane::testing {

// Calls a method of rpc.BrowserWidgetRpc by its name and waits for the answer.
// The request is in protobuf's text format; `response` may be null.
absl::Status CallByName(orvane::SocketClient* client, const std::string& method,
                        const std::string& request,
                        google::protobuf::Message* response = nullptr);

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_CALL_BY_NAME_H_
