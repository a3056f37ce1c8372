// One connection, as frames in and frames out.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_FRAME_SOCKET_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_FRAME_SOCKET_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <string_view>

#include "zimbrel/src/core/common/rpc/asio_hook.h"

#include "absl/functional/function_ref.h"
#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "asio/local/stream_protocol.hpp"
#include "asio/steady_timer.hpp"
#include "google/protobuf/message_lite.h"

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/transport/wire/framing.h"
#include "zimbrel/src/core/common/rpc/transport/wire/outbox.h"

namespace orvane::internal {

// Reads frames and hands them to its receiver in order of arrival; queues
// frames and writes as many as the socket takes with each system call. What is
// sent while a batch of received frames is handled leaves together after the
// last, or as soon as it is some KiB.
//
// Thread: the service thread. Lifetime: held by its owner and by the socket
// operations in progress; the owner lets go with Close.
class FrameSocket : public std::enable_shared_from_this<FrameSocket> {
 public:
  using Socket = asio::local::stream_protocol::socket;

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

  // `receiver` is used until Close.
  FrameSocket(Socket socket, const FrameLimits& limits, Receiver* receiver);

  // Begins to read. Called once, after construction.
  void Start();

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
  // queued, or the current batch of frames or the current task is done.
  void Flush();

  // Whether the receiver is being told of a frame right now. No other frame can
  // arrive before that returns.
  bool in_batch() const { return in_batch_; }

  // Hands out no more frames, and calls OnBroken (OK) once all that is queued
  // has been written, as a task of its own.
  void FinishWriting();

  // False after Close.
  bool is_open() const { return receiver_ != nullptr; }

  // Writes what the socket still takes, then closes it. The receiver is not
  // called again. Closing twice is harmless.
  void Close();

 private:
  // Has queued frames written, or the receiver told if there is no room.
  absl::Status Queued(absl::Status added);
  void OnAllWritten();
  void Read();
  void OnRead(std::size_t bytes);
  // Every frame that is complete, or until the receiver closes the socket.
  void HandOutFrames();
  void ScheduleFlush();
  // Sees to it that the frame which has begun, if any, ends in time.
  void WatchUnfinishedFrame();
  void CheckUnfinishedFrameLater();

  Socket socket_;
  const FrameLimits limits_;
  Receiver* receiver_;  // Null once closed.
  FrameReader reader_;
  rpc::transport::StreamMessage frame_;  // Reused, so that its memory is too.
  Outbox outbox_;
  bool has_told_full_ = false;
  bool is_finishing_ = false;

  // The frame that is not whole yet: its number, and when its first bytes came.
  std::uint64_t whole_frames_ = 0;
  std::uint64_t watched_frame_ = 0;
  std::chrono::steady_clock::time_point unfinished_since_;
  asio::steady_timer frame_timer_;
  bool is_timer_set_ = false;

  // Who will write what is queued: the end of the batch being handled, a posted
  // task, or the socket when it has room again.
  bool in_batch_ = false;
  bool flush_posted_ = false;
  bool awaiting_room_ = false;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_WIRE_FRAME_SOCKET_H_
