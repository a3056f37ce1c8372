#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "absl/log/log.h"
#include "absl/strings/str_cat.h"
#include "absl/time/time.h"

#include "rpc/transport/status.pb.h"
#include "zimbrel/src/core/common/rpc/coarse_clock.h"
#include "zimbrel/src/core/common/rpc/printable.h"
#include "zimbrel/src/core/common/rpc/transport/server/acceptor.h"
#include "zimbrel/src/core/common/rpc/transport/server/client_budget.h"
#include "zimbrel/src/core/common/rpc/transport/server/server_connection.h"
#include "zimbrel/src/core/common/rpc/transport/server/status_service.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"
#include "zimbrel/src/core/common/rpc/version.h"

namespace orvane {

using internal::Acceptor;
using internal::ClientBudget;
using internal::CoarseClock;
using internal::ServerConnection;
using rpc::transport::ServerStatus;

class SocketServer::Impl {
 public:
  Impl(EventLoop* loop, std::vector<Service*> services,
       const ServerLimits& limits)
      : loop_(loop),
        services_(std::move(services)),
        limits_(limits),
        budget_(ClientBudget::MakeTotal(limits)) {
    loop->CheckServiceThread("SocketServer");
    services_.push_back(&status_service_);
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  ~Impl() {
    loop_->CheckServiceThread("~SocketServer");
    StopListening();
    EndConnections();
  }

  absl::Status Listen(const std::string& path) {
    loop_->CheckServiceThread("SocketServer::Listen");
    if (is_shutting_down_) return ShutDownAlready();
    if (listening_.has_value())
      return absl::FailedPreconditionError("listening already");
    absl::StatusOr<ListeningSocket> listening = ListeningSocket::Open(path);
    if (!listening.ok()) return listening.status();
    absl::StatusOr<std::unique_ptr<EventLoop::Watch>> acceptor =
        loop_->WatchDescriptor(OwnedDescriptor(listening->ReleaseDescriptor()));
    if (!acceptor.ok()) return acceptor.status();
    listening_.emplace(*std::move(listening));
    AddAcceptor(Acceptor::Source::kListening, *std::move(acceptor));
    return absl::OkStatus();
  }

  absl::Status Adopt(OwnedDescriptor descriptor, Task on_end) {
    loop_->CheckServiceThread("SocketServer::Adopt");
    if (is_shutting_down_) return ShutDownAlready();
    const absl::StatusOr<SocketKind> kind = KindOfSocket(descriptor.get());
    if (!kind.ok()) return kind.status();
    if (*kind != SocketKind::kListening) {
      absl::Status peer = CheckPeerIsThisUser(descriptor.get());
      if (!peer.ok()) return peer;
    }
    absl::StatusOr<std::unique_ptr<EventLoop::Watch>> socket =
        loop_->WatchDescriptor(std::move(descriptor));
    if (!socket.ok()) return socket.status();
    switch (*kind) {
      case SocketKind::kConnected:
        return Serve(*std::move(socket), std::move(on_end));
      case SocketKind::kListening:
        AddAcceptor(Acceptor::Source::kListening, *std::move(socket));
        break;
      case SocketKind::kChannel:
        AddAcceptor(Acceptor::Source::kChannel, *std::move(socket),
                    std::move(on_end));
        break;
    }
    return absl::OkStatus();
  }

  void Shutdown(absl::Duration within, Task done) {
    loop_->CheckServiceThread("SocketServer::Shutdown");
    if (is_shutting_down_) return;
    is_shutting_down_ = true;
    done_ = std::move(done);
    StopListening();
    cut_off_ = loop_->RunAfter(within, [this] { CutOff(); });
    std::vector<int> ids;
    for (const auto& [id, connection] : connections_) ids.push_back(id);
    // Code that learns of a stream's end may close other connections, and may
    // destroy the server.
    const std::weak_ptr<char> alive = alive_;
    UnsubscribeStreams();
    for (const int id : ids) {
      const auto connection = connections_.find(id);
      if (connection != connections_.end()) connection->second->ShutDown();
      if (alive.expired()) return;
    }
    FinishIfAllHaveLeft();
  }

  void SetObserver(OperationObserver* observer) {
    loop_->CheckServiceThread("SocketServer::SetObserver");
    observer_ = observer;
  }

  void WatchClients(absl::Duration patience, OnClientResponsiveness on_change) {
    loop_->CheckServiceThread("SocketServer::WatchClients");
    patience_ = patience;
    on_responsiveness_ = std::move(on_change);
    for (const auto& [id, connection] : connections_)
      connection->Watch(patience_, on_responsiveness_);
  }

  std::size_t connections() const {
    loop_->CheckServiceThread("SocketServer::connections");
    return connections_.size();
  }
  const ServerCounters& counters() const {
    loop_->CheckServiceThread("SocketServer::counters");
    return counters_;
  }

 private:
  void AddAcceptor(Acceptor::Source source,
                   std::unique_ptr<EventLoop::Watch> socket,
                   Task on_end = nullptr) {
    acceptors_.push_back(std::make_unique<Acceptor>(
        loop_, source, std::move(socket),
        [this](OwnedDescriptor client) { Take(std::move(client)); },
        std::move(on_end)));
  }

  absl::Status Admit(OwnedDescriptor client) {
    // Over a channel any descriptor may come.
    const absl::StatusOr<SocketKind> kind = KindOfSocket(client.get());
    if (!kind.ok()) return kind.status();
    if (*kind != SocketKind::kConnected)
      return absl::InvalidArgumentError("a socket that is not connected");
    if (absl::Status peer = CheckPeerIsThisUser(client.get()); !peer.ok())
      return peer;
    absl::StatusOr<std::unique_ptr<EventLoop::Watch>> socket =
        loop_->WatchDescriptor(std::move(client));
    if (!socket.ok()) return socket.status();
    return Serve(*std::move(socket));
  }

  void Take(OwnedDescriptor client) {
    const absl::Status served = Admit(std::move(client));
    if (served.ok()) return;
    counters_.Refuse(served);
    LOG_EVERY_N_SEC(WARNING, 1) << "a client was refused: " << served.message();
  }

  absl::Status Serve(std::unique_ptr<EventLoop::Watch> socket,
                     Task on_end = nullptr) {
    if (connections_.size() >= limits_.max_connections) MakeRoom();
    if (connections_.size() >= limits_.max_connections) {
      absl::Status why = absl::ResourceExhaustedError(absl::StrCat(
          connections_.size(), " clients are connected; the limit is ",
          limits_.max_connections));
      ServerConnection::Refuse(std::move(socket), why);
      return why;
    }
    const int id = next_id_++;
    auto connection = std::make_unique<ServerConnection>(
        loop_, services_, limits_, std::make_unique<ClientBudget>(budget_),
        &counters_, observer_, std::move(socket),
        [this, id, alive = std::weak_ptr(alive_),
         on_end = std::move(on_end)]() mutable {
          connections_.extract(id);
          if (alive.expired()) return;
          TellEnd(std::move(on_end));
          FinishIfAllHaveLeft();
        });
    connection->Watch(patience_, on_responsiveness_);
    connections_.emplace(id, std::move(connection));
    return absl::OkStatus();
  }

  // Closes the oldest connection on which nothing has come yet, if there is
  // one.
  void MakeRoom() {
    auto oldest = connections_.end();
    for (auto it = connections_.begin(); it != connections_.end(); ++it) {
      if (!it->second->IsSilent()) continue;
      if (oldest == connections_.end() || it->first < oldest->first)
        oldest = it;
    }
    if (oldest == connections_.end()) return;
    oldest->second->Close(absl::ResourceExhaustedError(absl::StrCat(
        "closed to make room: it had said nothing, and ", connections_.size(),
        " clients are connected; the limit is ", limits_.max_connections)));
  }

  // Called before many streams end: each of them looks at all keys of its type,
  // whoever is subscribed to them.
  void UnsubscribeStreams() {
    for (const auto& [id, connection] : connections_)
      connection->UnsubscribeStreams();
  }

  static absl::Status ShutDownAlready() {
    return absl::UnavailableError("the server has been shut down");
  }

  void StopListening() {
    acceptors_.clear();
    listening_.reset();
  }

  // Ends the connections that did not finish in time.
  void CutOff() {
    const std::weak_ptr<char> alive = alive_;
    EndConnections();
    if (!alive.expired()) FinishIfAllHaveLeft();
  }

  // A handler that is told may end other connections, run the loop, and destroy
  // the server.
  void EndConnections() {
    const std::weak_ptr<char> alive = alive_;
    UnsubscribeStreams();
    while (!alive.expired() && !connections_.empty())
      connections_.extract(connections_.begin());
  }

  void FinishIfAllHaveLeft() {
    if (!connections_.empty() || !done_) return;
    cut_off_.reset();
    PostForMe(std::exchange(done_, nullptr));
  }

  void Describe(ServerStatus* status) const {
    status->set_version(std::string(kVersion));
    status->set_process_id(static_cast<std::uint32_t>(::getpid()));
    status->set_uptime_ms(internal::MillisecondsSince(begun_));
    for (Service* const service : services_) {
      if (service != &status_service_)
        status->add_services(
            std::string(service->GetDescriptor()->full_name()));
    }
    std::vector<int> ids;
    for (const auto& [id, connection] : connections_) ids.push_back(id);
    std::sort(ids.begin(), ids.end());
    for (const int id : ids)
      connections_.at(id)->Describe(status->add_connections());
    rpc::transport::BudgetStatus* const budget = status->add_budgets();
    budget->set_limit("max_connections");
    budget->set_used(connections_.size());
    budget->set_available(limits_.max_connections);
    ClientBudget::Describe(*budget_, status);
    status->set_replaced_events(counters_.replaced_events);
    for (const auto& [code, alike] : counters_.refusals) {
      rpc::transport::RefusalStatus* const refusals = status->add_refusals();
      refusals->set_code(absl::StatusCodeToString(code));
      refusals->set_count(alike.count);
      refusals->set_latest_reason(Printable(alike.latest_reason));
    }
  }

  // Unless the server is gone by then.
  // After Shutdown nobody is told.
  void TellEnd(Task on_end) {
    if (!on_end) return;
    PostForMe([this, on_end = std::move(on_end)]() mutable {
      if (!is_shutting_down_) std::move(on_end)();
    });
  }

  void PostForMe(Task task) {
    if (!task) return;
    loop_->Post(
        [alive = std::weak_ptr(alive_), task = std::move(task)]() mutable {
          if (!alive.expired()) std::move(task)();
        });
  }

  EventLoop* const loop_;
  const internal::ServingScope serving_{loop_};
  const CoarseClock::time_point begun_ = CoarseClock::now();
  internal::StatusService status_service_{
      [this](ServerStatus* status) { Describe(status); }};
  std::vector<Service*> services_;  // The last one: status_service_.
  const ServerLimits limits_;
  const std::shared_ptr<ClientBudget::Total> budget_;
  ServerCounters counters_;
  OperationObserver* observer_ = nullptr;
  absl::Duration patience_ = absl::InfiniteDuration();
  OnClientResponsiveness on_responsiveness_;
  const std::shared_ptr<char> alive_ = std::make_shared<char>();
  // Removes the socket file, after the acceptors below have been closed.
  std::optional<ListeningSocket> listening_;
  std::vector<std::unique_ptr<Acceptor>> acceptors_;
  bool is_shutting_down_ = false;
  std::unique_ptr<EventLoop::Timer> cut_off_;
  Task done_;  // Set from Shutdown() until it has been posted.
  int next_id_ = 0;
  std::unordered_map<int, std::unique_ptr<ServerConnection>> connections_;
};

SocketServer::SocketServer(EventLoop* loop, Service* service,
                           ServerLimits limits)
    : SocketServer(loop, std::vector<Service*>{service}, limits) {}

SocketServer::SocketServer(EventLoop* loop, std::vector<Service*> services,
                           ServerLimits limits)
    : impl_(std::make_unique<Impl>(loop, std::move(services), limits)) {}

SocketServer::~SocketServer() = default;

absl::Status SocketServer::Listen(const std::string& path) {
  return impl_->Listen(path);
}

absl::Status SocketServer::Adopt(int descriptor, Task on_end) {
  return impl_->Adopt(OwnedDescriptor(descriptor), std::move(on_end));
}

void SocketServer::Shutdown(absl::Duration within, Task done) {
  impl_->Shutdown(within, std::move(done));
}

void SocketServer::WatchClients(absl::Duration patience,
                                OnClientResponsiveness on_change) {
  impl_->WatchClients(patience, std::move(on_change));
}

void SocketServer::SetObserver(OperationObserver* observer) {
  impl_->SetObserver(observer);
}

std::size_t SocketServer::connections() const { return impl_->connections(); }

const ServerCounters& SocketServer::counters() const {
  return impl_->counters();
}

}  // namespace orvane
