// The client's side of one stream.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_STREAM_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_STREAM_H_

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "absl/functional/any_invocable.h"
#include "absl/status/status.h"
#include "absl/strings/string_view.h"
#include "google/protobuf/message_lite.h"

namespace orvane {

// Sends messages on an open stream. Implemented by the transport. Once the
// stream has ended, for whatever reason, sending fails with kUnavailable.
//
// Thread: the service thread.
class ClientStreamSender {
 public:
  virtual ~ClientStreamSender() = default;

  // Ends the process with a fatal log entry, which names `operation`, unless
  // the calling thread is the service thread or the stream has ended.
  virtual void CheckServiceThread(absl::string_view operation) const = 0;

  // Sends a message of the type that the method declares for this direction. On
  // a callback stream `call_id` is the id of the call that this answers; 0 if
  // it answers none.
  virtual absl::Status Next(const google::protobuf::MessageLite& message,
                            std::int64_t call_id) = 0;

  // Fails the server's call `call_id`. Of `message` only `browser_id` is used.
  // The text is for people who read the frames; the server's code learns only
  // that the call has failed. At most 2048 bytes of it are sent.
  virtual absl::Status Error(const google::protobuf::MessageLite& message,
                             std::int64_t call_id, const std::string& text) = 0;
};

// Runs once when a stream has ended, unless its handle was destroyed before. No
// handler of the stream runs after it. The status is OK if the server completed
// the stream, kUnavailable if the connection is gone; otherwise it tells why
// the server refused the stream or a message on it, or why a message of the
// server could not be used.
using OnEnd = absl::AnyInvocable<void(const absl::Status&) &&>;

// What a stream calls at the client. Handlers run on the service thread and may
// do anything, including destroying the stream or its client, but no other
// frame of the connection is handled meanwhile: a blocking call inside one
// fails, and EventLoop::RunUntil waits in vain for an answer. No handler runs
// inside another, except the `on_end` of streams whose client is destroyed
// there. Both are destroyed when the stream has ended or its handle is gone,
// but not while one of them runs.
struct ClientStreamHandlers {
  // Runs for each message. `payload` is the serialised message, of the type
  // that the method declares for this direction, and is borrowed for the call.
  // On a callback stream `call_id` is the id of the server's call; the answer
  // has to carry it. If this returns an error, the stream ends: the server is
  // told that it has ended, and `on_end` receives the error.
  absl::AnyInvocable<absl::Status(std::string_view payload,
                                  std::int64_t call_id)>
      on_next;

  // May be empty.
  OnEnd on_end;

  // Runs when the server does not wait any longer for the answer to its call
  // `call_id`, which has been answered or not. May be empty.
  absl::AnyInvocable<void(std::int64_t call_id)> on_call_given_up = nullptr;
};

// An open stream. Destroying it ends the stream, and no handler runs
// afterwards. May outlive its client.
//
// Thread: the service thread.
class ClientStream {
 public:
  // Called by the transport. The destructor runs `close`.
  ClientStream(std::shared_ptr<ClientStreamSender> sender,
               absl::AnyInvocable<void() &&> close);
  ClientStream(const ClientStream&) = delete;
  ClientStream& operator=(const ClientStream&) = delete;
  ~ClientStream();

  // For code that sends on the stream and may outlive it.
  const std::shared_ptr<ClientStreamSender>& sender() const { return sender_; }

 private:
  const std::shared_ptr<ClientStreamSender> sender_;
  absl::AnyInvocable<void() &&> close_;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_STREAM_H_
