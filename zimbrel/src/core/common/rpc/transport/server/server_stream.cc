#include "zimbrel/src/core/common/rpc/transport/server/server_stream.h"

#include <map>
#include <utility>

#include "absl/strings/str_cat.h"

#include "rpc/stream_options.pb.h"
#include "zimbrel/src/core/common/rpc/transport/wire/handshake.h"

namespace orvane::internal {

using google::protobuf::Descriptor;
using google::protobuf::Message;
using google::protobuf::MethodDescriptor;
using rpc::transport::StreamMessage;

namespace {

class Endpoint final : public StreamEndpoint {
 public:
  Endpoint(StreamContext* context, const MethodDescriptor& method,
           std::uint64_t id, ObservedCallbacks* observed)
      : context_(context),
        method_(method),
        observed_(observed),
        keeps_latest_(method.options().GetExtension(rpc::slow_host) ==
                      rpc::SLOW_HOST_KEEP_LATEST) {
    header_.set_stream_id(id);
  }

  absl::Status Send(const StreamMessage& frame) override {
    absl::Status sent = socket().Send(NextHeader(frame), frame.payload());
    if (observed_ != nullptr && sent.ok())
      observed_->Begin(frame.call_id(), frame.payload());
    return sent;
  }

  absl::Status SendEvent(const StreamMessage& frame,
                         const Message& key) override {
    absl::Status sent = keeps_latest_ ? SendLatest(frame, key) : Send(frame);
    ObserveEvent(context_->observer, &method_, sent.code(),
                 frame.payload().size());
    return sent;
  }

  void CancelCall(std::int64_t call_id) override {
    if (observed_ != nullptr) observed_->GiveUp(call_id);
    if (context_->protocol < kSecondProtocol) return;
    header_.set_kind(StreamMessage::KIND_CANCEL);
    header_.set_call_id(call_id);
    socket().Send(header_).IgnoreError();  // Fails if the client has gone.
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

  absl::Status SendLatest(const StreamMessage& frame, const Message& key) {
    const absl::StatusOr<Outbox::Placed> placed =
        socket().SendLatest(NextHeader(frame), frame.payload(), [&] {
          return Outbox::Slot{header_.stream_id(), key.SerializeAsString()};
        });
    if (!placed.ok()) return placed.status();
    if (*placed == Outbox::Placed::kInsteadOfAnother)
      ++context_->counters->replaced_events;
    return absl::OkStatus();
  }

  const StreamMessage& NextHeader(const StreamMessage& frame) {
    header_.set_kind(StreamMessage::KIND_NEXT);
    header_.set_call_id(frame.call_id());
    return header_;
  }

  StreamContext* const context_;
  const MethodDescriptor& method_;
  ObservedCallbacks* const observed_;  // May be null.
  const bool keeps_latest_;
  StreamMessage header_;
};

// Which callback stream serves a key, by the type of the stream's messages and
// by key. The streams' own registries know that too, but can be read only where
// the types are known. Like them, there is one for the process.
using ServingStreams =
    std::map<std::pair<const Descriptor*, std::string>, const ServerStream*>;

ServingStreams& AllServingStreams() {
  static auto& streams = *new ServingStreams;
  return streams;
}

}  // namespace

ServerStream::ServerStream(StreamContext* context,
                           const MethodDescriptor* method, std::uint64_t id)
    : context_(context),
      observed_(
          ObservedCallbacks::Of(context->observer, *method,
                                context->service->GetRequestPrototype(method))),
      stream_(context->service->OpenStream(
          method, StreamChannel(std::make_unique<Endpoint>(context, *method, id,
                                                           observed_.get())))),
      request_(*method, context->service->GetRequestPrototype(method)) {}

ServerStream::~ServerStream() {
  UnsubscribeFromAll();
  stream_->OnCompleted();
}

void ServerStream::UnsubscribeFromAll() {
  for (const std::string& key : std::exchange(keys_, {})) {
    context_->budget->GiveBack(Held::kSubscriptions);
    if (!request_.is_event()) {
      // Another stream may serve it by now, and goes on.
      const auto serving = AllServingStreams().find({Type(), key});
      if (serving == AllServingStreams().end() || serving->second != this)
        continue;
      AllServingStreams().erase(serving);
    }
    Pass(StreamRequest::Action::kUnsubscribe, key);
  }
}

absl::Status ServerStream::Next(StreamMessage& frame) {
  if (absl::Status read = Read(frame); !read.ok()) return read;
  const StreamRequest::Action action = request_.action();
  if (action == StreamRequest::Action::kAnswer) {
    if (MayConcernCall(frame)) {
      EndObservedCall(frame, absl::StatusCode::kOk);
      stream_->OnNext(&frame);
      LetContinuationsRun();
    }
    return absl::OkStatus();
  }
  if (action == StreamRequest::Action::kNone) {
    return absl::InvalidArgumentError(
        request_.is_event()
            ? "an EventSubscription that neither subscribes nor unsubscribes"
            : absl::StrCat("a ", Type()->full_name(),
                           " that neither subscribes nor responds"));
  }
  request_.DiscardUnknownInKey();
  const std::string key = request_.key();
  if (action == StreamRequest::Action::kSubscribe) return Subscribe(key);
  Unsubscribe(key);
  return absl::OkStatus();
}

absl::Status ServerStream::Error(StreamMessage& frame) {
  if (request_.is_event()) {
    return absl::InvalidArgumentError(
        "an error on an event stream, which has no calls");
  }
  if (absl::Status read = Read(frame); !read.ok()) return read;
  if (MayConcernCall(frame)) {
    EndObservedCall(frame, absl::StatusCode::kUnknown);
    stream_->OnError(&frame);
    LetContinuationsRun();
  }
  return absl::OkStatus();
}

absl::Status ServerStream::Read(const StreamMessage& frame) {
  const int max_depth = context_->limits.max_message_depth;
  if (request_.Parse(frame.payload(), max_depth)) return absl::OkStatus();
  return absl::InvalidArgumentError(absl::StrCat(
      "the payload cannot be parsed as ", Type()->full_name(),
      " (malformed, or nested deeper than ", max_depth, " levels)"));
}

absl::Status ServerStream::Subscribe(const std::string& key) {
  if (key.size() > context_->limits.max_key_bytes) {
    return absl::ResourceExhaustedError(
        absl::StrCat("key of ", key.size(), " bytes; the limit is ",
                     context_->limits.max_key_bytes));
  }
  const bool is_new = !keys_.contains(key);
  if (is_new) {
    if (absl::Status taken = TakeSubscription(); !taken.ok()) return taken;
    keys_.insert(key);
  }
  if (request_.is_event()) {
    if (!is_new) return absl::OkStatus();
  } else {
    const ServerStream*& serving = AllServingStreams()[{Type(), key}];
    if (serving == this) return absl::OkStatus();
    if (serving != nullptr) context_->Count(Done::kTakeOver);
    serving = this;
  }
  context_->Count(Done::kSubscribe);
  Pass(StreamRequest::Action::kSubscribe, key);
  return absl::OkStatus();
}

absl::Status ServerStream::TakeSubscription() {
  ClientBudget& budget = *context_->budget;
  absl::Status taken = budget.Take(Held::kSubscriptions);
  if (!taken.ok() || !request_.is_event()) return taken;
  taken = budget.Take(Held::kLifetimeSubscriptions);
  if (!taken.ok()) budget.GiveBack(Held::kSubscriptions);
  return taken;
}

void ServerStream::Unsubscribe(const std::string& key) {
  const bool was_subscribed = keys_.erase(key) > 0;
  if (was_subscribed) context_->budget->GiveBack(Held::kSubscriptions);
  // Any callback stream may unsubscribe a key, whichever serves it.
  const bool was_served =
      !request_.is_event() && AllServingStreams().erase({Type(), key}) > 0;
  if (was_subscribed || was_served)
    Pass(StreamRequest::Action::kUnsubscribe, key);
}

void ServerStream::Pass(StreamRequest::Action action, const std::string& key) {
  if (observed_ != nullptr && action == StreamRequest::Action::kUnsubscribe)
    observed_->GiveUpAll(key);
  request_.Make(action, key);
  StreamMessage frame;
  frame.set_payload(request_.message().SerializeAsString());
  stream_->OnNext(&frame);
}

void ServerStream::EndObservedCall(const StreamMessage& frame,
                                   absl::StatusCode code) {
  if (observed_ == nullptr) return;
  observed_->End(frame.call_id(), request_.key(), code, frame.payload().size());
}

// A continuation is a task of its own. It runs before what the client has sent
// behind its answer, such as a click behind the choice from a list.
void ServerStream::LetContinuationsRun() { context_->socket->Yield(); }

// A call waits only under a key that the client has subscribed to and not
// unsubscribed from since.
bool ServerStream::MayConcernCall(StreamMessage& frame) {
  if (keys_.contains(request_.key())) return true;
  request_.DiscardUnknownInKey();
  if (!keys_.contains(request_.key())) return false;
  frame.set_payload(request_.message().SerializeAsString());
  return true;
}

const Descriptor* ServerStream::Type() const {
  return request_.message().GetDescriptor();
}

}  // namespace orvane::internal
