#include "zimbrel/src/core/common/rpc/transport/wire/frame_socket.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string_view>
#include <utility>

#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "absl/time/time.h"
#include "asio/buffer.hpp"
#include "asio/error.hpp"
#include "asio/post.hpp"

namespace orvane::internal {

using google::protobuf::MessageLite;
using rpc::transport::StreamMessage;

namespace {

// With so much queued, some hundreds of small frames, the peer can begin on
// another core while this task goes on; a system call costs little beside it.
constexpr std::size_t kEnoughToWrite = std::size_t{8} << 10;

FrameLimits AtLeastUsable(FrameLimits limits) {
  limits.max_frame_bytes = std::max(limits.max_frame_bytes, kMinMaxFrameBytes);
  return limits;
}

absl::Status Closed() {
  return absl::UnavailableError("the connection is closed");
}

}  // namespace

FrameSocket::FrameSocket(Socket socket, const FrameLimits& limits,
                         Receiver* receiver)
    : socket_(std::move(socket)),
      limits_(AtLeastUsable(limits)),
      receiver_(receiver),
      reader_(limits_.max_frame_bytes),
      outbox_(limits_),
      frame_timer_(socket_.get_executor()) {
  asio::error_code refused;  // If so, the first read or write says why.
  socket_.non_blocking(true, refused);
}

void FrameSocket::Start() { Read(); }

absl::Status FrameSocket::Send(const StreamMessage& header,
                               const MessageLite& payload) {
  if (receiver_ == nullptr) return Closed();
  return Queued(outbox_.Add(header, payload));
}

absl::Status FrameSocket::Send(const StreamMessage& header,
                               std::string_view payload) {
  if (receiver_ == nullptr) return Closed();
  return Queued(outbox_.Add(header, payload));
}

absl::StatusOr<Outbox::Placed> FrameSocket::SendLatest(
    const StreamMessage& header, std::string_view payload,
    absl::FunctionRef<Outbox::Slot()> slot) {
  if (!awaiting_room_) {
    if (absl::Status sent = Send(header, payload); !sent.ok()) return sent;
    return Outbox::Placed::kBehindTheOthers;
  }
  if (receiver_ == nullptr) return Closed();
  const absl::StatusOr<Outbox::Placed> placed =
      outbox_.Replace(header, payload, slot());
  if (absl::Status queued = Queued(placed.status()); !queued.ok())
    return queued;
  return placed;
}

absl::Status FrameSocket::Queued(absl::Status added) {
  if (added.ok()) {
    if (outbox_.size() >= kEnoughToWrite) Flush();
    ScheduleFlush();
  } else if (outbox_.has_overflowed() && !has_told_full_) {
    has_told_full_ = true;
    asio::post(socket_.get_executor(), [self = shared_from_this(), added] {
      if (self->receiver_ != nullptr) self->receiver_->OnFull(added);
    });
  }
  return added;
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
  while (true) {
    const std::string_view bytes = outbox_.Front();
    if (bytes.empty()) return OnAllWritten();
    asio::error_code error;
    const std::size_t written = socket_.write_some(
        asio::const_buffer(bytes.data(), bytes.size()), error);
    if (error == asio::error::interrupted) continue;
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

void FrameSocket::FinishWriting() {
  is_finishing_ = true;
  Flush();
}

void FrameSocket::OnAllWritten() {
  if (!is_finishing_) return;
  asio::post(socket_.get_executor(), [self = shared_from_this()] {
    if (self->receiver_ != nullptr) self->receiver_->OnBroken(absl::OkStatus());
  });
}

void FrameSocket::Close() {
  if (receiver_ == nullptr) return;
  Flush();
  receiver_ = nullptr;
  frame_timer_.cancel();
  asio::error_code ignored;  // The descriptor is gone in any case.
  socket_.close(ignored);
}

void FrameSocket::Read() {
  char* const space = reader_.Space();
  socket_.async_read_some(
      asio::mutable_buffer(space, reader_.room()),
      [self = shared_from_this()](asio::error_code error, std::size_t bytes) {
        if (self->receiver_ == nullptr) return;
        // A peer that leaves without having read everything resets it.
        if (error == asio::error::eof ||
            error == asio::error::connection_reset) {
          return self->receiver_->OnBroken(absl::OkStatus());
        }
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
  if (is_finishing_) return;
  WatchUnfinishedFrame();
  Read();
}

void FrameSocket::HandOutFrames() {
  while (receiver_ != nullptr && !is_finishing_) {
    const absl::StatusOr<std::optional<std::string_view>> next = reader_.Next();
    if (!next.ok()) return receiver_->OnBroken(next.status());
    if (!next->has_value()) return;
    ++whole_frames_;
    const std::string_view content = **next;
    std::string_view payload;
    if (!ParseFrame(content, &frame_, &payload)) {
      return receiver_->OnBroken(absl::InvalidArgumentError(absl::StrCat(
          "frame of ", content.size(), " bytes that is no StreamMessage")));
    }
    receiver_->OnFrame(frame_, payload);
  }
}

void FrameSocket::WatchUnfinishedFrame() {
  if (reader_.unfinished_bytes() == 0 ||
      limits_.max_frame_time == absl::InfiniteDuration()) {
    return;
  }
  const std::uint64_t frame = whole_frames_ + 1;
  if (watched_frame_ == frame) return;
  watched_frame_ = frame;
  unfinished_since_ = std::chrono::steady_clock::now();
  if (!is_timer_set_) CheckUnfinishedFrameLater();
}

void FrameSocket::CheckUnfinishedFrameLater() {
  is_timer_set_ = true;
  const auto due =
      unfinished_since_ + absl::ToChronoNanoseconds(limits_.max_frame_time);
  frame_timer_.expires_at(due);
  frame_timer_.async_wait([self = shared_from_this(), due](asio::error_code) {
    self->is_timer_set_ = false;
    if (self->receiver_ == nullptr || self->reader_.unfinished_bytes() == 0)
      return;
    if (self->watched_frame_ != self->whole_frames_ + 1) return;
    if (self->unfinished_since_ +
            absl::ToChronoNanoseconds(self->limits_.max_frame_time) >
        due) {
      return self->CheckUnfinishedFrameLater();
    }
    self->receiver_->OnBroken(absl::DeadlineExceededError(absl::StrCat(
        "frame not finished within ",
        absl::FormatDuration(self->limits_.max_frame_time), "; ",
        self->reader_.unfinished_bytes(), " bytes of it have come")));
  });
}

}  // namespace orvane::internal
