// What generated clients are made of: calls and streams with the types of their
// messages. Hosts use the names outside `internal`; the rest is for generated
// code.
//
// Thread: all callables run on the service thread of the client's loop, and are
// destroyed there. What they are passed by reference is borrowed for the call.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_TYPED_CLIENT_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_TYPED_CLIENT_H_

#include <cstdint>
#include <memory>
#include <string_view>
#include <type_traits>
#include <utility>

#include "absl/functional/any_invocable.h"
#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "absl/time/time.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"
#include "google/protobuf/service.h"

#include "rpc/event_subscription.pb.h"
#include "zimbrel/src/core/common/rpc/stream_messages.h"
#include "zimbrel/src/core/common/rpc/transport/client_controller.h"
#include "zimbrel/src/core/common/rpc/transport/client_stream.h"
#include "zimbrel/src/core/common/rpc/transport/responder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/wire/framing.h"

namespace orvane {

// Runs once when a call has ended: with the response, or with one of the errors
// that ClientController::status lists.
template <typename Response>
using OnAnswer = absl::AnyInvocable<void(absl::StatusOr<Response>) &&>;

// Runs for each event, in their order.
template <EventMessage T>
using OnEvent = absl::AnyInvocable<void(const T&)>;

// Runs for each call of the widget; answers it through the responder, at once
// or later.
template <CallMessage T>
using OnCall = absl::AnyInvocable<void(CallOf<T>, Responder<T>)>;

// Runs once when a stream has ended, for the reasons that ClientStreamHandlers
// lists, unless its handle was destroyed before. May be empty.
using OnEnd = absl::AnyInvocable<void(const absl::Status&) &&>;

// Names an asynchronous call, to cancel it. Destroying it, or not keeping it,
// leaves the call alone. May outlive everything.
//
// Thread: the service thread.
class ClientCall {
 public:
  explicit ClientCall(std::weak_ptr<ClientController> controller)
      : controller_(std::move(controller)) {}

  // Ends the call with kCancelled: its continuation runs soon, but not inside
  // this. Does nothing to a call that has ended.
  void Cancel() {
    if (const auto controller = controller_.lock()) controller->StartCancel();
  }

 private:
  std::weak_ptr<ClientController> controller_;
};

namespace internal {

// What a subscription to events is keyed by.
using EventKey = std::remove_cvref_t<
    decltype(std::declval<rpc::EventSubscription>().subscribe())>;

// An asynchronous call. It owns itself until it has ended.
template <typename Response>
class TypedCall final : public google::protobuf::Closure {
 public:
  TypedCall(OnAnswer<Response> on_answer, absl::Duration timeout)
      : controller_(timeout), on_answer_(std::move(on_answer)) {}

  static ClientCall Start(SocketClient* client,
                          const google::protobuf::MethodDescriptor* method,
                          const google::protobuf::Message& request,
                          OnAnswer<Response> on_answer,
                          absl::Duration timeout) {
    const auto call =
        std::make_shared<TypedCall>(std::move(on_answer), timeout);
    call->self_ = call;
    client->CallMethod(method, &call->controller_, &request, &call->response_,
                       call.get());
    return ClientCall(
        std::shared_ptr<ClientController>(call, &call->controller_));
  }

  void Run() override {
    const std::shared_ptr<TypedCall> self = std::move(self_);
    if (controller_.status().ok()) {
      std::move(on_answer_)(std::move(response_));
    } else {
      std::move(on_answer_)(controller_.status());
    }
  }

 private:
  ClientController controller_;
  Response response_;
  OnAnswer<Response> on_answer_;
  std::shared_ptr<TypedCall> self_;
};

template <typename Response>
absl::StatusOr<Response> CallAndWait(
    SocketClient* client, const google::protobuf::MethodDescriptor* method,
    const google::protobuf::Message& request, absl::Duration timeout) {
  ClientController controller(timeout);
  Response response;
  client->CallMethod(method, &controller, &request, &response, nullptr);
  if (!controller.status().ok()) return controller.status();
  return response;
}

// Reads a message that the widget sent.
template <typename T>
absl::Status Read(std::string_view payload, T* message) {
  if (ParsePayload(payload, kMaxMessageDepth, message)) return absl::OkStatus();
  return absl::InternalError(absl::StrCat("what the widget sent is no ",
                                          T::descriptor()->full_name()));
}

template <EventMessage T>
std::unique_ptr<ClientStream> Watch(
    SocketClient* client, const google::protobuf::MethodDescriptor* method,
    const EventKey& key, OnEvent<T> on_event, OnEnd on_end) {
  auto stream = client->OpenStream(
      method, {[on_event = std::move(on_event), event = T()](
                   std::string_view payload, std::int64_t) mutable {
                 // The same one for all, so that its memory is too.
                 absl::Status read = Read(payload, &event);
                 if (read.ok()) on_event(event);
                 return read;
               },
               std::move(on_end)});
  rpc::EventSubscription subscription;
  *subscription.mutable_subscribe() = key;
  // If the stream could not be opened, `on_end` tells.
  stream->sender()->Next(subscription, 0).IgnoreError();
  return stream;
}

template <CallMessage T>
std::unique_ptr<ClientStream> Serve(
    SocketClient* client, const google::protobuf::MethodDescriptor* method,
    const KeyOf<T>& key, OnCall<T> on_call, OnEnd on_end) {
  // Known once the stream is open. Weak, since the stream owns its handlers.
  const auto sender = std::make_shared<std::weak_ptr<ClientStreamSender>>();
  auto stream = client->OpenStream(
      method,
      {[on_call = std::move(on_call), sender](std::string_view payload,
                                              std::int64_t call_id) mutable {
         T message;
         if (absl::Status read = Read(payload, &message); !read.ok())
           return read;
         if (!message.has_call()) {
           return absl::InternalError("what the widget sent calls for nothing");
         }
         on_call(std::move(*message.mutable_call()),
                 Responder<T>(sender->lock(), message.browser_id(), call_id));
         return absl::OkStatus();
       },
       std::move(on_end)});
  *sender = stream->sender();
  T subscription;
  *subscription.mutable_browser_id() = key;
  subscription.set_subscribe(true);
  // If the stream could not be opened, `on_end` tells.
  stream->sender()->Next(subscription, 0).IgnoreError();
  return stream;
}

}  // namespace internal
}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_TYPED_CLIENT_H_
