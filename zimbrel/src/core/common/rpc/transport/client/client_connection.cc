#include "zimbrel/src/core/common/rpc/transport/client/client_connection.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <utility>

#include "absl/strings/str_cat.h"

#include "zimbrel/src/core/common/rpc/transport/client/client_call.h"
#include "zimbrel/src/core/common/rpc/transport/client/client_stream_state.h"
#include "zimbrel/src/core/common/rpc/transport/frame_limits.h"
#include "zimbrel/src/core/common/rpc/transport/wire/framing.h"
#include "zimbrel/src/core/common/rpc/transport/wire/handshake.h"

namespace orvane::internal {

using google::protobuf::Message;
using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;
using rpc::transport::Limits;
using rpc::transport::StreamMessage;

namespace {

absl::Status ErrorOf(const StreamMessage& frame) {
  const auto code = static_cast<absl::StatusCode>(frame.error_code());
  if (code == absl::StatusCode::kOk)
    return absl::UnknownError(frame.error_text());
  return {code, frame.error_text()};
}

}  // namespace

class ClientConnection::CallbackScope {
 public:
  explicit CallbackScope(std::shared_ptr<Callbacks> callbacks)
      : callbacks_(std::move(callbacks)) {
    ++callbacks_->running;
  }
  CallbackScope(const CallbackScope&) = delete;
  CallbackScope& operator=(const CallbackScope&) = delete;
  ~CallbackScope() { --callbacks_->running; }

  bool connection_is_gone() const { return callbacks_->connection_is_gone; }

 private:
  const std::shared_ptr<Callbacks> callbacks_;
};

ClientConnection::ClientConnection(EventLoop* loop,
                                   std::unique_ptr<EventLoop::Watch> socket,
                                   const FrameLimits& limits,
                                   OperationObserver* observer)
    : loop_(loop),
      observer_(observer),
      socket_(std::make_shared<FrameSocket>(loop, std::move(socket), limits,
                                            this)) {
  socket_->Start();
}

ClientConnection::~ClientConnection() {
  loop_->CheckServiceThread("~SocketClient");
  socket_->Close();
  // Also that of calls which begin in the callbacks that are run here.
  status_ = absl::CancelledError("the client was destroyed");
  QueueEnds(status_);
  while (!ends_.empty()) RunEnds();
  callbacks_->connection_is_gone = true;
}

// Calls -----------------------------------------------------------------------

void ClientConnection::BeginCall(const MethodDescriptor& method,
                                 const Message& request,
                                 std::shared_ptr<ClientCall> call,
                                 absl::Duration timeout) {
  loop_->CheckServiceThread(method.full_name());
  Observe(method, request, *call);
  const std::uint64_t id = ++last_id_;
  absl::Status sent = SendRequest(id, method, request, timeout);
  if (sent.ok()) return ListCall(id, method, std::move(call), timeout);
  EndSoon([call = std::move(call), sent = std::move(sent)]() mutable {
    call->End(std::move(sent));
  });
}

void ClientConnection::BeginCallAndWait(const MethodDescriptor& method,
                                        const Message& request,
                                        const std::shared_ptr<ClientCall>& call,
                                        absl::Duration timeout) {
  loop_->CheckServiceThread(method.full_name());
  Observe(method, request, *call);
  if (IsInsideACallback()) {
    return call->End(absl::FailedPreconditionError(
        "a blocking call inside a callback of the same client"));
  }
  const std::uint64_t id = ++last_id_;
  if (absl::Status sent = SendRequest(id, method, request, timeout); !sent.ok())
    return call->End(std::move(sent));
  ListCall(id, method, call, timeout);
  socket_->Flush();
  if (loop_->RunUntil([&call] { return call->has_ended(); })) return;
  AbandonCall(id, absl::CancelledError("the loop was stopped"));
}

void ClientConnection::ListCall(std::uint64_t id,
                                const MethodDescriptor& method,
                                std::shared_ptr<ClientCall> call,
                                absl::Duration timeout) {
  std::unique_ptr<EventLoop::Timer> deadline;
  if (timeout < absl::InfiniteDuration()) {
    deadline = loop_->RunAfter(timeout, [this, id, timeout] {
      AbandonCall(id, absl::DeadlineExceededError(absl::StrCat(
                          "no answer within ", absl::FormatDuration(timeout))));
    });
  }
  call->Attach(this, id, &method, std::move(deadline));
  calls_.emplace(id, std::move(call));
}

void ClientConnection::Observe(const MethodDescriptor& method,
                               const Message& request, ClientCall& call) const {
  if (observer_ == nullptr) return;
  call.Observe(ObservedOperation::Begin(
      observer_, {OperationKind::kCall, &method}, request.ByteSizeLong()));
}

absl::Status ClientConnection::SendRequest(std::uint64_t id,
                                           const MethodDescriptor& method,
                                           const Message& request,
                                           absl::Duration timeout) {
  if (absl::Status bound = BindTo(*method.service()); !bound.ok()) return bound;
  if (timeout <= absl::ZeroDuration()) {
    return absl::DeadlineExceededError("the call's timeout is not above 0");
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

void ClientConnection::EndCall(const StreamMessage& frame,
                               std::string_view payload) {
  const std::shared_ptr<ClientCall> call = TakeCall(frame.stream_id());
  if (call == nullptr) return;  // Cancelled while the answer was on its way.
  if (frame.kind() == StreamMessage::KIND_ERROR)
    return call->End(ErrorOf(frame));
  call->Receive(payload);
}

void ClientConnection::AbandonCall(std::uint64_t id, const absl::Status& why) {
  const std::shared_ptr<ClientCall> call = TakeCall(id);
  if (call == nullptr) return;
  SendEnd(StreamMessage::KIND_CANCEL, id);
  const CallbackScope scope(callbacks_);
  call->End(why);
}

void ClientConnection::CancelCall(std::uint64_t id) {
  loop_->CheckServiceThread("CallHandle::Cancel");
  std::shared_ptr<ClientCall> call = TakeCall(id);
  if (call == nullptr) return;
  SendEnd(StreamMessage::KIND_CANCEL, id);
  EndSoon([call = std::move(call)] {
    call->End(absl::CancelledError("cancelled by the caller"));
  });
}

std::shared_ptr<ClientCall> ClientConnection::TakeCall(std::uint64_t id) {
  auto node = calls_.extract(id);
  if (node.empty()) return nullptr;
  node.mapped()->Detach();
  return std::move(node.mapped());
}

// Streams ---------------------------------------------------------------------

std::unique_ptr<ClientStream> ClientConnection::OpenStream(
    const MethodDescriptor& method, ClientStreamHandlers handlers) {
  loop_->CheckServiceThread(method.full_name());
  const std::uint64_t id = ++last_id_;
  const auto stream = std::make_shared<ClientStreamState>(
      loop_, id, method, observer_, socket_, std::move(handlers));
  StreamMessage frame;
  frame.set_kind(StreamMessage::KIND_OPEN);
  frame.set_stream_id(id);
  frame.set_method(static_cast<std::uint32_t>(method.index()));
  absl::Status sent = BindTo(*method.service());
  if (sent.ok()) sent = socket_->Send(frame);
  if (sent.ok()) {
    streams_.emplace(id, stream);
  } else {
    stream->Shut();
    EndSoon([stream, sent] { stream->End(sent); });
  }
  return std::make_unique<ClientStream>(stream, [this, id, stream] {
    // While the stream is open, the connection exists; later it may be gone.
    stream->CheckServiceThread("~ClientStream");
    if (stream->is_open()) CompleteStream(id);
    stream->Close();
  });
}

void ClientConnection::Deliver(const StreamMessage& frame,
                               std::string_view payload) {
  const std::uint64_t id = frame.stream_id();
  const auto found = streams_.find(id);
  if (found == streams_.end()) return;  // Ended while this was on its way.
  const std::shared_ptr<ClientStreamState> stream = found->second;
  const absl::Status received = stream->Receive(payload, frame.call_id());
  // If the handler closed the stream, it may have destroyed this object too.
  if (received.ok() || !stream->is_open()) return;
  CompleteStream(id);
  stream->End(received);
}

void ClientConnection::GiveUpServedCall(const StreamMessage& frame) {
  const auto found = streams_.find(frame.stream_id());
  if (found == streams_.end()) return;  // Ended while this was on its way.
  const std::shared_ptr<ClientStreamState> stream = found->second;
  stream->GiveUpCall(frame.call_id());
}

void ClientConnection::EndStream(std::uint64_t id, const absl::Status& why) {
  const auto node = streams_.extract(id);
  if (!node.empty()) node.mapped()->End(why);
}

void ClientConnection::CompleteStream(std::uint64_t id) {
  streams_.erase(id);
  SendEnd(StreamMessage::KIND_COMPLETE, id);
}

void ClientConnection::SendEnd(StreamMessage::Kind kind, std::uint64_t id) {
  StreamMessage frame;
  frame.set_kind(kind);
  frame.set_stream_id(id);
  socket_->SendEnd(frame).IgnoreError();
}

// Whether the server is there -------------------------------------------------

void ClientConnection::WatchServer(absl::Duration patience,
                                   OnResponsiveness on_change) {
  loop_->CheckServiceThread("SocketClient::WatchServer");
  watch_ = nullptr;
  if (patience == absl::InfiniteDuration() || !status_.ok()) return;
  watch_ = std::make_unique<PeerWatch>(
      loop_, patience,
      PeerWatch::Callbacks{
          .ask = [this] { return AskWhetherItIsThere(); },
          .has_input = [this] { return socket_->HasInput(); },
          .on_change =
              [this, told = std::make_shared<OnResponsiveness>(
                         std::move(on_change))](bool responds) {
                // The callback may replace the watch, and destroy this object.
                const auto kept = told;
                const CallbackScope scope(callbacks_);
                (*kept)(Describe(responds));
              }});
}

bool ClientConnection::AskWhetherItIsThere() {
  if (service_ == nullptr) return false;
  // Our hello has to be answered, too.
  if (!server_hello_.has_value()) return true;
  return Ask(*socket_, server_hello_->newest_protocol());
}

Responsiveness ClientConnection::Describe(bool responds) const {
  Responsiveness described;
  described.responds = responds;
  const auto oldest = std::min_element(calls_.begin(), calls_.end(),
                                       [](const auto& one, const auto& other) {
                                         return one.first < other.first;
                                       });
  if (oldest != calls_.end()) {
    described.oldest_call = oldest->second->method();
    described.oldest_call_age =
        absl::Milliseconds(MillisecondsSince(oldest->second->begun()));
  }
  return described;
}

// The connection --------------------------------------------------------------

const absl::Status& ClientConnection::status() const {
  loop_->CheckServiceThread("SocketClient::status");
  return status_;
}

absl::Status ClientConnection::BindTo(const ServiceDescriptor& service) {
  if (!status_.ok() || service_ == &service) return status_;
  if (service_ != nullptr) {
    return absl::InvalidArgumentError(
        absl::StrCat("the connection is for ", service_->full_name(),
                     " and cannot be used for ", service.full_name()));
  }
  StreamMessage header;
  header.set_kind(StreamMessage::KIND_HELLO);
  if (absl::Status sent = socket_->Send(header, MakeHello(service));
      !sent.ok()) {
    return sent;
  }
  service_ = &service;
  status_ = CompareHellos();
  if (!status_.ok()) socket_->Close();  // Nothing is in progress yet.
  return status_;
}

void ClientConnection::OnHello(std::string_view payload) {
  if (!ParsePayload(payload, kMaxMessageDepth, &server_hello_.emplace())) {
    return Close(absl::UnavailableError("the server's hello cannot be parsed"));
  }
  server_hello_->DiscardUnknownFields();  // They would be kept for nothing.
  if (absl::Status fit = CompareHellos(); !fit.ok()) return Close(fit);
  // A longer frame would end the connection; this way it fails alone.
  if (server_limits().has_max_frame_bytes()) {
    socket_->ReduceMaxSentFrameBytes(std::max<std::size_t>(
        server_limits().max_frame_bytes(), kMinMaxFrameBytes));
  }
}

const Limits& ClientConnection::server_limits() const {
  loop_->CheckServiceThread("SocketClient::server_limits");
  return server_hello_.has_value() ? server_hello_->limits()
                                   : Limits::default_instance();
}

absl::Status ClientConnection::CompareHellos() const {
  if (service_ == nullptr || !server_hello_.has_value())
    return absl::OkStatus();
  return internal::CompareHellos(MakeHello(*service_), *server_hello_);
}

// A callback may destroy this object.
void ClientConnection::OnFrame(StreamMessage& frame, std::string_view payload) {
  const std::uint64_t id = frame.stream_id();
  const bool ends_all = frame.kind() == StreamMessage::KIND_ERROR && id == 0;
  if (ends_all) {
    return Close(absl::UnavailableError(
        absl::StrCat("the server ended the connection: ", frame.error_text())));
  }
  const bool is_hello = frame.kind() == StreamMessage::KIND_HELLO;
  if (is_hello == server_hello_.has_value()) {
    return Close(absl::UnavailableError(
        "the server's first frame, and no other, must be a hello"));
  }
  switch (frame.kind()) {
    case StreamMessage::KIND_HELLO:
      return OnHello(payload);
    case StreamMessage::KIND_REPLY:
      return EndCall(frame, payload);
    case StreamMessage::KIND_NEXT:
      return Deliver(frame, payload);
    case StreamMessage::KIND_CANCEL:
      return GiveUpServedCall(frame);
    case StreamMessage::KIND_COMPLETE:
      return EndStream(id, absl::OkStatus());
    case StreamMessage::KIND_ERROR:
      if (streams_.contains(id)) return EndStream(id, ErrorOf(frame));
      return EndCall(frame, payload);
    case StreamMessage::KIND_PING:
      return AnswerPing(*socket_);
    case StreamMessage::KIND_PONG:
      return;
    default:
      return Close(absl::UnavailableError(
          absl::StrCat("the server sent a frame of kind ", frame.kind(),
                       ", which a server never sends")));
  }
}

void ClientConnection::OnBroken(const absl::Status& why) {
  Close(why.ok() ? absl::UnavailableError("the server closed the connection")
                 : absl::UnavailableError(
                       absl::StrCat("the connection broke: ", why.message())));
}

void ClientConnection::OnSignOfLife() {
  if (watch_ != nullptr) watch_->Heard();
}

// The caller that wanted to send has received the error.
void ClientConnection::OnFull(const absl::Status& /*why*/) {}

void ClientConnection::Close(absl::Status why) {
  watch_ = nullptr;
  status_ = std::move(why);
  socket_->Close();
  QueueEnds(status_);
  RunEnds();
}

// Ends ------------------------------------------------------------------------

bool ClientConnection::IsInsideACallback() const {
  return socket_->in_batch() || callbacks_->running > 0;
}

void ClientConnection::QueueEnds(const absl::Status& why) {
  const std::map<std::uint64_t, std::shared_ptr<ClientCall>> calls(
      calls_.begin(), calls_.end());
  calls_.clear();
  const std::map<std::uint64_t, std::shared_ptr<ClientStreamState>> streams(
      streams_.begin(), streams_.end());
  streams_.clear();
  for (const auto& [id, call] : calls) {
    call->Detach();
    ends_.emplace_back([call = call, why] { call->End(why); });
  }
  for (const auto& [id, stream] : streams) {
    stream->Shut();
    ends_.emplace_back([stream = stream, why] { stream->End(why); });
  }
}

void ClientConnection::EndSoon(Task end) {
  ends_.push_back(std::move(end));
  if (run_ends_ != nullptr) return;
  run_ends_ = loop_->RunAfter(absl::ZeroDuration(), [this] {
    run_ends_.reset();
    RunEnds();
  });
}

void ClientConnection::RunEnds() {
  const CallbackScope scope(callbacks_);
  // Ends that are queued meanwhile run in a later task, since a continuation
  // may try again after each failure.
  for (std::size_t left = ends_.size(); left > 0 && !ends_.empty(); --left) {
    {
      Task end = std::move(ends_.front());
      ends_.pop_front();
      std::move(end)();
      // Destroyed before this object is used again, which it may own.
    }
    if (scope.connection_is_gone()) return;
  }
}

}  // namespace orvane::internal
