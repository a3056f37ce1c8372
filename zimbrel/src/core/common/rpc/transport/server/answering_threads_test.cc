// Handlers that answer on threads of their own, while clients on other threads
// open streams, call and die. Mainly for the thread sanitizer.

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <latch>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/numbers.h"
#include "google/protobuf/empty.pb.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/then.h"

namespace orvane::testing {
namespace {

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;

constexpr int kClients = 4;
constexpr int kWorkers = 3;
constexpr int kLives = 25;           // Of each client.
constexpr int kCalls = 8;            // In each life, one after the other.
constexpr int kUnansweredCalls = 3;  // At the end of each life.

// Of the server's shutdown.
constexpr int kRounds = 40;
constexpr int kCallsAtOnce = 30;

// Hands every call of Hide to whichever thread takes it.
class HandingWidget final : public rpc::BrowserWidgetRpc {
 public:
  struct Work {
    std::uint64_t browser;
    RpcController* controller;
    Closure* done;  // Null if there is no more work.
  };

  void Hide(RpcController* controller, const BrowserId* request, Empty*,
            Closure* done) override {
    ++begun;
    if (begun % 2 == 0) {
      ++asked_to_be_told;
      controller->NotifyOnCancel(new Then([this] { ++told; }));
    }
    Put({request->value(), controller, done});
  }

  void Put(Work work) {
    {
      const std::lock_guard lock(mutex_);
      waiting_.push_back(work);
    }
    has_work_.notify_one();
  }

  // Waits for it. Thread: any.
  Work Take() {
    std::unique_lock lock(mutex_);
    has_work_.wait(lock, [this] { return !waiting_.empty(); });
    const Work work = waiting_.front();
    waiting_.pop_front();
    return work;
  }

  // Service thread.
  int begun = 0;
  int asked_to_be_told = 0;
  // Any thread: the closure runs on the thread that ends the call.
  std::atomic<int> told = 0;

 private:
  std::mutex mutex_;
  std::condition_variable has_work_;
  std::deque<Work> waiting_;  // Under mutex_.
};

// One life of a client, on a thread of its own, with a loop of its own: watches
// browser 7, serves the dialogs of its own browser, and calls.
class Client {
 public:
  Client(int descriptor, std::uint64_t browser) : browser_(browser) {
    client_ = *SocketClient::Adopt(&loop_, descriptor);
    events_ =
        client_->OpenStream(Method(kWhenTooltipChanged),
                            {[this](std::string_view payload, std::int64_t) {
                               return ReceiveEvent(payload);
                             },
                             nullptr});
    EXPECT_TRUE(events_->sender()->Next(Subscribe(7), 0).ok());
    dialogs_ = client_->OpenStream(
        Method(kOnCreateWebDialog),
        {[this](std::string_view, std::int64_t call_id) {
           // Every other call stays unanswered.
           if (++asked_ % 2 == 0) return absl::OkStatus();
           return dialogs_->sender()->Next(Answer(browser_, "yes"), call_id);
         },
         nullptr});
    EXPECT_TRUE(dialogs_->sender()->Next(Serve(browser_), 0).ok());
  }

  // The handler published an event before it answered, so the event came first.
  void CallAndHear() {
    const int before = events_received_;
    const auto answer = client_->CallAndWait(Method(kHide), Browser(browser_));
    EXPECT_TRUE(answer.ok()) << answer.status();
    EXPECT_GT(events_received_, before);
  }

  void DieInTheMiddleOfCalls() {
    int ended = 0;
    for (int i = 0; i < kUnansweredCalls; ++i) {
      client_->Call(Method(kHide), Browser(browser_),
                    [&ended](const auto&) { ++ended; });
    }
    loop_.RunUntilIdle();
    client_.reset();
    EXPECT_EQ(ended, kUnansweredCalls);
  }

 private:
  static const google::protobuf::MethodDescriptor* Method(std::uint32_t index) {
    return rpc::BrowserWidgetRpc::descriptor()->method(static_cast<int>(index));
  }

  absl::Status ReceiveEvent(std::string_view payload) {
    rpc::TooltipChanged event;
    EXPECT_TRUE(event.ParseFromString(std::string(payload)));
    int number = 0;
    EXPECT_TRUE(absl::SimpleAtoi(event.text(), &number));
    EXPECT_TRUE(events_received_ == 0 || number == last_event_ + 1);
    last_event_ = number;
    ++events_received_;
    return absl::OkStatus();
  }

  const std::uint64_t browser_;
  EventLoop loop_;
  std::unique_ptr<SocketClient> client_;
  std::unique_ptr<ClientStream> events_;
  std::unique_ptr<ClientStream> dialogs_;
  int events_received_ = 0;
  int last_event_ = 0;
  int asked_ = 0;
};

class AnsweringThreadsTest : public ::testing::Test {
 protected:
  // Publishes and calls the client on the service thread, then answers.
  void Work() {
    while (true) {
      const HandingWidget::Work work = widget.Take();
      if (work.done == nullptr) return;
      loop.Post([this, browser = work.browser] {
        Publish(Browser(7), Tooltip(std::to_string(++published)));
        AskIfServed(browser);
      });
      if (work.controller->IsCanceled())
        work.controller->SetFailed("nobody waits");
      ++answered;
      work.done->Run();
    }
  }

  void AskIfServed(std::uint64_t browser) {
    if (!IsServed<rpc::CreateWebDialog>(Browser(browser))) return;
    ++dialogs;
    Call<rpc::CreateWebDialog>(Browser(browser), {},
                               [this](const auto&) { ++dialogs_ended; });
  }

  // Each life has a browser of its own.
  void LiveAndDie(int first_browser) {
    for (int life = 0; life < kLives; ++life) {
      auto pair = ConnectedPair();
      loop.Post([this, descriptor = pair->first.Release()] {
        EXPECT_TRUE(server.Adopt(descriptor).ok());
      });
      Client client(pair->second.Release(),
                    static_cast<std::uint64_t>(first_browser + life));
      for (int call = 0; call < kCalls; ++call) client.CallAndHear();
      if (life % 2 == 0) client.DieInTheMiddleOfCalls();
    }
  }

  EventLoop loop;
  HandingWidget widget;
  SocketServer server{&loop, &widget};

  // Service thread.
  int published = 0;
  int dialogs = 0;
  int dialogs_ended = 0;
  // Any.
  std::atomic<int> answered = 0;
};

TEST_F(AnsweringThreadsTest, MeetClientsThatComeAndDie) {
  ASSERT_EQ(RegisteredKeys(), 0u);
  std::latch start(kClients + kWorkers);
  std::atomic<int> living = kClients;
  std::vector<std::thread> workers;
  workers.reserve(kWorkers);
  std::vector<std::thread> clients;
  clients.reserve(kClients);
  for (int i = 0; i < kWorkers; ++i) {
    workers.emplace_back([this, &start] {
      start.arrive_and_wait();
      Work();
    });
  }
  for (int i = 0; i < kClients; ++i) {
    clients.emplace_back([this, &start, &living, i] {
      start.arrive_and_wait();
      LiveAndDie(100 + i * kLives);
      --living;
      loop.Post([] {});  // So that the service thread checks its condition.
    });
  }

  loop.RunUntil([&] { return living == 0 && server.connections() == 0; });
  for (std::thread& client : clients) client.join();
  for (int i = 0; i < kWorkers; ++i) widget.Put({0, nullptr, nullptr});
  for (std::thread& worker : workers) worker.join();
  loop.RunUntilIdle();

  EXPECT_EQ(answered, widget.begun);
  EXPECT_EQ(published, widget.begun);
  EXPECT_GE(widget.begun, kClients * kLives * kCalls);
  EXPECT_EQ(widget.told, widget.asked_to_be_told);
  EXPECT_GT(dialogs, 0);
  EXPECT_EQ(dialogs_ended, dialogs);
  EXPECT_EQ(RegisteredKeys(), 0u);
}

// The answers arrive while the server is destroyed, and in every other round
// its loop too.
TEST(AnsweringThreads, MeetTheEndOfServerAndLoop) {
  for (int round = 0; round < kRounds; ++round) {
    HandingWidget widget;
    std::optional<EventLoop> loop(std::in_place);
    std::optional<SocketServer> server(std::in_place, &*loop, &widget);
    auto pair = ConnectedPair();
    ASSERT_TRUE(server->Adopt(pair->first.Release()).ok());
    RawPeer client(std::move(pair->second));
    for (std::uint64_t id = 1; id <= kCallsAtOnce; ++id)
      client.Send(CallFrame(id, kHide));
    client.Send(OpenFrame(kCallsAtOnce + 1, kWhenTooltipChanged));
    client.Send(NextFrame(kCallsAtOnce + 1, Subscribe(7)));
    loop->RunUntilIdle();
    ASSERT_EQ(widget.begun, kCallsAtOnce);

    std::latch start(kWorkers + 1);
    std::vector<std::thread> workers;
    for (int i = 0; i < kWorkers; ++i) {
      widget.Put({0, nullptr, nullptr});
      workers.emplace_back([&widget, &start] {
        start.arrive_and_wait();
        for (auto work = widget.Take(); work.done != nullptr;
             work = widget.Take()) {
          work.done->Run();
        }
      });
    }
    start.arrive_and_wait();
    server.reset();
    if (round % 2 == 0) loop.reset();
    for (std::thread& worker : workers) worker.join();
    if (loop.has_value()) loop->RunUntilIdle();
    EXPECT_EQ(widget.told, widget.asked_to_be_told);
    EXPECT_EQ(RegisteredKeys(), 0u);
  }
}

}  // namespace
}  // namespace orvane::testing
