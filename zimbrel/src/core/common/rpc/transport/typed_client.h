// Calls and streams with typed messages, on which generated clients are built.
// Applications use the names outside `internal`; the rest is for generated
// code.
//
// Thread: all callables run on the service thread of the client's loop, and are
// destroyed there. Arguments passed by reference are borrowed for the call.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_TYPED_CLIENT_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_TYPED_CLIENT_H_

#include <memory>
#include <type_traits>
#include <utility>

#include "absl/functional/any_invocable.h"
#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "rpc/event_subscription.pb.h"
#include "zimbrel/src/core/common/rpc/calling.h"
#include "zimbrel/src/core/common/rpc/stream_messages.h"
#include "zimbrel/src/core/common/rpc/transport/client/client_call.h"
#include "zimbrel/src/core/common/rpc/transport/client_stream.h"
#include "zimbrel/src/core/common/rpc/transport/responder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/subscriptions.h"

namespace orvane {

// Runs for each event, in the order of arrival.
template <EventMessage T>
using OnEvent = absl::AnyInvocable<void(const T&)>;

// Runs for each call of the server and answers it through the responder,
// immediately or later.
template <CallMessage T>
using OnCall = absl::AnyInvocable<void(CallOf<T>, Responder<T>)>;

namespace internal {

// The type of the key in a subscription to events.
using EventKey = std::remove_cvref_t<
    decltype(std::declval<rpc::EventSubscription>().subscribe())>;

// SocketClient::Call and CallAndWait, with a typed response.
template <typename Response>
CallHandle Call(SocketClient* client,
                const google::protobuf::MethodDescriptor* method,
                const google::protobuf::Message& request,
                OnAnswer<Response> on_answer, const CallOptions& options);
template <typename Response>
absl::StatusOr<Response> CallAndWait(
    SocketClient* client, const google::protobuf::MethodDescriptor* method,
    const google::protobuf::Message& request, const CallOptions& options);

// WatchEvents and ServeCalls, with typed messages.
template <EventMessage T>
std::unique_ptr<ClientStream> Watch(
    SocketClient* client, const google::protobuf::MethodDescriptor* method,
    const EventKey& key, OnEvent<T> on_event, OnEnd on_end);
template <CallMessage T>
std::unique_ptr<ClientStream> Serve(
    SocketClient* client, const google::protobuf::MethodDescriptor* method,
    const KeyOf<T>& key, OnCall<T> on_call, OnEnd on_end);

// ---------------------------------------------------------------------------

template <typename Response>
class TypedCall final : public ClientCall {
 public:
  explicit TypedCall(OnAnswer<Response> on_answer)
      : on_answer_(std::move(on_answer)) {}

 private:
  google::protobuf::Message& response() override { return response_; }

  void RunContinuation(absl::Status outcome) override {
    if (!on_answer_) return;
    if (outcome.ok()) {
      std::move(on_answer_)(std::move(response_));
    } else {
      std::move(on_answer_)(std::move(outcome));
    }
  }

  Response response_;
  OnAnswer<Response> on_answer_;
};

template <typename Response>
CallHandle Call(SocketClient* client,
                const google::protobuf::MethodDescriptor* method,
                const google::protobuf::Message& request,
                OnAnswer<Response> on_answer, const CallOptions& options) {
  const auto call = std::make_shared<TypedCall<Response>>(std::move(on_answer));
  BeginCall(client, method, request, call, options);
  return CallHandle(call);
}

template <typename Response>
absl::StatusOr<Response> CallAndWait(
    SocketClient* client, const google::protobuf::MethodDescriptor* method,
    const google::protobuf::Message& request, const CallOptions& options) {
  absl::StatusOr<Response> answer;
  BeginCallAndWait(client, method, request,
                   std::make_shared<TypedCall<Response>>(
                       [&answer](absl::StatusOr<Response> received) {
                         answer = std::move(received);
                       }),
                   options);
  return answer;
}

template <EventMessage T>
std::unique_ptr<ClientStream> Watch(
    SocketClient* client, const google::protobuf::MethodDescriptor* method,
    const EventKey& key, OnEvent<T> on_event, OnEnd on_end) {
  return WatchEvents(
      client, method, key, std::make_unique<T>(),
      [on_event = std::move(on_event)](
          const google::protobuf::Message& event) mutable {
        if (on_event) on_event(static_cast<const T&>(event));
      },
      std::move(on_end));
}

template <CallMessage T>
std::unique_ptr<ClientStream> Serve(
    SocketClient* client, const google::protobuf::MethodDescriptor* method,
    const KeyOf<T>& key, OnCall<T> on_call, OnEnd on_end) {
  return ServeCalls(
      client, method, key, std::make_unique<T>(),
      [on_call = std::move(on_call)](google::protobuf::Message& message,
                                     PendingAnswer answer) mutable {
        T& typed = static_cast<T&>(message);
        Responder<T> responder(std::move(answer), typed.browser_id());
        if (on_call) {
          on_call(std::move(*typed.mutable_call()), std::move(responder));
        }
      },
      std::move(on_end));
}

}  // namespace internal
}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_TYPED_CLIENT_H_
