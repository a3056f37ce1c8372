// The simplest stack to compare with: blocking system calls on a Unix-domain
// socket, one write for each frame.

#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "benchmarks/transport/bare_frames.h"
#include "benchmarks/transport/bare_peer.h"
#include "benchmarks/transport/measure.h"

namespace benchmarks {
namespace {

class BlockingLink final : public Link {
 public:
  explicit BlockingLink(int descriptor) : descriptor_(descriptor) {}

  int descriptor() const { return descriptor_; }

  void Send(const FrameHeader& header, const char* payload) override {
    FrameHeader sent = header;
    iovec parts[] = {{&sent, sizeof sent},
                     {const_cast<char*>(payload), header.payload_bytes}};
    iovec* part = parts;
    msghdr message{};
    while (true) {
      message.msg_iov = part;
      message.msg_iovlen = static_cast<std::size_t>(std::end(parts) - part);
      const ssize_t written = sendmsg(descriptor_, &message, MSG_NOSIGNAL);
      if (written < 0) return;  // The peer is gone; reading reports that.
      auto left = static_cast<std::size_t>(written);
      while (part != std::end(parts) && left >= part->iov_len)
        left -= (part++)->iov_len;
      if (part == std::end(parts)) return;
      part->iov_base = static_cast<char*>(part->iov_base) + left;
      part->iov_len -= left;
    }
  }

  // Receives once and passes each whole frame to `peer`. False at the end of
  // the connection.
  template <typename Peer>
  bool Receive(Peer& peer, int flags) {
    const ssize_t bytes =
        recv(descriptor_, received_.space(), received_.room(), flags);
    if (bytes < 0 && errno == EAGAIN) return true;
    if (bytes <= 0) return false;
    received_.Received(static_cast<std::size_t>(bytes));
    FrameHeader header;
    const char* payload;
    while (received_.Next(&header, &payload))
      peer.OnFrame(*this, header, payload);
    return true;
  }

 private:
  const int descriptor_;
  FrameBuffer received_;
};

using Links = std::vector<std::unique_ptr<BlockingLink>>;

// Receives from all links until one ends or the meter is done.
template <typename Peer>
void ReceiveFromAll(const Links& links, Peer& peer, const Meter& meter) {
  if (links.size() == 1) {
    while (!meter.is_done() && links[0]->Receive(peer, 0)) {
    }
    return;
  }
  std::vector<pollfd> polled;
  for (const auto& link : links)
    polled.push_back({link->descriptor(), POLLIN, 0});
  while (!meter.is_done()) {
    poll(polled.data(), polled.size(), -1);
    for (std::size_t i = 0; i < links.size(); ++i) {
      if (polled[i].revents != 0 && !links[i]->Receive(peer, 0)) return;
    }
  }
}

sockaddr_un Address(const Options& options) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, options.socket_path.c_str(),
               sizeof address.sun_path - 1);
  return address;
}

void Serve(const Options& options, Meter& meter) {
  const int listening = socket(AF_UNIX, SOCK_STREAM, 0);
  const sockaddr_un address = Address(options);
  if (bind(listening, reinterpret_cast<const sockaddr*>(&address),
           sizeof address) != 0 ||
      listen(listening, SOMAXCONN) != 0)
    Fail("cannot listen");
  meter.SetReady();
  BareServer server(options, meter);
  Links links;
  while (static_cast<int>(links.size()) < options.hosts) {
    links.push_back(
        std::make_unique<BlockingLink>(accept(listening, nullptr, nullptr)));
    server.Connected(links.back().get());
  }
  ReceiveFromAll(links, server, meter);
}

void Drive(const Options& options, Meter& meter) {
  const sockaddr_un address = Address(options);
  Links links;
  std::vector<Link*> borrowed;
  for (int i = 0; i < options.hosts; ++i) {
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address),
                sizeof address) != 0)
      Fail("cannot connect");
    links.push_back(std::make_unique<BlockingLink>(descriptor));
    borrowed.push_back(links.back().get());
  }
  BareHost host(options, meter, borrowed);
  if (options.figure != Figure::kStorm)
    return ReceiveFromAll(links, host, meter);
  while (!meter.is_done()) {
    host.SendMove();
    for (const auto& link : links) {
      if (!link->Receive(host, MSG_DONTWAIT)) return;
    }
  }
}

}  // namespace
}  // namespace benchmarks

int main(int argc, char** argv) {
  return benchmarks::Run(
      argc, argv, {.serve = benchmarks::Serve, .drive = benchmarks::Drive});
}
