// What kind of method a proto declares, and by which fields the messages of its
// streams are read. The generator, the transport and the tools ask here.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_METHOD_KIND_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_METHOD_KIND_H_

#include <optional>

#include "google/protobuf/descriptor.h"

namespace orvane {

enum class MethodKind {
  // One request, one response.
  kUnary,
  // A stream on which the client sends rpc.EventSubscription and the server
  // events, which are of any type: rpc.EventSubscription too.
  kEventStream,
  // A stream on which both sides send one type, with the fields below.
  kCallbackStream,
};

// Nothing if the method is of none of these kinds; the generator refuses it.
inline std::optional<MethodKind> KindOf(
    const google::protobuf::MethodDescriptor& method) {
  if (method.client_streaming() != method.server_streaming())
    return std::nullopt;
  if (!method.client_streaming()) return MethodKind::kUnary;
  // By name: the descriptor may be of any pool, as protoc's are.
  if (method.input_type()->full_name() == "rpc.EventSubscription")
    return MethodKind::kEventStream;
  if (method.input_type() == method.output_type())
    return MethodKind::kCallbackStream;
  return std::nullopt;
}

// What a callback stream's messages have: the key, a message outside any oneof;
// and one oneof of a bool, which subscribes the key or unsubscribes it, and two
// messages, which are a call of the server and its response.
inline constexpr char kKeyField[] = "browser_id";
inline constexpr char kSubscribeField[] = "subscribe";
inline constexpr char kCallField[] = "call";
inline constexpr char kResponseField[] = "response";

// The type of the keys that a client subscribes to on a stream of `method`,
// which the generator has accepted.
inline const google::protobuf::Descriptor& KeyTypeOf(
    const google::protobuf::MethodDescriptor& method) {
  const char* const field = KindOf(method) == MethodKind::kEventStream
                                ? "subscribe"  // Of rpc.EventSubscription.
                                : kKeyField;
  return *method.input_type()->FindFieldByName(field)->message_type();
}

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_METHOD_KIND_H_
