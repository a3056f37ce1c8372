#include "zimbrel/src/core/common/rpc/transport/server/observed_callbacks.h"

#include "absl/memory/memory.h"

#include "zimbrel/src/core/common/rpc/method_kind.h"
#include "zimbrel/src/core/common/rpc/transport/frame_limits.h"

namespace orvane::internal {

using google::protobuf::Message;
using google::protobuf::MethodDescriptor;

std::unique_ptr<ObservedCallbacks> ObservedCallbacks::Of(
    OperationObserver* observer, const MethodDescriptor& method,
    const Message& prototype) {
  if (observer == nullptr || KindOf(method) != MethodKind::kCallbackStream)
    return nullptr;
  return absl::WrapUnique(new ObservedCallbacks(observer, method, prototype));
}

void ObservedCallbacks::Begin(std::int64_t call_id, std::string_view payload) {
  if (!call_.Parse(payload, kMaxMessageDepth)) return;
  calls_[{call_id, call_.key()}] = ObservedOperation::Begin(
      observer_, {OperationKind::kCallback, method_}, payload.size());
}

void ObservedCallbacks::End(std::int64_t call_id, const std::string& key,
                            absl::StatusCode code, std::size_t bytes) {
  const auto call = calls_.extract({call_id, key});
  if (!call.empty()) call.mapped()->End(code, bytes);
}

void ObservedCallbacks::GiveUp(std::int64_t call_id) {
  const auto call = calls_.lower_bound({call_id, ""});
  if (call != calls_.end() && call->first.first == call_id) calls_.erase(call);
}

void ObservedCallbacks::GiveUpAll(const std::string& key) {
  std::erase_if(calls_,
                [&key](const auto& call) { return call.first.second == key; });
}

}  // namespace orvane::internal
