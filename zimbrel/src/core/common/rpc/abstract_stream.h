// The base of every server-side stream.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_ABSTRACT_STREAM_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_ABSTRACT_STREAM_H_

#include <cstdint>

#include "absl/status/status.h"

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/stream_channel.h"

namespace orvane {

class EventLoop;

// The server's side of one stream that a client has opened.
//
// The transport owns it. It calls OnNext and OnError any number of times, then
// OnCompleted at most once, then only the destructor. It must call OnCompleted
// before it destroys a stream that received frames: destructors leave the
// process-wide registries alone.
//
// Thread: the service thread, for everything; calls of different streams must
// not overlap either. On any other thread, Send ends the process, and so does
// Publish.
class AbstractStream {
 public:
  explicit AbstractStream(StreamChannel channel);
  AbstractStream(const AbstractStream&) = delete;
  AbstractStream& operator=(const AbstractStream&) = delete;
  virtual ~AbstractStream();

  // A data frame from the peer. `frame` is borrowed for the call.
  virtual void OnNext(rpc::transport::StreamMessage* frame) = 0;

  // The peer reports a failure: of the call `frame->call_id()` where the stream
  // has calls. The stream goes on. `frame` is borrowed for the call.
  virtual void OnError(rpc::transport::StreamMessage* frame) = 0;

  // The peer has ended the stream, or is gone. Ends with Complete(), which may
  // destroy the stream.
  virtual void OnCompleted() = 0;

  // Sends `payload` and `call_id` of `frame` to the peer, without blocking. An
  // error means that nothing was sent.
  absl::Status Send(const rpc::transport::StreamMessage& frame);

  // Like Send, for an event about `key`; see StreamEndpoint::SendEvent.
  absl::Status SendEvent(const rpc::transport::StreamMessage& frame,
                         const google::protobuf::Message& key);

  // Tells the peer that nobody waits for the answer to a call that was sent to
  // it.
  void CancelCall(std::int64_t call_id);

  // The loop on which the stream lives. Outlives the stream.
  EventLoop& loop() const;

 protected:
  // Tells the peer that this end is finished. The transport may destroy the
  // stream inside this call, so a stream must not touch itself afterwards.
  void Complete();

 private:
  StreamChannel channel_;
};

}  // namespace orvane

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_ABSTRACT_STREAM_H_
