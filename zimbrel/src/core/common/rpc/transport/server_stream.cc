#include "zimbrel/src/core/common/rpc/transport/server_stream.h"

#include <utility>

#include "absl/strings/str_cat.h"

namespace orvane {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::MethodDescriptor;
using rpc::transport::StreamMessage;

namespace {

class Endpoint final : public StreamEndpoint {
 public:
  Endpoint(EventLoop* loop, std::uint64_t id,
           std::shared_ptr<FrameSocket> socket)
      : loop_(loop), socket_(std::move(socket)) {
    header_.set_stream_id(id);
  }

  absl::Status Send(const StreamMessage& frame) override {
    header_.set_kind(StreamMessage::KIND_NEXT);
    header_.set_call_id(frame.call_id());
    return socket_->Send(header_, frame.payload());
  }

  void Complete() override {
    header_.set_kind(StreamMessage::KIND_COMPLETE);
    header_.clear_call_id();
    socket_->Send(header_).IgnoreError();  // Without a connection nobody waits.
  }

  EventLoop& loop() override { return *loop_; }

 private:
  EventLoop* const loop_;
  const std::shared_ptr<FrameSocket> socket_;
  StreamMessage header_;
};

bool IsEventStream(const MethodDescriptor& method) {
  return method.input_type() == rpc::EventSubscription::descriptor();
}

absl::Status NotA(const Message& message) {
  return absl::InvalidArgumentError(
      absl::StrCat("the payload is no ", message.GetTypeName()));
}

}  // namespace

ServerStream::ServerStream(EventLoop* loop, Service* service,
                           const MethodDescriptor* method, std::uint64_t id,
                           std::shared_ptr<FrameSocket> socket)
    : is_event_stream_(IsEventStream(*method)),
      stream_(
          service->OpenStream(method, StreamChannel(std::make_unique<Endpoint>(
                                          loop, id, std::move(socket))))),
      callback_(is_event_stream_
                    ? nullptr
                    : service->GetResponsePrototype(method).New(nullptr)) {}

ServerStream::~ServerStream() {
  Withdraw();
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
  if (!subscription_.ParseFromString(payload)) return NotA(subscription_);
  switch (subscription_.action_case()) {
    case rpc::EventSubscription::kSubscribe:
      keys_.insert(subscription_.subscribe().SerializeAsString());
      break;
    case rpc::EventSubscription::kUnsubscribe:
      keys_.erase(subscription_.unsubscribe().SerializeAsString());
      break;
    case rpc::EventSubscription::ACTION_NOT_SET:
      return absl::InvalidArgumentError(
          "a subscription frame that asks for nothing");
  }
  return absl::OkStatus();
}

absl::Status ServerStream::ParseCallback(const std::string& payload) {
  return callback_->ParseFromString(payload) ? absl::OkStatus()
                                             : NotA(*callback_);
}

absl::Status ServerStream::CheckCallbackFrame(const std::string& payload) {
  if (absl::Status parsed = ParseCallback(payload); !parsed.ok()) return parsed;
  for (const char* const name : {"subscribe", "response"}) {
    const FieldDescriptor* const field =
        callback_->GetDescriptor()->FindFieldByName(name);
    if (callback_->GetReflection()->HasField(*callback_, field))
      return absl::OkStatus();
  }
  return absl::InvalidArgumentError(absl::StrCat(
      "a ", callback_->GetTypeName(), " that neither subscribes nor responds"));
}

void ServerStream::Withdraw() {
  for (const std::string& key : std::exchange(keys_, {})) {
    // Parses: it was serialised from the same type.
    subscription_.mutable_unsubscribe()->ParseFromString(key);
    StreamMessage frame;
    frame.set_payload(subscription_.SerializeAsString());
    stream_->OnNext(&frame);
  }
}

}  // namespace orvane
