// This runtime, through the generated service and client of peer.proto.

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/time/time.h"

#include "benchmarks/transport/measure.h"
#include "benchmarks/transport/messages.h"
#include "benchmarks/transport/peer.client.h"
#include "benchmarks/transport/peer.rpc.h"
#include "benchmarks/transport/picture.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

namespace benchmarks {
namespace {

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;

// Room for a picture in one message.
constexpr std::size_t kMaxFrameBytes = std::size_t{16} << 20;

constexpr std::size_t kMaxHosts = 1000;

orvane::EventLoopOptions LoopOptions(const Options& options) {
  return {.spin = absl::FromChrono(options.spin)};
}

class Server final : public PeerRpc {
 public:
  Server(const Options& options, Meter& meter, orvane::EventLoop* loop)
      : options_(options), meter_(meter), loop_(loop) {}

  void Echo(RpcController*, const Payload* request, Payload* response,
            Closure* done) override {
    response->set_data(request->data());
    done->Run();
  }

  void Upload(RpcController*, const Payload*, Empty*, Closure* done) override {
    done->Run();
  }

  void ForwardMouseMove(RpcController*, const rpc::MouseMoveRequest* request,
                        Empty*, Closure* done) override {
    meter_.Ended(request->input().time_ns());
    done->Run();
  }

  void AskBurst(RpcController*, const Empty*, Empty*, Closure* done) override {
    for (int i = 0; i < kBurst; ++i)
      orvane::Publish<rpc::CursorChanged>(Browser(), event_);
    done->Run();
  }

  void BeginCalling(RpcController*, const Empty*, Empty*,
                    Closure* done) override {
    done->Run();
    if (options_.figure == Figure::kSurface) {
      picture_ = std::make_unique<SharedPicture>();
      Call<rpc::UpdateSurface>(SurfaceUpdate(picture_->name()));
    } else {
      Call<rpc::TakeFocus>({});
    }
  }

 private:
  // Makes one call after the other.
  template <typename T>
  void Call(const orvane::CallOf<T>& call) {
    orvane::Call<T>(Browser(), call,
                    [this, begun = Now(), call](
                        const absl::StatusOr<orvane::ResponseOf<T>>& answer) {
                      if (!answer.ok())
                        Fail(std::string(answer.status().message()));
                      if (meter_.Ended(begun)) return Call<T>(call);
                      loop_->Stop();
                    });
  }

  const Options& options_;
  Meter& meter_;
  orvane::EventLoop* const loop_;
  const rpc::CursorChanged event_ = CursorEvent();
  std::unique_ptr<SharedPicture> picture_;
};

void Serve(const Options& options, Meter& meter) {
  orvane::EventLoop loop(LoopOptions(options));
  Server service(options, meter, &loop);
  orvane::SocketServer server(
      &loop, &service,
      {.max_frame_bytes = kMaxFrameBytes, .max_connections = kMaxHosts});
  if (const absl::Status listening = server.Listen(options.socket_path);
      !listening.ok())
    Fail(std::string(listening.message()));
  meter.SetReady();
  loop.Run();
}

// Runs one figure on connections that are open.
class Host {
 public:
  Host(const Options& options, Meter& meter, orvane::EventLoop* loop,
       std::vector<PeerRpcClient> clients)
      : options_(options),
        meter_(meter),
        loop_(loop),
        clients_(std::move(clients)) {
    payload_.set_data(std::string(options.payload_bytes, '\0'));
  }

  void Run() {
    switch (options_.figure) {
      case Figure::kUnary:
        return CallInFlight([this] { Echo(); });
      case Figure::kUpload:
        return CallInFlight([this] { Upload(); });
      case Figure::kStorm:
        return SendMoves();
      case Figure::kEvents:
        return Watch();
      case Figure::kCallback:
        return AnswerFocus();
      case Figure::kSurface:
        return AnswerSurface();
    }
  }

 private:
  void CallInFlight(const std::function<void()>& call) {
    for (int i = 0; i < options_.in_flight; ++i) call();
    loop_->Run();
  }

  void Echo() {
    clients_[0].Echo(payload_, [this, begun = Now()](const auto& answer) {
      if (GoesOn(answer, begun)) Echo();
    });
  }

  void Upload() {
    clients_[0].Upload(payload_, [this, begun = Now()](const auto& answer) {
      if (GoesOn(answer, begun)) Upload();
    });
  }

  template <typename Answer>
  bool GoesOn(const Answer& answer, std::int64_t begun) {
    if (meter_.is_done()) return false;  // Other calls were still in flight.
    if (!answer.ok()) Fail(std::string(answer.status().message()));
    if (meter_.Ended(begun)) return true;
    loop_->Stop();
    return false;
  }

  void SendMoves() {
    rpc::MouseMoveRequest move = MouseMove();
    std::int64_t next = Now();
    for (std::size_t i = 0; !meter_.is_done(); ++i) {
      next += kStormPeriodNs / options_.hosts;
      SleepUntil(next);
      move.mutable_input()->set_time_ns(Now());
      clients_[i % clients_.size()].ForwardMouseMove(move, [](const auto&) {});
      loop_->RunUntilIdle();
    }
  }

  void Watch() {
    std::vector<std::unique_ptr<orvane::ClientStream>> streams;
    int events = 0;
    const int burst = kBurst * options_.hosts;
    for (PeerRpcClient& client : clients_) {
      streams.push_back(
          client.WhenCursorChanged(Browser(), [&](const rpc::CursorChanged&) {
            if (++events < burst) return;
            events = 0;
            if (meter_.Ended(burst)) return AskBurst();
            loop_->Stop();
          }));
      // After the answer, the server has handled the subscription.
      if (!client.Echo({}).ok()) Fail("no answer");
    }
    for (int i = 0; i < kBurstsInFlight; ++i) AskBurst();
    loop_->Run();
  }

  void AskBurst() {
    clients_[0].AskBurst({}, [](const auto&) {});
  }

  void AnswerFocus() {
    const auto stream = clients_[0].OnTakeFocus(
        Browser(),
        [](const rpc::TakeFocusCall&, orvane::Responder<rpc::TakeFocus> call) {
          std::move(call).Respond({}).IgnoreError();
        },
        [this](const absl::Status&) { loop_->Stop(); });
    BeginCalling();
  }

  void AnswerSurface() {
    PictureReader reader;
    const auto stream = clients_[0].OnUpdateSurface(
        Browser(),
        [&reader](const rpc::UpdateSurfaceCall& update,
                  orvane::Responder<rpc::UpdateSurface> call) {
          reader.Read(update.frame().shared_memory().name());
          std::move(call).Respond({}).IgnoreError();
        },
        [this](const absl::Status&) { loop_->Stop(); });
    BeginCalling();
  }

  // Until the server ends the stream.
  void BeginCalling() {
    clients_[0].BeginCalling({}, [](const auto&) {});
    loop_->Run();
  }

  const Options& options_;
  Meter& meter_;
  orvane::EventLoop* const loop_;
  std::vector<PeerRpcClient> clients_;
  Payload payload_;
};

void Drive(const Options& options, Meter& meter) {
  orvane::EventLoop loop(LoopOptions(options));
  std::vector<std::unique_ptr<orvane::SocketClient>> connections;
  std::vector<PeerRpcClient> clients;
  for (int i = 0; i < options.hosts; ++i) {
    auto connection = orvane::SocketClient::Connect(
        &loop, options.socket_path, {.max_frame_bytes = kMaxFrameBytes});
    if (!connection.ok()) Fail(std::string(connection.status().message()));
    connections.push_back(*std::move(connection));
    clients.emplace_back(connections.back().get());
  }
  Host host(options, meter, &loop, std::move(clients));
  host.Run();
  connections.clear();  // Ends the calls in flight while `host` exists.
}

}  // namespace
}  // namespace benchmarks

int main(int argc, char** argv) {
  return benchmarks::Run(
      argc, argv, {.serve = benchmarks::Serve, .drive = benchmarks::Drive});
}
