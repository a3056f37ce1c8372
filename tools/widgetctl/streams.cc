#include "tools/widgetctl/streams.h"

#include <utility>

#include "absl/algorithm/container.h"
#include "absl/strings/ascii.h"
#include "absl/strings/str_cat.h"

#include "tools/widgetctl/json.h"
#include "tools/widgetctl/methods.h"

namespace widgetctl {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;
using orvane::ClientStream;
using orvane::SocketClient;

namespace {

// Fields that every callback type has; an EventSubscription has the second one
// too.
constexpr char kBrowserId[] = "browser_id";
constexpr char kSubscribe[] = "subscribe";
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

WidgetCall::WidgetCall(std::unique_ptr<Message> message,
                       orvane::PendingAnswer answer)
    : message_(std::move(message)), answer_(std::move(answer)) {}

absl::Status WidgetCall::Give(const Answer& answer) const {
  const std::unique_ptr<Message> reply(message_->New());
  Mutable(reply.get(), kBrowserId)->CopyFrom(Get(*message_, kBrowserId));
  if (!answer.ok()) {
    answer_.Fail(*reply, std::string(answer.status().message()));
    return answer.status();
  }
  Mutable(reply.get(), kResponse)->CopyFrom(**answer);
  return answer_.Send(reply.get());
}

std::unique_ptr<ClientStream> OpenWatch(
    const Subscription& watch, SocketClient& client,
    absl::AnyInvocable<void(const Message& event)> on_event,
    orvane::OnEnd on_end) {
  return orvane::WatchEvents(&client, watch.method, *watch.key,
                             NewMessage(watch.method->output_type()),
                             std::move(on_event), std::move(on_end));
}

std::unique_ptr<ClientStream> OpenServe(
    const Subscription& serve, SocketClient& client,
    absl::AnyInvocable<void(WidgetCall call)> on_call, orvane::OnEnd on_end) {
  return orvane::ServeCalls(
      &client, serve.method, *serve.key,
      NewMessage(serve.method->output_type()),
      [on_call = std::move(on_call)](Message& message,
                                     orvane::PendingAnswer answer) mutable {
        std::unique_ptr<Message> call(message.New());
        call->GetReflection()->Swap(call.get(), &message);
        on_call(WidgetCall(std::move(call), std::move(answer)));
      },
      std::move(on_end));
}

}  // namespace widgetctl
