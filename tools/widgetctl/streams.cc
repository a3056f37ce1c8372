#include "tools/widgetctl/streams.h"

#include <cstdint>
#include <string_view>
#include <utility>

#include "absl/algorithm/container.h"
#include "absl/strings/ascii.h"
#include "absl/strings/str_cat.h"

#include "tools/widgetctl/json.h"
#include "tools/widgetctl/methods.h"
#include "zimbrel/src/core/common/rpc/transport/wire/framing.h"

namespace widgetctl {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;
using orvane::ClientStream;
using orvane::ClientStreamSender;
using orvane::SocketClient;

namespace {

// The fields of every callback type; an EventSubscription has the second one.
constexpr char kBrowserId[] = "browser_id";
constexpr char kSubscribe[] = "subscribe";
constexpr char kCall[] = "call";
constexpr char kResponse[] = "response";

const FieldDescriptor* Field(const Message& message, const char* name) {
  return message.GetDescriptor()->FindFieldByName(name);
}

Message* Mutable(Message* message, const char* field) {
  return message->GetReflection()->MutableMessage(message,
                                                  Field(*message, field));
}

const Message& Get(const Message& message, const char* field) {
  return message.GetReflection()->GetMessage(message, Field(message, field));
}

absl::StatusOr<Subscription> Prepare(
    absl::StatusOr<const MethodDescriptor*> method, const char* key_field,
    const std::string& key) {
  if (!method.ok()) return method.status();
  const FieldDescriptor* const field =
      (*method)->input_type()->FindFieldByName(key_field);
  Subscription subscription{*method, NewMessage(field->message_type())};
  const bool is_number =
      !key.empty() && absl::c_all_of(key, absl::ascii_isdigit);
  if (absl::Status read =
          ReadJson(absl::StrCat("the key of ", (*method)->name()),
                   is_number ? absl::StrCat("{\"value\": ", key, "}") : key,
                   subscription.key.get());
      !read.ok()) {
    return read;
  }
  return subscription;
}

absl::StatusOr<std::unique_ptr<Message>> ReadMessage(
    const MethodDescriptor& method, std::string_view payload) {
  std::unique_ptr<Message> message = NewMessage(method.output_type());
  if (!orvane::internal::ParsePayload(payload, orvane::kMaxMessageDepth,
                                      message.get())) {
    return absl::InternalError(
        absl::StrCat("the widget sent what is no ", message->GetTypeName()));
  }
  return message;
}

// If that fails the connection is gone, and the stream is about to end for it.
void Subscribe(const ClientStream& stream, const Message& request) {
  stream.sender()->Next(request, /*call_id=*/0).IgnoreError();
}

}  // namespace

std::string Subscription::Name() const {
  return absl::StrCat(method->name(), " ", ToJson(*key));
}

absl::StatusOr<Subscription> PrepareWatch(const ServiceDescriptor& service,
                                          const std::string& method,
                                          const std::string& key) {
  return Prepare(FindMethodOfKind(service, method, kEventStream, "watched"),
                 kSubscribe, key);
}

absl::StatusOr<Subscription> PrepareServe(const ServiceDescriptor& service,
                                          const std::string& method,
                                          const std::string& key) {
  return Prepare(FindMethodOfKind(service, method, kCallbackStream, "served"),
                 kBrowserId, key);
}

Answer ReadResponse(const MethodDescriptor& method, const std::string& json) {
  const FieldDescriptor* const field =
      method.output_type()->FindFieldByName(kResponse);
  std::unique_ptr<Message> response = NewMessage(field->message_type());
  if (absl::Status read =
          ReadJson(absl::StrCat("the response of ", method.name()), json,
                   response.get());
      !read.ok()) {
    return read;
  }
  return response;
}

WidgetCall::WidgetCall(std::int64_t id, std::unique_ptr<Message> message,
                       std::weak_ptr<ClientStreamSender> sender)
    : id_(id), message_(std::move(message)), sender_(std::move(sender)) {}

absl::Status WidgetCall::Give(const Answer& answer) const {
  const std::shared_ptr<ClientStreamSender> sender = sender_.lock();
  if (sender == nullptr) return absl::UnavailableError("the stream has ended");
  const std::unique_ptr<Message> reply(message_->New());
  Mutable(reply.get(), kBrowserId)->CopyFrom(Get(*message_, kBrowserId));
  absl::Status given = answer.status();
  if (given.ok()) {
    Mutable(reply.get(), kResponse)->CopyFrom(**answer);
    given = sender->Next(*reply, id_);
  }
  if (given.ok()) return given;
  reply->GetReflection()->ClearField(reply.get(), Field(*reply, kResponse));
  // Fails only if the stream has ended.
  sender->Error(*reply, id_, std::string(given.message())).IgnoreError();
  return given;
}

std::unique_ptr<ClientStream> OpenWatch(
    const Subscription& watch, SocketClient& client,
    absl::AnyInvocable<void(std::unique_ptr<Message> event)> on_event,
    EndHandler on_end) {
  std::unique_ptr<ClientStream> stream = client.OpenStream(
      watch.method, {[method = watch.method, on_event = std::move(on_event)](
                         std::string_view payload, std::int64_t) mutable {
                       auto event = ReadMessage(*method, payload);
                       if (!event.ok()) return event.status();
                       on_event(*std::move(event));
                       return absl::OkStatus();
                     },
                     std::move(on_end)});
  const std::unique_ptr<Message> request =
      NewMessage(watch.method->input_type());
  Mutable(request.get(), kSubscribe)->CopyFrom(*watch.key);
  Subscribe(*stream, *request);
  return stream;
}

std::unique_ptr<ClientStream> OpenServe(
    const Subscription& serve, SocketClient& client,
    absl::AnyInvocable<void(WidgetCall call)> on_call, EndHandler on_end) {
  // Known once the stream is open, before which no handler runs. Weak, since it
  // owns the handlers.
  const auto sender = std::make_shared<std::weak_ptr<ClientStreamSender>>();
  std::unique_ptr<ClientStream> stream = client.OpenStream(
      serve.method,
      {[method = serve.method, sender, on_call = std::move(on_call)](
           std::string_view payload, std::int64_t call_id) mutable {
         auto call = ReadMessage(*method, payload);
         if (!call.ok()) return call.status();
         if (!(*call)->GetReflection()->HasField(**call,
                                                 Field(**call, kCall))) {
           return absl::InternalError(absl::StrCat("the widget sent a ",
                                                   (*call)->GetTypeName(),
                                                   " without a call"));
         }
         on_call(WidgetCall(call_id, *std::move(call), *sender));
         return absl::OkStatus();
       },
       std::move(on_end)});
  *sender = stream->sender();
  const std::unique_ptr<Message> request =
      NewMessage(serve.method->input_type());
  Mutable(request.get(), kBrowserId)->CopyFrom(*serve.key);
  request->GetReflection()->SetBool(request.get(), Field(*request, kSubscribe),
                                    true);
  Subscribe(*stream, *request);
  return stream;
}

}  // namespace widgetctl
