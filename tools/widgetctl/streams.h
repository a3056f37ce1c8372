// Streams of one browser, as a user types them.

#ifndef TOOLS_WIDGETCTL_STREAMS_H_
#define TOOLS_WIDGETCTL_STREAMS_H_

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "absl/functional/any_invocable.h"
#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "tools/widgetctl/call.h"
#include "zimbrel/src/core/common/rpc/transport/client_stream.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/subscriptions.h"

namespace widgetctl {

// A stream that is ready to be opened and to be subscribed to a key.
struct Subscription {
  // "WhenCursorChanged {"value":"1"}", however the key was written.
  std::string Name() const;

  const google::protobuf::MethodDescriptor* method;
  std::unique_ptr<google::protobuf::Message> key;
};

// Finds an event stream, or a callback stream, in `service`, which must be in
// the generated pool, and reads the key: JSON, or the number of a browser. An
// unknown method, another kind of method and wrong JSON are errors with a text
// for the user.
absl::StatusOr<Subscription> PrepareWatch(
    const google::protobuf::ServiceDescriptor& service,
    const std::string& method, const std::string& key);
absl::StatusOr<Subscription> PrepareServe(
    const google::protobuf::ServiceDescriptor& service,
    const std::string& method, const std::string& key);

// Reads the answer to a call of a callback stream. Wrong JSON is an error with
// a text for the user.
Answer ReadResponse(const google::protobuf::MethodDescriptor& method,
                    const std::string& json);

// A call that the widget has made. It may be answered later or never. An answer
// after its stream has ended is dropped.
class WidgetCall {
 public:
  WidgetCall(std::unique_ptr<google::protobuf::Message> message,
             orvane::PendingAnswer answer);

  std::int64_t id() const { return answer_.call_id(); }

  // Names the browser and carries the call.
  const google::protobuf::Message& message() const { return *message_; }

  // No other member may be called afterwards.
  std::unique_ptr<google::protobuf::Message> TakeMessage() && {
    return std::move(message_);
  }

  // Sends the response, or fails the call with the text of the error. A
  // response that cannot be sent fails the call too. Returns the error, if any.
  absl::Status Give(const Answer& answer) const;

  // See orvane::PendingAnswer.
  void OnGivenUp(absl::AnyInvocable<void() &&> task) {
    answer_.OnGivenUp(std::move(task));
  }

 private:
  std::unique_ptr<google::protobuf::Message> message_;
  orvane::PendingAnswer answer_;
};

// Opens the stream and subscribes it. Handlers may destroy it.
std::unique_ptr<orvane::ClientStream> OpenWatch(
    const Subscription& watch, orvane::SocketClient& client,
    absl::AnyInvocable<void(const google::protobuf::Message& event)> on_event,
    orvane::OnEnd on_end);
std::unique_ptr<orvane::ClientStream> OpenServe(
    const Subscription& serve, orvane::SocketClient& client,
    absl::AnyInvocable<void(WidgetCall call)> on_call, orvane::OnEnd on_end);

}  // namespace widgetctl

#endif  // TOOLS_WIDGETCTL_STREAMS_H_
