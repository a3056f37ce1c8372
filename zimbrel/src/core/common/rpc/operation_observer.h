// What can be measured of a server or a client.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_OPERATION_OBSERVER_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_OPERATION_OBSERVER_H_

#include <cstddef>
#include <memory>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "google/protobuf/descriptor.h"

namespace orvane {

enum class OperationKind {
  kCall,      // A unary call, by a client.
  kEvent,     // An event, for one client.
  kCallback,  // A call on a callback stream, by a server.
};

struct Operation {
  OperationKind kind;
  const google::protobuf::MethodDescriptor* method;
};

struct OperationEnd {
  // Of an event at a server: whether it could be sent. kCancelled if the caller
  // has given the operation up, or the connection has ended.
  absl::StatusCode code;

  // From the begin, at this end of the connection. 0 for events.
  absl::Duration duration;

  // Of the messages, without what is around them.
  std::size_t request_bytes;   // Also those of an event.
  std::size_t response_bytes;  // 0 without a response.
};

// Told of each operation at one end of a connection; see
// SocketServer::SetObserver and ClientOptions::observer.
//
// Thread: the service thread, in the midst of the operation, so it must be
// quick, and must not use the server or the client.
class OperationObserver {
 public:
  virtual ~OperationObserver() = default;

  // An operation begins. What this returns is passed to OnEnd, such as a span
  // of a tracing library; null is fine.
  virtual std::shared_ptr<void> OnBegin(const Operation& /*operation*/) {
    return nullptr;
  }

  // An operation has ended, however it did. Called once for each that began.
  virtual void OnEnd(const Operation& operation,
                     const std::shared_ptr<void>& begun,
                     const OperationEnd& end) = 0;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_OPERATION_OBSERVER_H_
