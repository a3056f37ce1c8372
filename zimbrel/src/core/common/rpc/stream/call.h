// Calling a host: a function with two continuations, one of which runs once.
//
//   rpc::CreateWebDialogCall dialog;
//   dialog.mutable_alert()->set_message("Saved.");
//   const auto call = orvane::Call<rpc::CreateWebDialog>(
//       browser, std::move(dialog),
//       [this](const rpc::CreateWebDialogResponse& answer) { Closed(answer); },
//       [this](const absl::Status& why) { GoOnWithout(why); },
//       {.timeout = absl::Minutes(5)});
//   if (!call.ok()) GoOnWithout(call.status());

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_CALL_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_CALL_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include "absl/functional/any_invocable.h"
#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "google/protobuf/message.h"

#include "zimbrel/src/core/common/rpc/stream/callback_stream.h"
#include "zimbrel/src/core/common/rpc/stream/open_call.h"
#include "zimbrel/src/core/common/rpc/stream_messages.h"

namespace orvane {

struct CallOptions {
  // How long the host may take to answer. Not positive: no time at all.
  absl::Duration timeout = absl::InfiniteDuration();
};

// Names a call, to cancel it. Destroying it, or not keeping it, leaves the call
// alone: most callers want the answer and nothing else. May outlive everything.
//
// Thread: the service thread.
class CallHandle {
 public:
  explicit CallHandle(std::weak_ptr<internal::OpenCall> call);

  // Ends the call: `on_failure` will run with kCancelled. The host is not told,
  // and its answer is dropped. Does nothing to a call that has ended.
  void Cancel();

 private:
  std::weak_ptr<internal::OpenCall> call_;
};

// Whether a stream serves `key`, so that Call would send to it: for callers
// that do something else, or need not prepare, if nobody does. Good until the
// service thread goes on to other work.
//
// Thread: the service thread.
template <CallMessage T>
bool IsServed(const KeyOf<T>& key);

// Calls the host that serves `key`.
//
// An error means that there was no call, and neither continuation runs:
//   kNotFound     no living stream serves the key;
//   others        the frame could not be sent, for the transport's reason.
//
// Otherwise exactly one continuation runs, exactly once, as a task of the
// stream's loop: never inside Call or a stream's handler, and after whatever
// ended the call is done. It may do anything: call again, publish, unsubscribe,
// end streams and connections, destroy the service. Both are destroyed after
// it. Neither may be empty.
//
//   what happens to a call that waits         | what runs
//   ------------------------------------------+------------------------------
//   the host answers                          | on_response
//   the host answers with an error            | on_failure, kUnknown
//   `options.timeout` passes                  | on_failure, kDeadlineExceeded
//   its handle cancels it                     | on_failure, kCancelled
//   the host unsubscribes the key on the      | on_failure, kCancelled
//     stream that made the call               |
//   the stream is completed                   | on_failure, kCancelled
//   the stream is destroyed, not completed    | on_failure, kCancelled
//   another stream takes the key over         | nothing: the call waits on, for
//     or unsubscribes it                      |   the host that received it
//   the loop is destroyed                     | nothing: both are destroyed
//
// A key that was taken over is served by its new stream at once, and a key that
// any stream unsubscribed by none. An answer that comes after the end, or that
// nobody asked for, is dropped.
//
// Thread: the service thread; EventLoop::Post leads there from any other.
template <CallMessage T>
[[nodiscard]] absl::StatusOr<CallHandle> Call(
    const KeyOf<T>& key, CallOf<T> call,
    absl::AnyInvocable<void(ResponseOf<T>) &&> on_response,
    absl::AnyInvocable<void(absl::Status) &&> on_failure,
    CallOptions options = {});

// Calling T as a value: Call<T>, or a function that does something before it.
template <CallMessage T>
using Caller = std::function<absl::StatusOr<CallHandle>(
    const KeyOf<T>& key, CallOf<T> call,
    absl::AnyInvocable<void(ResponseOf<T>) &&> on_response,
    absl::AnyInvocable<void(absl::Status) &&> on_failure, CallOptions options)>;

// ---------------------------------------------------------------------------

namespace internal {

// The living stream that serves `key`, or null.
template <CallMessage T>
CallbackStream<T>* FindServing(const KeyOf<T>& key) {
  const auto served = CallbackStream<T>::stream_map_.find(&key);
  if (served == CallbackStream<T>::stream_map_.end() ||
      !Registrations::Get().Has(served->second, served->first)) {
    return nullptr;
  }
  return served->second;
}

template <CallMessage T>
void Drop(AbstractStream* stream, const google::protobuf::Message& key,
          std::int64_t id) {
  static_cast<CallbackStream<T>*>(stream)->DropCall(key, id);
}

}  // namespace internal

template <CallMessage T>
bool IsServed(const KeyOf<T>& key) {
  return internal::FindServing<T>(key) != nullptr;
}

template <CallMessage T>
absl::StatusOr<CallHandle> Call(
    const KeyOf<T>& key, CallOf<T> call,
    absl::AnyInvocable<void(ResponseOf<T>) &&> on_response,
    absl::AnyInvocable<void(absl::Status) &&> on_failure, CallOptions options) {
  CallbackStream<T>* const serving = internal::FindServing<T>(key);
  if (serving == nullptr) return internal::NobodyServes(key, *T::descriptor());
  CallbackStream<T>& stream = *serving;

  T message;
  *message.mutable_browser_id() = key;
  *message.mutable_call() = std::move(call);
  const std::int64_t id = internal::NextCallId();
  // Before the call is listed: no answer can come while a frame is being sent,
  // and nothing has to be undone if it is not.
  if (absl::Status sent = internal::SendCall(stream, id, message); !sent.ok()) {
    return sent;
  }

  auto& [own_key, calls] = stream.CallsOf(key);
  const auto open = std::make_shared<internal::OpenCall>(
      internal::OpenCall::Place{&stream, own_key, id, &internal::Drop<T>},
      [on_response = std::move(on_response),
       on_failure =
           std::move(on_failure)](internal::OpenCall::Outcome outcome) mutable {
        if (outcome.ok()) {
          std::move(on_response)(
              std::move(*static_cast<T&>(**outcome).mutable_response()));
        } else {
          std::move(on_failure)(std::move(outcome).status());
        }
      });
  calls.emplace(id, typename CallbackStream<T>::StreamCall{
                        [open](T& reply) {
                          open->End(std::make_unique<T>(std::move(reply)));
                        },
                        [open](StreamCallFailure why) {
                          open->End(internal::ToStatus(why));
                        }});
  if (options.timeout < absl::InfiniteDuration()) {
    open->EndAfter(options.timeout);
  }
  return CallHandle(open);
}

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_CALL_H_
