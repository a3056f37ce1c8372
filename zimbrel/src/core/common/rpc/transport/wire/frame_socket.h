// Sends and receives frames on one connection.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_FRAME_SOCKET_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_FRAME_SOCKET_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "absl/functional/function_ref.h"
#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "google/protobuf/message_lite.h"

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/coarse_clock.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/wire/framing.h"
#include "zimbrel/src/core/common/rpc/transport/wire/outbox.h"

namespace orvane::internal {

// Reads frames and passes them to its receiver in the order of arrival. Queues
// frames that are sent, and writes as many as the socket takes with each system
// call. Frames that are sent while a batch of received frames is handled are
// written together after the batch, or as soon as some KiB are queued; frames
// that are sent in another task are written before the loop waits. A batch is
// bounded in bytes and in time, and other tasks run before the next one.
//
// Thread: the service thread. Lifetime: shared by its owner and by queued
// tasks; the owner calls Close when it no longer uses the socket.
class FrameSocket : public std::enable_shared_from_this<FrameSocket> {
 public:
  class Receiver {
   public:
    virtual ~Receiver() = default;

    // Runs for each frame. `frame` and `payload` are borrowed for the call, and
    // `frame` may be changed; it usually does not contain the payload (see
    // ParseFrame). May close the socket, and may destroy the receiver if it
    // closes the socket first.
    virtual void OnFrame(rpc::transport::StreamMessage& frame,
                         std::string_view payload) = 0;

    // The connection has ended: the peer closed it (`why` is OK), the system
    // reported an error, or the peer sent bytes that are not frames. No other
    // call follows. Not called after Close.
    virtual void OnBroken(const absl::Status& why) = 0;

    // The peer has sent some bytes, or read some of those that waited for it.
    // Must not close the socket.
    virtual void OnSignOfLife() = 0;

    // A frame was refused, since too many bytes wait for the peer to read them.
    // Called once, in a task of its own. Not called after Close.
    virtual void OnFull(const absl::Status& why) = 0;
  };

  // `socket` is a connected stream socket. `receiver` is used until Close.
  FrameSocket(EventLoop* loop, std::unique_ptr<EventLoop::Watch> socket,
              const FrameLimits& limits, Receiver* receiver);

  // Starts to read. Called once, after construction.
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

  // Queues a frame that ends a call or a stream, also if too much is queued. An
  // error means that the socket is closed.
  absl::Status SendEnd(const rpc::transport::StreamMessage& header);

  // Like Send, but while the peer is not reading, a later frame replaces the
  // one that is queued in its slot. `slot` is called only then.
  absl::StatusOr<Outbox::Placed> SendLatest(
      const rpc::transport::StreamMessage& header, std::string_view payload,
      absl::FunctionRef<Outbox::Slot()> slot);
  void DropSlots(std::uint64_t stream_id) { outbox_.DropSlots(stream_id); }

  // Writes as much as the socket takes now. Without this call, frames are
  // written when some KiB are queued, when the current batch of received frames
  // is done, or before the loop waits.
  void Flush();

  // Whether a batch of frames is being passed to the receiver. Until the
  // receiver has returned, it gets no other frame.
  bool in_batch() const { return reading_ == Reading::kInBatch; }

  // Called by the receiver while it handles a frame: reads and passes on no
  // other frame for `how_long`. If called twice, the longer time counts. What
  // has arrived is kept, and a peer that goes on sending finds the socket full.
  // If the peer closes its end meanwhile, the connection ends at once, and what
  // has not been read is lost: a peer that is gone would stay connected for as
  // long as it takes to read what it has left.
  void Pause(absl::Duration how_long);

  // Called by the receiver while it handles a frame: the tasks that wait now
  // run before the next frame is passed on.
  void Yield() { is_yielding_ = true; }

  // Passes on no more frames. Once everything queued has been written, calls
  // OnBroken with OK, in a task of its own.
  void FinishWriting();

  // Bytes that wait for room in the system's buffer, and since when it has had
  // none, if they do.
  std::size_t queued_bytes() const { return outbox_.size(); }
  std::optional<CoarseClock::time_point> stalled_since() const {
    if (writing_ != Writing::kAwaitingRoom) return std::nullopt;
    return stalled_since_;
  }

  // Whether bytes have arrived that have not been read.
  bool HasInput() const;

  // False after Close.
  bool is_open() const { return receiver_ != nullptr; }

  // Writes what the socket still takes, then closes it. The receiver is not
  // called afterwards. Closing twice is harmless.
  void Close();

 private:
  enum class Reading {
    kIdle,           // Not started, or ended.
    kAwaitingInput,  // Goes on when the socket becomes readable.
    kQueued,         // A task is posted that goes on.
    kInBatch,        // The receiver is handling frames.
    kPaused,         // A timer will go on.
  };

  enum class Writing {
    kIdle,          // Nothing is queued.
    kBeforeWait,    // The loop will flush before it waits.
    kAwaitingRoom,  // Goes on when the socket becomes writable.
    kFailed,        // The system refuses to send.
  };

  void AwaitInput();
  void BreakIfPeerLeaves();  // While reading is paused.
  void QueueTurn();
  // Passes on a batch of frames. Reads first if the last read has left none.
  void TakeTurn();
  // Reads what has arrived. If nothing has, arranges what happens next and
  // returns false.
  bool Read();
  // Passes on complete frames until none is left, the batch has taken its time,
  // or the receiver closes the socket.
  void HandOutFrames();
  // If a frame has begun to arrive, starts the time that it may take.
  void BeginDeadline();
  // Calls OnBroken, unless the receiver has closed the socket.
  void Break(const absl::Status& why);

  // Called with the result of queueing a frame, which it returns: arranges that
  // the frame is written, or that the receiver learns that there is no room.
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
  rpc::transport::StreamMessage frame_;  // A member to keep its memory.
  bool has_frames_left_ = false;         // Read, but not passed on yet.
  // Whether the socket may have more input without reporting it again.
  bool may_have_more_ = false;
  // Ends the connection unless the frame that has begun is complete in time;
  // null if none has begun.
  std::unique_ptr<EventLoop::Timer> frame_deadline_;
  bool is_yielding_ = false;                     // After this frame.
  absl::Duration pause_;                         // After this batch.
  std::unique_ptr<EventLoop::Timer> pause_end_;  // With kPaused.

  Writing writing_ = Writing::kIdle;
  CoarseClock::time_point stalled_since_;  // With kAwaitingRoom.
  Outbox outbox_;
  absl::Status write_error_;  // Set with kFailed; OK if the peer has left.
  bool has_told_full_ = false;
  bool is_finishing_ = false;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_FRAME_SOCKET_H_
