// How one call through a SocketClient is limited, cancelled and judged.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_CONTROLLER_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_CONTROLLER_H_

#include <string>

#include "absl/functional/any_invocable.h"
#include "absl/status/status.h"
#include "absl/time/time.h"
#include "google/protobuf/service.h"

namespace orvane {

// Serves one call at a time, any number one after the other; Reset in between
// keeps the timeout.
//
// Thread: the service thread of the client's loop. Lifetime: until the call has
// ended; it may be destroyed in `done`.
class ClientController final : public google::protobuf::RpcController {
 public:
  ClientController() = default;
  explicit ClientController(absl::Duration timeout) : timeout_(timeout) {}
  ClientController(const ClientController&) = delete;
  ClientController& operator=(const ClientController&) = delete;

  // How long a call that begins from now on may take. A call that takes longer
  // fails with kDeadlineExceeded, and its answer is dropped. Endless by
  // default; zero or less fails every call.
  void set_timeout(absl::Duration timeout) { timeout_ = timeout; }
  absl::Duration timeout() const { return timeout_; }

  // How the call ended; OK while it is in progress.
  //
  // - kUnknown: the handler failed the call, or the widget does not serve it.
  // - kUnimplemented: the service at the other end has no such method.
  // - kInvalidArgument: the method is a stream, or the request was unreadable.
  // - kResourceExhausted: the request or the response does not fit a frame.
  // - kDeadlineExceeded, kCancelled: the call was given up, here.
  // - kUnavailable: the connection is gone; the call may have been served.
  // - kInternal: the response was unreadable.
  const absl::Status& status() const { return status_; }

  bool Failed() const override { return !status_.ok(); }
  std::string ErrorText() const override {
    return std::string(status_.message());
  }
  void Reset() override { status_ = absl::OkStatus(); }

  // Ends the call with kCancelled: `done` runs soon, but not inside this. The
  // handler learns of it if it asked. Without a call in progress nothing
  // happens.
  void StartCancel() override;

  // For channels, not for callers.
  void SetFailed(const std::string& reason) override {
    status_ = absl::UnknownError(reason);
  }
  bool IsCanceled() const override { return absl::IsCancelled(status_); }
  void NotifyOnCancel(google::protobuf::Closure*) override {}

 private:
  friend class SocketClient;

  absl::Duration timeout_ = absl::InfiniteDuration();
  absl::Status status_;
  absl::AnyInvocable<void() &&> cancel_;  // Set while a call is in progress.
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_CONTROLLER_H_
