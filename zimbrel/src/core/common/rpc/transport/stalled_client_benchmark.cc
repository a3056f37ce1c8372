// What a client that does not read costs another one: the time of the other's
// event and call, without a stalled client and beside one.

#include <memory>
#include <string>

#include "absl/log/log.h"
#include "benchmark/benchmark.h"

#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/frames.h"
#include "zimbrel/src/core/common/rpc/testing/raw_peer.h"
#include "zimbrel/src/core/common/rpc/transport/in_process.h"

namespace orvane::testing {
namespace {

class Widget final : public rpc::BrowserWidgetRpc {
  void Show(google::protobuf::RpcController*, const BrowserId*,
            google::protobuf::Empty*,
            google::protobuf::Closure* done) override {
    done->Run();
  }
};

// Without it the figures would mean nothing.
void Require(bool holds) {
  LOG_IF(FATAL, !holds) << "the clients are not served as they should be";
}

// Subscribes and never reads, until its socket and its slot are full.
std::unique_ptr<RawPeer> Stall(EventLoop* loop, SocketServer* server) {
  auto pair = ConnectedPair();
  Require(server->Adopt(pair->first.Release()).ok());
  auto client = std::make_unique<RawPeer>(std::move(pair->second));
  client->Send(OpenFrame(1, kWhenTooltipChanged));
  client->Send(NextFrame(1, Subscribe(7)));
  loop->RunUntilIdle();
  while (server->counters().replaced_events == 0) {
    Require(Publish(Browser(7), Tooltip(std::string(1 << 16, 'x'))) == 1);
    loop->RunUntilIdle();
  }
  return client;
}

void EventAndCall(benchmark::State& state) {
  const bool beside_a_stalled_client = state.range(0) != 0;
  EventLoop loop;
  Widget widget;
  SocketServer server(&loop, &widget);
  const auto stalled =
      beside_a_stalled_client ? Stall(&loop, &server) : nullptr;
  const auto connection = ConnectInProcess(&loop, &server);
  Require(connection.ok());
  rpc::BrowserWidgetRpcClient client(connection->get());
  int events = 0;
  const auto tooltips = client.WhenTooltipChanged(
      Browser(7), [&events](const rpc::TooltipChanged&) { ++events; });
  Require(client.Show(Browser(7)).ok());
  for ([[maybe_unused]] auto _ : state) {
    Publish(Browser(7), Tooltip("A picture to drag"));
    Require(client.Show(Browser(7)).ok());
  }
  Require(events == state.iterations());
}
BENCHMARK(EventAndCall)->ArgName("beside_a_stalled_client")->Arg(0)->Arg(1);

}  // namespace
}  // namespace orvane::testing
