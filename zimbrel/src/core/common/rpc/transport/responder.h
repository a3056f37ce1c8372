// How a client answers one of the server's calls.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_RESPONDER_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_RESPONDER_H_

#include <optional>
#include <string>
#include <utility>

#include "absl/functional/any_invocable.h"
#include "absl/status/status.h"

#include "zimbrel/src/core/common/rpc/stream_messages.h"
#include "zimbrel/src/core/common/rpc/transport/subscriptions.h"

namespace orvane {

// Answers one call of the server, immediately or later. If it is destroyed
// without an answer, the call fails. Move-only; once it has answered or was
// moved from, it may only be destroyed.
//
// Thread: the service thread. Lifetime: may outlive the stream and the client;
// an answer is then dropped.
template <CallMessage T>
class Responder {
 public:
  Responder(PendingAnswer answer, const KeyOf<T>& key)
      : answer_(std::move(answer)) {
    *message_.mutable_browser_id() = key;
  }
  Responder(Responder&& other) noexcept;
  Responder& operator=(Responder&&) = delete;
  ~Responder();

  // The key for which the call was made.
  const KeyOf<T>& key() const { return message_.browser_id(); }

  // Answers the call; see PendingAnswer::Send for the errors.
  absl::Status Respond(ResponseOf<T> response) &&;

  // Fails the call; see PendingAnswer::Fail.
  void Fail(const std::string& text) &&;

  // Whether nobody waits for the answer any longer, and what to do then, such
  // as closing a dialog; see PendingAnswer::OnGivenUp.
  bool is_given_up() const { return answer_->is_given_up(); }
  void OnGivenUp(absl::AnyInvocable<void() &&> task) {
    answer_->OnGivenUp(std::move(task));
  }

 private:
  std::optional<PendingAnswer> answer_;  // Empty once it has answered.
  T message_;                            // Holds the key.
};

// ---------------------------------------------------------------------------

template <CallMessage T>
Responder<T>::Responder(Responder&& other) noexcept
    : answer_(std::exchange(other.answer_, std::nullopt)),
      message_(std::move(other.message_)) {}

template <CallMessage T>
Responder<T>::~Responder() {
  if (answer_.has_value())
    answer_->Fail(message_, "the client dropped the call without an answer");
}

template <CallMessage T>
absl::Status Responder<T>::Respond(ResponseOf<T> response) && {
  *message_.mutable_response() = std::move(response);
  return std::exchange(answer_, std::nullopt)->Send(&message_);
}

template <CallMessage T>
void Responder<T>::Fail(const std::string& text) && {
  std::exchange(answer_, std::nullopt)->Fail(message_, text);
}

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_RESPONDER_H_
