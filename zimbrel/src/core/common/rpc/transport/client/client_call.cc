#include "zimbrel/src/core/common/rpc/transport/client/client_call.h"

#include <utility>

#include "absl/strings/str_cat.h"

#include "zimbrel/src/core/common/rpc/transport/client/client_connection.h"
#include "zimbrel/src/core/common/rpc/transport/frame_limits.h"
#include "zimbrel/src/core/common/rpc/transport/wire/framing.h"

namespace orvane::internal {

void ClientCall::Attach(ClientConnection* connection, std::uint64_t id,
                        const google::protobuf::MethodDescriptor* method,
                        std::unique_ptr<EventLoop::Timer> deadline) {
  connection_ = connection;
  id_ = id;
  method_ = method;
  begun_ = CoarseClock::now();
  deadline_ = std::move(deadline);
}

void ClientCall::Detach() {
  connection_ = nullptr;
  deadline_.reset();
}

void ClientCall::Receive(std::string_view payload) {
  response_bytes_ = payload.size();
  if (ParsePayload(payload, kMaxMessageDepth, &response())) {
    return End(absl::OkStatus());
  }
  End(absl::InternalError(absl::StrCat("the response cannot be parsed as ",
                                       response().GetTypeName())));
}

void ClientCall::End(absl::Status outcome) {
  if (has_ended_) return;
  has_ended_ = true;
  Detach();
  if (observed_ != nullptr) observed_->End(outcome.code(), response_bytes_);
  RunContinuation(std::move(outcome));
}

void ClientCall::Cancel() {
  if (connection_ != nullptr) connection_->CancelCall(id_);
}

}  // namespace orvane::internal
