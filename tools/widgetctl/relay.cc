#include "tools/widgetctl/relay.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace widgetctl {
namespace {

// The most that the kernel passes with one message.
constexpr std::size_t kMaxDescriptors = 253;
constexpr std::size_t kControlBytes = CMSG_SPACE(kMaxDescriptors * sizeof(int));

// Between them other connections have their turn.
constexpr int kReadsInATurn = 16;

void TakeDescriptors(msghdr& message,
                     std::vector<orvane::OwnedDescriptor>& taken) {
  for (cmsghdr* part = CMSG_FIRSTHDR(&message); part != nullptr;
       part = CMSG_NXTHDR(&message, part)) {
    if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS)
      continue;
    const std::size_t bytes = part->cmsg_len - CMSG_LEN(0);
    for (std::size_t at = 0; at < bytes; at += sizeof(int)) {
      int descriptor = -1;
      std::memcpy(&descriptor, CMSG_DATA(part) + at, sizeof(int));
      taken.emplace_back(descriptor);
    }
  }
}

void PutDescriptors(const std::vector<orvane::OwnedDescriptor>& descriptors,
                    char* control, msghdr& message) {
  if (descriptors.empty()) return;
  const std::size_t bytes = descriptors.size() * sizeof(int);
  message.msg_control = control;
  message.msg_controllen = CMSG_SPACE(bytes);
  cmsghdr* const part = CMSG_FIRSTHDR(&message);
  part->cmsg_level = SOL_SOCKET;
  part->cmsg_type = SCM_RIGHTS;
  part->cmsg_len = CMSG_LEN(bytes);
  for (std::size_t i = 0; i < descriptors.size(); ++i) {
    const int descriptor = descriptors[i].get();
    std::memcpy(CMSG_DATA(part) + i * sizeof(int), &descriptor, sizeof(int));
  }
}

// Whether the process at the other end has closed its socket, so that it reads
// no more either.
bool IsGone(int socket) {
  pollfd peer = {socket, 0, 0};
  return ::poll(&peer, 1, 0) == 1 && (peer.revents & POLLHUP) != 0;
}

}  // namespace

Relay::Relay(orvane::EventLoop* loop,
             std::unique_ptr<orvane::EventLoop::Watch> host,
             std::unique_ptr<orvane::EventLoop::Watch> widget,
             Handlers handlers)
    : loop_(loop),
      host_(std::move(host)),
      widget_(std::move(widget)),
      handlers_(std::move(handlers)) {
  to_widget_.from = Side::kHost;
  to_widget_.source = host_.get();
  to_widget_.sink = widget_.get();
  to_host_.from = Side::kWidget;
  to_host_.source = widget_.get();
  to_host_.sink = host_.get();
  for (Direction* const direction : {&to_widget_, &to_host_})
    direction->source->WhenReadable([this, direction] { Pump(*direction); });
}

void Relay::Pump(Direction& direction) {
  for (int reads = 0; reads < kReadsInATurn; ++reads) {
    if (direction.unsent.empty()) {
      if (!Read(direction)) return;
      const absl::string_view bytes = direction.unsent;
      Write(direction);
      handlers_.on_bytes(direction.from, bytes);
    } else {
      Write(direction);
    }
    if (!direction.unsent.empty() || direction.has_ended) return;
  }
  loop_->Post([self = std::weak_ptr(self_), &direction] {
    if (const auto alive = self.lock()) (*alive)->Pump(direction);
  });
}

// False if there is nothing to read now.
bool Relay::Read(Direction& direction) {
  iovec room = {direction.buffer.data(), direction.buffer.size()};
  alignas(cmsghdr) char control[kControlBytes];
  msghdr message = {};
  message.msg_iov = &room;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  ssize_t read = 0;
  do {
    read =
        ::recvmsg(direction.source->descriptor(), &message, MSG_CMSG_CLOEXEC);
  } while (read < 0 && errno == EINTR);
  if (read < 0 && errno == EAGAIN) {
    direction.source->WhenReadable([this, &direction] { Pump(direction); });
    return false;
  }
  if (read <= 0) {
    const bool is_gone = IsGone(direction.source->descriptor());
    End(direction);
    Direction& back = direction.from == Side::kHost ? to_host_ : to_widget_;
    if (is_gone && !back.has_ended) End(back);
    return false;
  }
  TakeDescriptors(message, direction.descriptors);
  direction.unsent = {direction.buffer.data(), static_cast<std::size_t>(read)};
  return true;
}

void Relay::Write(Direction& direction) {
  while (!direction.unsent.empty()) {
    iovec bytes = {const_cast<char*>(direction.unsent.data()),
                   direction.unsent.size()};
    alignas(cmsghdr) char control[kControlBytes];
    msghdr message = {};
    message.msg_iov = &bytes;
    message.msg_iovlen = 1;
    PutDescriptors(direction.descriptors, control, message);
    const ssize_t written =
        ::sendmsg(direction.sink->descriptor(), &message, MSG_NOSIGNAL);
    if (written >= 0) {
      direction.unsent.remove_prefix(static_cast<std::size_t>(written));
      direction.descriptors.clear();
    } else if (errno == EAGAIN) {
      direction.sink->WhenWritable([this, &direction] { Pump(direction); });
      return;
    } else if (errno != EINTR) {
      direction.unsent = {};
      direction.descriptors.clear();
      return End(direction);
    }
  }
}

// One side sends no more, or the other one reads no more.
void Relay::End(Direction& direction) {
  direction.has_ended = true;
  ::shutdown(direction.source->descriptor(), SHUT_RD);
  ::shutdown(direction.sink->descriptor(), SHUT_WR);
  if (to_widget_.has_ended && to_host_.has_ended)
    loop_->Post(std::move(handlers_.on_end));
}

}  // namespace widgetctl
