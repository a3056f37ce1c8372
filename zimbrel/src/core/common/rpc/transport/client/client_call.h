// The client's side of one unary call.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_CLIENT_CALL_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_CLIENT_CALL_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <utility>

#include "absl/status/status.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "zimbrel/src/core/common/rpc/calling.h"
#include "zimbrel/src/core/common/rpc/coarse_clock.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/observed_operation.h"

namespace orvane {

class SocketClient;

namespace internal {

class ClientConnection;

// A call that waits for its answer. Derived classes hold the response and the
// continuation, whose types they know. The connection keeps the call in a table
// until the answer arrives.
//
// Thread: the service thread. May outlive the connection.
class ClientCall : public Cancellable {
 public:
  ClientCall() = default;
  ClientCall(const ClientCall&) = delete;
  ClientCall& operator=(const ClientCall&) = delete;
  virtual ~ClientCall() = default;

  // Called when `connection` puts the call into its table as `id`. `deadline`
  // may be null, and is kept until the call has ended.
  void Attach(ClientConnection* connection, std::uint64_t id,
              const google::protobuf::MethodDescriptor* method,
              std::unique_ptr<EventLoop::Timer> deadline);

  // Of an attached call.
  const google::protobuf::MethodDescriptor* method() const { return method_; }
  CoarseClock::time_point begun() const { return begun_; }

  // Called when the connection has removed the call from its table. Cancelling
  // it does nothing afterwards.
  void Detach();

  // Tells the observer, if there is one, how the call ends.
  void Observe(std::unique_ptr<ObservedOperation> observed) {
    observed_ = std::move(observed);
  }

  // Parses the response and ends the call.
  void Receive(std::string_view response);

  // Detaches the call and runs its continuation. Does nothing if the call has
  // ended before. The call must not be in the connection's table any longer.
  void End(absl::Status outcome);

  bool has_ended() const { return has_ended_; }

  // If the call is attached, ends it soon, in a task of its own.
  void Cancel() final;

 private:
  // The message into which the response is parsed.
  virtual google::protobuf::Message& response() = 0;

  // Runs the continuation with the response if `outcome` is OK, otherwise with
  // the error.
  virtual void RunContinuation(absl::Status outcome) = 0;

  ClientConnection* connection_ = nullptr;  // Null while detached.
  std::uint64_t id_ = 0;
  const google::protobuf::MethodDescriptor* method_ = nullptr;
  CoarseClock::time_point begun_;
  std::unique_ptr<EventLoop::Timer> deadline_;
  std::unique_ptr<ObservedOperation> observed_;
  std::size_t response_bytes_ = 0;
  bool has_ended_ = false;
};

// ClientConnection::BeginCall and BeginCallAndWait, for generated clients.
void BeginCall(SocketClient* client,
               const google::protobuf::MethodDescriptor* method,
               const google::protobuf::Message& request,
               std::shared_ptr<ClientCall> call, const CallOptions& options);
void BeginCallAndWait(SocketClient* client,
                      const google::protobuf::MethodDescriptor* method,
                      const google::protobuf::Message& request,
                      const std::shared_ptr<ClientCall>& call,
                      const CallOptions& options);

}  // namespace internal
}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_CLIENT_CALL_H_
