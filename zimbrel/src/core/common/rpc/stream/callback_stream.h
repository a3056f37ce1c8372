// The server's side of a stream through which it calls a client.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_CALLBACK_STREAM_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_CALLBACK_STREAM_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/abstract_stream.h"
#include "zimbrel/src/core/common/rpc/message_content.h"
#include "zimbrel/src/core/common/rpc/service.h"
#include "zimbrel/src/core/common/rpc/stream/callback_stream_internal.h"
#include "zimbrel/src/core/common/rpc/stream/registrations.h"
#include "zimbrel/src/core/common/rpc/stream_channel.h"
#include "zimbrel/src/core/common/rpc/stream_messages.h"

namespace orvane {

// Why a call ended without a reply.
enum class StreamCallFailure : std::int32_t {
  // The client unsubscribed the call's key on this stream, or ended the stream.
  kCancelled = 1,
  // The client answered the call with an error.
  kRemoteError = 2,
};

// A client subscribes such a stream to keys and from then on answers the calls
// that are made under them. One stream of a type serves a key at a time: the
// latest to have subscribed. To make a call, use Call (call.h).
//
// What a client's frame does, by the oneof case of its T:
//
// - subscribe, true: this stream serves the key from now on.
// - subscribe, false: no stream serves the key any longer, whichever did, and
//   the calls of the key that wait on this one are cancelled.
// - response: the call of the frame's key and id ends, if it waits here.
// - anything else: the process ends at once. Frames from outside are to be
//   checked before they come here.
//
// An error frame ends the call of its key and id, whatever its oneof holds. If
// a payload does not parse, the fields that were read before the error count.
//
// Thread: the service thread. Lifetime: as AbstractStream tells. Destroying a
// stream that was not completed leaves its registrations behind, does not run
// the pending calls' callables, and does not free the keys of `pending_calls_`.
template <CallbackMessage T>
class CallbackStream final : public AbstractStream {
 public:
  // A call that waits for the client's answer. Exactly one of the two runs,
  // inside the handler that ends the call, while it is still listed.
  //
  // They may add calls, under any key. They must not end calls: not cancel
  // them, and not unsubscribe, complete or destroy this stream. Neither may the
  // destructors of what they hold. What is passed to Call may do all of that.
  struct StreamCall {
    // `reply` may be moved from; it is destroyed when the callable returns.
    std::function<void(T& reply)> on_response;
    // May run on a copy of the StreamCall.
    std::function<void(StreamCallFailure)> on_failure;
  };

  using CallsById = std::map<std::int64_t, StreamCall>;
  using PendingCalls = std::unordered_map<const google::protobuf::Message*,
                                          CallsById, MessageHash, MessageEqual>;
  using Registry =
      std::unordered_map<const google::protobuf::Message*, CallbackStream*,
                         MessageHash, MessageEqual>;

  // `service` and `method` outlive the stream. Registers nothing.
  CallbackStream(Service* service,
                 const google::protobuf::MethodDescriptor* method,
                 StreamChannel channel);
  ~CallbackStream() override;

  void OnNext(rpc::transport::StreamMessage* frame) override;
  void OnError(rpc::transport::StreamMessage* frame) override;

  // Cancels what is pending, then unregisters the stream, then completes it.
  void OnCompleted() override;

  // Makes this stream the one that serves `key`, with a warning if it takes the
  // key over. The stream that served it is not told; its pending calls stay.
  void Subscribe(const google::protobuf::Message& key);

  // Cancels the calls that wait under `key` on this stream, in the order of
  // their ids, and drops them. Does nothing for an unknown key. `key` may be
  // the table's own.
  void CancelPendingRequests(const google::protobuf::Message& key);

  // The entry of `key` in `pending_calls_`, which is added if it is missing.
  typename PendingCalls::value_type& CallsOf(
      const google::protobuf::Message& key);

  // Takes a call out of `pending_calls_` and runs neither of its callables.
  // Does nothing for an unknown key or id. `key` may be the table's own.
  void DropCall(const google::protobuf::Message& key, std::int64_t call_id);

  // Which stream serves which key: one registry for all streams of T. It owns
  // its keys. A stream that it names may have been destroyed without being
  // completed. Others may read it; only streams change it.
  static inline Registry stream_map_;

 private:
  std::unique_ptr<T> Read(const rpc::transport::StreamMessage& frame) const;
  void Unsubscribe(const google::protobuf::Message& key);

  // Erases the entry of `key` from `stream_map_`, whichever stream it names.
  static void Unregister(const google::protobuf::Message& key);

  // Hands the call of this key and id to `deliver`, if there is one, and drops
  // it; drops the key's entry as well once it is empty.
  template <typename Deliver>
  void EndCall(const google::protobuf::Message& key, std::int64_t call_id,
               Deliver deliver);

  Service* const service_;
  const google::protobuf::MethodDescriptor* const method_;

 public:
  // The calls of this stream that wait for an answer, by key and by id. Owns
  // its keys. Others may read it.
  PendingCalls pending_calls_;
};

// ---------------------------------------------------------------------------

template <CallbackMessage T>
CallbackStream<T>::CallbackStream(
    Service* service, const google::protobuf::MethodDescriptor* method,
    StreamChannel channel)
    : AbstractStream(std::move(channel)), service_(service), method_(method) {}

template <CallbackMessage T>
CallbackStream<T>::~CallbackStream() {
  internal::Registrations::Get().Forget(this);
  // Emptied before the calls are destroyed: what they hold may be foreign code,
  // which may look into the table once more.
  const PendingCalls dropped = std::exchange(pending_calls_, {});
}

template <CallbackMessage T>
void CallbackStream<T>::OnNext(rpc::transport::StreamMessage* frame) {
  const std::unique_ptr<T> message = Read(*frame);
  if (message->has_response()) {
    EndCall(message->browser_id(), frame->call_id(),
            [&message](StreamCall& call) { call.on_response(*message); });
  } else if (message->has_subscribe()) {
    if (message->subscribe()) {
      Subscribe(message->browser_id());
    } else {
      Unsubscribe(message->browser_id());
    }
  } else {
    __builtin_trap();
  }
}

template <CallbackMessage T>
void CallbackStream<T>::OnError(rpc::transport::StreamMessage* frame) {
  const std::unique_ptr<T> message = Read(*frame);
  EndCall(message->browser_id(), frame->call_id(), [](StreamCall& call) {
    call.on_failure(StreamCallFailure::kRemoteError);
  });
}

template <CallbackMessage T>
void CallbackStream<T>::OnCompleted() {
  std::vector<const google::protobuf::Message*> called;
  for (const auto& [key, calls] : pending_calls_) called.push_back(key);
  for (const auto* key : called) CancelPendingRequests(*key);

  std::set<const google::protobuf::Message*> served;
  for (const auto& [key, stream] : stream_map_) {
    if (stream == this) served.insert(key);
  }
  for (const auto* key : served) Unregister(*key);

  Complete();
}

template <CallbackMessage T>
void CallbackStream<T>::Subscribe(const google::protobuf::Message& key) {
  auto entry = stream_map_.find(&key);
  if (entry == stream_map_.end()) {
    entry = stream_map_.emplace(internal::CopyKey(key), this).first;
  } else if (entry->second != this) {
    internal::WarnOfTakeover(key);
    internal::Registrations::Get().Remove(entry->second, entry->first);
    entry->second = this;
  }
  internal::Registrations::Get().Add(this, entry->first);
}

template <CallbackMessage T>
void CallbackStream<T>::CancelPendingRequests(
    const google::protobuf::Message& key) {
  const auto entry = pending_calls_.find(&key);
  if (entry == pending_calls_.end()) return;
  // What a callable adds may rehash the table, which leaves references valid,
  // and may lengthen this walk.
  for (const auto& [id, pending] : entry->second) {
    const StreamCall call = pending;
    call.on_failure(StreamCallFailure::kCancelled);
  }
  internal::EraseEntry(pending_calls_, key);
}

template <CallbackMessage T>
auto CallbackStream<T>::CallsOf(const google::protobuf::Message& key) ->
    typename PendingCalls::value_type& {
  auto entry = pending_calls_.find(&key);
  if (entry == pending_calls_.end()) {
    entry = pending_calls_.emplace(internal::CopyKey(key), CallsById()).first;
  }
  return *entry;
}

template <CallbackMessage T>
void CallbackStream<T>::DropCall(const google::protobuf::Message& key,
                                 std::int64_t call_id) {
  EndCall(key, call_id, [](StreamCall&) {});
}

template <CallbackMessage T>
std::unique_ptr<T> CallbackStream<T>::Read(
    const rpc::transport::StreamMessage& frame) const {
  auto message =
      internal::ReadPayload(service_->GetResponsePrototype(method_), frame);
  return std::unique_ptr<T>(static_cast<T*>(message.release()));
}

template <CallbackMessage T>
template <typename Deliver>
void CallbackStream<T>::EndCall(const google::protobuf::Message& key,
                                std::int64_t call_id, Deliver deliver) {
  const auto entry = pending_calls_.find(&key);
  if (entry == pending_calls_.end()) return;
  // References to the entry stay valid whatever a callable adds. `key` does
  // not: it may lie in the reply.
  auto& [own_key, calls] = *entry;
  if (const auto call = calls.find(call_id); call != calls.end()) {
    deliver(call->second);
    // The callables are destroyed here, out of the table and before the entry
    // is looked at: what they hold may be foreign code, which may add calls.
    calls.extract(call);
  }
  if (calls.empty()) internal::EraseEntry(pending_calls_, *own_key);
}

template <CallbackMessage T>
void CallbackStream<T>::Unsubscribe(const google::protobuf::Message& key) {
  Unregister(key);
  CancelPendingRequests(key);
}

template <CallbackMessage T>
void CallbackStream<T>::Unregister(const google::protobuf::Message& key) {
  const auto entry = stream_map_.find(&key);
  if (entry == stream_map_.end()) return;
  internal::Registrations::Get().Remove(entry->second, entry->first);
  internal::EraseEntry(stream_map_, key);
}

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_CALLBACK_STREAM_H_
