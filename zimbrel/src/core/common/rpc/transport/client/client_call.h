// One unary call on its way to the server and back.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_CLIENT_CALL_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_CLIENT_CALL_H_

#include <cstdint>
#include <memory>
#include <string_view>

#include "absl/status/status.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "zimbrel/src/core/common/rpc/calling.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace orvane {

class SocketClient;

namespace internal {

class ClientConnection;

// Holds what the answer is read into and the continuation that receives it;
// classes derived from this one know their types. Its connection lists it
// while it waits.
//
// Thread: the service thread. May outlive the connection.
class ClientCall : public Cancellable {
 public:
  ClientCall() = default;
  ClientCall(const ClientCall&) = delete;
  ClientCall& operator=(const ClientCall&) = delete;
  virtual ~ClientCall() = default;

  // `connection` lists the call under `id` from now on. `deadline`, which may
  // be null, is kept until the call has ended.
  void Attach(ClientConnection* connection, std::uint64_t id,
              std::unique_ptr<EventLoop::Timer> deadline);

  // The connection does not list the call any longer; cancelling it does
  // nothing.
  void Detach();

  // Reads the response and ends the call.
  void Receive(std::string_view response);

  // Detaches the call and runs its continuation, the first time; then does
  // nothing. Not to be called while the connection lists the call.
  void End(absl::Status outcome);

  bool has_ended() const { return has_ended_; }

  // Ends the call soon, but not inside this, if it is attached.
  void Cancel() final;

 private:
  // What the response is read into.
  virtual google::protobuf::Message& response() = 0;

  // Runs the continuation: with the response if `outcome` is OK.
  virtual void RunContinuation(absl::Status outcome) = 0;

  ClientConnection* connection_ = nullptr;  // Null unless it lists the call.
  std::uint64_t id_ = 0;
  std::unique_ptr<EventLoop::Timer> deadline_;
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
