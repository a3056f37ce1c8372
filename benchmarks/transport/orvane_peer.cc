// This runtime, through the generated service and client of peer.proto. The
// host runs in the main loop that the program is linked with (see main_loop.h).
//
//   --interface thread    unary: the event loop has a thread of its own, and
//                         the thread that calls waits for each answer
//   --interface toolkit   posts, idle: measures the main loop itself
//   --interface observed  with an observer at both ends
//   --interface watched   each end looks whether the other one hangs
//   --interface traced    `widgetctl trace` stands between the two
//   --interface traced-without-payloads

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <semaphore>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/time/time.h"

#include "benchmarks/transport/main_loop.h"
#include "benchmarks/transport/measure.h"
#include "benchmarks/transport/messages.h"
#include "benchmarks/transport/peer.client.h"
#include "benchmarks/transport/peer.rpc.h"
#include "benchmarks/transport/picture.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/metrics/prometheus_metrics.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

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

constexpr absl::Duration kPatience = absl::Seconds(1);

void Serve(const Options& options, Meter& meter) {
  orvane::EventLoop loop(LoopOptions(options));
  Server service(options, meter, &loop);
  orvane::SocketServer server(
      &loop, &service,
      {.max_frame_bytes = kMaxFrameBytes, .max_connections = kMaxHosts});
  orvane::PrometheusMetrics metrics("server");
  if (options.interface == "observed") server.SetObserver(&metrics);
  if (options.interface == "watched") {
    server.WatchClients(kPatience, [](const auto&, bool responds) {
      if (!responds) Fail("the host hangs");
    });
  }
  if (const absl::Status listening = server.Listen(options.socket_path);
      !listening.ok())
    Fail(std::string(listening.message()));
  meter.SetReady();
  loop.Run();
}

// Until the meter has seen enough.
void RunIdle(Meter& meter, MainLoop* main_loop) {
  std::thread watcher([&meter, main_loop] {
    meter.WatchIdleHost();
    main_loop->Post([main_loop] { main_loop->Quit(); });
  });
  main_loop->Run();
  watcher.join();
}

// Runs one figure on connections that are open.
class Host {
 public:
  Host(const Options& options, Meter& meter, orvane::EventLoop* loop,
       MainLoop* main_loop, std::vector<PeerRpcClient> clients)
      : options_(options),
        meter_(meter),
        loop_(loop),
        main_loop_(main_loop),
        clients_(std::move(clients)) {
    payload_.set_data(std::string(options.payload_bytes, '\0'));
  }

  void Run() {
    switch (options_.figure) {
      case Figure::kUnary:
        if (options_.interface == "thread") return CallFromAThread();
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
      case Figure::kPosts:
        return PostFromThreads();
      case Figure::kIdle:
        return Idle();
    }
  }

 private:
  void CallInFlight(const std::function<void()>& call) {
    for (int i = 0; i < options_.in_flight; ++i) call();
    main_loop_->Run();
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

  void CallFromAThread() {
    std::thread service([this] { loop_->Run(); });
    std::binary_semaphore is_answered{0};
    std::int64_t begun = 0;
    do {
      begun = Now();
      loop_->Post([this, &is_answered] {
        clients_[0].Echo(payload_, [&is_answered](const auto& answer) {
          if (!answer.ok()) Fail(std::string(answer.status().message()));
          is_answered.release();
        });
      });
      is_answered.acquire();
    } while (meter_.Ended(begun));
    loop_->Stop();
    service.join();
  }

  // Each thread posts one to our loop and one to the main loop at the same
  // time, and waits for both.
  void PostFromThreads() {
    const bool measures_toolkit = options_.interface == "toolkit";
    int working = options_.in_flight;
    std::vector<std::thread> threads;
    for (int i = 0; i < options_.in_flight; ++i) {
      threads.emplace_back([this, measures_toolkit, &working] {
        std::counting_semaphore<2> ran{0};
        for (bool is_ours_first = true; !meter_.is_done();
             is_ours_first = !is_ours_first) {
          const auto measured = [this, &ran, begun = Now()] {
            meter_.Ended(begun);
            ran.release();
          };
          const auto beside = [&ran] { ran.release(); };
          const auto post_ours = [&] {
            if (measures_toolkit) return loop_->Post(beside);
            loop_->Post(measured);
          };
          if (is_ours_first) post_ours();
          main_loop_->Post(measures_toolkit ? std::function<void()>(measured)
                                            : beside);
          if (!is_ours_first) post_ours();
          ran.acquire();
          ran.acquire();
        }
        loop_->Post([this, &working] {
          if (--working == 0) main_loop_->Quit();
        });
      });
    }
    main_loop_->Run();
    for (std::thread& thread : threads) thread.join();
  }

  void Idle() {
    const auto stream =
        clients_[0].WhenCursorChanged(Browser(), [](const auto&) {});
    if (!clients_[0].Echo({}).ok()) Fail("no answer");
    RunIdle(meter_, main_loop_);
  }

  template <typename Answer>
  bool GoesOn(const Answer& answer, std::int64_t begun) {
    if (meter_.is_done()) return false;  // Other calls were still in flight.
    if (!answer.ok()) Fail(std::string(answer.status().message()));
    if (meter_.Ended(begun)) return true;
    main_loop_->Quit();
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
            main_loop_->Quit();
          }));
      // After the answer, the server has handled the subscription.
      if (!client.Echo({}).ok()) Fail("no answer");
    }
    for (int i = 0; i < kBurstsInFlight; ++i) AskBurst();
    main_loop_->Run();
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
        [this](const absl::Status&) { main_loop_->Quit(); });
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
        [this](const absl::Status&) { main_loop_->Quit(); });
    BeginCalling();
  }

  // Until the server ends the stream.
  void BeginCalling() {
    clients_[0].BeginCalling({}, [](const auto&) {});
    main_loop_->Run();
  }

  const Options& options_;
  Meter& meter_;
  orvane::EventLoop* const loop_;
  MainLoop* const main_loop_;
  std::vector<PeerRpcClient> clients_;
  Payload payload_;
};

// A process of widgetctl that the host connects to instead of its server. What
// it prints is read by nobody who takes time.
class Trace {
 public:
  explicit Trace(const Options& options)
      : path_(options.socket_path + ".traced"), pid_(::fork()) {
    if (pid_ < 0) Fail("no process for widgetctl");
    if (pid_ == 0) {
      if (std::freopen("/dev/null", "w", stdout) == nullptr) ::_exit(1);
      const bool has_payloads = options.interface == "traced";
      ::execl(WIDGETCTL, WIDGETCTL, "--socket", options.socket_path.c_str(),
              has_payloads ? "--json" : "--no-payloads", "trace", path_.c_str(),
              nullptr);
      ::_exit(1);
    }
    while (!orvane::ConnectTo(path_).ok())
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;
  ~Trace() {
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
  }

  const std::string& path() const { return path_; }

 private:
  const std::string path_;
  const pid_t pid_;
};

void Drive(const Options& options, Meter& meter) {
  if (options.figure == Figure::kIdle && options.interface == "toolkit")
    return RunIdle(meter, MakeMainLoop(nullptr).get());
  orvane::EventLoop loop(LoopOptions(options));
  const std::unique_ptr<MainLoop> main_loop = MakeMainLoop(&loop);
  std::optional<Trace> trace;
  if (options.interface.starts_with("traced")) trace.emplace(options);
  orvane::PrometheusMetrics metrics("client");
  orvane::ClientOptions client_options = {.max_frame_bytes = kMaxFrameBytes};
  if (options.interface == "observed") client_options.observer = &metrics;
  std::vector<std::unique_ptr<orvane::SocketClient>> connections;
  std::vector<PeerRpcClient> clients;
  for (int i = 0; i < options.hosts; ++i) {
    auto connection = orvane::SocketClient::Connect(
        &loop, trace.has_value() ? trace->path() : options.socket_path,
        client_options);
    if (!connection.ok()) Fail(std::string(connection.status().message()));
    if (options.interface == "watched") {
      (*connection)->WatchServer(kPatience, [](const auto& server) {
        if (!server.responds) Fail("the server hangs");
      });
    }
    connections.push_back(*std::move(connection));
    clients.emplace_back(connections.back().get());
  }
  Host host(options, meter, &loop, main_loop.get(), std::move(clients));
  host.Run();
  connections.clear();  // Ends the calls in flight while `host` exists.
}

}  // namespace
}  // namespace benchmarks

int main(int argc, char** argv) {
  return benchmarks::Run(
      argc, argv, {.serve = benchmarks::Serve, .drive = benchmarks::Drive});
}
