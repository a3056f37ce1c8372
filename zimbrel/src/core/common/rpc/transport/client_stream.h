// The host's side of one stream.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_STREAM_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_STREAM_H_

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "absl/functional/any_invocable.h"
#include "absl/status/status.h"
#include "google/protobuf/message_lite.h"

namespace orvane {

// Where the frames of an open stream are sent. Implemented by SocketClient.
// Once the stream has ended, for whatever reason, sending fails with
// kUnavailable.
//
// Thread: the service thread.
class ClientStreamSender {
 public:
  virtual ~ClientStreamSender() = default;

  // Sends a message of the type that the method declares for this direction. On
  // a callback stream `call_id` is that of the call which it answers, if any.
  virtual absl::Status Next(const google::protobuf::MessageLite& message,
                            std::int64_t call_id) = 0;

  // Fails the widget's call `call_id`. Of `message` only `browser_id` counts.
  // The text is for people who read the frames: the widget's code learns only
  // that the call has failed. 2048 bytes of it are sent.
  virtual absl::Status Error(const google::protobuf::MessageLite& message,
                             std::int64_t call_id, const std::string& text) = 0;
};

// Runs once when a stream has ended, unless its handle was destroyed before,
// and no handler of the stream runs after it. OK if the server has completed
// the stream, kUnavailable if the connection is gone, else why the server
// refused it or what was sent on it, or why what arrived could not be used.
using OnEnd = absl::AnyInvocable<void(const absl::Status&) &&>;

// What a stream tells its client. Handlers run on the service thread and may do
// anything, destroying the stream or its client included; but a blocking call
// inside one fails. No handler runs inside another, but for the `on_end` of
// streams whose client is destroyed there. Both are destroyed when the stream
// has ended or its handle is gone, though not while one of them runs.
struct ClientStreamHandlers {
  // A message has arrived, of the type that the method declares for this
  // direction; `payload` is it, serialised, and borrowed for the call. On a
  // callback stream `call_id` is that of the call which the widget makes, to be
  // answered with. An error ends the stream: the widget is told that it is
  // over, and `on_end` why.
  absl::AnyInvocable<absl::Status(std::string_view payload,
                                  std::int64_t call_id)>
      on_next;

  // May be empty.
  OnEnd on_end;
};

// An open stream. Destroying it ends the stream; no handler runs from then on.
// May outlive its client.
//
// Thread: the service thread.
class ClientStream {
 public:
  // For clients; `close` is called once, by the destructor.
  ClientStream(std::shared_ptr<ClientStreamSender> sender,
               absl::AnyInvocable<void() &&> close);
  ClientStream(const ClientStream&) = delete;
  ClientStream& operator=(const ClientStream&) = delete;
  ~ClientStream();

  // To send from code that may outlive the stream.
  const std::shared_ptr<ClientStreamSender>& sender() const { return sender_; }

 private:
  const std::shared_ptr<ClientStreamSender> sender_;
  absl::AnyInvocable<void() &&> close_;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_STREAM_H_
