// How a host answers one of the widget's calls.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_RESPONDER_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_RESPONDER_H_

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "absl/status/status.h"

#include "zimbrel/src/core/common/rpc/stream_messages.h"
#include "zimbrel/src/core/common/rpc/transport/client_stream.h"

namespace orvane {

// The answer that one call of the widget waits for. Whoever holds it answers
// once, at once or later; if it is destroyed instead, the call fails.
// Move-only; one that has answered or was moved from may only be destroyed.
//
// Thread: the service thread. Lifetime: may outlive the stream and the client;
// the answer then goes nowhere.
template <CallMessage T>
class Responder {
 public:
  Responder(std::shared_ptr<ClientStreamSender> sender, const KeyOf<T>& key,
            std::int64_t call_id)
      : sender_(std::move(sender)), call_id_(call_id) {
    *message_.mutable_browser_id() = key;
  }
  Responder(Responder&&) noexcept = default;
  Responder& operator=(Responder&&) = delete;
  ~Responder() {
    if (sender_ != nullptr) SendFailure("the host has dropped the call");
  }

  // What the call is about.
  const KeyOf<T>& key() const { return message_.browser_id(); }

  // Answers the call. An error means that the response was not sent:
  // kUnavailable if the stream has ended, kResourceExhausted if the response is
  // too long for a frame or its host too slow, in which case the call fails.
  absl::Status Respond(ResponseOf<T> response) && {
    *message_.mutable_response() = std::move(response);
    absl::Status sent = sender_->Next(message_, call_id_);
    if (sent.ok()) {
      sender_ = nullptr;
    } else {
      message_.clear_response();
      SendFailure(std::string(sent.message()));
    }
    return sent;
  }

  // Fails the call. Its caller learns that, and nothing more; `text` goes with
  // the frame, for people who read it there.
  void Fail(const std::string& text) && { SendFailure(text); }

 private:
  void SendFailure(const std::string& text) {
    // Once the stream has ended, nobody waits.
    std::exchange(sender_, nullptr)
        ->Error(message_, call_id_, text)
        .IgnoreError();
  }

  std::shared_ptr<ClientStreamSender> sender_;  // Null once it has answered.
  T message_;                                   // Holds the key.
  std::int64_t call_id_;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_RESPONDER_H_
