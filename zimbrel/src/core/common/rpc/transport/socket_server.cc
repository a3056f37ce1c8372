#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "zimbrel/src/core/common/rpc/asio_hook.h"

#include "absl/log/log.h"
#include "absl/strings/str_cat.h"
#include "absl/time/time.h"
#include "asio/io_context.hpp"
#include "asio/local/stream_protocol.hpp"

#include "zimbrel/src/core/common/rpc/transport/server/server_connection.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace orvane {

using asio::local::stream_protocol;
using internal::ServerConnection;

// The acceptor's handlers hold this weakly: they may still be queued when the
// server is gone.
class SocketServer::Impl {
 public:
  Impl(EventLoop* loop, Service* service, const ServerLimits& limits)
      : loop_(loop), service_(service), limits_(limits) {}

  absl::Status Listen(const std::string& path) {
    if (is_shutting_down_) return ShutDownAlready();
    if (acceptor_.has_value())
      return absl::FailedPreconditionError("listening already");
    absl::StatusOr<ListeningSocket> listening = ListeningSocket::Open(path);
    if (!listening.ok()) return listening.status();
    stream_protocol::acceptor acceptor(loop_->io_context());
    asio::error_code error;
    acceptor.assign(stream_protocol(), listening->ReleaseDescriptor(), error);
    if (error) return absl::InternalError(error.message());
    listening_.emplace(*std::move(listening));
    acceptor_.emplace(std::move(acceptor));
    Accept();
    return absl::OkStatus();
  }

  absl::Status Adopt(OwnedDescriptor descriptor) {
    if (is_shutting_down_) return ShutDownAlready();
    if (absl::Status status = CheckPeerIsThisUser(descriptor.get());
        !status.ok())
      return status;
    stream_protocol::socket socket(loop_->io_context());
    asio::error_code error;
    socket.assign(stream_protocol(), descriptor.get(), error);
    if (error) return absl::InvalidArgumentError(error.message());
    descriptor.Release();
    return Serve(std::move(socket));
  }

  void Shutdown(absl::Duration within, Task done) {
    if (is_shutting_down_) return;
    is_shutting_down_ = true;
    done_ = std::move(done);
    retry_.reset();
    acceptor_.reset();
    listening_.reset();
    cut_off_ = loop_->RunAfter(within, [this] { CutOff(); });
    std::vector<int> ids;
    for (const auto& [id, connection] : connections_) ids.push_back(id);
    // What the end of a stream tells may end other connections, and the server.
    const std::weak_ptr<char> alive = alive_;
    for (const int id : ids) {
      const auto connection = connections_.find(id);
      if (connection != connections_.end()) connection->second->ShutDown();
      if (alive.expired()) return;
    }
    FinishIfAllHaveLeft();
  }

  std::size_t connections() const { return connections_.size(); }
  const ServerCounters& counters() const { return counters_; }

 private:
  void Accept() {
    acceptor_->async_accept(
        [this, alive = std::weak_ptr(alive_)](asio::error_code error,
                                              stream_protocol::socket socket) {
          if (alive.expired() || is_shutting_down_) return;
          if (error) {
            // Out of descriptors, most likely, and no error that time cannot
            // cure. The host stays in the queue meanwhile.
            retry_ = loop_->RunAfter(kAcceptRetry, [this] { Accept(); });
            return;
          }
          absl::Status served = CheckPeerIsThisUser(socket.native_handle());
          if (served.ok()) served = Serve(std::move(socket));
          if (!served.ok()) {
            ++counters_.thrown_out;
            LOG_EVERY_N_SEC(WARNING, 1)
                << "a host was not let in: " << served.message();
          }
          Accept();
        });
  }

  absl::Status Serve(stream_protocol::socket socket) {
    if (connections_.size() >= limits_.max_connections) {
      absl::Status why = absl::ResourceExhaustedError(absl::StrCat(
          connections_.size(), " hosts are connected; the limit is ",
          limits_.max_connections));
      ServerConnection::Refuse(std::move(socket), why);
      return why;
    }
    const int id = next_id_++;
    connections_.emplace(
        id, std::make_unique<ServerConnection>(
                loop_, service_, limits_, &counters_, std::move(socket),
                [this, id, alive = std::weak_ptr(alive_)] {
                  connections_.extract(id);
                  if (!alive.expired()) FinishIfAllHaveLeft();
                }));
    return absl::OkStatus();
  }

  static absl::Status ShutDownAlready() {
    return absl::UnavailableError("the server has been shut down");
  }

  // The rest has had its time.
  void CutOff() {
    const std::weak_ptr<char> alive = alive_;
    std::exchange(connections_, {}).clear();
    if (!alive.expired()) FinishIfAllHaveLeft();
  }

  void FinishIfAllHaveLeft() {
    if (!connections_.empty() || !done_) return;
    cut_off_.reset();
    loop_->Post([alive = std::weak_ptr(alive_),
                 done = std::exchange(done_, nullptr)]() mutable {
      if (!alive.expired()) std::move(done)();
    });
  }

  static constexpr absl::Duration kAcceptRetry = absl::Milliseconds(100);

  EventLoop* const loop_;
  Service* const service_;
  const ServerLimits limits_;
  ServerCounters counters_;
  const std::shared_ptr<char> alive_ = std::make_shared<char>();
  std::optional<ListeningSocket>
      listening_;  // Removes the file, after the acceptor is closed.
  std::optional<stream_protocol::acceptor> acceptor_;
  std::unique_ptr<EventLoop::Timer> retry_;
  bool is_shutting_down_ = false;
  std::unique_ptr<EventLoop::Timer> cut_off_;
  Task done_;  // Null but while it is to come.
  int next_id_ = 0;
  std::unordered_map<int, std::unique_ptr<ServerConnection>> connections_;
};

SocketServer::SocketServer(EventLoop* loop, Service* service,
                           ServerLimits limits)
    : impl_(std::make_unique<Impl>(loop, service, limits)) {}

SocketServer::~SocketServer() = default;

absl::Status SocketServer::Listen(const std::string& path) {
  return impl_->Listen(path);
}

absl::Status SocketServer::Adopt(int descriptor) {
  return impl_->Adopt(OwnedDescriptor(descriptor));
}

void SocketServer::Shutdown(absl::Duration within, Task done) {
  impl_->Shutdown(within, std::move(done));
}

std::size_t SocketServer::connections() const { return impl_->connections(); }

const ServerCounters& SocketServer::counters() const {
  return impl_->counters();
}

}  // namespace orvane
