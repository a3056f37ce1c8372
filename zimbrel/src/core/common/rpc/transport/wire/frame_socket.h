// One connection, as frames in and frames out.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_FRAME_SOCKET_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_FRAME_SOCKET_H_

#include <cstdint>
#include <memory>
#include <string_view>

#include "absl/functional/function_ref.h"
#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "google/protobuf/message_lite.h"

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/wire/framing.h"
#include "zimbrel/src/core/common/rpc/transport/wire/outbox.h"

namespace orvane::internal {

// Reads frames and hands them to its receiver in order of arrival; queues
// frames and writes as many as the socket takes with each system call. What is
// sent while a batch of received frames is handled leaves together after the
// last, or as soon as it is some KiB; what is sent by a task leaves before the
// loop waits. A batch is bounded in bytes and in time, and other tasks run
// before the next.
//
// Thread: the service thread. Lifetime: held by its owner and by tasks that are
// queued; the owner lets go with Close.
class FrameSocket : public std::enable_shared_from_this<FrameSocket> {
 public:
  class Receiver {
   public:
    virtual ~Receiver() = default;

    // `frame` and `payload` are borrowed for the call; `frame` may be changed,
    // and the payload is hardly ever in it (see ParseFrame). May close the
    // socket, and may destroy the receiver if it closes the socket first.
    virtual void OnFrame(rpc::transport::StreamMessage& frame,
                         std::string_view payload) = 0;

    // The connection cannot go on: the peer has closed it (OK), the system
    // failed, or the bytes were no frames. Nothing follows. Not called after
    // Close.
    virtual void OnBroken(const absl::Status& why) = 0;

    // A frame was refused, since too many bytes wait for the peer to read them.
    // Called once, as a task of its own. Not called after Close.
    virtual void OnFull(const absl::Status& why) = 0;
  };

  // `socket` is a connected stream socket. `receiver` is used until Close.
  FrameSocket(EventLoop* loop, std::unique_ptr<EventLoop::Watch> socket,
              const FrameLimits& limits, Receiver* receiver);

  // Begins to read. Called once, after construction.
  void Start();

  // The peer takes frames of this length only, if that is less than the limit.
  void ReduceMaxSentFrameBytes(std::size_t max_frame_bytes) {
    outbox_.ReduceMaxFrameBytes(max_frame_bytes);
  }

  // Queues a frame; see AppendFrame. An error means that nothing was queued:
  // the frame is too long, too much is queued already, or the socket is closed.
  absl::Status Send(const rpc::transport::StreamMessage& header,
                    const google::protobuf::MessageLite& payload);
  absl::Status Send(const rpc::transport::StreamMessage& header,
                    std::string_view payload = {});

  // Like Send, but while the peer is not reading, a later frame replaces the
  // one that is queued in its slot. `slot` is called only then.
  absl::StatusOr<Outbox::Placed> SendLatest(
      const rpc::transport::StreamMessage& header, std::string_view payload,
      absl::FunctionRef<Outbox::Slot()> slot);
  void DropSlots(std::uint64_t stream_id) { outbox_.DropSlots(stream_id); }

  // Writes now what the socket takes. Otherwise that happens when some KiB are
  // queued, when the current batch of frames is done, or before the loop waits.
  void Flush();

  // Whether the receiver is being told of a frame right now. No other frame can
  // arrive before that returns.
  bool in_batch() const { return reading_ == Reading::kInBatch; }

  // Hands out no more frames, and calls OnBroken (OK) once all that is queued
  // has been written, as a task of its own.
  void FinishWriting();

  // False after Close.
  bool is_open() const { return receiver_ != nullptr; }

  // Writes what the socket still takes, then closes it. The receiver is not
  // called again. Closing twice is harmless.
  void Close();

 private:
  // Who reads next.
  enum class Reading {
    kIdle,           // Nobody, until Start or once there is an end.
    kAwaitingInput,  // The socket, when something comes.
    kQueued,         // A task, in its turn.
    kInBatch,        // Nobody: the receiver is being told of a frame.
  };

  // Who writes what is queued.
  enum class Writing {
    kIdle,          // Nobody: nothing is queued.
    kBeforeWait,    // The loop, before it waits.
    kAwaitingRoom,  // The socket, when it has room again.
    kFailed,        // Nobody: the system has refused to send.
  };

  void AwaitInput();
  void QueueTurn();
  // Hands out a batch of frames, after a read if none are left of the last one.
  void TakeTurn();
  // False if nothing has come; what happens then is settled.
  bool Read();
  // Those that are whole, until that has taken its time or the receiver closes
  // the socket.
  void HandOutFrames();
  // From when a frame begins until it is whole.
  void BeginDeadline();
  // Tells the receiver, unless it has closed the socket.
  void Break(const absl::Status& why);

  // Has queued frames written, or the receiver told if there is no room.
  absl::Status Queued(absl::Status added);
  void FlushBeforeWaiting();
  void AwaitRoom();
  void OnAllWritten();
  void FailWriting(int error);

  EventLoop* const loop_;
  std::unique_ptr<EventLoop::Watch> socket_;  // Null once closed.
  const FrameLimits limits_;
  Receiver* receiver_;  // Null once closed.

  Reading reading_ = Reading::kIdle;
  FrameReader reader_;
  rpc::transport::StreamMessage frame_;  // Reused, so that its memory is too.
  bool has_frames_left_ = false;         // Read, and not handed out yet.
  bool may_have_more_ = false;           // The socket, without a new event.
  // By when the frame that has begun must be whole; null if none has.
  std::unique_ptr<EventLoop::Timer> frame_deadline_;

  Writing writing_ = Writing::kIdle;
  Outbox outbox_;
  absl::Status write_error_;  // With kFailed; OK if the peer has left.
  bool has_told_full_ = false;
  bool is_finishing_ = false;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_FRAME_SOCKET_H_
