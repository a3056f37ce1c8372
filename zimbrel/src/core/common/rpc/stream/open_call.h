// What Call keeps of a call until it ends. Used by call.h only.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_OPEN_CALL_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_OPEN_CALL_H_

#include <cstdint>
#include <memory>

#include "absl/base/thread_annotations.h"
#include "absl/functional/any_invocable.h"
#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "zimbrel/src/core/common/rpc/abstract_stream.h"
#include "zimbrel/src/core/common/rpc/calling.h"
#include "zimbrel/src/core/common/rpc/current_loop.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/stream/callback_stream.h"

namespace orvane::internal {

// One call, from when its frame is sent until it ends. Owned by the callables
// that are listed for it in a stream's table. So the stream, the entry in its
// table and the entry's key exist as long as this does; and a call that is
// dropped unanswered, for whatever reason, ends in the destructor.
//
// Thread: the service thread.
class OpenCall final : public Cancellable {
 public:
  // The client's message, of the type that the call was made with, or why the
  // call ended without one.
  using Outcome = absl::StatusOr<std::unique_ptr<google::protobuf::Message>>;
  using OnEnd = absl::AnyInvocable<void(Outcome) &&>;

  // Where the call is listed.
  struct Place {
    AbstractStream* stream;
    const google::protobuf::Message* key;  // The table's own.
    std::int64_t id;
    // Takes the call out of the table of `stream`.
    void (*drop)(AbstractStream* stream, const google::protobuf::Message& key,
                 std::int64_t id);
  };

  OpenCall(Place place, OnEnd on_end);
  OpenCall(const OpenCall&) = delete;
  OpenCall& operator=(const OpenCall&) = delete;
  ~OpenCall();

  // Posts `on_end` to the stream's loop. Does nothing if the call has ended.
  void End(Outcome outcome);

  // Ends the call with kDeadlineExceeded after `timeout`. Called at most once.
  void EndAfter(absl::Duration timeout);

  // Ends the call with kCancelled.
  void Cancel() override;

 private:
  // Ends the call and tells the client so, unless it has ended, and takes it
  // out of the table if it is still there. That may destroy this object.
  void Withdraw(absl::Status why);

  const Place place_;
  EventLoop& loop_;
  OnEnd on_end_;  // Empty once the call has ended.
  std::unique_ptr<EventLoop::Timer> deadline_;
};

// A new id for each call of the process.
std::int64_t NextCallId() ABSL_EXCLUSIVE_LOCKS_REQUIRED(kServiceThread);

// Sends `message` as the call `id`.
absl::Status SendCall(AbstractStream& stream, std::int64_t id,
                      const google::protobuf::Message& message)
    ABSL_EXCLUSIVE_LOCKS_REQUIRED(kServiceThread);

// For a call that no stream serves: posts `on_end` with kNotFound to the
// thread's loop.
CallHandle EndUnserved(const google::protobuf::Message& key,
                       const google::protobuf::Descriptor& type,
                       OpenCall::OnEnd on_end)
    ABSL_EXCLUSIVE_LOCKS_REQUIRED(kServiceThread);

// For a call whose frame could not be sent: posts `on_end` with the reason to
// the stream's loop.
CallHandle EndUnsent(AbstractStream& stream, absl::Status why,
                     OpenCall::OnEnd on_end)
    ABSL_EXCLUSIVE_LOCKS_REQUIRED(kServiceThread);

absl::Status ToStatus(StreamCallFailure why);

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_STREAM_OPEN_CALL_H_
