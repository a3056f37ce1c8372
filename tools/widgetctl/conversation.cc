#include "tools/widgetctl/conversation.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "absl/status/statusor.h"

#include "rpc/browser/browser_id.pb.h"
#include "tools/widgetctl/json.h"
#include "zimbrel/src/core/common/rpc/method_kind.h"

namespace widgetctl {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;
using orvane::MethodKind;
using rpc::transport::StreamMessage;

// Four times what a server takes by default. What is longer is passed on, but
// not kept to be read.
constexpr std::size_t kMaxFrameBytes = std::size_t{16} << 20;

// The submessage of a field, or null if it is not set.
const Message* Member(const Message& message, const char* name) {
  const FieldDescriptor* const field =
      message.GetDescriptor()->FindFieldByName(name);
  if (field == nullptr || field->message_type() == nullptr ||
      field->is_repeated() ||
      !message.GetReflection()->HasField(message, field)) {
    return nullptr;
  }
  return &message.GetReflection()->GetMessage(message, field);
}

// Nothing if the message is about no browser.
std::optional<std::uint64_t> BrowserOf(const Message& message) {
  if (message.GetDescriptor() == BrowserId::descriptor())
    return static_cast<const BrowserId&>(message).value();
  const Message* const browser = Member(message, orvane::kKeyField);
  if (browser == nullptr || browser->GetDescriptor() != BrowserId::descriptor())
    return std::nullopt;
  return static_cast<const BrowserId&>(*browser).value();
}

std::unique_ptr<Message> CopyOf(const Message& message) {
  std::unique_ptr<Message> copy(message.New());
  copy->CopyFrom(message);
  return copy;
}

// Null if it cannot be parsed.
std::unique_ptr<Message> Parse(const Descriptor* type,
                               absl::string_view payload) {
  std::unique_ptr<Message> message = NewMessage(type);
  if (!orvane::internal::ParsePayload({payload.data(), payload.size()},
                                      orvane::kMaxMessageDepth, message.get()))
    return nullptr;
  return message;
}

bool IsUnary(const MethodDescriptor* method) {
  return method != nullptr && orvane::KindOf(*method) == MethodKind::kUnary;
}

const MethodDescriptor* MethodAt(const ServiceDescriptor* service,
                                 std::uint32_t index) {
  if (service == nullptr ||
      index >= static_cast<std::uint32_t>(service->method_count()))
    return nullptr;
  return service->method(static_cast<int>(index));
}

}  // namespace

Conversation::Conversation(std::vector<const ServiceDescriptor*> services,
                           bool wants_payloads)
    : services_(std::move(services)), wants_payloads_(wants_payloads) {
  for (Direction* const direction : {&from_host_, &from_widget_}) {
    direction->reader =
        std::make_unique<orvane::internal::FrameReader>(kMaxFrameBytes);
  }
}

void Conversation::Take(Side from, absl::string_view bytes, absl::Time now,
                        absl::FunctionRef<void(Said)> on_said) {
  Direction& direction = from == Side::kHost ? from_host_ : from_widget_;
  while (!bytes.empty() && direction.reader != nullptr) {
    char* const space = direction.reader->Space();
    const std::size_t taken = std::min(direction.reader->room(), bytes.size());
    std::memcpy(space, bytes.data(), taken);
    direction.reader->Received(taken);
    bytes.remove_prefix(taken);
    while (true) {
      const absl::StatusOr<std::optional<std::string_view>> frame =
          direction.reader->Next();
      std::string_view payload;
      if (!frame.ok() ||
          (frame->has_value() && !orvane::internal::ParseFrame(
                                     **frame, &direction.frame, &payload))) {
        direction.reader.reset();
        on_said({.from = from,
                 .what = "unreadable",
                 .error = frame.ok() ? "the frame cannot be parsed"
                                     : std::string(frame.status().message())});
        return;
      }
      if (!frame->has_value()) break;
      on_said(Explain(from, direction.frame,
                      absl::string_view(payload.data(), payload.size()), now));
    }
  }
}

Said Conversation::Explain(Side from, const StreamMessage& frame,
                           absl::string_view payload, absl::Time now) {
  Said said = {.from = from, .what = "frame", .stream = frame.stream_id()};
  if (frame.call_id() != 0) said.call = frame.call_id();
  if (const auto stream = streams_.find(said.stream);
      stream != streams_.end()) {
    said.method = stream->second.method;
  }
  switch (frame.kind()) {
    case StreamMessage::KIND_HELLO:
      said.what = "hello";
      ExplainHello(payload, said);
      break;
    case StreamMessage::KIND_CALL:
      said.what = "call";
      Begin(frame, payload, now, said);
      break;
    case StreamMessage::KIND_OPEN:
      said.what = "open";
      Begin(frame, {}, now, said);
      break;
    case StreamMessage::KIND_NEXT:
      // A host may send one for a unary call, which has no messages.
      if (said.method != nullptr && !IsUnary(said.method))
        ExplainNext(payload, now, streams_.at(said.stream), said);
      break;
    case StreamMessage::KIND_REPLY:
      said.what = "reply";
      if (said.method != nullptr)
        Read(said.method->output_type(), payload, said);
      ExplainEnd(now, said);
      break;
    case StreamMessage::KIND_ERROR:
      said.what = "error";
      said.error_code = frame.error_code();
      said.error = std::string(frame.error_text());
      // Of a call that a host fails, the payload tells the browser.
      if (said.call.has_value() && said.method != nullptr) {
        if (const auto message = Parse(said.method->input_type(), payload))
          said.browser = BrowserOf(*message);
      }
      ExplainEnd(now, said);
      break;
    case StreamMessage::KIND_CANCEL:
      said.what = "cancel";
      ExplainEnd(now, said);
      break;
    case StreamMessage::KIND_COMPLETE:
      said.what = "complete";
      // The last frame of a stream is the widget's.
      if (from == Side::kWidget) streams_.erase(said.stream);
      break;
    case StreamMessage::KIND_PING:
      said.what = "ping";
      break;
    case StreamMessage::KIND_PONG:
      said.what = "pong";
      break;
    default:
      break;
  }
  return said;
}

void Conversation::ExplainHello(absl::string_view payload, Said& said) {
  auto hello = std::make_unique<rpc::transport::Hello>();
  if (!hello->ParseFromArray(payload.data(), static_cast<int>(payload.size())))
    return;
  if (said.from == Side::kHost) {
    const auto spoken =
        std::find_if(services_.begin(), services_.end(),
                     [&](const ServiceDescriptor* service) {
                       return service->full_name() == hello->service();
                     });
    service_ = spoken == services_.end() ? nullptr : *spoken;
    said.service = service_;
  }
  hello->clear_methods();  // Hashes, which tell a reader nothing.
  if (wants_payloads_) said.payload = std::move(hello);
}

void Conversation::Begin(const StreamMessage& frame, absl::string_view payload,
                         absl::Time now, Said& said) {
  said.method = MethodAt(service_, frame.method());
  if (IsUnary(said.method)) Read(said.method->input_type(), payload, said);
  streams_[said.stream] = {said.method, said.browser, now, {}};
}

void Conversation::ExplainNext(absl::string_view payload, absl::Time now,
                               Stream& stream, Said& said) {
  const bool has_events =
      orvane::KindOf(*stream.method) == MethodKind::kEventStream;
  if (said.from == Side::kWidget) {
    said.what = has_events ? "event" : "call";
    Read(stream.method->output_type(), payload, said);
    if (!has_events && said.call.has_value())
      stream.calls[{*said.call, said.browser}] = now;
    return;
  }
  // Small, and they tell what the host does.
  std::unique_ptr<Message> message =
      Parse(stream.method->input_type(), payload);
  if (message == nullptr) return;
  const Message* key = nullptr;
  if (has_events) {
    key = Member(*message, "subscribe");
    said.what = key != nullptr ? "subscribe" : "unsubscribe";
    if (key == nullptr) key = Member(*message, "unsubscribe");
  } else if (Member(*message, orvane::kResponseField) != nullptr) {
    said.what = "answer";
  } else {
    key = Member(*message, orvane::kKeyField);
    const FieldDescriptor* const subscribe =
        message->GetDescriptor()->FindFieldByName(orvane::kSubscribeField);
    said.what = message->GetReflection()->GetBool(*message, subscribe)
                    ? "subscribe"
                    : "unsubscribe";
  }
  said.browser = BrowserOf(key == nullptr ? *message : *key);
  if (said.what == "answer") ExplainEnd(now, said);
  if (wants_payloads_)
    said.payload = key == nullptr ? std::move(message) : CopyOf(*key);
}

// What ends a call: one of the host's, or one of the widget's on a callback
// stream.
void Conversation::ExplainEnd(absl::Time now, Said& said) {
  const auto found = streams_.find(said.stream);
  if (found == streams_.end()) return;
  Stream& stream = found->second;
  if (stream.method == nullptr) {  // Not known here.
    streams_.erase(found);
    return;
  }
  if (IsUnary(stream.method)) {
    said.browser = stream.browser;
    said.elapsed = now - stream.begun;
    streams_.erase(found);
    return;
  }
  if (!said.call.has_value()) return;
  // Of a cancelled call only the id is told, and without payloads of any.
  const auto call = std::find_if(
      stream.calls.begin(), stream.calls.end(), [&said](const auto& made) {
        const auto& [id, browser] = made.first;
        return id == *said.call &&
               (!browser.has_value() || !said.browser.has_value() ||
                browser == said.browser);
      });
  if (call == stream.calls.end()) return;
  if (!said.browser.has_value()) said.browser = call->first.second;
  said.elapsed = now - call->second;
  stream.calls.erase(call);
}

void Conversation::Read(const Descriptor* type, absl::string_view payload,
                        Said& said) const {
  if (!wants_payloads_) return;
  std::unique_ptr<Message> message = Parse(type, payload);
  if (message == nullptr) return;
  said.browser = BrowserOf(*message);
  said.payload = std::move(message);
}

}  // namespace widgetctl
