// The server's side of an event stream, and the registry of the streams that
// are subscribed to each key. To send events to them, see publish.h.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_EVENT_STREAM_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_EVENT_STREAM_H_

#include <cstddef>
#include <set>
#include <unordered_map>
#include <utility>

#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "rpc/event_subscription.pb.h"
#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/abstract_stream.h"
#include "zimbrel/src/core/common/rpc/message_content.h"
#include "zimbrel/src/core/common/rpc/service.h"
#include "zimbrel/src/core/common/rpc/stream/registrations.h"
#include "zimbrel/src/core/common/rpc/stream_channel.h"
#include "zimbrel/src/core/common/rpc/stream_messages.h"

namespace orvane {

// A client opens such a stream and sends rpc::EventSubscription frames on it,
// each of which subscribes the stream to one key or unsubscribes it again.
// Whether the entry of a key lists the stream, before and after:
//
//           | subscribe | unsubscribe | OnCompleted          | destroyed
//   --------+-----------+-------------+----------------------+-------------
//   absent  | listed    | absent      | absent               | absent
//   listed  | listed    | absent      | alone: absent        | stays listed
//           |           |             | else:  stays listed  |
//
// So the registry may list streams that have completed or are gone, under keys
// that they shared with others. A transport can prevent that: it unsubscribes a
// stream from its remaining keys before it calls OnCompleted. Publish skips
// such streams in either case.
//
// T gives each kind of event a registry of its own, and changes nothing else.
//
// Thread: the service thread. Lifetime: as AbstractStream tells. Memory: the
// request message of every frame, a small one, is never destroyed, since
// Unsubscribe may destroy a part of it.
template <EventMessage T>
class EventStream : public AbstractStream {
 public:
  // By the content of the key, a heap message that its entry owns. Streams are
  // not owned. No entry is empty. Keys that are left when the process ends are
  // not destroyed.
  using Registry =
      std::unordered_map<const google::protobuf::Message*,
                         std::set<EventStream*>, MessageHash, MessageEqual>;

  // `service` and `method` outlive the stream. Registers nothing.
  EventStream(Service* service,
              const google::protobuf::MethodDescriptor* method,
              StreamChannel channel);
  // Leaves the registry alone.
  ~EventStream() override;

  void OnNext(rpc::transport::StreamMessage* frame) override;
  // Does nothing, and does not look at `frame`.
  void OnError(rpc::transport::StreamMessage* frame) override;
  // Erases the entries that list this stream alone, in the order of their keys'
  // addresses, then ends the stream. Walks the whole registry.
  void OnCompleted() override;

  // Lists this stream under `key`, of which a new entry keeps a copy. A second
  // time changes nothing.
  void Subscribe(const google::protobuf::Message& key);

  // Takes this stream out of the entry of `key`, if it is there, and erases the
  // entry if nobody is left, which destroys its key.
  //
  // If there is no such entry, `key` itself is destroyed. So `key` must be the
  // entry's own, or a heap message that the caller gives away.
  void Unsubscribe(const google::protobuf::Message& key);

  // The registry of T. Others may read it; only streams change it. References
  // into it are valid until a stream's next operation.
  static inline Registry stream_map_;

 private:
  Service* service_;
  const google::protobuf::MethodDescriptor* method_;
};

namespace internal {

// Reads the request that `frame` carries, as far as it parses, into a new
// message made from the prototype of `method`, which is never destroyed.
const rpc::EventSubscription& ReadSubscription(
    const Service& service, const google::protobuf::MethodDescriptor* method,
    const rpc::transport::StreamMessage& frame);

}  // namespace internal

// ---------------------------------------------------------------------------

template <EventMessage T>
EventStream<T>::EventStream(Service* service,
                            const google::protobuf::MethodDescriptor* method,
                            StreamChannel channel)
    : AbstractStream(std::move(channel)), service_(service), method_(method) {}

template <EventMessage T>
EventStream<T>::~EventStream() {
  internal::Registrations::Get().Forget(this);
  // The registry may still list this stream. Whoever uses it by mistake then
  // crashes on a null pointer instead of reaching a service that may be gone.
  method_ = nullptr;
  service_ = nullptr;
}

template <EventMessage T>
void EventStream<T>::OnNext(rpc::transport::StreamMessage* frame) {
  const rpc::EventSubscription& request =
      internal::ReadSubscription(*service_, method_, *frame);
  switch (request.action_case()) {
    case rpc::EventSubscription::kSubscribe:
      Subscribe(request.subscribe());
      break;
    case rpc::EventSubscription::kUnsubscribe:
      Unsubscribe(request.unsubscribe());
      break;
    default:
      break;
  }
}

template <EventMessage T>
void EventStream<T>::OnError(rpc::transport::StreamMessage*) {}

template <EventMessage T>
void EventStream<T>::OnCompleted() {
  std::set<const google::protobuf::Message*> held_alone;
  for (const auto& [key, streams] : stream_map_) {
    const std::size_t others = streams.size() - streams.count(this);
    if (others == 0) held_alone.insert(key);
  }
  for (const auto* key : held_alone) Unsubscribe(*key);
  internal::Registrations::Get().Forget(this);
  Complete();
}

template <EventMessage T>
void EventStream<T>::Subscribe(const google::protobuf::Message& key) {
  auto entry = stream_map_.find(&key);
  if (entry == stream_map_.end()) {
    entry = stream_map_.try_emplace(internal::CopyKey(key)).first;
  }
  entry->second.insert(this);
  internal::Registrations::Get().Add(this, entry->first);
}

template <EventMessage T>
void EventStream<T>::Unsubscribe(const google::protobuf::Message& key) {
  const auto entry = stream_map_.try_emplace(&key).first;
  const google::protobuf::Message* const own_key = entry->first;
  entry->second.erase(this);
  internal::Registrations::Get().Remove(this, own_key);
  if (entry->second.empty()) {
    stream_map_.erase(entry);
    delete own_key;
  }
}

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_EVENT_STREAM_H_
