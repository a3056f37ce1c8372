// The server's side of one unary call.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_SERVER_CALL_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_SERVER_CALL_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "absl/base/thread_annotations.h"
#include "absl/status/status.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"
#include "google/protobuf/service.h"

#include "zimbrel/src/core/common/rpc/coarse_clock.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/mutex.h"
#include "zimbrel/src/core/common/rpc/observed_operation.h"
#include "zimbrel/src/core/common/rpc/transport/server/client_budget.h"

namespace orvane::internal {

class ClientPresence;
class ServerConnection;

// The controller and the `done` of a call in one object, which also owns the
// messages. The handler owns it once it has been called; Run() destroys it.
//
// Thread: made on the service thread. The handler may use the controller and
// run `done` on any one thread at a time. Abandon: the service thread.
class ServerCall final : public google::protobuf::RpcController,
                         public google::protobuf::Closure {
 public:
  // `request_bytes` is the size of the request as it came. `budget` has this
  // call and its bytes, and gets them back when the call has been answered.
  ServerCall(std::uint64_t id, ServerConnection* connection,
             const google::protobuf::MethodDescriptor* method,
             const EventLoop* loop, std::shared_ptr<Mailbox> mailbox,
             std::shared_ptr<ClientBudget> budget, std::size_t request_bytes,
             const google::protobuf::Message& request_prototype,
             const google::protobuf::Message& response_prototype);
  ~ServerCall() override;

  std::uint64_t id() const { return id_; }
  const google::protobuf::MethodDescriptor& method() const { return *method_; }
  CoarseClock::time_point begun() const { return begun_; }

  // Tells the observer, if there is one, how the call ends.
  void Observe(std::unique_ptr<ObservedOperation> observed) {
    observed_ = std::move(observed);
  }
  void EndObserved(absl::StatusCode code);

  // The client that made the call; null once the call has been abandoned.
  std::shared_ptr<ClientPresence> client() const;

  // Of the loop.
  Mailbox& mailbox() const { return *mailbox_; }

  google::protobuf::Message& request() { return *request_; }
  google::protobuf::Message& response() { return *response_; }

  // The result of the call, once `done` has run.
  absl::Status outcome() const;
  const google::protobuf::Message& response() const { return *response_; }

  // Called when nobody waits for the answer any longer: tells the handler, if
  // it asked to be told, and makes Run() send nothing.
  void Abandon();

  // google::protobuf::Closure
  void Run() override;

  // google::protobuf::RpcController, the handler's side
  void SetFailed(const std::string& reason) override;
  bool IsCanceled() const override;
  void NotifyOnCancel(google::protobuf::Closure* callback) override;

  // google::protobuf::RpcController, the caller's side, which handlers do not
  // need.
  void Reset() override {}
  bool Failed() const override { return failed_; }
  std::string ErrorText() const override { return error_text_; }
  void StartCancel() override {}

 private:
  // Runs on the service thread after `done`. Destroys this object.
  void Finish();

  const std::uint64_t id_;
  const google::protobuf::MethodDescriptor* const method_;
  const CoarseClock::time_point begun_ = CoarseClock::now();
  const EventLoop* const loop_;  // May be gone.
  const std::shared_ptr<Mailbox> mailbox_;
  const std::shared_ptr<ClientBudget> budget_;
  const std::size_t request_bytes_;
  std::unique_ptr<ObservedOperation> observed_;  // Service thread.
  const std::unique_ptr<google::protobuf::Message> request_;
  const std::unique_ptr<google::protobuf::Message> response_;

  // Used by the handler until Run().
  bool failed_ = false;
  std::string error_text_;

  // Service thread.
  ServerConnection* connection_;  // Null once abandoned.

  // Any thread.
  mutable Mutex mutex_;
  bool canceled_ ABSL_GUARDED_BY(mutex_) = false;
  google::protobuf::Closure* on_cancel_ ABSL_GUARDED_BY(mutex_) = nullptr;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_SERVER_CALL_H_
