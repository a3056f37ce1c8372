// The calls of one callback stream of which an observer is told.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_OBSERVED_CALLBACKS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_OBSERVED_CALLBACKS_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "absl/status/status.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "zimbrel/src/core/common/rpc/observed_operation.h"
#include "zimbrel/src/core/common/rpc/transport/server/stream_request.h"

namespace orvane::internal {

// Ends with kCancelled what has no answer when it is destroyed.
//
// Thread: the service thread. Lifetime: the observer outlives it.
class ObservedCallbacks {
 public:
  // Null without an observer, and for event streams. `prototype` is the input
  // of `method`.
  static std::unique_ptr<ObservedCallbacks> Of(
      OperationObserver* observer,
      const google::protobuf::MethodDescriptor& method,
      const google::protobuf::Message& prototype);

  // The server calls. `payload` is what it sends.
  void Begin(std::int64_t call_id, std::string_view payload);

  // The client that serves `key` has answered, or failed the call.
  void End(std::int64_t call_id, const std::string& key, absl::StatusCode code,
           std::size_t bytes);

  // The server waits no longer. Ids repeat under other keys; of these, any one
  // ends.
  void GiveUp(std::int64_t call_id);

  // The stream serves the key no longer, which ends its calls.
  void GiveUpAll(const std::string& key);

 private:
  ObservedCallbacks(OperationObserver* observer,
                    const google::protobuf::MethodDescriptor& method,
                    const google::protobuf::Message& prototype)
      : observer_(observer), method_(&method), call_(method, prototype) {}

  OperationObserver* const observer_;
  const google::protobuf::MethodDescriptor* const method_;
  StreamRequest call_;  // The latest, to read its key.
  std::map<std::pair<std::int64_t, std::string>,
           std::unique_ptr<ObservedOperation>>
      calls_;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_OBSERVED_CALLBACKS_H_
