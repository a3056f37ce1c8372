// One connection, as frames in and frames out. Private to the transport.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_FRAME_SOCKET_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_FRAME_SOCKET_H_

#include <cstddef>
#include <memory>
#include <string_view>

#include "zimbrel/src/core/common/rpc/asio_hook.h"

#include "absl/status/status.h"
#include "asio/local/stream_protocol.hpp"
#include "google/protobuf/message_lite.h"

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/transport/byte_buffer.h"
#include "zimbrel/src/core/common/rpc/transport/framing.h"

namespace orvane {

// Reads frames and hands them to its receiver in order of arrival; queues
// frames and writes as many as the socket takes with each system call. What is
// sent while a batch of received frames is handled leaves together after the
// last.
//
// Thread: the service thread. Lifetime: held by its owner and by the socket
// operations in progress; the owner lets go with Close.
class FrameSocket : public std::enable_shared_from_this<FrameSocket> {
 public:
  using Socket = asio::local::stream_protocol::socket;

  class Receiver {
   public:
    virtual ~Receiver() = default;

    // `frame` is borrowed for the call, and may be changed. May close the
    // socket, and may destroy the receiver if it closes the socket first.
    virtual void OnFrame(rpc::transport::StreamMessage& frame) = 0;

    // The connection cannot go on: the peer has closed it (OK), the system
    // failed, or the bytes were no frames. Nothing follows. Not called after
    // Close.
    virtual void OnBroken(const absl::Status& why) = 0;
  };

  // `receiver` is used until Close.
  FrameSocket(Socket socket, std::size_t max_frame_bytes, Receiver* receiver);

  // Begins to read. Called once, after construction.
  void Start();

  // Queues a frame; see AppendFrame. An error means that nothing was queued:
  // the frame is too long, or the socket is closed.
  absl::Status Send(const rpc::transport::StreamMessage& header,
                    const google::protobuf::MessageLite& payload);
  absl::Status Send(const rpc::transport::StreamMessage& header,
                    std::string_view payload = {});

  // Writes now what the socket takes. Otherwise that happens when the current
  // batch of frames or the current task is done.
  void Flush();

  // Whether the receiver is being told of a frame right now. No other frame can
  // arrive before that returns.
  bool in_batch() const { return in_batch_; }

  // Writes what the socket still takes, then closes it. The receiver is not
  // called again. Closing twice is harmless.
  void Close();

 private:
  template <typename Payload>
  absl::Status Queue(const rpc::transport::StreamMessage& header,
                     const Payload& payload);
  void Read();
  void OnRead(std::size_t bytes);
  // Every frame that is complete, or until the receiver closes the socket.
  void HandOutFrames();
  void ScheduleFlush();

  Socket socket_;
  const std::size_t max_frame_bytes_;
  Receiver* receiver_;  // Null once closed.
  FrameReader reader_;
  rpc::transport::StreamMessage frame_;  // Reused, so that its memory is too.
  ByteBuffer outbox_;

  // Who will write what is queued: the end of the batch being handled, a posted
  // task, or the socket when it has room again.
  bool in_batch_ = false;
  bool flush_posted_ = false;
  bool awaiting_room_ = false;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_FRAME_SOCKET_H_
