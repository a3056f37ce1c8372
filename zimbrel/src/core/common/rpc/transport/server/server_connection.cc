#include "zimbrel/src/core/common/rpc/transport/server/server_connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "absl/log/log.h"
#include "absl/strings/str_cat.h"
#include "google/protobuf/descriptor.h"

#include "zimbrel/src/core/common/rpc/method_kind.h"
#include "zimbrel/src/core/common/rpc/transport/server/server_call.h"
#include "zimbrel/src/core/common/rpc/transport/wire/handshake.h"

namespace orvane::internal {

using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;
using rpc::transport::ConnectionStatus;
using rpc::transport::Hello;
using rpc::transport::Limits;
using rpc::transport::StreamMessage;

namespace {

// How long a task spends on the streams of a connection that has ended. Then
// other tasks run before the next one.
constexpr std::chrono::milliseconds kClosingTime{1};

// The method with that index, if it is of that kind. The service relies on this
// check.
absl::StatusOr<const MethodDescriptor*> FindMethod(
    const ServiceDescriptor& service, std::uint32_t index, bool stream) {
  if (index >= static_cast<std::uint32_t>(service.method_count())) {
    return absl::UnimplementedError(
        absl::StrCat("no method ", index, " in ", service.full_name(),
                     ", which has ", service.method_count()));
  }
  const MethodDescriptor* const method =
      service.method(static_cast<int>(index));
  const std::optional<MethodKind> kind = KindOf(*method);
  if (kind.has_value() && (*kind != MethodKind::kUnary) == stream)
    return method;
  return absl::InvalidArgumentError(absl::StrCat(
      method->full_name(), stream ? " is not a stream and cannot be opened"
                                  : " is a stream and cannot be called"));
}

StreamMessage ErrorFrame(std::uint64_t id, const absl::Status& why) {
  StreamMessage error;
  error.set_kind(StreamMessage::KIND_ERROR);
  error.set_stream_id(id);
  error.set_error_code(static_cast<int>(why.code()));
  error.set_error_text(
      std::string(why.message().substr(0, kMaxErrorTextBytes)));
  return error;
}

// The limits in a hello are 32-bit numbers; one that is greater is sent as the
// greatest.
std::uint32_t ToUint32(std::size_t number) {
  return static_cast<std::uint32_t>(
      std::min<std::size_t>(number, std::numeric_limits<std::uint32_t>::max()));
}

// What the client is told of the limits, as they are kept.
Limits InHello(const ServerLimits& limits) {
  Limits told;
  told.set_max_frame_bytes(
      ToUint32(std::max(limits.max_frame_bytes, kMinMaxFrameBytes)));
  told.set_max_message_depth(static_cast<std::uint32_t>(
      std::clamp(limits.max_message_depth, 0, kMaxMessageDepth)));
  told.set_max_calls(ToUint32(limits.max_calls));
  told.set_max_streams(ToUint32(limits.max_streams));
  told.set_max_subscriptions(ToUint32(limits.max_subscriptions));
  told.set_max_queued_bytes(limits.max_queued_bytes);
  if (limits.max_frame_time < absl::InfiniteDuration()) {
    told.set_max_frame_ms(ToUint32(static_cast<std::size_t>(
        absl::ToInt64Milliseconds(limits.max_frame_time))));
  }
  return told;
}

// 0 if it is not known.
std::uint32_t ProcessAtTheOtherEnd(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  const bool is_known =
      ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0;
  return is_known ? static_cast<std::uint32_t>(peer.pid) : 0;
}

absl::Status ShuttingDown() {
  return absl::UnavailableError("the server is shutting down");
}

}  // namespace

ServerConnection::ServerConnection(EventLoop* loop,
                                   const std::vector<Service*>& services,
                                   const ServerLimits& limits,
                                   std::unique_ptr<ClientBudget> budget,
                                   ServerCounters* counters,
                                   OperationObserver* observer,
                                   std::unique_ptr<EventLoop::Watch> socket,
                                   absl::AnyInvocable<void() &&> on_end)
    : client_process_(ProcessAtTheOtherEnd(socket->descriptor())),
      client_(std::make_shared<ClientPresence>(loop)),
      services_(services),
      context_{.loop = loop,
               .service = nullptr,  // Until the client's hello.
               .socket = std::make_shared<FrameSocket>(
                   loop, std::move(socket),
                   FrameLimits{.max_frame_bytes = limits.max_frame_bytes,
                               .max_queued_bytes = limits.max_queued_bytes,
                               .max_frame_time = limits.max_frame_time},
                   this),
               .protocol = 0,  // Until then, too.
               .limits = limits,
               .observer = observer,
               .counters = counters,
               .budget = std::move(budget)},
      mailbox_(loop->mailbox()),
      on_end_(std::move(on_end)) {
  context_.socket->Start();
  if (limits.max_hello_time == absl::InfiniteDuration()) return;
  hello_deadline_ = loop->RunAfter(limits.max_hello_time, [this] {
    Close(absl::DeadlineExceededError(
        absl::StrCat("no hello within ",
                     absl::FormatDuration(context_.limits.max_hello_time))));
  });
}

ServerConnection::~ServerConnection() {
  UnsubscribeStreams();
  while (!streams_.empty()) EndStream(streams_.begin()->first);
  context_.socket->Close();
  // Abandoning a call may run a handler's closure, which may do anything, for
  // example answer the other calls.
  std::set<std::uint64_t> ids;
  for (const auto& [id, call] : calls_) ids.insert(id);
  for (const std::uint64_t id : ids) CancelCall(id);
}

void ServerConnection::UnsubscribeStreams() {
  for (const auto& [id, stream] : streams_) stream->UnsubscribeFromAll();
}

void ServerConnection::ShutDown() {
  is_shutting_down_ = true;
  // Code that learns of a stream's end may destroy this object.
  const std::shared_ptr<FrameSocket> socket = context_.socket;
  while (socket->is_open() && !streams_.empty())
    EndStream(streams_.begin()->first);
  if (socket->is_open()) FinishIfAllIsAnswered();
}

void ServerConnection::Refuse(std::unique_ptr<EventLoop::Watch> socket,
                              const absl::Status& why) {
  ByteBuffer frame;
  // Cannot fail: ErrorFrame makes the text short enough.
  AppendFrame(ErrorFrame(0, why), "", kMinMaxFrameBytes, &frame).IgnoreError();
  // If this fails, the client has gone and nobody would read the text.
  [[maybe_unused]] const ssize_t written =
      ::send(socket->descriptor(), frame.content().data(),
             frame.content().size(), MSG_NOSIGNAL);
}

void ServerConnection::OnFrame(StreamMessage& frame, std::string_view payload) {
  if (!has_received_hello_) return OnHello(frame, payload);
  switch (frame.kind()) {
    case StreamMessage::KIND_CALL:
      return BeginCall(frame, payload);
    case StreamMessage::KIND_CANCEL:
      return CancelCall(frame.stream_id());
    case StreamMessage::KIND_OPEN:
      return OpenStream(frame);
    case StreamMessage::KIND_NEXT:
    case StreamMessage::KIND_ERROR:
      return Deliver(frame, payload);
    case StreamMessage::KIND_COMPLETE:
      return CompleteStream(frame.stream_id());
    case StreamMessage::KIND_HELLO:
      return Close(absl::InvalidArgumentError("a second hello"));
    case StreamMessage::KIND_PING:
      return AnswerPing(*context_.socket);
    case StreamMessage::KIND_PONG:
      return;
    default:
      return Close(absl::InvalidArgumentError(absl::StrCat(
          "frame of kind ", frame.kind(), ", which a client never sends")));
  }
}

void ServerConnection::OnHello(const StreamMessage& frame,
                               std::string_view payload) {
  Hello client;
  if (frame.kind() != StreamMessage::KIND_HELLO ||
      !ParsePayload(payload, kMaxMessageDepth, &client)) {
    return Close(absl::InvalidArgumentError(
        "the first frame is not a hello that can be parsed"));
  }
  const auto chosen =
      std::find_if(services_.begin(), services_.end(), [&](Service* service) {
        return service->GetDescriptor()->full_name() == client.service();
      });
  // Without the one that it wants, the client learns which is the first.
  context_.service = chosen == services_.end() ? services_.front() : *chosen;
  Hello server = MakeHello(*context_.service->GetDescriptor());
  *server.mutable_limits() = InHello(context_.limits);
  StreamMessage header;
  header.set_kind(StreamMessage::KIND_HELLO);
  absl::Status status = context_.socket->Send(header, server);
  if (status.ok()) status = CompareHellos(client, server);
  if (!status.ok()) return Close(status);
  context_.protocol = SpokenProtocol(client, server);
  has_received_hello_ = true;
  hello_deadline_.reset();
}

void ServerConnection::Describe(ConnectionStatus* status) const {
  if (has_received_hello_)
    status->set_service(
        std::string(context_.service->GetDescriptor()->full_name()));
  status->set_process_id(client_process_);
  status->set_age_ms(MillisecondsSince(begun_));
  status->set_calls(static_cast<std::uint32_t>(calls_.size()));
  const auto oldest = std::min_element(calls_.begin(), calls_.end(),
                                       [](const auto& one, const auto& other) {
                                         return one.first < other.first;
                                       });
  if (oldest != calls_.end()) {
    status->mutable_oldest_call()->set_method(
        std::string(oldest->second->method().name()));
    status->mutable_oldest_call()->set_age_ms(
        MillisecondsSince(oldest->second->begun()));
  }
  status->set_streams(static_cast<std::uint32_t>(streams_.size()));
  std::size_t subscriptions = 0;
  for (const auto& [id, stream] : streams_)
    subscriptions += stream->subscriptions();
  status->set_subscriptions(static_cast<std::uint32_t>(subscriptions));
  status->set_queued_bytes(context_.socket->queued_bytes());
  if (const auto since = context_.socket->stalled_since(); since.has_value())
    status->set_unread_ms(MillisecondsSince(*since));
}

void ServerConnection::Watch(absl::Duration patience,
                             OnClientResponsiveness on_change) {
  watch_ = nullptr;
  if (patience == absl::InfiniteDuration()) return;
  watch_ = std::make_unique<PeerWatch>(
      context_.loop, patience,
      PeerWatch::Callbacks{
          .ask = [this] { return Ask(*context_.socket, context_.protocol); },
          .has_input = [this] { return context_.socket->HasInput(); },
          .on_change =
              [this, on_change = std::move(on_change)](bool responds) {
                ConnectionStatus client;
                Describe(&client);
                // May destroy this object, and the callable that is running.
                const OnClientResponsiveness told = on_change;
                told(client, responds);
              }});
}

bool ServerConnection::IsSilent() const {
  return !has_received_hello_ && !context_.socket->HasInput();
}

void ServerConnection::OnBroken(const absl::Status& why) { Close(why); }

void ServerConnection::OnSignOfLife() {
  if (watch_ != nullptr) watch_->Heard();
}

void ServerConnection::OnFull(const absl::Status& why) { Close(why); }

bool ServerConnection::AcceptId(std::uint64_t id) {
  if (id > last_id_) {
    last_id_ = id;
    return true;
  }
  Close(absl::InvalidArgumentError(
      absl::StrCat("stream id ", id, " after ", last_id_,
                   "; each must be greater than the last")));
  return false;
}

void ServerConnection::BeginCall(const StreamMessage& frame,
                                 std::string_view payload) {
  const std::uint64_t id = frame.stream_id();
  if (!AcceptId(id)) return;
  if (is_shutting_down_) return SendError(id, ShuttingDown());
  const absl::StatusOr<const MethodDescriptor*> found = FindMethod(
      *context_.service->GetDescriptor(), frame.method(), /*stream=*/false);
  if (!found.ok()) return SendError(id, found.status());
  const MethodDescriptor* const method = *found;
  std::unique_ptr<ObservedOperation> observed = ObservedOperation::Begin(
      context_.observer, {OperationKind::kCall, method}, payload.size());
  if (absl::Status taken = TakeCall(payload.size()); !taken.ok()) {
    if (observed != nullptr) observed->End(taken.code(), 0);
    return SendError(id, taken);
  }

  auto call = std::make_unique<ServerCall>(
      id, this, method, context_.loop, mailbox_, context_.budget,
      payload.size(), context_.service->GetRequestPrototype(method),
      context_.service->GetResponsePrototype(method));
  if (!ParsePayload(payload, context_.limits.max_message_depth,
                    &call->request())) {
    context_.budget->GiveBack(Held::kCalls);
    context_.budget->GiveBack(Held::kRequestBytes, payload.size());
    if (observed != nullptr)
      observed->End(absl::StatusCode::kInvalidArgument, 0);
    return SendError(id, absl::InvalidArgumentError(absl::StrCat(
                             "the request cannot be parsed as ",
                             method->input_type()->full_name(),
                             " (malformed, or nested deeper than ",
                             context_.limits.max_message_depth, " levels)")));
  }
  call->Observe(std::move(observed));
  calls_.emplace(id, call.get());
  ServerCall* const handed_over = call.release();
  context_.service->CallMethod(method, handed_over, &handed_over->request(),
                               &handed_over->response(), handed_over);
  // The handler may have destroyed this object.
}

absl::Status ServerConnection::TakeCall(std::size_t request_bytes) {
  absl::Status taken = context_.budget->Take(Held::kCalls);
  if (!taken.ok()) return taken;
  taken = context_.budget->Take(Held::kRequestBytes, request_bytes);
  if (!taken.ok()) context_.budget->GiveBack(Held::kCalls);
  return taken;
}

void ServerConnection::Finish(ServerCall& call) {
  calls_.erase(call.id());
  absl::Status outcome = call.outcome();
  if (outcome.ok()) {
    StreamMessage header;
    header.set_kind(StreamMessage::KIND_REPLY);
    header.set_stream_id(call.id());
    outcome = context_.socket->Send(header, call.response());
  }
  call.EndObserved(outcome.code());
  if (!outcome.ok()) SendError(call.id(), outcome);
  FinishIfAllIsAnswered();
}

void ServerConnection::FinishIfAllIsAnswered() {
  if (is_shutting_down_ && calls_.empty()) context_.socket->FinishWriting();
}

void ServerConnection::CancelCall(std::uint64_t id) {
  const auto node = calls_.extract(id);
  if (node.empty()) return;
  FinishIfAllIsAnswered();
  node.mapped()->Abandon();
}

void ServerConnection::OpenStream(const StreamMessage& frame) {
  const std::uint64_t id = frame.stream_id();
  if (!AcceptId(id)) return;
  if (is_shutting_down_) return SendError(id, ShuttingDown());
  const absl::StatusOr<const MethodDescriptor*> found = FindMethod(
      *context_.service->GetDescriptor(), frame.method(), /*stream=*/true);
  if (!found.ok()) return SendError(id, found.status());
  if (absl::Status taken = context_.budget->Take(Held::kStreams); !taken.ok())
    return SendError(id, taken);
  context_.Count(Done::kOpenStream);
  streams_.emplace(id, std::make_unique<ServerStream>(&context_, *found, id));
}

void ServerConnection::Deliver(StreamMessage& frame, std::string_view payload) {
  // Read before delivery, since the stream may change the frame.
  const std::uint64_t id = frame.stream_id();
  const auto stream = streams_.find(id);
  if (stream == streams_.end()) return RefuseFrame(id);
  frame.mutable_payload()->assign(payload);
  const absl::Status delivered = frame.kind() == StreamMessage::KIND_NEXT
                                     ? stream->second->Next(frame)
                                     : stream->second->Error(frame);
  if (delivered.ok()) return;
  SendError(id, delivered);
  EndStream(id);
}

void ServerConnection::CompleteStream(std::uint64_t id) {
  if (!EndStream(id)) RefuseFrame(id);
}

void ServerConnection::RefuseFrame(std::uint64_t id) {
  // An error on stream 0 would tell the client that the connection has ended.
  if (id == 0) {
    return Close(absl::InvalidArgumentError(
        "a frame for stream 0, which is the connection itself"));
  }
  SendError(id,
            absl::NotFoundError(absl::StrCat("stream ", id, " is not open")));
}

bool ServerConnection::EndStream(std::uint64_t id) {
  // Removed from the table first, since code that learns of the stream's end
  // may use the connection.
  const auto stream = streams_.extract(id);
  if (stream.empty()) return false;
  context_.budget->GiveBack(Held::kStreams);
  return true;
}

void ServerConnection::SendError(std::uint64_t id, const absl::Status& why) {
  // Fails only if the connection has ended, or is about to.
  context_.socket->Send(ErrorFrame(id, why)).IgnoreError();
}

void ServerConnection::Close(const absl::Status& why) {
  if (!why.ok()) {
    context_.counters->Refuse(why);
    LOG_EVERY_N_SEC(WARNING, 1)
        << "a client was disconnected: " << why.message();
    SendError(0, why);
  }
  context_.socket->Close();
  hello_deadline_.reset();
  watch_ = nullptr;
  FinishClosing();
}

void ServerConnection::FinishClosing() {
  const auto begun = std::chrono::steady_clock::now();
  while (!streams_.empty()) {
    if (std::chrono::steady_clock::now() - begun >= kClosingTime) {
      next_end_ = context_.loop->RunAfter(absl::ZeroDuration(),
                                          [this] { FinishClosing(); });
      return;
    }
    // Code that learns of a stream's end may destroy this object.
    const std::weak_ptr<char> alive = alive_;
    EndStream(streams_.begin()->first);
    if (alive.expired()) return;
  }
  // Moved out of this object before it runs, since it destroys this object.
  auto on_end = std::move(on_end_);
  std::move(on_end)();
}

}  // namespace orvane::internal
