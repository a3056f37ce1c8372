// Opens streams that are subscribed to one key, for callers that know the types
// of the messages only at run time. Generated clients are built on these
// functions.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SUBSCRIPTIONS_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SUBSCRIPTIONS_H_

#include <cstdint>
#include <memory>
#include <string>

#include "absl/functional/any_invocable.h"
#include "absl/status/status.h"
#include "absl/strings/string_view.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "zimbrel/src/core/common/rpc/transport/client_stream.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace orvane {

namespace internal {
class ServedCalls;
}  // namespace internal

// Opens an event stream and subscribes it to `key`, which has the type that
// rpc.EventSubscription uses for keys. `event` has the method's output type;
// each event is parsed into it. `on_event` runs for each event, in the order of
// arrival, and borrows it. Both callables may be empty.
[[nodiscard]] std::unique_ptr<ClientStream> WatchEvents(
    SocketClient* client, const google::protobuf::MethodDescriptor* method,
    const google::protobuf::Message& key,
    std::unique_ptr<google::protobuf::Message> event,
    absl::AnyInvocable<void(const google::protobuf::Message& event)> on_event,
    OnEnd on_end = nullptr);

// Answers one call of the server, on the stream on which the call arrived. Call
// Send or Fail once. Move-only; once it was moved from, it may only be
// destroyed.
//
// Thread: the service thread. May outlive the stream and the client.
class PendingAnswer {
 public:
  // The call is one of `calls`, from which the destructor takes it.
  PendingAnswer(std::shared_ptr<ClientStreamSender> sender,
                const std::shared_ptr<internal::ServedCalls>& calls,
                std::int64_t call_id);
  PendingAnswer(PendingAnswer&& other) noexcept;
  PendingAnswer& operator=(PendingAnswer&&) = delete;
  ~PendingAnswer();

  std::int64_t call_id() const { return call_id_; }

  // Whether nobody waits for the answer any longer: the server has given the
  // call up, because it took too long or does not matter any more, or the
  // stream has ended.
  bool is_given_up() const;

  // Has `task` run when the call is given up, unless it has been answered, this
  // has been destroyed or the stream's handle is gone; before this function
  // returns if it has been given up already. Replaces what was to run before.
  // The task may destroy this.
  void OnGivenUp(absl::AnyInvocable<void() &&> task);

  // Sends `message`, which holds the call's key and the response. An error
  // means that the response was not sent: kUnavailable if the stream has ended,
  // kCancelled if the server has given the call up, kResourceExhausted if the
  // response is too long for a frame or the server reads too slowly. The call
  // fails then, and the response in `message` has been cleared.
  absl::Status Send(google::protobuf::Message* message) const;

  // Fails the call. Of `message` only the key is used. The caller learns only
  // that the call has failed; `text` is for people who read the frames. Does
  // nothing if the call has been given up.
  void Fail(const google::protobuf::Message& message,
            const std::string& text) const;

 private:
  // Null once the stream has ended. Ends the process, naming the operation, on
  // a thread that is not the service thread.
  std::shared_ptr<internal::ServedCalls> CallsFor(
      absl::string_view operation) const;

  std::shared_ptr<ClientStreamSender> sender_;  // Null once moved from.
  std::weak_ptr<internal::ServedCalls>
      calls_;  // Gone once the stream has ended.
  std::int64_t call_id_;
};

// Opens a callback stream and subscribes it to `key`, which has the type of
// `browser_id` in the method's messages. `message` has the method's output
// type; each call is parsed into it. `on_call` runs for each call; it borrows
// the message, which holds key and call, and may change it. If `on_call` is
// empty, every call fails; see also ClientOptions::max_served_calls.
[[nodiscard]] std::unique_ptr<ClientStream> ServeCalls(
    SocketClient* client, const google::protobuf::MethodDescriptor* method,
    const google::protobuf::Message& key,
    std::unique_ptr<google::protobuf::Message> message,
    absl::AnyInvocable<void(google::protobuf::Message& message,
                            PendingAnswer answer)>
        on_call,
    OnEnd on_end = nullptr);

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SUBSCRIPTIONS_H_
