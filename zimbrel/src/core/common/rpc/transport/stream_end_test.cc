// Every way in which something that is in progress between a host and a widget
// can end, and what each side is told of it: who ends it × what it is.

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
  kTheHostEndsIt,
  kTheHostIsKilled,
  kTheWidgetEndsIt,
  kTheLinkDiesInAFrameOfTheHost,
  kTheLinkDiesInAFrameOfTheWidget,
};

using Told = std::vector<std::string>;

struct Cell {
  Kind kind;
  Ending ending;
  Told host;
  Told widget;
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
    case Ending::kTheHostEndsIt:
      return "TheHostEndsIt";
    case Ending::kTheHostIsKilled:
      return "TheHostIsKilled";
    case Ending::kTheWidgetEndsIt:
      return "TheWidgetEndsIt";
    case Ending::kTheLinkDiesInAFrameOfTheHost:
      return "TheLinkDiesInAFrameOfTheHost";
    case Ending::kTheLinkDiesInAFrameOfTheWidget:
      return "TheLinkDiesInAFrameOfTheWidget";
  }
  return "";
}

void PrintTo(const Cell& cell, std::ostream* out) {
  *out << NameOf(cell.kind) << NameOf(cell.ending);
}

// A host that has begun something: a call of Hide, a stream of browser 7's
// tooltips, or one that serves its dialogs.
class Host {
 public:
  Host(EventLoop* loop, int descriptor, Kind kind)
      : kind_(kind), client_(*SocketClient::Adopt(loop, descriptor)) {
    Begin();
  }

  // Says something more: another call, another subscription, or the answer to
  // the widget's call.
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
  // Outlive the client, which ends them.
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
    if (GetParam().ending == Ending::kTheHostIsKilled) {
      BeginInAProcess();
    } else {
      EXPECT_TRUE(server->Adopt(link_.ReleaseDescriptor(Link::kWidget)).ok());
      host_.emplace(&loop, link_.ReleaseDescriptor(Link::kHost),
                    GetParam().kind);
    }
    WaitForTheHost();
    WidgetSays("first");
    Settle();
  }

  void End() {
    switch (GetParam().ending) {
      case Ending::kNobodyEndsIt:
        if (GetParam().kind == Kind::kCallback) {
          host_->SayMore();
        } else {
          WidgetSays("second");
        }
        break;
      case Ending::kTheHostEndsIt:
        host_->End();
        break;
      case Ending::kTheHostIsKilled:
        EXPECT_TRUE(process_->Kill());
        break;
      case Ending::kTheWidgetEndsIt:
        server.reset();
        break;
      case Ending::kTheLinkDiesInAFrameOfTheHost:
        host_->SayMore();
        CutInAFrameOf(Link::kHost);
        break;
      case Ending::kTheLinkDiesInAFrameOfTheWidget:
        WidgetSays("second");
        CutInAFrameOf(Link::kWidget);
        break;
    }
    Settle();
  }

  Told ToldToTheHost() const {
    return host_.has_value() ? host_->told : Told();
  }

  // The handlers of Hide that have not answered do it now.
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
    return !IsOver() || GetParam().ending == Ending::kTheHostEndsIt;
  }

 private:
  void BeginInAProcess() {
    auto pair = ConnectedPair();
    process_.emplace([&] {
      EventLoop its_loop;
      const Host its_host(&its_loop, pair->second.Release(), GetParam().kind);
      its_loop.RunUntil([&] { return !its_host.is_connected(); });
    });
    EXPECT_TRUE(server->Adopt(pair->first.Release()).ok());
  }

  void WaitForTheHost() {
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

  // An event, or a call. A unary call has no more than an answer, the second.
  void WidgetSays(const std::string& text) {
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
  std::optional<Host> host_;
  std::optional<ForkedProcess> process_;
};

TEST_P(StreamEndTest, BothSidesAreToldAndNothingIsLeft) {
  Begin();
  End();
  EXPECT_EQ(ToldToTheHost(), GetParam().host);
  EXPECT_EQ(ends, GetParam().widget);
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
  EXPECT_EQ(ToldToTheHost(), GetParam().host) << "an answer after the end";
  EXPECT_EQ(ends, GetParam().widget);
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
             Ending::kTheHostEndsIt,
             {"done CANCELLED"},
             {"cancelled"}},
        Cell{Kind::kEvent, Ending::kTheHostEndsIt, {"event first"}, {}},
        Cell{Kind::kCallback,
             Ending::kTheHostEndsIt,
             {"call first"},
             {"first CANCELLED"}},

        // Nobody asks the dead.
        Cell{Kind::kUnary, Ending::kTheHostIsKilled, {}, {"cancelled"}},
        Cell{Kind::kEvent, Ending::kTheHostIsKilled, {}, {}},
        Cell{
            Kind::kCallback, Ending::kTheHostIsKilled, {}, {"first CANCELLED"}},

        Cell{Kind::kUnary,
             Ending::kTheWidgetEndsIt,
             {"done UNAVAILABLE"},
             {"cancelled"}},
        Cell{Kind::kEvent,
             Ending::kTheWidgetEndsIt,
             {"event first", "end OK"},
             {}},
        Cell{Kind::kCallback,
             Ending::kTheWidgetEndsIt,
             {"call first", "end OK"},
             {"first CANCELLED"}},

        // What was cut has not been said: no second call, no answer.
        Cell{Kind::kUnary,
             Ending::kTheLinkDiesInAFrameOfTheHost,
             {"done UNAVAILABLE", "done UNAVAILABLE"},
             {"cancelled"}},
        Cell{Kind::kEvent,
             Ending::kTheLinkDiesInAFrameOfTheHost,
             {"event first", "end UNAVAILABLE"},
             {}},
        Cell{Kind::kCallback,
             Ending::kTheLinkDiesInAFrameOfTheHost,
             {"call first", "end UNAVAILABLE"},
             {"first CANCELLED"}},

        // The widget has answered, and is told nothing more.
        Cell{Kind::kUnary,
             Ending::kTheLinkDiesInAFrameOfTheWidget,
             {"done UNAVAILABLE"},
             {}},
        Cell{Kind::kEvent,
             Ending::kTheLinkDiesInAFrameOfTheWidget,
             {"event first", "end UNAVAILABLE"},
             {}},
        Cell{Kind::kCallback,
             Ending::kTheLinkDiesInAFrameOfTheWidget,
             {"call first", "end UNAVAILABLE"},
             {"first CANCELLED", "second CANCELLED"}}),
    [](const auto& cell) {
      return NameOf(cell.param.kind) + NameOf(cell.param.ending);
    });

}  // namespace
}  // namespace orvane::testing
