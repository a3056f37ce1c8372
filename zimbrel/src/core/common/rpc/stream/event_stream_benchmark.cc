// What event streams cost: subscription frames, look-up by content beside the
// same done by hand, publishing, and completion.

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "absl/status/status.h"
#include "benchmark/benchmark.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/current_loop.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/stream/event_stream.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/stream_channel.h"

namespace orvane {
namespace {

using benchmark::Counter;
using Stream = EventStream<rpc::CursorChanged>;

// Takes everything and does nothing with it.
class SilentEndpoint final : public StreamEndpoint {
 public:
  explicit SilentEndpoint(EventLoop* loop) : loop_(loop) {}
  absl::Status Send(const rpc::transport::StreamMessage&) override {
    return absl::OkStatus();
  }
  void Complete() override {}
  EventLoop& loop() override { return *loop_; }

 private:
  EventLoop* const loop_;
};

EventLoop& Loop() {
  static auto& loop = *new EventLoop;
  return loop;
}

std::unique_ptr<Stream> OpenStream() {
  static auto& service = *new rpc::BrowserWidgetRpc;
  static const auto* const method =
      rpc::BrowserWidgetRpc::descriptor()->FindMethodByName(
          "WhenCursorChanged");
  return std::make_unique<Stream>(
      &service, method,
      StreamChannel(std::make_unique<SilentEndpoint>(&Loop())));
}

BrowserId Browser(std::uint64_t value) {
  BrowserId id;
  id.set_value(value);
  return id;
}

// A frame that subscribes and one that unsubscribes, by turns: of a browser
// that nobody else asked for, or of one that somebody else did. The number of
// iterations is fixed, since each frame leaves its request behind.
void BM_SubscriptionFrames(benchmark::State& state) {
  const bool is_shared = state.range(0) != 0;
  const auto other = OpenStream();
  if (is_shared) other->Subscribe(Browser(7));
  const auto stream = OpenStream();
  rpc::EventSubscription request;
  *request.mutable_subscribe() = Browser(7);
  rpc::transport::StreamMessage subscribe;
  subscribe.set_payload(request.SerializeAsString());
  *request.mutable_unsubscribe() = Browser(7);
  rpc::transport::StreamMessage unsubscribe;
  unsubscribe.set_payload(request.SerializeAsString());
  for (auto _ : state) {
    stream->OnNext(&subscribe);
    stream->OnNext(&unsubscribe);
  }
  state.SetItemsProcessed(2 * static_cast<std::int64_t>(state.iterations()));
  stream->OnCompleted();
  other->OnCompleted();
}
BENCHMARK(BM_SubscriptionFrames)
    ->ArgName("shared")
    ->Arg(0)
    ->Arg(1)
    ->Iterations(1 << 16);

// ---------------------------------------------------------------------------
// Look-up by content. Both sides find the same keys in the same random order,
// among as many, with the same values behind them.

// Messages that are not the keys themselves.
std::vector<BrowserId> Probes(std::size_t keys) {
  std::mt19937_64 random(1);
  std::uniform_int_distribution<std::uint64_t> any(1, keys);
  std::vector<BrowserId> probes(4096);
  for (BrowserId& probe : probes) probe = Browser(any(random));
  return probes;
}

// Made once for each size: a large one takes longer to make than to measure.
template <typename Map, typename AddKey>
const Map& MapOf(std::size_t keys, AddKey add_key) {
  static auto& maps = *new std::map<std::size_t, Map>;
  Map& map = maps[keys];
  for (std::uint64_t i = map.size() + 1; i <= keys; ++i)
    add_key(map, Browser(i));
  return map;
}

void BM_LookUp(benchmark::State& state) {
  const auto keys = static_cast<std::size_t>(state.range(0));
  const auto& registry = MapOf<Stream::Registry>(
      keys, [](Stream::Registry& map, const BrowserId& key) {
        map.try_emplace(internal::CopyKey(key));
      });
  const std::vector<BrowserId> probes = Probes(keys);
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(registry.find(&probes[i++ % probes.size()]));
  }
}
BENCHMARK(BM_LookUp)->ArgName("keys")->Arg(10)->Arg(10000)->Arg(1000000);

void BM_LookUpByHand(benchmark::State& state) {
  using Map = std::unordered_map<std::string, std::set<Stream*>>;
  const auto keys = static_cast<std::size_t>(state.range(0));
  const auto& map = MapOf<Map>(keys, [](Map& by_bytes, const BrowserId& key) {
    by_bytes.try_emplace(key.SerializeAsString());
  });
  const std::vector<BrowserId> probes = Probes(keys);
  std::string bytes;
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        probes[i++ % probes.size()].SerializeToString(&bytes));
    benchmark::DoNotOptimize(map.find(bytes));
  }
}
BENCHMARK(BM_LookUpByHand)->ArgName("keys")->Arg(10)->Arg(10000)->Arg(1000000);

// ---------------------------------------------------------------------------

void BM_Publish(benchmark::State& state) {
  const BrowserId browser = Browser(7);
  std::vector<std::unique_ptr<Stream>> streams;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    streams.push_back(OpenStream());
    streams.back()->Subscribe(browser);
  }
  rpc::CursorChanged event;
  *event.mutable_browser_id() = browser;
  event.mutable_cursor()->set_type(rpc::CURSOR_TYPE_POINTER);
  // Where applications publish: inside a task of a loop that has a server.
  const internal::ServingScope server(&Loop());
  Loop().Post([&] {
    for (auto _ : state) {
      if (Publish(browser, event) != streams.size()) {
        state.SkipWithError("not all were reached");
        break;
      }
    }
  });
  Loop().RunUntilIdle();
  state.counters["per_subscriber"] =
      Counter(static_cast<double>(streams.size()),
              Counter::kIsIterationInvariantRate | Counter::kInvert);
  for (const auto& stream : streams) stream->Unsubscribe(browser);
}
BENCHMARK(BM_Publish)->ArgName("subscribers")->Arg(1)->Arg(10)->Arg(1000);

// The life of a stream with one key of its own, beside others' keys.
void BM_OpenSubscribeComplete(benchmark::State& state) {
  const auto keys = static_cast<std::uint64_t>(state.range(0));
  const auto other = OpenStream();
  for (std::uint64_t i = 1; i <= keys; ++i) other->Subscribe(Browser(i));
  const BrowserId own = Browser(keys + 1);
  for (auto _ : state) {
    const auto stream = OpenStream();
    stream->Subscribe(own);
    stream->OnCompleted();
  }
  state.counters["per_key"] =
      Counter(static_cast<double>(keys),
              Counter::kIsIterationInvariantRate | Counter::kInvert);
  other->OnCompleted();
}
BENCHMARK(BM_OpenSubscribeComplete)
    ->ArgName("keys")
    ->Arg(1)
    ->Arg(100)
    ->Arg(10000)
    ->Arg(100000);

}  // namespace
}  // namespace orvane
