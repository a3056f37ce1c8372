#include "zimbrel/src/core/common/rpc/transport/subscriptions.h"

#include <cstddef>
#include <string_view>
#include <utility>

#include "absl/strings/str_cat.h"

#include "rpc/event_subscription.pb.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/method_kind.h"
#include "zimbrel/src/core/common/rpc/transport/client/served_calls.h"
#include "zimbrel/src/core/common/rpc/transport/frame_limits.h"
#include "zimbrel/src/core/common/rpc/transport/wire/framing.h"

namespace orvane {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::MethodDescriptor;
using internal::ServedCalls;

namespace {

// A stream reuses the memory of a message for the next one, but not that of a
// payload longer than this, which may have become many times as long.
constexpr std::size_t kMaxReusedBytes = std::size_t{16} << 10;

absl::Status Read(std::string_view payload, Message* message) {
  if (internal::ParsePayload(payload, kMaxMessageDepth, message))
    return absl::OkStatus();
  return absl::InternalError(
      absl::StrCat("the server sent a message that cannot be parsed as ",
                   message->GetTypeName()));
}

const FieldDescriptor* Field(const Message& message, const char* name) {
  return message.GetDescriptor()->FindFieldByName(name);
}

void RunIfAny(Task task) {
  if (task != nullptr) std::move(task)();
}

void GiveUpAll(const std::weak_ptr<ServedCalls>& calls) {
  // They are gone once a task has destroyed the stream's handle.
  const auto next = [&calls]() -> Task {
    const auto locked = calls.lock();
    return locked == nullptr ? nullptr : locked->GiveUpNext();
  };
  while (Task task = next()) std::move(task)();
}

// If the stream could not be opened, `on_end` tells why.
void Subscribe(const ClientStream& stream, const Message& subscription) {
  stream.sender()->Next(subscription, /*call_id=*/0).IgnoreError();
}

}  // namespace

std::unique_ptr<ClientStream> WatchEvents(
    SocketClient* client, const MethodDescriptor* method, const Message& key,
    std::unique_ptr<Message> event,
    absl::AnyInvocable<void(const Message& event)> on_event, OnEnd on_end) {
  auto stream = client->OpenStream(
      method, {[event = std::move(event), on_event = std::move(on_event)](
                   std::string_view payload, std::int64_t) mutable {
                 absl::Status read = Read(payload, event.get());
                 if (read.ok() && on_event) on_event(*event);
                 if (payload.size() > kMaxReusedBytes)
                   event.reset(event->New());
                 return read;
               },
               std::move(on_end)});
  rpc::EventSubscription subscription;
  subscription.mutable_subscribe()->CopyFrom(key);
  Subscribe(*stream, subscription);
  return stream;
}

std::unique_ptr<ClientStream> ServeCalls(
    SocketClient* client, const MethodDescriptor* method, const Message& key,
    std::unique_ptr<Message> message,
    absl::AnyInvocable<void(Message& message, PendingAnswer answer)> on_call,
    OnEnd on_end) {
  const std::unique_ptr<Message> subscription(message->New());
  const google::protobuf::Reflection& fields = *message->GetReflection();
  // A method of another kind is refused by the server.
  if (KindOf(*method) == MethodKind::kCallbackStream) {
    fields.MutableMessage(subscription.get(), Field(*subscription, kKeyField))
        ->CopyFrom(key);
    fields.SetBool(subscription.get(), Field(*subscription, kSubscribeField),
                   true);
  }

  // Set once the stream is open. Weak, since the stream owns its handlers.
  const auto sender = std::make_shared<std::weak_ptr<ClientStreamSender>>();
  auto calls = std::make_shared<ServedCalls>();
  const std::weak_ptr<ServedCalls> weak_calls = calls;
  auto stream = client->OpenStream(
      method,
      {[sender, max_served = client->options().max_served_calls,
        calls = std::move(calls), message = std::move(message), &fields,
        call = Field(*subscription, kCallField), on_call = std::move(on_call)](
           std::string_view payload, std::int64_t call_id) mutable {
         if (absl::Status read = Read(payload, message.get()); !read.ok())
           return read;
         if (!fields.HasField(*message, call)) {
           return absl::InternalError(absl::StrCat("the server sent a ",
                                                   message->GetTypeName(),
                                                   " without a call"));
         }
         if (!calls->Begin(call_id)) {
           return absl::InternalError(
               absl::StrCat("the server sent call ", call_id,
                            " again before it was answered"));
         }
         PendingAnswer answer(sender->lock(), calls, call_id);
         if (!on_call) {
           answer.Fail(*message, "the client has no handler for calls");
         } else if (calls->size() > max_served) {
           answer.Fail(*message, absl::StrCat("the client serves ", max_served,
                                              " calls already"));
         } else {
           on_call(*message, std::move(answer));
         }
         if (payload.size() > kMaxReusedBytes) message.reset(message->New());
         return absl::OkStatus();
       },
       [weak_calls,
        on_end = std::move(on_end)](const absl::Status& why) mutable {
         GiveUpAll(weak_calls);
         // What ran there may have destroyed the handle.
         if (on_end && !weak_calls.expired()) std::move(on_end)(why);
       },
       [weak_calls](std::int64_t call_id) {
         RunIfAny(weak_calls.lock()->GiveUp(call_id));
       }});
  *sender = stream->sender();
  Subscribe(*stream, *subscription);
  return stream;
}

PendingAnswer::PendingAnswer(std::shared_ptr<ClientStreamSender> sender,
                             const std::shared_ptr<ServedCalls>& calls,
                             std::int64_t call_id)
    : sender_(std::move(sender)), calls_(calls), call_id_(call_id) {}

PendingAnswer::PendingAnswer(PendingAnswer&& other) noexcept = default;

PendingAnswer::~PendingAnswer() {
  if (sender_ == nullptr) return;
  if (const auto calls = CallsFor("~Responder")) calls->End(call_id_);
}

std::shared_ptr<ServedCalls> PendingAnswer::CallsFor(
    absl::string_view operation) const {
  sender_->CheckServiceThread(operation);
  return calls_.lock();
}

bool PendingAnswer::is_given_up() const {
  const auto calls = CallsFor("Responder::is_given_up");
  return calls == nullptr || calls->IsGivenUp(call_id_);
}

void PendingAnswer::OnGivenUp(Task task) {
  {
    const auto calls = CallsFor("Responder::OnGivenUp");
    if (calls != nullptr && !calls->IsGivenUp(call_id_))
      return calls->OnGivenUp(call_id_, std::move(task));
  }
  RunIfAny(std::move(task));
}

absl::Status PendingAnswer::Send(Message* message) const {
  if (const auto calls = CallsFor("Responder::Respond");
      calls != nullptr && calls->IsGivenUp(call_id_))
    return absl::CancelledError("the server has given the call up");
  absl::Status sent = sender_->Next(*message, call_id_);
  if (!sent.ok()) {
    message->GetReflection()->ClearField(message,
                                         Field(*message, kResponseField));
    Fail(*message, std::string(sent.message()));
  }
  return sent;
}

void PendingAnswer::Fail(const Message& message,
                         const std::string& text) const {
  const auto calls = CallsFor("Responder::Fail");
  if (calls == nullptr || calls->IsGivenUp(call_id_)) return;
  // Fails if the connection has just ended, and nobody waits for it then.
  sender_->Error(message, call_id_, text).IgnoreError();
}

}  // namespace orvane
