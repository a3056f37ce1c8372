#include "zimbrel/src/core/common/rpc/transport/wire/frame_socket.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "absl/time/time.h"

namespace orvane::internal {

using google::protobuf::MessageLite;
using rpc::transport::StreamMessage;
using std::chrono::steady_clock;

namespace {

// Once this much is queued, some hundreds of small frames, it is written, so
// that the peer can start on another core while this task goes on. A system
// call costs little in comparison.
constexpr std::size_t kEnoughToWrite = std::size_t{8} << 10;

// A batch ends with the frame at which it has taken this long. That is enough
// for some hundreds of usual frames, and short enough for each of many peers
// that send all the time to have a turn every few milliseconds.
constexpr std::chrono::microseconds kBatchTime{100};

// Whether a batch has taken its time. Reading the clock takes as long as a
// tenth of a small event, so while frames are quick it is read after some of
// them only.
class BatchClock {
 public:
  // Called after each frame.
  bool IsOver() {
    if (--frames_until_look_ > 0) return false;
    const auto now = steady_clock::now();
    const bool are_quick = now - latest_look_ < kBatchTime / kQuickFrames;
    frames_until_look_ = are_quick ? kQuickFrames : 1;
    latest_look_ = now;
    return now - begun_ >= kBatchTime;
  }

 private:
  static constexpr int kQuickFrames = 8;

  const steady_clock::time_point begun_ = steady_clock::now();
  steady_clock::time_point latest_look_ = begun_;
  int frames_until_look_ = 1;
};

FrameLimits AtLeastUsable(FrameLimits limits) {
  limits.max_frame_bytes = std::max(limits.max_frame_bytes, kMinMaxFrameBytes);
  return limits;
}

absl::Status Closed() {
  return absl::UnavailableError("the connection is closed");
}

}  // namespace

FrameSocket::FrameSocket(EventLoop* loop,
                         std::unique_ptr<EventLoop::Watch> socket,
                         const FrameLimits& limits, Receiver* receiver)
    : loop_(loop),
      socket_(std::move(socket)),
      limits_(AtLeastUsable(limits)),
      receiver_(receiver),
      reader_(limits_.max_frame_bytes),
      outbox_(limits_) {}

void FrameSocket::Start() { AwaitInput(); }

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

absl::Status FrameSocket::SendEnd(const StreamMessage& header) {
  if (receiver_ == nullptr) return Closed();
  return Queued(outbox_.AddEnd(header));
}

absl::StatusOr<Outbox::Placed> FrameSocket::SendLatest(
    const StreamMessage& header, std::string_view payload,
    absl::FunctionRef<Outbox::Slot()> slot) {
  if (writing_ != Writing::kAwaitingRoom) {
    if (absl::Status sent = Send(header, payload); !sent.ok()) return sent;
    return Outbox::Placed::kBehindTheOthers;
  }
  if (receiver_ == nullptr) return Closed();
  absl::StatusOr<Outbox::Placed> placed =
      outbox_.Replace(header, payload, slot());
  if (absl::Status queued = Queued(placed.status()); !queued.ok())
    return queued;
  return placed;
}

absl::Status FrameSocket::Queued(absl::Status added) {
  if (added.ok()) {
    FlushBeforeWaiting();
    if (outbox_.size() >= kEnoughToWrite) Flush();
  } else if (outbox_.has_overflowed() && !has_told_full_) {
    has_told_full_ = true;
    loop_->Post([self = shared_from_this(), added] {
      if (self->receiver_ != nullptr) self->receiver_->OnFull(added);
    });
  }
  return added;
}

// Within a batch too: a handler may run the loop and wait for the answer to
// what it sends here.
void FrameSocket::FlushBeforeWaiting() {
  if (writing_ != Writing::kIdle) return;
  writing_ = Writing::kBeforeWait;
  loop_->RunBeforeWaiting([self = shared_from_this()] {
    if (self->writing_ != Writing::kBeforeWait) return;
    self->writing_ = Writing::kIdle;
    self->Flush();
  });
}

void FrameSocket::Flush() {
  if (socket_ == nullptr || writing_ == Writing::kAwaitingRoom) return;
  if (writing_ == Writing::kFailed) return OnAllWritten();
  for (std::string_view bytes = outbox_.Front(); !bytes.empty();
       bytes = outbox_.Front()) {
    const ssize_t written = TEMP_FAILURE_RETRY(::send(
        socket_->descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
    if (written < 0) {
      if (errno == EAGAIN) return AwaitRoom();
      return FailWriting(errno);
    }
    outbox_.Consume(static_cast<std::size_t>(written));
  }
  OnAllWritten();
}

void FrameSocket::AwaitRoom() {
  writing_ = Writing::kAwaitingRoom;
  stalled_since_ = CoarseClock::now();
  socket_->WhenWritable([this] {
    writing_ = Writing::kIdle;
    receiver_->OnSignOfLife();
    Flush();
  });
}

// A peer that has gone may have sent the reason before, so what has arrived is
// read first.
void FrameSocket::FailWriting(int error) {
  writing_ = Writing::kFailed;
  const bool has_left = error == EPIPE || error == ECONNRESET;
  write_error_ = has_left ? absl::OkStatus()
                          : absl::UnavailableError(std::strerror(error));
  OnAllWritten();
  may_have_more_ = true;
  if (reading_ == Reading::kAwaitingInput) QueueTurn();
}

bool FrameSocket::HasInput() const {
  char byte = 0;
  return socket_ != nullptr &&
         ::recv(socket_->descriptor(), &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
}

void FrameSocket::Pause(absl::Duration how_long) {
  pause_ = std::max(pause_, how_long);
}

void FrameSocket::FinishWriting() {
  is_finishing_ = true;
  Flush();
}

void FrameSocket::OnAllWritten() {
  if (!is_finishing_) return;
  loop_->Post([self = shared_from_this()] { self->Break(absl::OkStatus()); });
}

void FrameSocket::Close() {
  if (receiver_ == nullptr) return;
  Flush();
  receiver_ = nullptr;
  frame_deadline_.reset();
  pause_end_.reset();
  // Closing alone does not end the connection while a child process has a copy
  // of the socket.
  ::shutdown(socket_->descriptor(), SHUT_RDWR);
  socket_.reset();
}

void FrameSocket::Break(const absl::Status& why) {
  // The receiver may release this object.
  const std::shared_ptr<FrameSocket> self = shared_from_this();
  if (receiver_ != nullptr) receiver_->OnBroken(why);
}

void FrameSocket::AwaitInput() {
  if (writing_ == Writing::kFailed) return Break(write_error_);
  reading_ = Reading::kAwaitingInput;
  socket_->WhenReadable([this] {
    if (reading_ == Reading::kAwaitingInput) TakeTurn();
  });
}

void FrameSocket::BreakIfPeerLeaves() {
  socket_->WhenReadable([this] {
    may_have_more_ = true;  // This was the report of it.
    if (reading_ != Reading::kPaused) return;
    pollfd peer = {socket_->descriptor(), 0, 0};
    ::poll(&peer, 1, 0);
    if ((peer.revents & POLLHUP) != 0) return Break(absl::OkStatus());
    BreakIfPeerLeaves();
  });
}

void FrameSocket::QueueTurn() {
  reading_ = Reading::kQueued;
  loop_->Post([self = shared_from_this()] {
    if (self->reading_ == Reading::kQueued) self->TakeTurn();
  });
}

void FrameSocket::TakeTurn() {
  const std::shared_ptr<FrameSocket> self = shared_from_this();
  if (receiver_ == nullptr) return;
  if (!has_frames_left_ && !Read()) return;
  reading_ = Reading::kInBatch;
  HandOutFrames();
  reading_ = Reading::kIdle;
  if (receiver_ == nullptr) return;
  Flush();
  if (is_finishing_) return;
  if (pause_ > absl::ZeroDuration()) {
    reading_ = Reading::kPaused;
    pause_end_ =
        loop_->RunAfter(std::exchange(pause_, absl::ZeroDuration()), [this] {
          if (reading_ == Reading::kPaused) TakeTurn();
        });
    return BreakIfPeerLeaves();
  }
  if (!has_frames_left_) BeginDeadline();
  if (has_frames_left_ || may_have_more_) return QueueTurn();
  AwaitInput();
}

bool FrameSocket::Read() {
  char* const space = reader_.Space();
  const std::size_t room = reader_.room();
  const ssize_t bytes =
      TEMP_FAILURE_RETRY(::recv(socket_->descriptor(), space, room, 0));
  // If less has arrived than there was room for, the socket is empty until it
  // reports input again. Another read would only find that out.
  may_have_more_ = bytes == static_cast<ssize_t>(room);
  if (bytes > 0) {
    receiver_->OnSignOfLife();
    reader_.Received(static_cast<std::size_t>(bytes));
    return true;
  }
  if (bytes < 0 && errno == EAGAIN) {
    AwaitInput();
  } else if (bytes == 0 || errno == ECONNRESET) {
    // A peer that closes before it has read everything resets the connection.
    Break(absl::OkStatus());
  } else {
    Break(absl::UnavailableError(std::strerror(errno)));
  }
  return false;
}

void FrameSocket::HandOutFrames() {
  BatchClock clock;
  while (receiver_ != nullptr && !is_finishing_) {
    const absl::StatusOr<std::optional<std::string_view>> next = reader_.Next();
    if (!next.ok()) return Break(next.status());
    has_frames_left_ = next->has_value();
    if (!has_frames_left_) return;
    frame_deadline_.reset();
    const std::string_view content = **next;
    std::string_view payload;
    if (!ParseFrame(content, &frame_, &payload)) {
      return Break(absl::InvalidArgumentError(
          absl::StrCat("a frame of ", content.size(),
                       " bytes cannot be parsed as StreamMessage")));
    }
    receiver_->OnFrame(frame_, payload);
    if (std::exchange(is_yielding_, false) || pause_ > absl::ZeroDuration() ||
        clock.IsOver()) {
      return;
    }
  }
}

void FrameSocket::BeginDeadline() {
  if (reader_.unfinished_bytes() == 0 || frame_deadline_ != nullptr ||
      limits_.max_frame_time == absl::InfiniteDuration()) {
    return;
  }
  frame_deadline_ = loop_->RunAfter(limits_.max_frame_time, [this] {
    Break(absl::DeadlineExceededError(
        absl::StrCat("frame not finished within ",
                     absl::FormatDuration(limits_.max_frame_time), "; ",
                     reader_.unfinished_bytes(), " bytes of it have arrived")));
  });
}

}  // namespace orvane::internal
