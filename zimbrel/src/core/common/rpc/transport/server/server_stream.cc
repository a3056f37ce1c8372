#include "zimbrel/src/core/common/rpc/transport/server/server_stream.h"

#include <utility>

#include "absl/strings/str_cat.h"

#include "rpc/stream_options.pb.h"
#include "zimbrel/src/core/common/rpc/method_kind.h"

namespace orvane::internal {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::MethodDescriptor;
using rpc::transport::StreamMessage;

namespace {

class Endpoint final : public StreamEndpoint {
 public:
  Endpoint(StreamContext* context, const MethodDescriptor& method,
           std::uint64_t id)
      : context_(context),
        keeps_latest_(method.options().GetExtension(rpc::slow_host) ==
                      rpc::SLOW_HOST_KEEP_LATEST) {
    header_.set_stream_id(id);
  }

  absl::Status Send(const StreamMessage& frame) override {
    return socket().Send(NextHeader(frame), frame.payload());
  }

  absl::Status SendEvent(const StreamMessage& frame,
                         const Message& key) override {
    if (!keeps_latest_) return Send(frame);
    const absl::StatusOr<Outbox::Placed> placed =
        socket().SendLatest(NextHeader(frame), frame.payload(), [&] {
          return Outbox::Slot{header_.stream_id(), key.SerializeAsString()};
        });
    if (!placed.ok()) return placed.status();
    if (*placed == Outbox::Placed::kInsteadOfAnother)
      ++context_->counters->replaced_events;
    return absl::OkStatus();
  }

  void Complete() override {
    socket().DropSlots(header_.stream_id());
    header_.set_kind(StreamMessage::KIND_COMPLETE);
    header_.clear_call_id();
    socket().Send(header_).IgnoreError();  // Fails if the client has gone.
  }

  EventLoop& loop() override { return *context_->loop; }

 private:
  FrameSocket& socket() { return *context_->socket; }

  const StreamMessage& NextHeader(const StreamMessage& frame) {
    header_.set_kind(StreamMessage::KIND_NEXT);
    header_.set_call_id(frame.call_id());
    return header_;
  }

  StreamContext* const context_;
  const bool keeps_latest_;
  StreamMessage header_;
};

absl::Status CannotParse(const Message& message, int max_depth) {
  return absl::InvalidArgumentError(absl::StrCat(
      "the payload cannot be parsed as ", message.GetTypeName(),
      " (malformed, or nested deeper than ", max_depth, " levels)"));
}

}  // namespace

ServerStream::ServerStream(StreamContext* context,
                           const MethodDescriptor* method, std::uint64_t id)
    : context_(context),
      is_event_stream_(KindOf(*method) == MethodKind::kEventStream),
      stream_(context->service->OpenStream(
          method,
          StreamChannel(std::make_unique<Endpoint>(context, *method, id)))),
      callback_(
          is_event_stream_
              ? nullptr
              : context->service->GetResponsePrototype(method).New(nullptr)) {}

ServerStream::~ServerStream() {
  UnsubscribeFromAll();
  stream_->OnCompleted();
}

absl::Status ServerStream::Next(StreamMessage& frame) {
  absl::Status checked = is_event_stream_ ? CheckSubscription(frame.payload())
                                          : CheckCallbackFrame(frame.payload());
  if (checked.ok()) stream_->OnNext(&frame);
  return checked;
}

absl::Status ServerStream::Error(StreamMessage& frame) {
  if (is_event_stream_) {
    return absl::InvalidArgumentError(
        "an error on an event stream, which has no calls");
  }
  absl::Status checked = ParseCallback(frame.payload());
  if (checked.ok()) stream_->OnError(&frame);
  return checked;
}

absl::Status ServerStream::CheckSubscription(const std::string& payload) {
  if (!ParsePayload(payload, context_->limits.max_message_depth,
                    &subscription_))
    return CannotParse(subscription_, context_->limits.max_message_depth);
  switch (subscription_.action_case()) {
    case rpc::EventSubscription::kSubscribe:
      return AddKey(subscription_.subscribe().SerializeAsString());
    case rpc::EventSubscription::kUnsubscribe:
      RemoveKey(subscription_.unsubscribe().SerializeAsString());
      return absl::OkStatus();
    case rpc::EventSubscription::ACTION_NOT_SET:
      break;
  }
  return absl::InvalidArgumentError(
      "an EventSubscription that neither subscribes nor unsubscribes");
}

absl::Status ServerStream::AddKey(std::string key) {
  if (keys_.contains(key)) return absl::OkStatus();
  if (context_->subscriptions >= context_->limits.max_subscriptions) {
    return absl::ResourceExhaustedError(
        absl::StrCat("subscription ", context_->subscriptions + 1,
                     "; the limit is ", context_->limits.max_subscriptions));
  }
  keys_.insert(std::move(key));
  ++context_->subscriptions;
  return absl::OkStatus();
}

void ServerStream::RemoveKey(const std::string& key) {
  context_->subscriptions -= keys_.erase(key);
}

absl::Status ServerStream::ParseCallback(const std::string& payload) {
  return ParsePayload(payload, context_->limits.max_message_depth,
                      callback_.get())
             ? absl::OkStatus()
             : CannotParse(*callback_, context_->limits.max_message_depth);
}

absl::Status ServerStream::CheckCallbackFrame(const std::string& payload) {
  if (absl::Status parsed = ParseCallback(payload); !parsed.ok()) return parsed;
  for (const char* const name : {kSubscribeField, kResponseField}) {
    const FieldDescriptor* const field =
        callback_->GetDescriptor()->FindFieldByName(name);
    if (callback_->GetReflection()->HasField(*callback_, field))
      return absl::OkStatus();
  }
  return absl::InvalidArgumentError(absl::StrCat(
      "a ", callback_->GetTypeName(), " that neither subscribes nor responds"));
}

void ServerStream::UnsubscribeFromAll() {
  context_->subscriptions -= keys_.size();
  for (const std::string& key : std::exchange(keys_, {})) {
    // Cannot fail: the key was serialised from the same type.
    subscription_.mutable_unsubscribe()->ParseFromString(key);
    StreamMessage frame;
    frame.set_payload(subscription_.SerializeAsString());
    stream_->OnNext(&frame);
  }
}

}  // namespace orvane::internal
