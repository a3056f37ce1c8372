// The state of one stream at the client.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_CLIENT_STREAM_STATE_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_CLIENT_STREAM_STATE_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "absl/status/status.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message_lite.h"

#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/observed_operation.h"
#include "zimbrel/src/core/common/rpc/transport/client_stream.h"
#include "zimbrel/src/core/common/rpc/transport/wire/frame_socket.h"

namespace orvane::internal {

// Shared by the stream's handle, its connection and code that answers later.
//
//            | sending fails | on_next may run | on_end may run
//   ---------+---------------+-----------------+---------------
//   open     | no            | yes             | yes
//   shut     | yes           | no              | yes
//   ended    | yes           | no              | no
//
// Thread: the service thread. May outlive the connection.
class ClientStreamState final : public ClientStreamSender {
 public:
  // `loop` outlives the connection. `observer` may be null.
  ClientStreamState(EventLoop* loop, std::uint64_t id,
                    const google::protobuf::MethodDescriptor& method,
                    OperationObserver* observer,
                    std::shared_ptr<FrameSocket> socket,
                    ClientStreamHandlers handlers);

  bool is_open() const { return is_open_; }

  // ClientStreamSender
  void CheckServiceThread(absl::string_view operation) const override;
  absl::Status Next(const google::protobuf::MessageLite& message,
                    std::int64_t call_id) override;
  absl::Status Error(const google::protobuf::MessageLite& message,
                     std::int64_t call_id, const std::string& text) override;

  // Passes a message from the server to `on_next` and returns its result. The
  // handler may close the stream.
  absl::Status Receive(std::string_view payload, std::int64_t call_id);

  // Passes the id of a call for whose answer the server does not wait any
  // longer to `on_call_given_up`, which may close the stream.
  void GiveUpCall(std::int64_t call_id);

  // Shuts an open stream: nothing is sent or received afterwards.
  void Shut() {
    is_open_ = false;
    observed_calls_.clear();
  }

  // Ends the stream and runs `on_end`, unless it has ended.
  void End(const absl::Status& why);

  // Ends the stream without running `on_end`, since its handle is gone.
  void Close();

 private:
  absl::Status Send(rpc::transport::StreamMessage::Kind kind,
                    const google::protobuf::MessageLite& message,
                    std::int64_t call_id, const absl::Status& error);

  // Of a call of the server's; ids repeat under other keys, and of these any
  // one ends.
  void EndObservedCall(std::int64_t call_id, absl::StatusCode code,
                       std::size_t bytes);

  EventLoop* const loop_;  // May be gone once the stream has ended.
  const std::uint64_t id_;
  const google::protobuf::MethodDescriptor* const method_;
  OperationObserver* const observer_;
  std::multimap<std::int64_t, std::unique_ptr<ObservedOperation>>
      observed_calls_;
  const std::shared_ptr<FrameSocket> socket_;
  std::shared_ptr<ClientStreamHandlers> handlers_;  // Null once it has ended.
  bool is_open_ = true;
};

}  // namespace orvane::internal

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TRANSPORT_CLIENT_CLIENT_STREAM_STATE_H_
