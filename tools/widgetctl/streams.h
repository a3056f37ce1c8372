// Streams of one browser, from words to messages.

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

// Finds an event stream, or a callback stream, in `service`, which is one of
// the generated pool, and reads the key: JSON, or the bare number of a browser.
// Errors, for people: an unknown method, another kind of method, wrong JSON.
absl::StatusOr<Subscription> PrepareWatch(
    const google::protobuf::ServiceDescriptor& service,
    const std::string& method, const std::string& key);
absl::StatusOr<Subscription> PrepareServe(
    const google::protobuf::ServiceDescriptor& service,
    const std::string& method, const std::string& key);

// Reads what a call of a callback stream is answered with. Wrong JSON is an
// error, for people.
Answer ReadResponse(const google::protobuf::MethodDescriptor& method,
                    const std::string& json);

// A call that the widget has made. It may be answered later or never, also
// after its stream has ended, when nobody waits for an answer any longer.
class WidgetCall {
 public:
  WidgetCall(std::unique_ptr<google::protobuf::Message> message,
             orvane::PendingAnswer answer);

  std::int64_t id() const { return answer_.call_id(); }

  // Names the browser and carries the call.
  const google::protobuf::Message& message() const { return *message_; }

  // The last call.
  std::unique_ptr<google::protobuf::Message> TakeMessage() && {
    return std::move(message_);
  }

  // Responds, or fails the call with the text of the error, as does a response
  // that is too long to send. Returns the error, if that was the end of the
  // call.
  absl::Status Give(const Answer& answer) const;

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
