// Publishing: one call tells every client that has subscribed what happened.
//
//   rpc::CursorChanged event;
//   *event.mutable_browser_id() = browser;
//   event.mutable_cursor()->set_type(rpc::CURSOR_TYPE_POINTER);
//   orvane::Publish<rpc::CursorChanged>(browser, event);

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_PUBLISH_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_PUBLISH_H_

#include <cstddef>
#include <functional>

#include "absl/base/thread_annotations.h"
#include "google/protobuf/message.h"

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/current_loop.h"
#include "zimbrel/src/core/common/rpc/stream/event_stream.h"
#include "zimbrel/src/core/common/rpc/stream/registrations.h"
#include "zimbrel/src/core/common/rpc/stream_messages.h"

namespace orvane {

// Sends `event` to the streams that are subscribed to `key` (compared by
// content), in the order of EventStream<T>::stream_map_. Clients subscribe to a
// BrowserId, so a message of another type reaches nobody. Returns how many have
// accepted it, 0 if none is subscribed; the result may be ignored.
//
// What a publisher may rely on:
//   - A stream receives the event once if it has subscribed to `key` and since
//     then has not unsubscribed, completed or been destroyed. No other stream
//     receives it, even if the registry still lists that stream's address.
//   - A stream whose transport refuses the frame is skipped and stays
//     subscribed. The transport deals with a peer that is gone or too slow.
//   - Events reach one stream in the order in which they were published. Where
//     the method's `slow_host` option says so, a client that does not keep up
//     gets only the latest event of a key.
//   - When it returns, frames have been handed to the transport, not delivered.
//     Nothing has run meanwhile: no handler, no callback, no destructor.
//
// The event is serialised once, however many receive it, into a buffer of which
// up to 256 KiB are kept for the next. An event larger than protobuf's limit of
// 2 GiB is not sent.
//
// `key` and `event` are borrowed for the call. Naming T, as above, lets the
// compiler notice when they are swapped.
//
// Thread: the service thread; EventLoop::Post leads there from any other, on
// which Publish ends the process. May be called from anywhere on it (handlers,
// continuations, tasks), but not from inside StreamEndpoint::Send.
template <EventMessage T>
std::size_t Publish(const google::protobuf::Message& key, const T& event);

// Publish<T> as a value, or a function that does something before it.
template <EventMessage T>
using Publisher = std::function<std::size_t(
    const google::protobuf::Message& key, const T& event)>;

namespace internal {

// A frame that carries an event, in a buffer that all events share, so only one
// of them may exist at a time. The buffer's memory is kept for the next event
// unless this one was unusually large.
class EventFrame {
 public:
  explicit EventFrame(const google::protobuf::Message& event)
      ABSL_EXCLUSIVE_LOCKS_REQUIRED(kServiceThread);
  EventFrame(const EventFrame&) = delete;
  EventFrame& operator=(const EventFrame&) = delete;
  ~EventFrame();

  // Null if the event is too large for any frame.
  const rpc::transport::StreamMessage* get() const { return frame_; }

 private:
  rpc::transport::StreamMessage* frame_ = nullptr;
};

}  // namespace internal

// ---------------------------------------------------------------------------

template <EventMessage T>
std::size_t Publish(const google::protobuf::Message& key, const T& event) {
  internal::CheckServiceThread("orvane::Publish");
  const auto entry = EventStream<T>::stream_map_.find(&key);
  if (entry == EventStream<T>::stream_map_.end()) return 0;
  const auto& [own_key, streams] = *entry;

  const internal::EventFrame frame(event);
  if (frame.get() == nullptr) return 0;

  const internal::Registrations& registrations = internal::Registrations::Get();
  std::size_t reached = 0;
  for (EventStream<T>* const stream : streams) {
    if (!registrations.Has(stream, own_key)) continue;
    // Once: the streams of one process live on one thread, that of its server
    // if it has one.
    if (reached == 0 && !internal::IsRunningAServer())
      stream->loop().CheckServiceThread("orvane::Publish");
    if (stream->SendEvent(*frame.get(), key).ok()) ++reached;
  }
  return reached;
}

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_PUBLISH_H_
