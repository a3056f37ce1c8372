#include "zimbrel/src/core/common/rpc/transport/client/client_stream_state.h"

#include <utility>

#include "zimbrel/src/core/common/rpc/method_kind.h"

namespace orvane::internal {

using google::protobuf::MessageLite;
using google::protobuf::MethodDescriptor;
using rpc::transport::StreamMessage;

ClientStreamState::ClientStreamState(EventLoop* loop, std::uint64_t id,
                                     const MethodDescriptor& method,
                                     OperationObserver* observer,
                                     std::shared_ptr<FrameSocket> socket,
                                     ClientStreamHandlers handlers)
    : loop_(loop),
      id_(id),
      method_(&method),
      observer_(observer),
      socket_(std::move(socket)),
      handlers_(std::make_shared<ClientStreamHandlers>(std::move(handlers))) {}

void ClientStreamState::CheckServiceThread(absl::string_view operation) const {
  if (handlers_ != nullptr) loop_->CheckServiceThread(operation);
}

absl::Status ClientStreamState::Next(const MessageLite& message,
                                     std::int64_t call_id) {
  return Send(StreamMessage::KIND_NEXT, message, call_id, absl::OkStatus());
}

absl::Status ClientStreamState::Error(const MessageLite& message,
                                      std::int64_t call_id,
                                      const std::string& text) {
  return Send(StreamMessage::KIND_ERROR, message, call_id,
              absl::UnknownError(text.substr(0, kMaxErrorTextBytes)));
}

absl::Status ClientStreamState::Receive(std::string_view payload,
                                        std::int64_t call_id) {
  // Keeps the handlers until on_next has returned, since it may close the
  // stream.
  const std::shared_ptr<ClientStreamHandlers> handlers = handlers_;
  if (observer_ == nullptr) return handlers->on_next(payload, call_id);
  const bool is_event = KindOf(*method_) == MethodKind::kEventStream;
  if (!is_event) {
    observed_calls_.emplace(
        call_id,
        ObservedOperation::Begin(observer_, {OperationKind::kCallback, method_},
                                 payload.size()));
  }
  absl::Status received = handlers->on_next(payload, call_id);
  // A handler that has closed the stream may have destroyed the observer too.
  if (is_event && handlers_ != nullptr)
    ObserveEvent(observer_, method_, received.code(), payload.size());
  return received;
}

void ClientStreamState::EndObservedCall(std::int64_t call_id,
                                        absl::StatusCode code,
                                        std::size_t bytes) {
  const auto call = observed_calls_.extract(call_id);
  if (!call.empty()) call.mapped()->End(code, bytes);
}

void ClientStreamState::GiveUpCall(std::int64_t call_id) {
  observed_calls_.extract(call_id);
  const std::shared_ptr<ClientStreamHandlers> handlers = handlers_;
  if (handlers->on_call_given_up) handlers->on_call_given_up(call_id);
}

void ClientStreamState::End(const absl::Status& why) {
  Shut();
  if (handlers_ == nullptr) return;
  // The others are destroyed as soon as the handle is gone, even inside this.
  OnEnd on_end = std::exchange(handlers_->on_end, nullptr);
  if (on_end) std::move(on_end)(why);
  handlers_.reset();
}

void ClientStreamState::Close() {
  Shut();
  handlers_.reset();
}

absl::Status ClientStreamState::Send(StreamMessage::Kind kind,
                                     const MessageLite& message,
                                     std::int64_t call_id,
                                     const absl::Status& error) {
  if (!is_open_) return absl::UnavailableError("the stream has ended");
  CheckServiceThread(kind == StreamMessage::KIND_NEXT
                         ? "ClientStreamSender::Next"
                         : "ClientStreamSender::Error");
  StreamMessage header;
  header.set_kind(kind);
  header.set_stream_id(id_);
  header.set_call_id(call_id);
  if (!error.ok()) {
    header.set_error_code(static_cast<int>(error.code()));
    header.set_error_text(std::string(error.message()));
  }
  absl::Status sent = socket_->Send(header, message);
  if (observer_ != nullptr) {
    EndObservedCall(call_id, sent.ok() ? error.code() : sent.code(),
                    message.ByteSizeLong());
  }
  return sent;
}

}  // namespace orvane::internal
