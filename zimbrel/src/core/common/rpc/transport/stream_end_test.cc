// Every way in which something in progress between a client and a server can
// end, and what each side is told of it: who ends it × what it is.

#include <cstdint>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "google/protobuf/empty.pb.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/forked_process.h"
#include "zimbrel/src/core/common/rpc/testing/link.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/then.h"

namespace orvane::testing {
namespace {

enum class Kind { kUnary, kEvent, kCallback };

enum class Ending {
  kNobodyEndsIt,
  kTheClientEndsIt,
  kTheClientIsKilled,
  kTheServerEndsIt,
  kTheLinkDiesInAFrameOfTheClient,
  kTheLinkDiesInAFrameOfTheServer,
};

using Told = std::vector<std::string>;

struct Cell {
  Kind kind;
  Ending ending;
  Told client;
  Told server;
};

std::string NameOf(Kind kind) {
  switch (kind) {
    case Kind::kUnary:
      return "Unary";
    case Kind::kEvent:
      return "Event";
    case Kind::kCallback:
      return "Callback";
  }
  return "";
}

std::string NameOf(Ending ending) {
  switch (ending) {
    case Ending::kNobodyEndsIt:
      return "NobodyEndsIt";
    case Ending::kTheClientEndsIt:
      return "TheClientEndsIt";
    case Ending::kTheClientIsKilled:
      return "TheClientIsKilled";
    case Ending::kTheServerEndsIt:
      return "TheServerEndsIt";
    case Ending::kTheLinkDiesInAFrameOfTheClient:
      return "TheLinkDiesInAFrameOfTheClient";
    case Ending::kTheLinkDiesInAFrameOfTheServer:
      return "TheLinkDiesInAFrameOfTheServer";
  }
  return "";
}

void PrintTo(const Cell& cell, std::ostream* out) {
  *out << NameOf(cell.kind) << NameOf(cell.ending);
}

// A client that has begun something: a call of Hide, a stream of browser 7's
// tooltips, or one that serves its dialogs.
class Client {
 public:
  Client(EventLoop* loop, int descriptor, Kind kind)
      : kind_(kind), client_(*SocketClient::Adopt(loop, descriptor)) {
    Begin();
  }

  // Sends something more: another call, another subscription, or the answer to
  // the server's call.
  void SayMore() {
    switch (kind_) {
      case Kind::kUnary:
        return Call();
      case Kind::kEvent:
        return Send(Subscribe(8));
      case Kind::kCallback:
        return Send(Answer(7, "yes"), call_id_);
    }
  }

  void End() {
    stream_.reset();
    for (CallHandle& call : calls_) call.Cancel();
  }

  bool is_connected() const { return client_->status().ok(); }

  Told told;

 private:
  void Begin() {
    switch (kind_) {
      case Kind::kUnary:
        return Call();
      case Kind::kEvent:
        Open(kWhenTooltipChanged);
        return Send(Subscribe(7));
      case Kind::kCallback:
        Open(kOnCreateWebDialog);
        return Send(Serve(7));
    }
  }

  static const google::protobuf::MethodDescriptor* Method(std::uint32_t index) {
    return rpc::BrowserWidgetRpc::descriptor()->method(static_cast<int>(index));
  }

  void Call() {
    calls_.push_back(client_->Call(
        Method(kHide), BrowserId(),
        [this](const auto& answer) { Tell("done", answer.status()); }));
  }

  void Open(std::uint32_t method) {
    stream_ = client_->OpenStream(
        Method(method),
        {[this](std::string_view payload, std::int64_t call_id) {
           return Receive(std::string(payload), call_id);
         },
         [this](const absl::Status& why) { Tell("end", why); }});
  }

  void Send(const google::protobuf::Message& message,
            std::int64_t call_id = 0) {
    EXPECT_TRUE(stream_->sender()->Next(message, call_id).ok());
  }

  absl::Status Receive(const std::string& payload, std::int64_t call_id) {
    if (kind_ == Kind::kEvent) {
      rpc::TooltipChanged event;
      EXPECT_TRUE(event.ParseFromString(payload));
      told.push_back("event " + event.text());
    } else {
      rpc::CreateWebDialog call;
      EXPECT_TRUE(call.ParseFromString(payload));
      call_id_ = call_id;
      told.push_back("call " + call.call().prompt().message());
    }
    return absl::OkStatus();
  }

  void Tell(const std::string& what, const absl::Status& why) {
    told.push_back(
        absl::StrCat(what, " ", absl::StatusCodeToString(why.code())));
  }

  const Kind kind_;
  // They outlive the client, which ends them.
  std::vector<CallHandle> calls_;
  const std::unique_ptr<SocketClient> client_;
  std::unique_ptr<ClientStream> stream_;
  std::int64_t call_id_ = 0;
};

class StreamEndTest : public StreamFixture,
                      public ::testing::WithParamInterface<Cell> {
 protected:
  ~StreamEndTest() override {
    server.reset();
    Settle();
  }

  void Begin() {
    if (GetParam().ending == Ending::kTheClientIsKilled) {
      BeginInAProcess();
    } else {
      EXPECT_TRUE(server->Adopt(link_.ReleaseDescriptor(Link::kServer)).ok());
      client_.emplace(&loop, link_.ReleaseDescriptor(Link::kClient),
                      GetParam().kind);
    }
    WaitForTheClient();
    ServerSays("first");
    Settle();
  }

  void End() {
    switch (GetParam().ending) {
      case Ending::kNobodyEndsIt:
        if (GetParam().kind == Kind::kCallback) {
          client_->SayMore();
        } else {
          ServerSays("second");
        }
        break;
      case Ending::kTheClientEndsIt:
        client_->End();
        break;
      case Ending::kTheClientIsKilled:
        EXPECT_TRUE(process_->Kill());
        break;
      case Ending::kTheServerEndsIt:
        server.reset();
        break;
      case Ending::kTheLinkDiesInAFrameOfTheClient:
        client_->SayMore();
        CutInAFrameOf(Link::kClient);
        break;
      case Ending::kTheLinkDiesInAFrameOfTheServer:
        ServerSays("second");
        CutInAFrameOf(Link::kServer);
        break;
    }
    Settle();
  }

  Told ToldToTheClient() const {
    return client_.has_value() ? client_->told : Told();
  }

  // The handlers of Hide that have not answered yet answer now.
  void AnswerCalls() {
    for (const auto& call : std::exchange(widget.held, {})) call.done->Run();
  }

  void Settle() {
    do {
      loop.RunUntilIdle();
    } while (link_.Pass());
  }

  static bool IsOver() { return GetParam().ending != Ending::kNobodyEndsIt; }
  static bool IsConnected() {
    return !IsOver() || GetParam().ending == Ending::kTheClientEndsIt;
  }

 private:
  void BeginInAProcess() {
    auto pair = ConnectedPair();
    process_.emplace([&] {
      EventLoop its_loop;
      const Client its_client(&its_loop, pair->second.Release(),
                              GetParam().kind);
      its_loop.RunUntil([&] { return !its_client.is_connected(); });
    });
    EXPECT_TRUE(server->Adopt(pair->first.Release()).ok());
  }

  void WaitForTheClient() {
    Settle();
    loop.RunUntil(
        [this] { return !widget.held.empty() || RegisteredKeys() > 0; });
    for (const auto& call : widget.held) {
      call.controller->NotifyOnCancel(
          new Then([this, controller = call.controller] {
            if (controller->IsCanceled()) ends.emplace_back("cancelled");
          }));
    }
  }

  // Sends an event or a call. For a unary call the second is the answer.
  void ServerSays(const std::string& text) {
    switch (GetParam().kind) {
      case Kind::kUnary:
        if (text == "second") AnswerCalls();
        break;
      case Kind::kEvent:
        EXPECT_EQ(Publish(Browser(7), Tooltip(text)), 1u);
        break;
      case Kind::kCallback:
        Ask(7, text);
        break;
    }
  }

  void CutInAFrameOf(Link::End end) {
    loop.RunUntilIdle();
    EXPECT_GT(link_.PassAllBut(end, 1), internal::kFrameLengthBytes);
    loop.RunUntilIdle();
    EXPECT_LE(widget.held.size(), 1u) << "half a call";
    EXPECT_EQ(ListedForTooltips(8), 0u) << "half a subscription";
    link_.Cut();
  }

  Link link_;
  std::optional<Client> client_;
  std::optional<ForkedProcess> process_;
};

TEST_P(StreamEndTest, BothSidesAreToldAndNothingIsLeft) {
  Begin();
  End();
  EXPECT_EQ(ToldToTheClient(), GetParam().client);
  EXPECT_EQ(ends, GetParam().server);
  if (server.has_value()) {
    EXPECT_EQ(server->connections(), IsConnected() ? 1u : 0u);
  }
  if (!IsOver()) {
    EXPECT_EQ(RegisteredKeys(), GetParam().kind == Kind::kUnary ? 0u : 1u);
  } else {
    EXPECT_EQ(RegisteredKeys(), 0u);
    EXPECT_EQ(Publish(Browser(7), Tooltip("late")), 0u);
    EXPECT_FALSE(IsServed<rpc::CreateWebDialog>(Browser(7)));
  }

  AnswerCalls();
  Settle();
  EXPECT_EQ(ToldToTheClient(), GetParam().client) << "an answer after the end";
  EXPECT_EQ(ends, GetParam().server);
}

INSTANTIATE_TEST_SUITE_P(
    Table, StreamEndTest,
    ::testing::Values(
        Cell{Kind::kUnary, Ending::kNobodyEndsIt, {"done OK"}, {}},
        Cell{Kind::kEvent,
             Ending::kNobodyEndsIt,
             {"event first", "event second"},
             {}},
        Cell{Kind::kCallback,
             Ending::kNobodyEndsIt,
             {"call first"},
             {"first yes"}},

        Cell{Kind::kUnary,
             Ending::kTheClientEndsIt,
             {"done CANCELLED"},
             {"cancelled"}},
        Cell{Kind::kEvent, Ending::kTheClientEndsIt, {"event first"}, {}},
        Cell{Kind::kCallback,
             Ending::kTheClientEndsIt,
             {"call first"},
             {"first CANCELLED"}},

        // Nobody can ask a client that has died.
        Cell{Kind::kUnary, Ending::kTheClientIsKilled, {}, {"cancelled"}},
        Cell{Kind::kEvent, Ending::kTheClientIsKilled, {}, {}},
        Cell{Kind::kCallback,
             Ending::kTheClientIsKilled,
             {},
             {"first CANCELLED"}},

        Cell{Kind::kUnary,
             Ending::kTheServerEndsIt,
             {"done UNAVAILABLE"},
             {"cancelled"}},
        Cell{Kind::kEvent,
             Ending::kTheServerEndsIt,
             {"event first", "end OK"},
             {}},
        Cell{Kind::kCallback,
             Ending::kTheServerEndsIt,
             {"call first", "end OK"},
             {"first CANCELLED"}},

        // A frame that was cut off does not count: no second call, no answer.
        Cell{Kind::kUnary,
             Ending::kTheLinkDiesInAFrameOfTheClient,
             {"done UNAVAILABLE", "done UNAVAILABLE"},
             {"cancelled"}},
        Cell{Kind::kEvent,
             Ending::kTheLinkDiesInAFrameOfTheClient,
             {"event first", "end UNAVAILABLE"},
             {}},
        Cell{Kind::kCallback,
             Ending::kTheLinkDiesInAFrameOfTheClient,
             {"call first", "end UNAVAILABLE"},
             {"first CANCELLED"}},

        // The server has answered, and is told nothing more.
        Cell{Kind::kUnary,
             Ending::kTheLinkDiesInAFrameOfTheServer,
             {"done UNAVAILABLE"},
             {}},
        Cell{Kind::kEvent,
             Ending::kTheLinkDiesInAFrameOfTheServer,
             {"event first", "end UNAVAILABLE"},
             {}},
        Cell{Kind::kCallback,
             Ending::kTheLinkDiesInAFrameOfTheServer,
             {"call first", "end UNAVAILABLE"},
             {"first CANCELLED", "second CANCELLED"}}),
    [](const auto& cell) {
      return NameOf(cell.param.kind) + NameOf(cell.param.ending);
    });

}  // namespace
}  // namespace orvane::testing
