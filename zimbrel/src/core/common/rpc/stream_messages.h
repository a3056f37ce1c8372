// What a message must have to travel on a stream, on either side of it.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_MESSAGES_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_MESSAGES_H_

#include <concepts>
#include <type_traits>
#include <utility>

#include "google/protobuf/message.h"

namespace orvane {

// A message that can be an event: any generated one.
template <typename T>
concept EventMessage = std::same_as<T, std::remove_cv_t<T>> &&
    std::derived_from<T, google::protobuf::Message> &&
    std::default_initializable<T>;

// A message that can travel on a callback stream, in both directions: a field
// `browser_id`, and a oneof with a bool `subscribe` and a message `response`.
template <typename T>
concept CallbackMessage =
    std::derived_from<T, google::protobuf::Message> &&
    std::default_initializable<T> && !std::is_const_v<T> &&
    requires(const T& message) {
  requires std::derived_from<
      std::remove_cvref_t<decltype(message.browser_id())>,
      google::protobuf::Message>;
  { message.has_subscribe() } -> std::same_as<bool>;
  { message.subscribe() } -> std::same_as<bool>;
  { message.has_response() } -> std::same_as<bool>;
  requires std::derived_from<std::remove_cvref_t<decltype(message.response())>,
                             google::protobuf::Message>;
  // Their case numbers are of one type only if they belong to one oneof.
  requires std::same_as<decltype(T::kSubscribe), decltype(T::kResponse)>;
};

// A callback message whose oneof also holds a message `call`, which carries a
// call to the client. KeyOf, CallOf and ResponseOf are the types of its key, of
// the call and of the response.
template <typename T>
concept CallMessage = CallbackMessage<T> && requires(T message) {
  requires std::same_as<decltype(T::kCall), decltype(T::kResponse)>;
  *message.mutable_call() = std::remove_cvref_t<decltype(message.call())>();
  *message.mutable_browser_id() = message.browser_id();
};
template <CallMessage T>
using KeyOf = std::remove_cvref_t<decltype(std::declval<T>().browser_id())>;
template <CallMessage T>
using CallOf = std::remove_cvref_t<decltype(std::declval<T>().call())>;
template <CallMessage T>
using ResponseOf = std::remove_cvref_t<decltype(std::declval<T>().response())>;

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_MESSAGES_H_
