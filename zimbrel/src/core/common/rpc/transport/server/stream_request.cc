#include "zimbrel/src/core/common/rpc/transport/server/stream_request.h"

#include "google/protobuf/io/coded_stream.h"
#include "google/protobuf/io/zero_copy_stream_impl_lite.h"

#include "rpc/event_subscription.pb.h"
#include "zimbrel/src/core/common/rpc/method_kind.h"
#include "zimbrel/src/core/common/rpc/transport/wire/framing.h"

namespace orvane::internal {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::MethodDescriptor;
using rpc::EventSubscription;

namespace {

// Null if the method is an event stream.
const FieldDescriptor* CallbackField(const MethodDescriptor& method,
                                     const char* name) {
  if (KindOf(method) != MethodKind::kCallbackStream) return nullptr;
  return method.input_type()->FindFieldByName(name);
}

}  // namespace

StreamRequest::StreamRequest(const MethodDescriptor& method,
                             const Message& prototype)
    : message_(prototype.New(nullptr)),
      key_field_(CallbackField(method, kKeyField)),
      subscribe_field_(CallbackField(method, kSubscribeField)),
      response_field_(CallbackField(method, kResponseField)) {}

bool StreamRequest::Parse(std::string_view payload, int max_depth) {
  return ParsePayload(payload, max_depth, message_.get());
}

StreamRequest::Action StreamRequest::action() const {
  if (is_event()) {
    switch (static_cast<const EventSubscription&>(*message_).action_case()) {
      case EventSubscription::kSubscribe:
        return Action::kSubscribe;
      case EventSubscription::kUnsubscribe:
        return Action::kUnsubscribe;
      case EventSubscription::ACTION_NOT_SET:
        break;
    }
    return Action::kNone;
  }
  const google::protobuf::Reflection& fields = *message_->GetReflection();
  if (fields.HasField(*message_, response_field_)) return Action::kAnswer;
  if (!fields.HasField(*message_, subscribe_field_)) return Action::kNone;
  return fields.GetBool(*message_, subscribe_field_) ? Action::kSubscribe
                                                     : Action::kUnsubscribe;
}

std::string StreamRequest::key() const {
  const Message& key = Key();
  // As long as it will be from the start: short ones need no allocation.
  std::string bytes(key.ByteSizeLong(), '\0');
  google::protobuf::io::ArrayOutputStream stream(
      bytes.data(), static_cast<int>(bytes.size()));
  google::protobuf::io::CodedOutputStream out(&stream);
  out.SetSerializationDeterministic(true);
  key.SerializeWithCachedSizes(&out);
  return bytes;
}

void StreamRequest::DiscardUnknownInKey() {
  MutableKey()->DiscardUnknownFields();
}

void StreamRequest::Make(Action action, std::string_view key) {
  message_->Clear();
  if (is_event()) {
    auto& subscription = static_cast<EventSubscription&>(*message_);
    action == Action::kSubscribe ? subscription.mutable_subscribe()
                                 : subscription.mutable_unsubscribe();
  } else {
    message_->GetReflection()->SetBool(message_.get(), subscribe_field_,
                                       action == Action::kSubscribe);
  }
  // True, since it was serialised from the same type.
  static_cast<void>(
      MutableKey()->ParseFromArray(key.data(), static_cast<int>(key.size())));
}

const Message& StreamRequest::Key() const {
  if (!is_event())
    return message_->GetReflection()->GetMessage(*message_, key_field_);
  const auto& subscription = static_cast<const EventSubscription&>(*message_);
  return subscription.has_subscribe() ? subscription.subscribe()
                                      : subscription.unsubscribe();
}

Message* StreamRequest::MutableKey() {
  if (!is_event()) {
    return message_->GetReflection()->MutableMessage(message_.get(),
                                                     key_field_);
  }
  auto& subscription = static_cast<EventSubscription&>(*message_);
  return subscription.has_subscribe() ? subscription.mutable_subscribe()
                                      : subscription.mutable_unsubscribe();
}

}  // namespace orvane::internal
