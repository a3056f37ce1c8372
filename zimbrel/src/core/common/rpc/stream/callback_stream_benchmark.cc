// What a call to a host costs the widget, in process: from Call to the end of
// the continuation, the host's part being a frame that is ready. Beside it what
// the messages cost alone, and a call listed by hand, whose callable runs
// inside the handler.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "benchmark/benchmark.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/callback_stream.h"
#include "zimbrel/src/core/common/rpc/testing/heap_probe.h"

namespace orvane::testing {
namespace {

using rpc::TakeFocus;
using rpc::transport::StreamMessage;
using Stream = CallbackStream<TakeFocus>;

class Endpoint final : public StreamEndpoint {
 public:
  Endpoint(EventLoop* loop, std::vector<std::int64_t>* sent)
      : loop_(loop), sent_(sent) {}

  absl::Status Send(const StreamMessage& frame) override {
    sent_->push_back(frame.call_id());
    return absl::OkStatus();
  }
  void Complete() override {}
  EventLoop& loop() override { return *loop_; }

 private:
  EventLoop* const loop_;
  std::vector<std::int64_t>* const sent_;
};

// A stream that serves browsers 0 to `keys` - 1, and the host's end of it.
class World {
 public:
  explicit World(int keys) {
    for (int i = 0; i < keys; ++i) stream.Subscribe(Key(i));
  }
  ~World() { stream.OnCompleted(); }

  static BrowserId Key(std::int64_t value) {
    BrowserId key;
    key.set_value(static_cast<std::uint64_t>(value));
    return key;
  }

  static TakeFocus CallTo(const BrowserId& key) {
    TakeFocus message;
    *message.mutable_browser_id() = key;
    *message.mutable_call() = rpc::TakeFocusCall();
    return message;
  }

  static StreamMessage AnswerOf(const BrowserId& key) {
    TakeFocus message;
    *message.mutable_browser_id() = key;
    *message.mutable_response() = rpc::TakeFocusResponse();
    StreamMessage frame;
    frame.set_payload(message.SerializeAsString());
    return frame;
  }

  // Answers everything that was sent, in that order.
  void Answer(StreamMessage& answer) {
    for (const std::int64_t id : sent) {
      answer.set_call_id(id);
      stream.OnNext(&answer);
    }
    sent.clear();
  }

  EventLoop loop;
  rpc::BrowserWidgetRpc service;
  std::vector<std::int64_t> sent;
  Stream stream{
      &service,
      rpc::BrowserWidgetRpc::descriptor()->FindMethodByName("OnTakeFocus"),
      StreamChannel(std::make_unique<Endpoint>(&loop, &sent))};
};

// From its construction to its end: calls per second, allocations per call.
class Measure {
 public:
  Measure(benchmark::State& state, std::int64_t calls_per_iteration)
      : state_(state),
        factor_(calls_per_iteration),
        before_(heap_probe::Allocations()) {}
  ~Measure() {
    const auto allocations =
        static_cast<double>(heap_probe::Allocations() - before_);
    const std::int64_t calls =
        static_cast<std::int64_t>(state_.iterations()) * factor_;
    state_.SetItemsProcessed(calls);
    state_.counters["allocations"] = allocations / static_cast<double>(calls);
  }

 private:
  benchmark::State& state_;
  const std::int64_t factor_;
  const std::size_t before_;
};

// The messages alone: a call is built and serialised, an answer parsed.
void BM_Messages(benchmark::State& state) {
  const BrowserId key = World::Key(0);
  const StreamMessage answer = World::AnswerOf(key);
  const Measure measure(state, 1);
  for (auto _ : state) {
    StreamMessage frame;
    benchmark::DoNotOptimize(
        World::CallTo(key).SerializeToString(frame.mutable_payload()));
    const std::unique_ptr<TakeFocus> reply(TakeFocus::default_instance().New());
    benchmark::DoNotOptimize(reply->ParseFromString(answer.payload()));
    benchmark::DoNotOptimize(frame);
  }
}
BENCHMARK(BM_Messages);

// The table alone: a callable of its own, which runs inside the handler.
void BM_ListedByHand(benchmark::State& state) {
  World world(1);
  const BrowserId key = World::Key(0);
  StreamMessage answer = World::AnswerOf(key);
  std::int64_t id = 0;
  int answers = 0;
  const Measure measure(state, state.range(0));
  for (auto _ : state) {
    for (std::int64_t i = 0; i < state.range(0); ++i) {
      StreamMessage frame;
      frame.set_call_id(++id);
      benchmark::DoNotOptimize(
          World::CallTo(key).SerializeToString(frame.mutable_payload()));
      world.stream.CallsOf(key).second.emplace(
          id, Stream::StreamCall{[&answers](TakeFocus&) { ++answers; },
                                 [](StreamCallFailure) {}});
      benchmark::DoNotOptimize(world.stream.Send(frame));
    }
    world.Answer(answer);
  }
  benchmark::DoNotOptimize(answers);
}
BENCHMARK(BM_ListedByHand)->ArgName("in_flight")->Arg(1)->Arg(100);

void CallAndAnswer(benchmark::State& state, std::int64_t in_flight, int keys,
                   const CallOptions& options) {
  World world(keys);
  const BrowserId key = World::Key(keys - 1);
  StreamMessage answer = World::AnswerOf(key);
  int answers = 0;
  const Measure measure(state, in_flight);
  for (auto _ : state) {
    for (std::int64_t i = 0; i < in_flight; ++i) {
      benchmark::DoNotOptimize(Call<TakeFocus>(
          key, {}, [&answers](const auto& ended) { answers += ended.ok(); },
          options));
    }
    world.Answer(answer);
    world.loop.RunUntilIdle();
  }
  if (answers != static_cast<std::int64_t>(state.iterations()) * in_flight) {
    state.SkipWithError("not every call was answered");
  }
}

void BM_Call(benchmark::State& state) {
  CallAndAnswer(state, state.range(0), static_cast<int>(state.range(1)), {});
}
BENCHMARK(BM_Call)
    ->ArgNames({"in_flight", "keys"})
    ->Args({1, 1})
    ->Args({100, 1})
    ->Args({10000, 1})
    ->Args({100, 10000});

void BM_CallWithTimeout(benchmark::State& state) {
  CallAndAnswer(state, state.range(0), 1, {.timeout = absl::Minutes(1)});
}
BENCHMARK(BM_CallWithTimeout)
    ->ArgName("in_flight")
    ->Arg(1)
    ->Arg(100)
    ->Arg(10000);

void BM_CallThatNobodyServes(benchmark::State& state) {
  World world(1);
  const BrowserId key = World::Key(1);
  const Measure measure(state, 1);
  for (auto _ : state) {
    benchmark::DoNotOptimize(Call<TakeFocus>(key, {}, [](const auto&) {}));
    world.loop.RunUntilIdle();
  }
}
BENCHMARK(BM_CallThatNobodyServes);

// Calls that their host gives up all at once.
void BM_Cancellation(benchmark::State& state) {
  World world(1);
  const BrowserId key = World::Key(0);
  int ends = 0;
  const Measure measure(state, state.range(0));
  for (auto _ : state) {
    for (std::int64_t i = 0; i < state.range(0); ++i) {
      benchmark::DoNotOptimize(
          Call<TakeFocus>(key, {}, [&ends](const auto&) { ++ends; }));
    }
    world.stream.CancelPendingRequests(key);
    world.sent.clear();
    world.loop.RunUntilIdle();
  }
  benchmark::DoNotOptimize(ends);
}
BENCHMARK(BM_Cancellation)->ArgName("in_flight")->Arg(100);

}  // namespace
}  // namespace orvane::testing
