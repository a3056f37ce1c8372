#include "zimbrel/src/core/common/rpc/transport/server/acceptor.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace orvane::internal {
namespace {

constexpr absl::Duration kRetry = absl::Milliseconds(100);

// Both return the client's socket, or the negative number of an error.
int AcceptFrom(int listening) {
  const int client = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
  return client >= 0 ? client : -errno;
}

// EPIPE at the channel's end, ECONNABORTED for a message without a socket.
int ReceiveFrom(int channel) {
  char byte = 0;
  iovec text = {&byte, sizeof byte};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
  msghdr message = {};
  message.msg_iov = &text;
  message.msg_iovlen = 1;
  message.msg_control = control;
  // Room for one descriptor and not, as with the padding, for two. The system
  // closes what is too much.
  message.msg_controllen = CMSG_LEN(sizeof(int));
  const ssize_t received = ::recvmsg(channel, &message, MSG_CMSG_CLOEXEC);
  if (received < 0) return -errno;
  const cmsghdr* const part = CMSG_FIRSTHDR(&message);
  if (part == nullptr) return received == 0 ? -EPIPE : -ECONNABORTED;
  if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS ||
      part->cmsg_len < CMSG_LEN(sizeof(int)))
    return -ECONNABORTED;
  int client = -1;
  std::memcpy(&client, CMSG_DATA(part), sizeof client);
  return client;
}

}  // namespace

Acceptor::Acceptor(EventLoop* loop, Source source,
                   std::unique_ptr<EventLoop::Watch> socket, OnClient on_client,
                   Task on_end)
    : loop_(loop),
      source_(source),
      socket_(std::move(socket)),
      on_client_(std::make_shared<const OnClient>(std::move(on_client))),
      on_end_(std::move(on_end)) {
  Await();
}

void Acceptor::Await() {
  socket_->WhenReadable([this] { AcceptNext(); });
}

void Acceptor::AcceptNext() {
  const int client = source_ == Source::kListening
                         ? AcceptFrom(socket_->descriptor())
                         : ReceiveFrom(socket_->descriptor());
  if (client >= 0) {
    AcceptAfter(absl::ZeroDuration());
    const auto on_client = on_client_;  // It may destroy this object.
    (*on_client)(OwnedDescriptor(client));
    return;
  }
  switch (-client) {
    case EAGAIN:
      return Await();
    case EINTR:
    case ECONNABORTED:
      return AcceptAfter(absl::ZeroDuration());
    case EPIPE:
    case ECONNRESET:
      socket_.reset();
      if (on_end_) std::exchange(on_end_, nullptr)();
      return;
    default:
      // Usually no descriptor is left; the client stays in the queue.
      AcceptAfter(kRetry);
  }
}

void Acceptor::AcceptAfter(absl::Duration pause) {
  next_ = loop_->RunAfter(pause, [this] { AcceptNext(); });
}

}  // namespace orvane::internal
