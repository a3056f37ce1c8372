#include "zimbrel/src/core/common/rpc/transport/frame_socket.h"

#include <algorithm>
#include <optional>
#include <string_view>
#include <utility>

#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "asio/buffer.hpp"
#include "asio/error.hpp"
#include "asio/post.hpp"

namespace orvane {

using google::protobuf::MessageLite;
using rpc::transport::StreamMessage;

FrameSocket::FrameSocket(Socket socket, std::size_t max_frame_bytes,
                         Receiver* receiver)
    : socket_(std::move(socket)),
      max_frame_bytes_(std::max(max_frame_bytes, kMinMaxFrameBytes)),
      receiver_(receiver),
      reader_(max_frame_bytes_) {
  asio::error_code refused;  // If so, the first read or write says why.
  socket_.non_blocking(true, refused);
}

void FrameSocket::Start() { Read(); }

absl::Status FrameSocket::Send(const StreamMessage& header,
                               const MessageLite& payload) {
  return Queue(header, payload);
}

absl::Status FrameSocket::Send(const StreamMessage& header,
                               std::string_view payload) {
  return Queue(header, payload);
}

template <typename Payload>
absl::Status FrameSocket::Queue(const StreamMessage& header,
                                const Payload& payload) {
  if (receiver_ == nullptr) {
    return absl::UnavailableError("the connection is closed");
  }
  absl::Status appended =
      AppendFrame(header, payload, max_frame_bytes_, &outbox_);
  if (appended.ok()) ScheduleFlush();
  return appended;
}

void FrameSocket::ScheduleFlush() {
  if (in_batch_ || flush_posted_ || awaiting_room_) return;
  flush_posted_ = true;
  asio::post(socket_.get_executor(), [self = shared_from_this()] {
    self->flush_posted_ = false;
    self->Flush();
  });
}

void FrameSocket::Flush() {
  if (awaiting_room_) return;
  while (!outbox_.empty()) {
    const std::string_view bytes = outbox_.content();
    asio::error_code error;
    const std::size_t written = socket_.write_some(
        asio::const_buffer(bytes.data(), bytes.size()), error);
    if (error == asio::error::would_block) {
      awaiting_room_ = true;
      socket_.async_wait(Socket::wait_write,
                         [self = shared_from_this()](asio::error_code failed) {
                           self->awaiting_room_ = false;
                           if (!failed) self->Flush();
                         });
      return;
    }
    // On failure nobody will read the rest. The read in progress finds the
    // same, after what the peer had said before it went.
    outbox_.Consume(error ? bytes.size() : written);
  }
}

void FrameSocket::Close() {
  if (receiver_ == nullptr) return;
  Flush();
  receiver_ = nullptr;
  asio::error_code ignored;  // The descriptor is gone in any case.
  socket_.close(ignored);
}

void FrameSocket::Read() {
  char* const space = reader_.Space();
  socket_.async_read_some(
      asio::mutable_buffer(space, reader_.room()),
      [self = shared_from_this()](asio::error_code error, std::size_t bytes) {
        if (self->receiver_ == nullptr) return;
        if (error == asio::error::eof)
          return self->receiver_->OnBroken(absl::OkStatus());
        if (error)
          return self->receiver_->OnBroken(
              absl::UnavailableError(error.message()));
        self->OnRead(bytes);
      });
}

void FrameSocket::OnRead(std::size_t bytes) {
  reader_.Received(bytes);
  in_batch_ = true;
  HandOutFrames();
  in_batch_ = false;
  if (receiver_ == nullptr) return;
  Flush();
  Read();
}

void FrameSocket::HandOutFrames() {
  while (receiver_ != nullptr) {
    const absl::StatusOr<std::optional<std::string_view>> next = reader_.Next();
    if (!next.ok()) return receiver_->OnBroken(next.status());
    if (!next->has_value()) return;
    const std::string_view content = **next;
    if (!frame_.ParseFromArray(content.data(),
                               static_cast<int>(content.size()))) {
      return receiver_->OnBroken(absl::InvalidArgumentError(absl::StrCat(
          "frame of ", content.size(), " bytes that is no StreamMessage")));
    }
    receiver_->OnFrame(frame_);
  }
}

}  // namespace orvane
