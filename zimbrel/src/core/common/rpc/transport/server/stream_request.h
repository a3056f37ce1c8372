// What a client sends on a stream, without regard to the kind of stream.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_STREAM_REQUEST_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_STREAM_REQUEST_H_

#include <memory>
#include <string>
#include <string_view>

#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

namespace orvane::internal {

// Event streams take rpc.EventSubscription, callback streams the message with
// which they also call. Either names a key and what to do with it.
//
// One object is meant for all requests of a stream, so that its memory is too.
class StreamRequest {
 public:
  enum class Action { kNone, kSubscribe, kUnsubscribe, kAnswer };

  // `prototype` is the input of `method`, which the generator has accepted.
  StreamRequest(const google::protobuf::MethodDescriptor& method,
                const google::protobuf::Message& prototype);

  bool is_event() const { return key_field_ == nullptr; }
  const google::protobuf::Message& message() const { return *message_; }

  // Reads a request in place of the last one. False if it cannot be read as far
  // as its end, or is nested deeper than `max_depth`.
  bool Parse(std::string_view payload, int max_depth);

  Action action() const;

  // The key, serialised: equal bytes for keys of equal content.
  std::string key() const;

  // Removes from the key what is not known of its type.
  void DiscardUnknownInKey();

  // Makes this a request to subscribe to a key, or to unsubscribe from it, and
  // nothing more. `key` is what key() returned of such a request.
  void Make(Action action, std::string_view key);

 private:
  const google::protobuf::Message& Key() const;
  google::protobuf::Message* MutableKey();

  const std::unique_ptr<google::protobuf::Message> message_;
  // Of what callback streams take; null otherwise.
  const google::protobuf::FieldDescriptor* const key_field_;
  const google::protobuf::FieldDescriptor* const subscribe_field_;
  const google::protobuf::FieldDescriptor* const response_field_;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_SERVER_STREAM_REQUEST_H_
