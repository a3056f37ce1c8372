// What a server costs as it grows: a call, an event, a subscription and the end
// of a stream, and the server's memory.
//
//   scale_benchmark --connections N --keys N --duration-ms N
//
// Another process serves, with its limits raised. This one has N connections,
// each with a stream for each of ten browsers. One more stream subscribes to
// further keys, until the registry of this kind of event has `keys`. Then each
// cost is measured for the duration, and printed as one line of JSON:
//
//   connections      as many as were asked for, or as this system allows
//   keys             in the registry
//   call_us          from each connection by turns, one in flight
//   event_us         to one subscriber; keys at random, 256 in a burst
//   subscription_us  to a new key; 100 together, with the call behind them
//   end_us           of a stream with 10 keys, with the call behind it
//   private_kib      memory that only the server has, before all of these
//
// Times are medians. The processes run where the caller pins them.

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "absl/status/status.h"

#include "benchmarks/transport/measure.h"
#include "benchmarks/transport/messages.h"
#include "benchmarks/transport/peer.client.h"
#include "benchmarks/transport/peer.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/transport/client_stream.h"
#include "zimbrel/src/core/common/rpc/transport/server_limits.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

namespace benchmarks {
namespace {

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;

constexpr std::uint64_t kBrowsers = 10;  // Of each connection.

// Both ends need some more descriptors than there are connections.
constexpr std::uint64_t kOtherDescriptors = 64;

// A server that has not started after this time will not start any more.
constexpr std::int64_t kStartLimitNs = 30'000'000'000;

struct Sizes {
  std::uint64_t connections = 1;
  std::uint64_t keys = 0;
  std::int64_t duration_ns = 300'000'000;
};

BrowserId Key(std::uint64_t value) {
  BrowserId key;
  key.set_value(value);
  return key;
}

void CheckOk(const absl::Status& status) {
  if (!status.ok()) Fail(std::string(status.message()));
}

// The server -----------------------------------------------------------------

orvane::ServerLimits NoLimits() {
  constexpr auto kNone = std::numeric_limits<std::size_t>::max();
  constexpr auto kAnyRate = orvane::RateLimit::None();
  return {.max_connections = kNone,
          .max_streams = kNone,
          .max_total_streams = kNone,
          .max_stream_rate = kAnyRate,
          .max_total_stream_rate = kAnyRate,
          .max_subscriptions = kNone,
          .max_total_subscriptions = kNone,
          .max_subscription_rate = kAnyRate,
          .max_total_subscription_rate = kAnyRate,
          .max_lifetime_subscriptions = kNone};
}

// Its keys are 1 to `keys`.
class Server final : public PeerRpc {
 public:
  explicit Server(std::uint64_t keys) : any_key_(1, keys) {}

  void Echo(RpcController*, const Payload* request, Payload* response,
            Closure* done) override {
    response->set_data(request->data());
    done->Run();
  }

  void AskBurst(RpcController*, const Empty*, Empty*, Closure* done) override {
    for (int i = 0; i < kBurst; ++i) {
      key_.set_value(any_key_(random_));
      *event_.mutable_browser_id() = key_;
      orvane::Publish<rpc::CursorChanged>(key_, event_);
    }
    done->Run();
  }

 private:
  std::mt19937_64 random_{1};
  std::uniform_int_distribution<std::uint64_t> any_key_;
  BrowserId key_;
  rpc::CursorChanged event_ = CursorEvent();
};

[[noreturn]] void Serve(const std::string& path, std::uint64_t keys) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  orvane::EventLoop loop;
  Server service(keys);
  orvane::SocketServer server(&loop, &service, NoLimits());
  CheckOk(server.Listen(path));
  loop.Run();
  std::abort();  // It is killed.
}

// The hosts ------------------------------------------------------------------

double MicrosecondsSince(std::int64_t begun_ns) {
  return static_cast<double>(Now() - begun_ns) / 1e3;
}

class Hosts {
 public:
  // Blocks until the server knows all streams and keys.
  Hosts(const Sizes& sizes, const std::string& path) : sizes_(sizes) {
    std::uint64_t key = 0;
    for (std::uint64_t i = 0; i < sizes.connections; ++i) {
      connections_.push_back(Connect(path));
      clients_.emplace_back(connections_.back().get());
      for (std::uint64_t browser = 0; browser < kBrowsers; ++browser)
        streams_.push_back(Watch(clients_.back(), ++key));
      Call(clients_.back());
    }
    if (key == sizes.keys) return;
    streams_.push_back(Watch(clients_[0], ++key));
    while (key < sizes.keys) {
      Subscribe(*streams_.back(), ++key);
      // What is sent at once must fit the queue.
      if (key % 10'000 == 0) Call(clients_[0]);
    }
    Call(clients_[0]);
  }

  double CallTime() {
    std::size_t next = 0;
    return Median([&] {
      const std::int64_t begun = Now();
      Call(clients_[next++ % clients_.size()]);
      return MicrosecondsSince(begun);
    });
  }

  double EventTime() {
    return Median([this] {
      events_ = 0;
      const std::int64_t begun = Now();
      CheckOk(clients_[0].AskBurst({}).status());
      loop_.RunUntil([this] { return events_ == kBurst; });
      return MicrosecondsSince(begun) / kBurst;
    });
  }

  double SubscriptionTime() {
    constexpr std::uint64_t kTogether = 100;
    const auto stream = Watch(clients_[0], sizes_.keys + 1);
    const std::uint64_t first = sizes_.keys + 2;
    return Median([&] {
      const std::int64_t begun = Now();
      for (std::uint64_t i = 0; i < kTogether; ++i)
        Subscribe(*stream, first + i);
      Call(clients_[0]);
      const double time = MicrosecondsSince(begun) / kTogether;
      for (std::uint64_t i = 0; i < kTogether; ++i)
        Unsubscribe(*stream, first + i);
      Call(clients_[0]);
      return time;
    });
  }

  double EndTime() {
    return Median([this] {
      auto stream = Watch(clients_[0], sizes_.keys + 1);
      for (std::uint64_t i = 2; i <= kBrowsers; ++i)
        Subscribe(*stream, sizes_.keys + i);
      Call(clients_[0]);
      const std::int64_t begun = Now();
      stream.reset();
      Call(clients_[0]);
      return MicrosecondsSince(begun);
    });
  }

 private:
  // The server may not listen yet.
  std::unique_ptr<orvane::SocketClient> Connect(const std::string& path) {
    const std::int64_t until = Now() + kStartLimitNs;
    while (true) {
      auto connection = orvane::SocketClient::Connect(&loop_, path);
      if (connection.ok()) return *std::move(connection);
      if (!absl::IsUnavailable(connection.status()) || Now() > until)
        CheckOk(connection.status());
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  std::unique_ptr<orvane::ClientStream> Watch(PeerRpcClient& client,
                                              std::uint64_t key) {
    return client.WhenCursorChanged(
        Key(key), [this](const rpc::CursorChanged&) { ++events_; });
  }

  static void Subscribe(const orvane::ClientStream& stream, std::uint64_t key) {
    rpc::EventSubscription request;
    *request.mutable_subscribe() = Key(key);
    CheckOk(stream.sender()->Next(request, /*call_id=*/0));
  }

  static void Unsubscribe(const orvane::ClientStream& stream,
                          std::uint64_t key) {
    rpc::EventSubscription request;
    *request.mutable_unsubscribe() = Key(key);
    CheckOk(stream.sender()->Next(request, /*call_id=*/0));
  }

  // After the answer, the server has handled what was sent before.
  static void Call(PeerRpcClient& client) { CheckOk(client.Echo({}).status()); }

  // Of what `operate` returns, at least five times, however long they take.
  double Median(const std::function<double()>& operate) const {
    std::vector<double> times;
    const std::int64_t until = Now() + sizes_.duration_ns;
    while (times.size() < 5 || Now() < until) times.push_back(operate());
    const auto middle =
        times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
    std::nth_element(times.begin(), middle, times.end());
    return *middle;
  }

  const Sizes sizes_;
  orvane::EventLoop loop_;
  std::vector<std::unique_ptr<orvane::SocketClient>> connections_;
  std::vector<PeerRpcClient> clients_;
  std::vector<std::unique_ptr<orvane::ClientStream>> streams_;
  int events_ = 0;
};

// ----------------------------------------------------------------------------

Sizes Parse(int argc, char** argv) {
  Sizes sizes;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string_view name = argv[i];
    char* end = nullptr;
    const std::uint64_t number = std::strtoull(argv[i + 1], &end, 10);
    if (*end != '\0' || number == 0)
      Fail(std::string(name) + " takes a number above 0, not " + argv[i + 1]);
    if (name == "--connections") {
      sizes.connections = number;
    } else if (name == "--keys") {
      sizes.keys = number;
    } else if (name == "--duration-ms") {
      sizes.duration_ns = static_cast<std::int64_t>(number) * 1'000'000;
    } else {
      Fail("unknown option " + std::string(name));
    }
  }
  if (argc % 2 == 0) Fail(std::string(argv[argc - 1]) + " needs a value");
  return sizes;
}

// For this process and its server. Asks for fewer connections if the system
// does not allow as many.
void RaiseDescriptorLimit(Sizes* sizes) {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) Fail("cannot read the limit");
  limit.rlim_cur = limit.rlim_max;
  if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) Fail("cannot raise the limit");
  if (sizes->connections + kOtherDescriptors <= limit.rlim_max) return;
  if (limit.rlim_max <= kOtherDescriptors) Fail("too few open files allowed");
  const std::uint64_t fewer = limit.rlim_max - kOtherDescriptors;
  std::fprintf(stderr,
               "scale_benchmark: measures %llu connections, not %llu, since a "
               "process may open %llu files (ulimit -Hn)\n",
               static_cast<unsigned long long>(fewer),
               static_cast<unsigned long long>(sizes->connections),
               static_cast<unsigned long long>(limit.rlim_max));
  sizes->connections = fewer;
}

int Main(int argc, char** argv) {
  Sizes sizes = Parse(argc, argv);
  RaiseDescriptorLimit(&sizes);
  sizes.keys = std::max(sizes.keys, sizes.connections * kBrowsers);

  std::string folder = "/tmp/orvane-benchmark.XXXXXX";
  if (::mkdtemp(folder.data()) == nullptr)
    Fail("cannot create a folder for the socket");
  const std::string path = folder + "/socket";
  const pid_t server = ::fork();
  if (server < 0) Fail("cannot start the server");
  if (server == 0) Serve(path, sizes.keys);

  Hosts hosts(sizes, path);
  const std::int64_t private_bytes = PrivateBytes(server);
  const double call_us = hosts.CallTime();
  const double event_us = hosts.EventTime();
  const double end_us = hosts.EndTime();
  const double subscription_us = hosts.SubscriptionTime();
  std::printf(R"({"connections": %llu, "keys": %llu, "call_us": %.2f, )"
              R"("event_us": %.3f, "subscription_us": %.3f, "end_us": %.2f, )"
              R"("private_kib": %lld})"
              "\n",
              static_cast<unsigned long long>(sizes.connections),
              static_cast<unsigned long long>(sizes.keys), call_us, event_us,
              subscription_us, end_us,
              static_cast<long long>(private_bytes / 1024));
  ::kill(server, SIGKILL);
  ::waitpid(server, nullptr, 0);
  std::error_code ignored;  // The system cleans /tmp anyway.
  std::filesystem::remove_all(folder, ignored);
  return 0;
}

}  // namespace
}  // namespace benchmarks

int main(int argc, char** argv) { return benchmarks::Main(argc, argv); }
