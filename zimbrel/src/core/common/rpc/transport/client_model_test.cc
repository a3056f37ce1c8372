// Whatever may happen in one loop, at random and inside each other: tasks,
// timers, calls that block and calls that do not, streams, cancellations, ends
// of clients and servers, Stop. A plain model knows what each of them may lead
// to.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "google/protobuf/empty.pb.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/then.h"
#include "zimbrel/src/core/common/rpc/transport/in_process.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

namespace orvane::testing {
namespace {

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;

constexpr unsigned kSeeds = 200;
constexpr int kActions = 250;
constexpr int kMaxDepth = 8;
constexpr int kClients = 3;

// Due when the loop looks next, so that a seed does the same each time.
constexpr absl::Duration kShort = absl::Nanoseconds(1);
constexpr absl::Duration kLong = absl::Hours(1);

// As it must be, like the records below.
struct ServerRecord {
  std::unique_ptr<SocketServer> server;
  bool has_ended = false;  // Or is about to.
};

struct ClientRecord {
  std::shared_ptr<ServerRecord> server;
  std::unique_ptr<SocketClient> connection;
  std::unique_ptr<rpc::BrowserWidgetRpcClient> widget;
  int callbacks = 0;       // That are running.
  int handlers = 0;        // At the server, for a call of this client.
  bool is_ending = false;  // In its destructor, or behind it.
  bool is_gone = false;    // Its destructor has returned.
};

struct CallRecord {
  std::shared_ptr<ClientRecord> client;
  bool blocks = false;
  bool has_deadline = false;
  bool is_beginning = false;
  bool is_cancelled = false;
  bool is_answered = false;  // By its handler.
  int ends = 0;
  CallHandle handle;
};

struct StreamRecord {
  std::shared_ptr<ClientRecord> client;
  std::unique_ptr<ClientStream> stream;
  bool is_closed = false;
  int ends = 0;
};

// Counts while it lives.
class Counted {
 public:
  explicit Counted(int* count) : count_(count) { ++*count_; }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;
  ~Counted() { --*count_; }

 private:
  int* const count_;
};

class ClientModel final : public rpc::BrowserWidgetRpc {
 public:
  explicit ClientModel(unsigned seed) : random_(seed) {}
  ~ClientModel() override = default;

  void Run() {
    const auto guard = loop_.RunAfter(absl::Minutes(5), [this] {
      ADD_FAILURE() << "it hangs";
      has_hung_ = true;
      left_ = 0;
      Stop();
    });
    while (left_ > 0) {
      Act();
      RunTheLoop();
    }
    EndEverything();
    ExpectThatAllHasEnded();
  }

 private:
  // The widget. A call tells by its browser which one it is. ----------------

  void Show(RpcController*, const BrowserId* call, Empty*,
            Closure* done) override {
    Answer(call->value(), done);
  }
  void Minimize(RpcController*, const BrowserId* call, Empty*,
                Closure* done) override {
    loop_.Post([this, id = call->value(), done] { Answer(id, done); });
  }
  void Hide(RpcController* controller, const BrowserId* call, Empty*,
            Closure* done) override {
    const std::uint64_t id = call->value();
    if (Upto(2) == 0) {
      controller->NotifyOnCancel(new Then([this, id] {
        const Counted handler(&calls_[id].client->handlers);
        Act();
      }));
    }
    held_.emplace_back(id, done);
  }
  void Restore(RpcController*, const BrowserId* call, Empty*,
               Closure* done) override {
    const std::uint64_t id = call->value();
    const Counted handler(&calls_[id].client->handlers);
    Act();
    Answer(id, done);
  }

  void Answer(std::uint64_t id, Closure* done) {
    calls_[id].is_answered = true;
    done->Run();
  }
  void AnswerHeld() {
    if (held_.empty()) return;
    const auto [id, done] = held_.front();
    held_.erase(held_.begin());
    Answer(id, done);
  }

  // Random actions ----------------------------------------------------------

  int Upto(int limit) {
    return std::uniform_int_distribution<int>(0, limit - 1)(random_);
  }
  template <typename Container>
  auto Any(Container& container) {
    return std::next(container.begin(),
                     Upto(static_cast<int>(container.size())));
  }

  // Up to three things, from wherever it is called.
  void Act() {
    const Counted deeper(&depth_);
    ++ran_;
    for (int i = Upto(4); i > 0 && left_ > 0; --i) ActOnce();
  }

  void ActOnce() {
    --left_;
    switch (Upto(16)) {
      case 0:
      case 1:
        return Post();
      case 2:
        return AddTimer();
      case 3:
        return DropTimer();
      case 4:
      case 5:
        return Begin();
      case 6:
        return Cancel();
      case 7:
      case 8:
        return Block();
      case 9:
        return WaitForATask();
      case 10:
        return AnswerHeld();
      case 11:
        return OpenOrCloseAStream();
      case 12:
        Publish<rpc::CursorChanged>(Browser(7), {});
        return;
      case 13:
        return AskForFocus();
      case 14:
        if (Upto(2) == 0) EndClient(Upto(kClients));
        return;
      case 15:
        switch (Upto(6)) {
          case 0:
            return EndServer();
          case 1:
            return ShutServerDown();
          case 2:
            return Stop();
          default:
            return;
        }
      default:
        return;
    }
  }

  // Tasks and timers ----------------------------------------------------------

  void Post() {
    const int id = ++last_id_;
    tasks_.insert(id);
    loop_.Post([this, id] {
      EXPECT_EQ(*tasks_.begin(), id);  // In the order in which they came.
      tasks_.erase(id);
      Act();
    });
  }

  void AddTimer() {
    const int id = ++last_id_;
    timers_.emplace(id, loop_.RunAfter(absl::ZeroDuration(), [this, id] {
      EXPECT_EQ(timers_.begin()->first, id);
      timers_.erase(id);
      Act();
    }));
  }

  void DropTimer() {
    if (!timers_.empty()) timers_.erase(Any(timers_));
  }

  void WaitForATask() {
    if (depth_ >= kMaxDepth) return;
    if (tasks_.empty()) {
      const bool is_outermost = !loop_.IsRunningHere();
      loop_.RunReady();
      // Only the outermost run forgets that it was stopped.
      if (is_outermost) is_stopped_ = false;
      return;
    }
    const int id = *Any(tasks_);
    const bool has_run =
        loop_.RunUntil([this, id] { return !tasks_.contains(id); });
    EXPECT_EQ(has_run, !tasks_.contains(id));
    EXPECT_TRUE(has_run || is_stopped_);
  }

  void Stop() {
    is_stopped_ = true;
    loop_.Stop();
  }

  void RunTheLoop() {
    switch (Upto(3)) {
      case 0:
        loop_.RunReady();
        break;
      case 1:
        loop_.RunUntilIdle();
        break;
      case 2:
        loop_.Post([this] { Stop(); });
        loop_.Run();
        break;
    }
    is_stopped_ = false;
  }

  // Clients and servers -------------------------------------------------------

  const std::shared_ptr<ServerRecord>& Server() {
    if (server_ == nullptr) {
      server_ = std::make_shared<ServerRecord>();
      server_->server = std::make_unique<SocketServer>(&loop_, this);
    }
    return server_;
  }

  const std::shared_ptr<ClientRecord>& Client() {
    std::shared_ptr<ClientRecord>& client = *Any(clients_);
    if (client == nullptr) {
      client = std::make_shared<ClientRecord>();
      client->server = Server();
      client->connection =
          *ConnectInProcess(&loop_, client->server->server.get());
      client->widget = std::make_unique<rpc::BrowserWidgetRpcClient>(
          client->connection.get());
    }
    return client;
  }

  void EndClient(int index) {
    const std::shared_ptr<ClientRecord> client =
        std::move(clients_[static_cast<std::size_t>(index)]);
    if (client == nullptr) return;
    client->is_ending = true;
    client->connection.reset();
    client->is_gone = true;
    for (const auto& [id, call] : calls_) {
      // One that blocks is told of its end when its turn comes.
      if (call.client == client && !call.blocks) {
        EXPECT_EQ(call.ends, 1);
      }
    }
    for (const auto& stream : streams_) {
      if (stream->client == client && !stream->is_closed) {
        EXPECT_EQ(stream->ends, 1);
      }
    }
  }

  void EndServer() {
    const std::shared_ptr<ServerRecord> server = std::move(server_);
    if (server == nullptr) return;
    server->has_ended = true;
    server->server.reset();
  }

  void ShutServerDown() {
    const std::shared_ptr<ServerRecord> server = std::move(server_);
    if (server == nullptr) return;
    server->has_ended = true;
    ++shutdowns_;
    server->server->Shutdown(Upto(2) == 0 ? absl::ZeroDuration() : kShort,
                             [this, server] {
                               --shutdowns_;
                               server->server.reset();
                               Act();
                             });
  }

  // Calls ---------------------------------------------------------------------

  std::pair<std::uint64_t, CallRecord*> NewCall(
      const std::shared_ptr<ClientRecord>& client) {
    const std::uint64_t id = ++last_call_;
    CallRecord& call = calls_[id];
    call.client = client;
    return {id, &call};
  }

  void Begin() {
    const std::shared_ptr<ClientRecord> client = Client();
    const auto [id, call] = NewCall(client);
    CallOptions options;
    if (Upto(3) == 0) {
      options.timeout = Upto(3) == 0 ? absl::ZeroDuration() : kShort;
      call->has_deadline = true;
    }
    auto on_answer = [this, call = call](const absl::StatusOr<Empty>& answer) {
      EXPECT_FALSE(call->is_beginning);
      Ended(*call, answer.status());
      const Counted callback(&call->client->callbacks);
      Act();
    };
    rpc::BrowserWidgetRpcClient& widget = *client->widget;
    const BrowserId browser = Browser(id);
    call->is_beginning = true;
    switch (Upto(4)) {
      case 0:
        call->handle = widget.Show(browser, std::move(on_answer), options);
        break;
      case 1:
        call->handle = widget.Minimize(browser, std::move(on_answer), options);
        break;
      case 2:
        call->handle = widget.Hide(browser, std::move(on_answer), options);
        break;
      case 3:
        call->handle = widget.Restore(browser, std::move(on_answer), options);
        break;
    }
    call->is_beginning = false;
  }

  void Cancel() {
    if (calls_.empty()) return;
    CallRecord& call = Any(calls_)->second;
    if (!call.blocks && call.ends == 0) call.is_cancelled = true;
    call.handle.Cancel();
  }

  void Block() {
    if (depth_ >= kMaxDepth) return;
    const std::shared_ptr<ClientRecord> client = Client();
    const auto [id, call] = NewCall(client);
    call->blocks = true;
    call->has_deadline = true;
    const bool is_inside = client->callbacks > 0;
    const bool was_stopped = is_stopped_;
    const int ran = ran_;
    const BrowserId browser = Browser(id);
    rpc::BrowserWidgetRpcClient& widget = *client->widget;
    // What nobody is going to answer has to end by itself.
    const CallOptions brief{.timeout = kShort};
    const CallOptions patient{.timeout = client->handlers > 0 ? kShort : kLong};
    absl::Status status;
    switch (Upto(4)) {
      case 0:
        status = widget.Hide(browser, brief).status();
        break;
      case 1:
        status = widget.Minimize(browser, patient).status();
        break;
      case 2:
        status = widget.Restore(browser, patient).status();
        break;
      case 3:
        status = widget.Show(browser, patient).status();
        break;
    }
    Ended(*call, status);
    EXPECT_EQ(status.code() == absl::StatusCode::kFailedPrecondition,
              is_inside);
    if (is_inside || was_stopped) {
      EXPECT_FALSE(status.ok());
      EXPECT_EQ(ran_, ran) << "not at once";
    }
  }

  // Whatever a call says of its end must be true.
  void Ended(CallRecord& call, const absl::Status& status) {
    const ClientRecord& client = *call.client;
    EXPECT_EQ(++call.ends, 1);
    EXPECT_TRUE(call.blocks || !client.is_gone);
    switch (status.code()) {
      case absl::StatusCode::kOk:
        EXPECT_TRUE(call.is_answered);
        break;
      case absl::StatusCode::kDeadlineExceeded:
        EXPECT_TRUE(call.has_deadline);
        break;
      case absl::StatusCode::kCancelled:
        EXPECT_TRUE(call.is_cancelled || client.is_ending ||
                    (call.blocks && is_stopped_));
        break;
      case absl::StatusCode::kUnavailable:
        EXPECT_TRUE(client.server->has_ended);
        break;
      case absl::StatusCode::kFailedPrecondition:
        EXPECT_TRUE(call.blocks);
        break;
      default:
        ADD_FAILURE() << status;
    }
  }

  // Streams -------------------------------------------------------------------

  void OpenOrCloseAStream() {
    if (!streams_.empty() && Upto(2) == 0) {
      const std::shared_ptr<StreamRecord> stream = *Any(streams_);
      if (stream->ends == 0) stream->is_closed = true;
      stream->stream.reset();
      return;
    }
    const std::shared_ptr<ClientRecord> client = Client();
    const auto stream = std::make_shared<StreamRecord>();
    streams_.push_back(stream);
    stream->client = client;
    const auto expect_open = [stream = stream.get()] {
      EXPECT_FALSE(stream->is_closed);
      EXPECT_EQ(stream->ends, 0);
      EXPECT_FALSE(stream->client->is_gone);
    };
    auto on_end = [this, stream = stream.get(),
                   expect_open](const absl::Status&) {
      expect_open();
      ++stream->ends;
      const Counted callback(&stream->client->callbacks);
      Act();
    };
    if (Upto(2) == 0) {
      stream->stream = client->widget->WhenCursorChanged(
          Browser(7),
          [this, stream = stream.get(),
           expect_open](const rpc::CursorChanged&) {
            expect_open();
            const Counted callback(&stream->client->callbacks);
            Act();
          },
          std::move(on_end));
    } else {
      stream->stream = client->widget->OnTakeFocus(
          Browser(7),
          [this, stream = stream.get(), expect_open](
              const rpc::TakeFocusCall&, Responder<rpc::TakeFocus> responder) {
            expect_open();
            const Counted callback(&stream->client->callbacks);
            Act();
            if (Upto(2) == 0) return;  // The call fails.
            ++responses_;
            std::move(responder).Respond({}).IgnoreError();
          },
          std::move(on_end));
    }
  }

  void AskForFocus() {
    ++asked_;
    Call<rpc::TakeFocus>(
        Browser(7), {},
        [this](const absl::StatusOr<rpc::TakeFocusResponse>& answer) {
          ++asked_ended_;
          if (answer.ok()) ++focused_;
          EXPECT_LE(focused_, responses_);
          Act();
        },
        {.timeout = Upto(2) == 0 ? kShort : kLong});
  }

  // The end -------------------------------------------------------------------

  void EndEverything() {
    for (int i = 0; i < kClients; ++i) EndClient(i);
    EndServer();
    while (!held_.empty()) AnswerHeld();
    const auto is_over = [this] {
      return has_hung_ || (tasks_.empty() && timers_.empty() &&
                           shutdowns_ == 0 && asked_ == asked_ended_);
    };
    // A task may still stop it, which is forgotten each time.
    while (!loop_.RunUntil(is_over)) {
      loop_.RunUntilIdle();
      is_stopped_ = false;
    }
    loop_.RunUntilIdle();
  }

  void ExpectThatAllHasEnded() const {
    for (const auto& [id, call] : calls_) EXPECT_EQ(call.ends, 1) << id;
    for (const auto& stream : streams_)
      EXPECT_EQ(stream->ends, stream->is_closed ? 0 : 1);
    EXPECT_EQ(asked_ended_, asked_);
    EXPECT_EQ(RegisteredKeys(), 0u);
  }

  std::mt19937 random_;
  EventLoop loop_;
  int left_ = kActions;
  int depth_ = 0;  // Actions inside of each other.
  int ran_ = 0;    // Tasks, callbacks and handlers that act.
  bool is_stopped_ = false;
  bool has_hung_ = false;

  int last_id_ = 0;
  std::set<int> tasks_;
  std::map<int, std::unique_ptr<EventLoop::Timer>> timers_;

  std::shared_ptr<ServerRecord> server_;  // Null until one is wanted.
  std::array<std::shared_ptr<ClientRecord>, kClients> clients_;
  int shutdowns_ = 0;  // That are in progress.

  std::uint64_t last_call_ = 0;
  std::map<std::uint64_t, CallRecord> calls_;
  std::vector<std::pair<std::uint64_t, Closure*>> held_;
  std::vector<std::shared_ptr<StreamRecord>> streams_;

  // The widget's own calls.
  int asked_ = 0;
  int asked_ended_ = 0;
  int responses_ = 0;
  int focused_ = 0;
};

TEST(ClientModelTest, EverythingEndsOnceAndAsTheModelSays) {
  for (unsigned seed = 0; seed < kSeeds; ++seed) {
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    ClientModel(seed).Run();
    if (::testing::Test::HasFailure()) return;
  }
}

}  // namespace
}  // namespace orvane::testing
