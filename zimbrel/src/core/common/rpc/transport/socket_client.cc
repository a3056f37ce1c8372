#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include "zimbrel/src/core/common/rpc/asio_hook.h"

#include "absl/container/flat_hash_map.h"
#include "absl/memory/memory.h"
#include "absl/strings/str_cat.h"
#include "absl/time/time.h"
#include "asio/io_context.hpp"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/transport/client_controller.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"
#include "zimbrel/src/core/common/rpc/transport/wire/frame_socket.h"
#include "zimbrel/src/core/common/rpc/transport/wire/handshake.h"

namespace orvane {

using google::protobuf::Closure;
using google::protobuf::Message;
using google::protobuf::MessageLite;
using google::protobuf::MethodDescriptor;
using google::protobuf::RpcController;
using google::protobuf::ServiceDescriptor;
using internal::CheckFit;
using internal::FrameLimits;
using internal::FrameSocket;
using internal::Introduce;
using internal::ParsePayload;
using rpc::transport::Hello;
using rpc::transport::StreamMessage;

namespace {

absl::Status StatusOf(const StreamMessage& error) {
  const auto code = static_cast<absl::StatusCode>(error.error_code());
  if (code == absl::StatusCode::kOk)
    return absl::UnknownError(error.error_text());
  return {code, error.error_text()};
}

class Flag final : public Closure {
 public:
  void Run() override { raised = true; }
  bool raised = false;
};

// A stream, shared by its handle, its client, and whoever answers on it later.
class HostStream final : public ClientStreamSender {
 public:
  HostStream(std::uint64_t id, std::shared_ptr<FrameSocket> socket,
             ClientStreamHandlers handlers)
      : id_(id),
        socket_(std::move(socket)),
        handlers_(std::make_shared<ClientStreamHandlers>(std::move(handlers))) {
  }

  bool is_open() const { return is_open_; }

  absl::Status Next(const MessageLite& message, std::int64_t call_id) override {
    return Send(StreamMessage::KIND_NEXT, message, call_id, absl::OkStatus());
  }

  absl::Status Error(const MessageLite& message, std::int64_t call_id,
                     const std::string& text) override {
    return Send(StreamMessage::KIND_ERROR, message, call_id,
                absl::UnknownError(text));
  }

  absl::Status Receive(std::string_view payload, std::int64_t call_id) {
    // Lives until it returns, though it may close the stream.
    const std::shared_ptr<ClientStreamHandlers> handlers = handlers_;
    return handlers->on_next(payload, call_id);
  }

  void End(const absl::Status& why) {
    is_open_ = false;
    const auto handlers = std::exchange(handlers_, nullptr);
    if (handlers != nullptr && handlers->on_end)
      std::move(handlers->on_end)(why);
  }

  // Nothing is sent from now on; End tells why.
  void Shut() { is_open_ = false; }

  // The handle is gone, and the handlers with it.
  void Close() {
    is_open_ = false;
    handlers_.reset();
  }

 private:
  absl::Status Send(StreamMessage::Kind kind, const MessageLite& message,
                    std::int64_t call_id, const absl::Status& error) {
    if (!is_open_) return absl::UnavailableError("the stream has ended");
    StreamMessage header;
    header.set_kind(kind);
    header.set_stream_id(id_);
    header.set_call_id(call_id);
    header.set_error_code(static_cast<int>(error.code()));
    header.set_error_text(std::string(error.message()));
    return socket_->Send(header, message);
  }

  const std::uint64_t id_;
  const std::shared_ptr<FrameSocket> socket_;
  std::shared_ptr<ClientStreamHandlers> handlers_;  // Null once it is over.
  bool is_open_ = true;
};

}  // namespace

class SocketClient::Impl final : public FrameSocket::Receiver {
 public:
  Impl(EventLoop* loop, FrameSocket::Socket socket,
       const ClientOptions& options)
      : loop_(loop),
        socket_(std::make_shared<FrameSocket>(
            std::move(socket),
            FrameLimits{.max_frame_bytes = options.max_frame_bytes,
                        .max_queued_bytes = options.max_queued_bytes,
                        .max_frame_time = absl::InfiniteDuration()},
            this)) {
    socket_->Start();
  }

  ~Impl() override {
    socket_->Close();
    EndAll(absl::CancelledError("the client was destroyed"));
  }

  void Call(const MethodDescriptor& method, RpcController* controller,
            const Message& request, Message* response, Closure* done) {
    Begin(method, request, {controller, response, done});
  }

  void CallAndWait(const MethodDescriptor& method, RpcController* controller,
                   const Message& request, Message* response) {
    Flag ended;
    PendingCall call{controller, response, &ended};
    if (socket_->in_batch()) {
      return End(call,
                 absl::FailedPreconditionError(
                     "a blocking call inside a callback of the same client"));
    }
    const std::uint64_t id = Begin(method, request, std::move(call));
    socket_->Flush();
    if (loop_->RunUntil([&ended] { return ended.raised; })) return;
    Abandon(id, absl::CancelledError("the loop was stopped"));
  }

  std::unique_ptr<ClientStream> Open(const MethodDescriptor& method,
                                     ClientStreamHandlers handlers) {
    const std::uint64_t id = ++last_id_;
    const auto stream =
        std::make_shared<HostStream>(id, socket_, std::move(handlers));
    StreamMessage frame;
    frame.set_kind(StreamMessage::KIND_OPEN);
    frame.set_stream_id(id);
    frame.set_method(static_cast<std::uint32_t>(method.index()));
    absl::Status sent = SpeakOf(*method.service());
    if (sent.ok()) sent = socket_->Send(frame);
    if (sent.ok()) {
      streams_.emplace(id, stream);
    } else {
      stream->Shut();
      loop_->Post([stream, sent] { stream->End(sent); });
    }
    return std::make_unique<ClientStream>(stream, [this, id, stream] {
      // The client outlives what is open, but perhaps not its handlers.
      if (stream->is_open()) Complete(id);
      stream->Close();
    });
  }

  const absl::Status& status() const { return status_; }

 private:
  struct PendingCall {
    RpcController* controller;
    Message* response;
    Closure* done;
    std::unique_ptr<EventLoop::Timer> deadline = nullptr;
  };

  // Sends the request; a failure to do so ends the call in a task of its own.
  std::uint64_t Begin(const MethodDescriptor& method, const Message& request,
                      PendingCall call) {
    const std::uint64_t id = ++last_id_;
    auto* const controller = dynamic_cast<ClientController*>(call.controller);
    const absl::Duration timeout = controller == nullptr
                                       ? absl::InfiniteDuration()
                                       : controller->timeout();
    if (absl::Status sent = SendRequest(id, method, request, timeout);
        !sent.ok()) {
      loop_->Post(
          [call = std::move(call), sent]() mutable { End(call, sent); });
      return id;
    }
    if (controller != nullptr) {
      controller->Reset();
      controller->cancel_ = [this, id] { Cancel(id); };
    }
    if (timeout < absl::InfiniteDuration()) {
      call.deadline = loop_->RunAfter(timeout, [this, id, timeout] {
        Abandon(id, absl::DeadlineExceededError(absl::StrCat(
                        "no answer within ", absl::FormatDuration(timeout))));
      });
    }
    calls_.emplace(id, std::move(call));
    return id;
  }

  // What a connection is first used for is what it is for: says hello, at that
  // time, and finds out whether the widget fits if it has said hello already.
  absl::Status SpeakOf(const ServiceDescriptor& service) {
    if (!status_.ok() || service_ == &service) return status_;
    if (service_ != nullptr) {
      return absl::InvalidArgumentError(
          absl::StrCat("a connection for ", service_->full_name(),
                       " is used for ", service.full_name()));
    }
    StreamMessage header;
    header.set_kind(StreamMessage::KIND_HELLO);
    if (absl::Status sent = socket_->Send(header, Introduce(service));
        !sent.ok()) {
      return sent;
    }
    service_ = &service;
    status_ = CheckWidget();
    if (!status_.ok()) socket_->Close();  // Nothing is in progress yet.
    return status_;
  }

  // OK unless both ends are known and do not fit.
  absl::Status CheckWidget() const {
    if (service_ == nullptr || !widget_.has_value()) return absl::OkStatus();
    return CheckFit(Introduce(*service_), *widget_);
  }

  absl::Status SendRequest(std::uint64_t id, const MethodDescriptor& method,
                           const Message& request, absl::Duration timeout) {
    if (absl::Status fit = SpeakOf(*method.service()); !fit.ok()) return fit;
    if (timeout <= absl::ZeroDuration()) {
      return absl::DeadlineExceededError("the call had no time at all");
    }
    if (!request.IsInitialized()) {
      return absl::InvalidArgumentError("the request lacks required fields: " +
                                        request.InitializationErrorString());
    }
    StreamMessage header;
    header.set_kind(StreamMessage::KIND_CALL);
    header.set_stream_id(id);
    header.set_method(static_cast<std::uint32_t>(method.index()));
    return socket_->Send(header, request);
  }

  // Ends a call that the widget may still be busy with.
  void Abandon(std::uint64_t id, const absl::Status& why) {
    auto node = calls_.extract(id);
    if (node.empty()) return;
    SendCancel(id);
    End(node.mapped(), why);
  }

  // The same for the caller itself, who does not expect `done` at once.
  void Cancel(std::uint64_t id) {
    auto node = calls_.extract(id);
    if (node.empty()) return;
    SendCancel(id);
    loop_->Post([call = std::move(node.mapped())]() mutable {
      End(call, absl::CancelledError("cancelled by the caller"));
    });
  }

  void Complete(std::uint64_t id) {
    streams_.erase(id);
    StreamMessage frame;
    frame.set_kind(StreamMessage::KIND_COMPLETE);
    frame.set_stream_id(id);
    socket_->Send(frame).IgnoreError();  // Without a connection it has ended.
  }

  void SendCancel(std::uint64_t id) {
    StreamMessage frame;
    frame.set_kind(StreamMessage::KIND_CANCEL);
    frame.set_stream_id(id);
    socket_->Send(frame).IgnoreError();  // Without a connection nobody is busy.
  }

  // Whoever is told of a frame may destroy this object.
  void OnFrame(StreamMessage& frame, std::string_view payload) override {
    const std::uint64_t id = frame.stream_id();
    const bool ends_all = frame.kind() == StreamMessage::KIND_ERROR && id == 0;
    if (widget_.has_value() == (frame.kind() == StreamMessage::KIND_HELLO) &&
        !ends_all) {
      return Break(absl::UnavailableError(
          "the widget's first frame, and only that, has to be a hello"));
    }
    switch (frame.kind()) {
      case StreamMessage::KIND_REPLY:
        return EndCall(id, frame, payload);
      case StreamMessage::KIND_ERROR:
        if (ends_all) {
          return Break(absl::UnavailableError(absl::StrCat(
              "the widget ended the connection: ", frame.error_text())));
        }
        if (streams_.contains(id)) return EndStream(id, StatusOf(frame));
        return EndCall(id, frame, payload);
      case StreamMessage::KIND_NEXT:
        return Deliver(frame, payload);
      case StreamMessage::KIND_COMPLETE:
        return EndStream(id, absl::OkStatus());
      case StreamMessage::KIND_HELLO:
        return Meet(payload);
      default:
        return Break(absl::UnavailableError(
            absl::StrCat("the widget sent a frame of kind ", frame.kind())));
    }
  }

  void Meet(std::string_view payload) {
    if (!ParsePayload(payload, kMaxMessageDepth, &widget_.emplace())) {
      return Break(absl::UnavailableError("the widget's hello is no Hello"));
    }
    if (absl::Status fit = CheckWidget(); !fit.ok()) Break(fit);
  }

  void EndCall(std::uint64_t id, const StreamMessage& frame,
               std::string_view payload) {
    auto node = calls_.extract(id);
    if (node.empty()) return;  // Cancelled; the answer was on its way.
    PendingCall& call = node.mapped();
    if (frame.kind() == StreamMessage::KIND_ERROR) {
      return End(call, StatusOf(frame));
    }
    if (!ParsePayload(payload, kMaxMessageDepth, call.response)) {
      return End(call,
                 absl::InternalError(absl::StrCat(
                     "the response is no ", call.response->GetTypeName())));
    }
    End(call, absl::OkStatus());
  }

  void Deliver(const StreamMessage& frame, std::string_view payload) {
    const std::uint64_t id = frame.stream_id();
    const auto found = streams_.find(id);
    if (found == streams_.end()) return;  // Ended; this was on its way.
    const std::shared_ptr<HostStream> stream = found->second;
    const absl::Status received = stream->Receive(payload, frame.call_id());
    if (received.ok() || !stream->is_open()) return;
    Complete(id);
    stream->End(received);
  }

  void EndStream(std::uint64_t id, const absl::Status& why) {
    const auto node = streams_.extract(id);
    if (!node.empty()) node.mapped()->End(why);
  }

  void OnBroken(const absl::Status& why) override {
    Break(why.ok() ? absl::UnavailableError("the widget closed the connection")
                   : absl::UnavailableError(absl::StrCat(
                         "the connection broke: ", why.message())));
  }

  // Whoever wanted to send has been told.
  void OnFull(const absl::Status& /*why*/) override {}

  void Break(absl::Status why) {
    status_ = std::move(why);
    socket_->Close();
    EndAll(status_);
  }

  // In the order in which they were begun. Those who are told may destroy this
  // object.
  void EndAll(const absl::Status& outcome) {
    const absl::Status why = outcome;  // It may be a member.
    std::map<std::uint64_t, PendingCall> calls;
    for (auto& [id, call] : calls_) calls.emplace(id, std::move(call));
    calls_.clear();
    const std::map<std::uint64_t, std::shared_ptr<HostStream>> streams(
        streams_.begin(), streams_.end());
    streams_.clear();
    for (const auto& [id, stream] : streams) stream->Shut();
    for (auto& [id, call] : calls) End(call, why);
    for (const auto& [id, stream] : streams) stream->End(why);
  }

  static void End(PendingCall& call, const absl::Status& outcome) {
    call.deadline.reset();
    if (auto* const controller =
            dynamic_cast<ClientController*>(call.controller)) {
      controller->status_ = outcome;
      controller->cancel_ = nullptr;
    } else if (!outcome.ok()) {
      call.controller->SetFailed(std::string(outcome.message()));
    }
    call.done->Run();
  }

  EventLoop* const loop_;
  const std::shared_ptr<FrameSocket> socket_;
  absl::Status status_;
  const ServiceDescriptor* service_ = nullptr;  // Known from its first use.
  std::optional<Hello> widget_;                 // Once it has said hello.
  std::uint64_t last_id_ = 0;
  absl::flat_hash_map<std::uint64_t, PendingCall> calls_;
  absl::flat_hash_map<std::uint64_t, std::shared_ptr<HostStream>> streams_;
};

absl::StatusOr<std::unique_ptr<SocketClient>> SocketClient::Connect(
    EventLoop* loop, const std::string& path, ClientOptions options) {
  absl::StatusOr<OwnedDescriptor> descriptor = ConnectTo(path);
  if (!descriptor.ok()) return descriptor.status();
  return Adopt(loop, descriptor->Release(), options);
}

absl::StatusOr<std::unique_ptr<SocketClient>> SocketClient::Adopt(
    EventLoop* loop, int descriptor, ClientOptions options) {
  OwnedDescriptor owned(descriptor);
  if (absl::Status status = CheckPeerIsThisUser(descriptor); !status.ok())
    return status;
  FrameSocket::Socket socket(loop->io_context());
  asio::error_code error;
  socket.assign(asio::local::stream_protocol(), descriptor, error);
  if (error) return absl::InvalidArgumentError(error.message());
  owned.Release();
  return absl::WrapUnique(new SocketClient(
      std::make_unique<Impl>(loop, std::move(socket), options)));
}

SocketClient::SocketClient(std::unique_ptr<Impl> impl)
    : impl_(std::move(impl)) {}

SocketClient::~SocketClient() = default;

void SocketClient::CallMethod(const MethodDescriptor* method,
                              RpcController* controller, const Message* request,
                              Message* response, Closure* done) {
  if (done == nullptr) {
    impl_->CallAndWait(*method, controller, *request, response);
  } else {
    impl_->Call(*method, controller, *request, response, done);
  }
}

std::unique_ptr<ClientStream> SocketClient::OpenStream(
    const MethodDescriptor* method, ClientStreamHandlers handlers) {
  return impl_->Open(*method, std::move(handlers));
}

const absl::Status& SocketClient::status() const { return impl_->status(); }

}  // namespace orvane
