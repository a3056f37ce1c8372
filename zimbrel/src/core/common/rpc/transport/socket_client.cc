#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

#include <utility>

#include "absl/log/log.h"
#include "absl/memory/memory.h"
#include "absl/time/time.h"

#include "zimbrel/src/core/common/rpc/transport/client/client_connection.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"
#include "zimbrel/src/core/common/rpc/transport/wire/framing.h"

namespace orvane {

using google::protobuf::Message;
using google::protobuf::MessageFactory;
using google::protobuf::MethodDescriptor;
using internal::ClientCall;
using internal::ClientConnection;
using internal::FrameLimits;

namespace {

using AnyMessage = std::unique_ptr<Message>;

// A call whose response type is known at run time only.
class UntypedCall final : public ClientCall {
 public:
  UntypedCall(AnyMessage response, OnAnswer<AnyMessage> on_answer)
      : response_(std::move(response)), on_answer_(std::move(on_answer)) {}

 private:
  Message& response() override { return *response_; }

  void RunContinuation(absl::Status outcome) override {
    if (!on_answer_) return;
    if (outcome.ok()) {
      std::move(on_answer_)(std::move(response_));
    } else {
      std::move(on_answer_)(std::move(outcome));
    }
  }

  AnyMessage response_;
  OnAnswer<AnyMessage> on_answer_;
};

std::shared_ptr<ClientCall> MakeCall(const MethodDescriptor& method,
                                     OnAnswer<AnyMessage> on_answer) {
  const Message* const prototype =
      MessageFactory::generated_factory()->GetPrototype(method.output_type());
  if (prototype == nullptr) {
    LOG(FATAL) << method.full_name() << " belongs to a service that is not "
               << "compiled into the program";
  }
  return std::make_shared<UntypedCall>(AnyMessage(prototype->New()),
                                       std::move(on_answer));
}

}  // namespace

absl::StatusOr<std::unique_ptr<SocketClient>> SocketClient::Connect(
    EventLoop* loop, const std::string& path, ClientOptions options) {
  loop->CheckServiceThread("SocketClient::Connect");
  absl::StatusOr<OwnedDescriptor> descriptor = ConnectTo(path);
  if (!descriptor.ok()) return descriptor.status();
  return Adopt(loop, descriptor->Release(), options);
}

absl::StatusOr<std::unique_ptr<SocketClient>> SocketClient::Adopt(
    EventLoop* loop, int descriptor, ClientOptions options) {
  loop->CheckServiceThread("SocketClient::Adopt");
  OwnedDescriptor owned(descriptor);
  if (absl::Status status = CheckPeerIsThisUser(descriptor); !status.ok())
    return status;
  absl::StatusOr<std::unique_ptr<EventLoop::Watch>> socket =
      loop->WatchDescriptor(std::move(owned));
  if (!socket.ok()) return socket.status();
  return absl::WrapUnique(new SocketClient(
      options, std::make_unique<ClientConnection>(
                   loop, *std::move(socket),
                   FrameLimits{.max_frame_bytes = options.max_frame_bytes,
                               .max_queued_bytes = options.max_queued_bytes,
                               .max_frame_time = absl::InfiniteDuration()},
                   options.observer)));
}

SocketClient::SocketClient(const ClientOptions& options,
                           std::unique_ptr<ClientConnection> connection)
    : options_(options), connection_(std::move(connection)) {}

SocketClient::~SocketClient() = default;

CallHandle SocketClient::Call(const MethodDescriptor* method,
                              const Message& request,
                              OnAnswer<AnyMessage> on_answer,
                              CallOptions options) {
  const auto call = MakeCall(*method, std::move(on_answer));
  connection_->BeginCall(*method, request, call, options.timeout);
  return CallHandle(call);
}

absl::StatusOr<AnyMessage> SocketClient::CallAndWait(
    const MethodDescriptor* method, const Message& request,
    CallOptions options) {
  absl::StatusOr<AnyMessage> answer;
  connection_->BeginCallAndWait(
      *method, request,
      MakeCall(*method,
               [&answer](absl::StatusOr<AnyMessage> received) {
                 answer = std::move(received);
               }),
      options.timeout);
  return answer;
}

void SocketClient::WatchServer(absl::Duration patience,
                               OnResponsiveness on_change) {
  connection_->WatchServer(patience, std::move(on_change));
}

std::unique_ptr<ClientStream> SocketClient::OpenStream(
    const MethodDescriptor* method, ClientStreamHandlers handlers) {
  return connection_->OpenStream(*method, std::move(handlers));
}

const absl::Status& SocketClient::status() const {
  return connection_->status();
}

const rpc::transport::Limits& SocketClient::server_limits() const {
  return connection_->server_limits();
}

namespace internal {

void BeginCall(SocketClient* client, const MethodDescriptor* method,
               const Message& request, std::shared_ptr<ClientCall> call,
               const CallOptions& options) {
  client->connection_->BeginCall(*method, request, std::move(call),
                                 options.timeout);
}

void BeginCallAndWait(SocketClient* client, const MethodDescriptor* method,
                      const Message& request,
                      const std::shared_ptr<ClientCall>& call,
                      const CallOptions& options) {
  client->connection_->BeginCallAndWait(*method, request, call,
                                        options.timeout);
}

}  // namespace internal
}  // namespace orvane
