// Cap'n Proto's RPC over a Unix-domain socket: one thread at each end. The
// server sends events and calls through a capability that the host gives it.

#include <capnp/ez-rpc.h>
#include <kj/async.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "benchmarks/transport/measure.h"
#include "peer.capnp.h"

namespace benchmarks {
namespace {

constexpr std::uint64_t kBrowser = 1;
constexpr std::uint16_t kPointer = 6;

capnp::ReaderOptions AnyLength() {
  capnp::ReaderOptions options;
  options.traversalLimitInWords = std::uint64_t{1} << 40;
  return options;
}

class Server final : public Peer::Server {
 public:
  explicit Server(Meter& meter) : meter_(meter) {}

  kj::Promise<void> echo(EchoContext context) override {
    context.getResults().setData(context.getParams().getData());
    return kj::READY_NOW;
  }

  kj::Promise<void> upload(UploadContext) override { return kj::READY_NOW; }

  kj::Promise<void> forwardMouseMove(ForwardMouseMoveContext context) override {
    meter_.Ended(context.getParams().getMove().getTimeNs());
    return kj::READY_NOW;
  }

  kj::Promise<void> connect(ConnectContext context) override {
    hosts_.push_back(context.getParams().getHost());
    return kj::READY_NOW;
  }

  kj::Promise<void> askBurst(AskBurstContext) override {
    kj::Vector<kj::Promise<void>> sent;
    for (int i = 0; i < kBurst; ++i) {
      for (Host::Client& host : hosts_) {
        auto event = host.cursorChangedRequest();
        event.setBrowser(kBrowser);
        event.setType(kPointer);
        sent.add(event.send());
      }
    }
    return kj::joinPromises(sent.releaseAsArray());
  }

  kj::Promise<void> beginCalling(BeginCallingContext) override {
    return Call();
  }

 private:
  kj::Promise<void> Call() {
    auto call = hosts_[0].takeFocusRequest();
    call.setBrowser(kBrowser);
    return call.send().then([this, begun = Now()](auto&&) {
      if (!meter_.Ended(begun)) std::_Exit(0);
      return Call();
    });
  }

  Meter& meter_;
  std::vector<Host::Client> hosts_;
};

void Serve(const Options& options, Meter& meter) {
  capnp::EzRpcServer server(kj::heap<Server>(meter),
                            ("unix:" + options.socket_path).c_str(), 0,
                            AnyLength());
  auto& scope = server.getWaitScope();
  server.getPort().wait(scope);
  meter.SetReady();
  kj::NEVER_DONE.wait(scope);
}

class HostObject final : public Host::Server {
 public:
  explicit HostObject(std::function<void()> on_event)
      : on_event_(std::move(on_event)) {}

  kj::Promise<void> cursorChanged(CursorChangedContext) override {
    on_event_();
    return kj::READY_NOW;
  }

  kj::Promise<void> takeFocus(TakeFocusContext context) override {
    context.getResults().setTaken(true);
    return kj::READY_NOW;
  }

 private:
  const std::function<void()> on_event_;
};

class Driver {
 public:
  Driver(const Options& options, Meter& meter)
      : options_(options),
        meter_(meter),
        payload_(kj::heapArray<capnp::byte>(options.payload_bytes)) {
    for (int i = 0; i < options.hosts; ++i) {
      connections_.push_back(std::make_unique<capnp::EzRpcClient>(
          ("unix:" + options.socket_path).c_str(), 0, AnyLength()));
      peers_.push_back(connections_.back()->getMain<Peer>());
    }
  }

  void Run() {
    auto& scope = connections_[0]->getWaitScope();
    switch (options_.figure) {
      case Figure::kUnary:
        for (int i = 0; i < options_.in_flight; ++i) tasks_.add(Echo());
        return AwaitDone(scope);
      case Figure::kUpload:
        for (int i = 0; i < options_.in_flight; ++i) tasks_.add(Upload());
        return AwaitDone(scope);
      case Figure::kStorm:
        return SendMoves(scope);
      case Figure::kEvents:
        ConnectHosts(scope);
        for (int i = 0; i < kBurstsInFlight; ++i) AskBurst();
        return AwaitDone(scope);
      case Figure::kCallback:
        ConnectHosts(scope);
        // Fails when the server ends.
        peers_[0]
            .beginCallingRequest()
            .send()
            .ignoreResult()
            .then([] {}, [](kj::Exception&&) {})
            .wait(scope);
        return;
      case Figure::kSurface:
        Fail("Cap'n Proto carries pictures as uploads; measure upload");
      case Figure::kPosts:
      case Figure::kIdle:
        Fail("posts and idle are measured in toolkits' main loops");
    }
  }

 private:
  class FailOnError final : public kj::TaskSet::ErrorHandler {
   public:
    void taskFailed(kj::Exception&& why) override {
      Fail(why.getDescription().cStr());
    }
  };

  void AwaitDone(kj::WaitScope& scope) { done_.promise.wait(scope); }

  void End() {
    if (done_.fulfiller->isWaiting()) done_.fulfiller->fulfill();
  }

  kj::Promise<void> Echo() {
    auto call = peers_[0].echoRequest();
    call.setData(payload_);
    return call.send().then([this, begun = Now()](auto&&) {
      if (meter_.Ended(begun)) return tasks_.add(Echo());
      End();
    });
  }

  kj::Promise<void> Upload() {
    auto call = peers_[0].uploadRequest();
    call.setData(payload_);
    return call.send().then([this, begun = Now()](auto&&) {
      if (meter_.Ended(begun)) return tasks_.add(Upload());
      End();
    });
  }

  void SendMoves(kj::WaitScope& scope) {
    std::int64_t next = Now();
    for (std::size_t i = 0; !meter_.is_done(); ++i) {
      next += kStormPeriodNs / options_.hosts;
      SleepUntil(next);
      auto call = peers_[i % peers_.size()].forwardMouseMoveRequest();
      auto move = call.initMove();
      move.setBrowser(kBrowser);
      move.setTimeNs(Now());
      move.initPosition().setX(321.5);
      move.getPosition().setY(123.25);
      move.initScreenPosition().setX(1321.5);
      move.getScreenPosition().setY(1123.25);
      tasks_.add(call.send().ignoreResult());
      scope.poll();
    }
  }

  void ConnectHosts(kj::WaitScope& scope) {
    for (Peer::Client& peer : peers_) {
      auto call = peer.connectRequest();
      call.setHost(kj::heap<HostObject>([this] { OnEvent(); }));
      call.send().wait(scope);
    }
  }

  void AskBurst() {
    tasks_.add(peers_[0].askBurstRequest().send().ignoreResult());
  }

  void OnEvent() {
    if (++events_ < kBurst * options_.hosts) return;
    events_ = 0;
    if (meter_.Ended(kBurst * options_.hosts)) return AskBurst();
    End();
  }

  const Options& options_;
  Meter& meter_;
  const kj::Array<capnp::byte> payload_;
  std::vector<std::unique_ptr<capnp::EzRpcClient>> connections_;
  std::vector<Peer::Client> peers_;
  FailOnError failed_;
  kj::TaskSet tasks_{failed_};
  kj::PromiseFulfillerPair<void> done_ = kj::newPromiseAndFulfiller<void>();
  int events_ = 0;
};

void Drive(const Options& options, Meter& meter) {
  Driver(options, meter).Run();
}

}  // namespace
}  // namespace benchmarks

int main(int argc, char** argv) {
  return benchmarks::Run(
      argc, argv, {.serve = benchmarks::Serve, .drive = benchmarks::Drive});
}
