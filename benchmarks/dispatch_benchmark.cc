// The time from CallMethod to a handler: ours, a bare switch plus virtual call,
// and the dispatch of protobuf's own generic services. Each calls the 40 unary
// methods in the same random order.

#include <array>
#include <cstddef>
#include <memory>
#include <random>
#include <vector>

#include "benchmark/benchmark.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"

#include "benchmarks/bare_widget.h"
#include "generic_widget.pb.h"
#include "rpc/browser/browser_widget.rpc.h"

namespace {

using google::protobuf::Closure;
using google::protobuf::Message;
using google::protobuf::MethodDescriptor;
using google::protobuf::RpcController;

constexpr std::size_t kUnaryCount = 40;

// The body of every handler.
#define COUNT_CALL(Name, Request, Response)                                 \
  void Name(RpcController*, const Request*, Response*, Closure*) override { \
    ++calls;                                                                \
  }

class CountingWidget final : public rpc::BrowserWidgetRpc {
 public:
  UNARY_METHODS(COUNT_CALL)
  long calls = 0;
};

class CountingGenericWidget final : public benchmarks::GenericWidget {
 public:
  UNARY_METHODS(COUNT_CALL)
  long calls = 0;
};

class CountingBareWidget final : public benchmarks::BareWidget {
 public:
  UNARY_METHODS(COUNT_CALL)
  long calls = 0;
};

#undef COUNT_CALL

// One call, with messages of the method's types.
struct Step {
  int index;
  const MethodDescriptor* method;
  const Message* request;
  Message* response;
};

// Calls of a service's unary methods, in an order that is the same for all.
class Steps {
 public:
  explicit Steps(google::protobuf::Service* service) {
    for (std::size_t i = 0; i < kUnaryCount; ++i) {
      const int index = static_cast<int>(i);
      methods_[i] = service->GetDescriptor()->method(index);
      requests_[i].reset(service->GetRequestPrototype(methods_[i]).New());
      responses_[i].reset(service->GetResponsePrototype(methods_[i]).New());
    }
    std::mt19937 random(1);
    std::uniform_int_distribution<std::size_t> any(0, kUnaryCount - 1);
    for (std::size_t i = 0; i < kLength; ++i) {
      const std::size_t at = any(random);
      steps_.push_back({static_cast<int>(at), methods_[at], requests_[at].get(),
                        responses_[at].get()});
    }
  }

  // Too long for a branch predictor to learn.
  static constexpr std::size_t kLength = 1 << 15;

  auto begin() const { return steps_.begin(); }
  auto end() const { return steps_.end(); }

 private:
  std::array<const MethodDescriptor*, kUnaryCount> methods_;
  std::array<std::unique_ptr<Message>, kUnaryCount> requests_;
  std::array<std::unique_ptr<Message>, kUnaryCount> responses_;
  std::vector<Step> steps_;
};

// Repeats all steps; `call` makes one call, which must add one to `calls`.
template <typename Call>
void Run(benchmark::State& state, const Steps& steps, const long& calls,
         const Call& call) {
  for (auto _ : state) {
    for (const Step& step : steps) call(step);
  }
  state.SetItemsProcessed(calls);
  if (calls != state.iterations() * static_cast<long>(Steps::kLength))
    state.SkipWithError("not every call reached its handler");
}

template <typename Widget>
void ThroughService(benchmark::State& state) {
  Widget widget;
  const Steps steps(&widget);
  google::protobuf::Service* service = &widget;
  benchmark::DoNotOptimize(service);
  Run(state, steps, widget.calls, [service](const Step& step) {
    service->CallMethod(step.method, nullptr, step.request, step.response,
                        nullptr);
  });
}

void BareSwitchAndVirtualCall(benchmark::State& state) {
  rpc::BrowserWidgetRpc types;
  const Steps steps(&types);
  CountingBareWidget widget;
  benchmarks::BareWidget* bare = &widget;
  benchmark::DoNotOptimize(bare);
  Run(state, steps, widget.calls, [bare](const Step& step) {
    bare->Call(step.index, nullptr, step.request, step.response, nullptr);
  });
}

BENCHMARK(BareSwitchAndVirtualCall);
BENCHMARK(ThroughService<CountingWidget>)->Name("BrowserWidgetRpc");
BENCHMARK(ThroughService<CountingGenericWidget>)
    ->Name("ProtobufGenericService");

}  // namespace
