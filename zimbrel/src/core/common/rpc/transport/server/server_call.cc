#include "zimbrel/src/core/common/rpc/transport/server/server_call.h"

#include <utility>

#include "zimbrel/src/core/common/rpc/current_loop.h"
#include "zimbrel/src/core/common/rpc/transport/server/server_connection.h"

namespace orvane::internal {

using google::protobuf::Message;

ServerCall::ServerCall(std::uint64_t id, ServerConnection* connection,
                       const google::protobuf::MethodDescriptor* method,
                       const EventLoop* loop, std::shared_ptr<Mailbox> mailbox,
                       std::shared_ptr<ClientBudget> budget,
                       std::size_t request_bytes,
                       const Message& request_prototype,
                       const Message& response_prototype)
    : id_(id),
      method_(method),
      loop_(loop),
      mailbox_(std::move(mailbox)),
      budget_(std::move(budget)),
      request_bytes_(request_bytes),
      request_(request_prototype.New(nullptr)),
      response_(response_prototype.New(nullptr)),
      connection_(connection) {}

ServerCall::~ServerCall() {
  // A closure that NotifyOnCancel was given runs once, at the latest now.
  Closure* on_cancel = nullptr;
  {
    const MutexLock lock(mutex_);
    std::swap(on_cancel, on_cancel_);
  }
  if (on_cancel != nullptr) on_cancel->Run();
}

absl::Status ServerCall::outcome() const {
  if (failed_) return absl::UnknownError(error_text_);
  if (!response_->IsInitialized()) {
    return absl::InternalError("the response lacks required fields: " +
                               response_->InitializationErrorString());
  }
  return absl::OkStatus();
}

std::shared_ptr<ClientPresence> ServerCall::client() const {
  return connection_ == nullptr ? nullptr : connection_->client();
}

void ServerCall::EndObserved(absl::StatusCode code) {
  if (observed_ == nullptr) return;
  observed_->End(code,
                 code == absl::StatusCode::kOk ? response_->ByteSizeLong() : 0);
}

void ServerCall::Abandon() {
  connection_ = nullptr;
  observed_ = nullptr;
  Closure* on_cancel = nullptr;
  {
    const MutexLock lock(mutex_);
    canceled_ = true;
    std::swap(on_cancel, on_cancel_);
  }
  if (on_cancel != nullptr) on_cancel->Run();
}

void ServerCall::Run() {
  if (IsServiceThreadOf(loop_)) return Finish();
  // The task owns the call: if the loop is gone, or is destroyed before it runs
  // the task, the call is destroyed too.
  mailbox_->Post([call = std::unique_ptr<ServerCall>(this)]() mutable {
    call.release()->Finish();
  });
}

void ServerCall::Finish() {
  const std::unique_ptr<ServerCall> self(this);
  budget_->GiveBack(Held::kCalls);
  budget_->GiveBack(Held::kRequestBytes, request_bytes_);
  if (connection_ != nullptr) connection_->Finish(*this);
}

void ServerCall::SetFailed(const std::string& reason) {
  failed_ = true;
  error_text_ = reason;
}

bool ServerCall::IsCanceled() const {
  const MutexLock lock(mutex_);
  return canceled_;
}

void ServerCall::NotifyOnCancel(Closure* callback) {
  {
    const MutexLock lock(mutex_);
    if (!canceled_) {
      on_cancel_ = callback;
      return;
    }
  }
  callback->Run();
}

}  // namespace orvane::internal
