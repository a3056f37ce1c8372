// What both ends of a connection say first, so that a host and a widget of
// different versions work together or part in words. Private to the transport.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_HANDSHAKE_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_HANDSHAKE_H_

#include "absl/status/status.h"
#include "google/protobuf/descriptor.h"

#include "rpc/transport/stream_message.pb.h"

namespace orvane::internal {

// The hello of an end that knows this version of the service.
rpc::transport::Hello MakeHello(
    const google::protobuf::ServiceDescriptor& service);

// Whether client and server can work together. If not, kFailedPrecondition in
// words that tell both versions: the same ones at either end.
absl::Status CompareHellos(const rpc::transport::Hello& client,
                           const rpc::transport::Hello& server);

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_HANDSHAKE_H_
