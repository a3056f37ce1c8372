// Calling a client: a function with a continuation for the answer.
//
//   rpc::CreateWebDialogCall dialog;
//   dialog.mutable_alert()->set_message("Saved.");
//   orvane::Call<rpc::CreateWebDialog>(
//       browser, std::move(dialog),
//       [this](absl::StatusOr<rpc::CreateWebDialogResponse> answer) {
//         answer.ok() ? Closed(*answer) : GoOnWithout(answer.status());
//       },
//       {.timeout = absl::Minutes(5)});

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_CALL_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_CALL_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>

#include "absl/base/thread_annotations.h"
#include "absl/status/status.h"
#include "absl/time/time.h"
#include "google/protobuf/message.h"

#include "zimbrel/src/core/common/rpc/calling.h"
#include "zimbrel/src/core/common/rpc/current_loop.h"
#include "zimbrel/src/core/common/rpc/stream/callback_stream.h"
#include "zimbrel/src/core/common/rpc/stream/open_call.h"
#include "zimbrel/src/core/common/rpc/stream_messages.h"

namespace orvane {

// Whether a stream serves `key`, so that Call would send to it. For callers
// that do something else if none does, or need not prepare the call then. The
// answer is valid until the current task returns.
//
// Thread: the service thread.
template <CallMessage T>
bool IsServed(const KeyOf<T>& key);

// Calls the client that serves `key`. The continuation runs as OnAnswer tells:
// exactly once, as a task of the loop, never inside Call or a stream's handler,
// and after whatever ended the call is done. It may call again, publish,
// unsubscribe, end streams and connections, destroy the service. It is
// destroyed after it has run.
//
//   what happens                              | what the continuation gets
//   ------------------------------------------+------------------------------
//   no living stream serves the key           | kNotFound
//   the frame cannot be sent                  | the transport's reason
//   the client answers                        | the response
//   the client answers with an error          | kUnknown
//   `options.timeout` passes                  | kDeadlineExceeded
//   the handle cancels the call               | kCancelled
//   the client unsubscribes the key on the    | kCancelled
//     stream that made the call               |
//   the stream is completed                   | kCancelled
//   the stream is destroyed, not completed    | kCancelled
//   another stream takes the key over         | nothing: the call waits on, for
//     or unsubscribes it                      |   the client that received it
//   the loop is destroyed                     | nothing: it is destroyed
//
// Once a stream has taken a key over, Call sends to that stream; once any
// stream has unsubscribed a key, no stream serves it. The client is told when
// the timeout passes or the handle cancels the call: see Responder::OnGivenUp.
// An answer that comes after the end, or that belongs to no call, is dropped.
//
// Thread: the service thread; EventLoop::Post leads there from any other, on
// which Call ends the process, as IsServed does.
template <CallMessage T>
CallHandle Call(const KeyOf<T>& key, CallOf<T> call,
                OnAnswer<ResponseOf<T>> on_answer = nullptr,
                CallOptions options = {});

// Call<T> as a value, or a function that does something before it.
template <CallMessage T>
using Caller = std::function<CallHandle(const KeyOf<T>& key, CallOf<T> call,
                                        OnAnswer<ResponseOf<T>> on_answer,
                                        CallOptions options)>;

// ---------------------------------------------------------------------------

namespace internal {

// The living stream that serves `key`, or null.
template <CallMessage T>
CallbackStream<T>* FindServing(const KeyOf<T>& key)
    ABSL_EXCLUSIVE_LOCKS_REQUIRED(kServiceThread) {
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
  internal::CheckServiceThread("orvane::IsServed");
  return internal::FindServing<T>(key) != nullptr;
}

template <CallMessage T>
CallHandle Call(const KeyOf<T>& key, CallOf<T> call,
                OnAnswer<ResponseOf<T>> on_answer, CallOptions options) {
  internal::CheckServiceThread("orvane::Call");
  internal::OpenCall::OnEnd on_end =
      [on_answer =
           std::move(on_answer)](internal::OpenCall::Outcome outcome) mutable {
        if (!on_answer) return;
        if (outcome.ok()) {
          std::move(on_answer)(
              std::move(*static_cast<T&>(**outcome).mutable_response()));
        } else {
          std::move(on_answer)(std::move(outcome).status());
        }
      };
  CallbackStream<T>* const stream = internal::FindServing<T>(key);
  if (stream == nullptr) {
    return internal::EndUnserved(key, *T::descriptor(), std::move(on_end));
  }
  // The client would do something in vain.
  if (options.timeout <= absl::ZeroDuration()) {
    return internal::EndUnsent(
        *stream,
        absl::DeadlineExceededError("the call's timeout is not above 0"),
        std::move(on_end));
  }

  T message;
  *message.mutable_browser_id() = key;
  *message.mutable_call() = std::move(call);
  const std::int64_t id = internal::NextCallId();
  // Before the call is listed: no answer can come while a frame is being sent,
  // and nothing has to be undone if it is not.
  if (absl::Status sent = internal::SendCall(*stream, id, message);
      !sent.ok()) {
    return internal::EndUnsent(*stream, std::move(sent), std::move(on_end));
  }

  auto& [own_key, calls] = stream->CallsOf(key);
  const auto open = std::make_shared<internal::OpenCall>(
      internal::OpenCall::Place{stream, own_key, id, &internal::Drop<T>},
      std::move(on_end));
  // One of the two callables is enough to keep `open`.
  calls.emplace(id, typename CallbackStream<T>::StreamCall{
                        [answered = open.get()](T& reply) {
                          answered->End(std::make_unique<T>(std::move(reply)));
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
