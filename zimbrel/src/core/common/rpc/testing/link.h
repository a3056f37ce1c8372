// For tests: clients connected to a server, and a connection that can be cut at
// any byte.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_LINK_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_LINK_H_

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/raw_peer.h"
#include "zimbrel/src/core/common/rpc/transport/in_process.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace orvane::testing {

// A new client of the server, which sends what the test tells it to.
inline RawPeer ConnectRaw(
    SocketServer& server,
    const std::optional<rpc::transport::Hello>& greeting =
        internal::MakeHello(*rpc::BrowserWidgetRpc::descriptor())) {
  auto pair = ConnectedPair();
  EXPECT_TRUE(server.Adopt(pair->first.Release()).ok());
  return {std::move(pair->second), greeting};
}

// A new client of the server, in `loop`.
inline std::unique_ptr<SocketClient> Connect(EventLoop* loop,
                                             SocketServer& server) {
  auto client = ConnectInProcess(loop, &server);
  EXPECT_TRUE(client.ok()) << client.status();
  return *std::move(client);
}

// Joins a client's socket and a server's by hand: what one sends reaches the
// other when the test says so, and as much of it.
class Link {
 public:
  enum End { kClient, kServer };

  Link() {
    auto client = ConnectedPair();
    auto server = ConnectedPair();
    ours_[kClient].emplace(std::move(client->first));
    ours_[kServer].emplace(std::move(server->first));
    theirs_[kClient].emplace(std::move(client->second));
    theirs_[kServer].emplace(std::move(server->second));
  }

  // The socket at that end, for whoever is to use it.
  int ReleaseDescriptor(End end) { return theirs_[end]->Release(); }

  // Passes on what waits, in both directions, and cuts the link if an end has
  // closed its socket. False if there was nothing to do.
  bool Pass() {
    const bool was_whole = is_whole();
    const bool there = PassAllBut(kClient, 0) > 0;
    const bool back = PassAllBut(kServer, 0) > 0;
    return there || back || was_whole != is_whole();
  }

  // Passes on what that end has sent, without the last `held_back` bytes, which
  // are lost. Returns how many bytes there were.
  std::size_t PassAllBut(End from, std::size_t held_back) {
    if (!ours_[from].has_value()) return 0;
    std::string bytes;
    std::array<char, 4096> part{};
    ssize_t got = 0;
    while ((got = ::recv(ours_[from]->get(), part.data(), part.size(),
                         MSG_DONTWAIT)) > 0) {
      bytes.append(part.data(), static_cast<std::size_t>(got));
    }
    if (bytes.size() > held_back) {
      const std::size_t passed = bytes.size() - held_back;
      EXPECT_EQ(::send(ours_[from == kClient ? kServer : kClient]->get(),
                       bytes.data(), passed, MSG_NOSIGNAL),
                static_cast<ssize_t>(passed));
    }
    if (got == 0) Cut();
    return bytes.size();
  }

  // Nothing passes from now on, and both ends learn of it.
  void Cut() {
    ours_[kClient].reset();
    ours_[kServer].reset();
  }

 private:
  bool is_whole() const { return ours_[kClient].has_value(); }

  std::array<std::optional<OwnedDescriptor>, 2> ours_;
  std::array<std::optional<OwnedDescriptor>, 2> theirs_;
};

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_LINK_H_
