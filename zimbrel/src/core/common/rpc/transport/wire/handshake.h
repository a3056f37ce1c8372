// The hello, which each end of a connection sends first. It shows whether a
// client and a server of different versions can work together.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_HANDSHAKE_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_HANDSHAKE_H_

#include <cstdint>

#include "absl/status/status.h"
#include "google/protobuf/descriptor.h"

#include "rpc/transport/stream_message.pb.h"

namespace orvane::internal {

// In this protocol a server tells when it gives up a call, and either end
// answers the question whether it is there.
inline constexpr std::uint32_t kSecondProtocol = 2;

// The hello of an end that knows this version of the service.
rpc::transport::Hello MakeHello(
    const google::protobuf::ServiceDescriptor& service);

// The protocol that two ends use that can work together.
std::uint32_t SpokenProtocol(const rpc::transport::Hello& client,
                             const rpc::transport::Hello& server);

// Whether client and server can work together. If not, kFailedPrecondition with
// a text that tells both versions and is the same at both ends.
absl::Status CompareHellos(const rpc::transport::Hello& client,
                           const rpc::transport::Hello& server);

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_HANDSHAKE_H_
