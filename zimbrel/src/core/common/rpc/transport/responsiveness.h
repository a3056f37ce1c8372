// Whether the process at the other end of a connection does its work.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_RESPONSIVENESS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_RESPONSIVENESS_H_

#include <functional>

#include "absl/time/time.h"
#include "google/protobuf/descriptor.h"

#include "rpc/transport/status.pb.h"

namespace orvane {

// What a client knows of its server.
struct Responsiveness {
  // False: it has sent nothing since it was asked whether it is there.
  bool responds = true;

  // Of the client's calls that have no answer, the one made first; null if
  // there is none. It may be what the server is busy with.
  const google::protobuf::MethodDescriptor* oldest_call = nullptr;
  absl::Duration oldest_call_age;
};

using OnResponsiveness = std::function<void(const Responsiveness&)>;

// What a server knows of a client. `responds` is false if it has neither sent
// nor read anything since it was asked whether it is there.
using OnClientResponsiveness = std::function<void(
    const rpc::transport::ConnectionStatus& client, bool responds)>;

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_RESPONSIVENESS_H_
