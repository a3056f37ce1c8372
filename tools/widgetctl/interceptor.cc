#include "tools/widgetctl/interceptor.h"

#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "absl/time/clock.h"
#include "absl/time/time.h"

namespace widgetctl {

using orvane::EventLoop;
using orvane::OwnedDescriptor;

namespace {

constexpr absl::Duration kAcceptRetry = absl::Milliseconds(100);

}  // namespace

Interceptor::Interceptor(EventLoop* loop, Options options, Listener* listener)
    : loop_(loop), options_(std::move(options)), listener_(listener) {}

absl::Status Interceptor::Listen(const std::string& path) {
  absl::StatusOr<orvane::ListeningSocket> socket =
      orvane::ListeningSocket::Open(path);
  if (!socket.ok()) return socket.status();
  auto acceptor =
      loop_->WatchDescriptor(OwnedDescriptor(socket->ReleaseDescriptor()));
  if (!acceptor.ok()) return acceptor.status();
  socket_ = std::make_unique<orvane::ListeningSocket>(*std::move(socket));
  acceptor_ = *std::move(acceptor);
  acceptor_->WhenReadable([this] { Accept(); });
  return absl::OkStatus();
}

void Interceptor::Accept() {
  OwnedDescriptor host(
      ::accept4(acceptor_->descriptor(), nullptr, nullptr, SOCK_CLOEXEC));
  if (host.get() < 0 && errno == EAGAIN)
    return acceptor_->WhenReadable([this] { Accept(); });
  // Without a descriptor, the host stays in the queue.
  const absl::Duration pause =
      host.get() < 0 ? kAcceptRetry : absl::ZeroDuration();
  if (host.get() >= 0) {
    const int number = ++count_;
    listener_->OnConnected(number, Join(number, std::move(host)));
  }
  next_accept_ = loop_->RunAfter(pause, [this] { Accept(); });
}

// Connects a host with the widget, or hangs up on it.
absl::Status Interceptor::Join(int number, OwnedDescriptor host_socket) {
  if (absl::Status peer = orvane::CheckPeerIsThisUser(host_socket.get());
      !peer.ok())
    return peer;
  auto widget_socket = orvane::ConnectTo(options_.widget);
  if (!widget_socket.ok()) return widget_socket.status();
  auto host = loop_->WatchDescriptor(std::move(host_socket));
  if (!host.ok()) return host.status();
  auto widget = loop_->WatchDescriptor(*std::move(widget_socket));
  if (!widget.ok()) return widget.status();
  Connection& connection =
      connections_
          .emplace(number, Connection{Conversation(options_.services,
                                                   options_.wants_payloads),
                                      nullptr})
          .first->second;
  connection.relay = std::make_unique<Relay>(
      loop_, *std::move(host), *std::move(widget),
      Relay::Handlers{
          [this, number, &connection](Side from, absl::string_view bytes) {
            Take(number, connection, from, bytes);
          },
          [this, number] {
            connections_.erase(number);
            listener_->OnEnded(number);
          }});
  return absl::OkStatus();
}

void Interceptor::Take(int number, Connection& connection, Side from,
                       absl::string_view bytes) {
  connection.conversation.Take(from, bytes, absl::Now(), [&](Said said) {
    listener_->OnSaid(number, std::move(said));
  });
  listener_->OnPause();
}

}  // namespace widgetctl
