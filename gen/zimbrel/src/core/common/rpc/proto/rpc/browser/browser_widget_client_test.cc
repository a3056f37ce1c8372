// The generated client against a real server, over a pair of sockets.

#include "rpc/browser/browser_widget.client.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"
#include "zimbrel/src/core/common/rpc/transport/in_process.h"

namespace rpc {
namespace {

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;
using orvane::ClientStream;
using ::orvane::testing::Browser;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Stream = std::unique_ptr<ClientStream>;

TooltipChanged Tooltip(const std::string& text) {
  TooltipChanged event;
  event.set_text(text);
  return event;
}

// Attaches at once, shows when told to, and serves nothing else.
class Widget final : public BrowserWidgetRpc {
 public:
  void Attach(RpcController* /*controller*/, const AttachRequest* request,
              AttachResult* response, Closure* done) override {
    response->set_scale_factor(
        static_cast<double>(request->browser_id().value()));
    done->Run();
  }
  void Show(RpcController* controller, const BrowserId* /*request*/,
            Empty* /*response*/, Closure* done) override {
    shown = controller;
    on_shown = done;
  }

  RpcController* shown = nullptr;
  Closure* on_shown = nullptr;
};

class BrowserWidgetClientTest : public testing::Test {
 protected:
  BrowserWidgetClientTest() {
    auto connected = orvane::ConnectInProcess(&loop, &*server);
    EXPECT_TRUE(connected.ok()) << connected.status();
    connection = *std::move(connected);
    client.emplace(connection.get());
  }

  void KillWidget() {
    server.reset();
    loop.RunUntil([&] { return !connection->status().ok(); });
  }

  // Has what was sent until now arrive, on both sides.
  void Settle() {
    const auto answer = client->Minimize(Browser(0));
    EXPECT_THAT(answer.status().message(), HasSubstr("not implemented"));
  }

  orvane::EventLoop loop;
  Widget widget;
  std::optional<orvane::SocketServer> server{std::in_place, &loop, &widget};
  std::unique_ptr<orvane::SocketClient> connection;
  std::optional<BrowserWidgetRpcClient> client;
};

// Unary methods ---------------------------------------------------------------

TEST_F(BrowserWidgetClientTest, ABlockingCallReturnsTheResponse) {
  AttachRequest request;
  request.mutable_browser_id()->set_value(3);
  const absl::StatusOr<AttachResult> result = client->Attach(request);
  ASSERT_TRUE(result.ok()) << result.status();
  EXPECT_EQ(result->scale_factor(), 3);
}

TEST_F(BrowserWidgetClientTest, AnAsynchronousCallHandsTheResponseOver) {
  AttachRequest request;
  request.mutable_browser_id()->set_value(3);
  std::optional<absl::StatusOr<AttachResult>> result;
  client->Attach(request, [&](absl::StatusOr<AttachResult> answer) {
    result = std::move(answer);
  });
  EXPECT_FALSE(result.has_value());
  loop.RunUntil([&] { return result.has_value(); });
  ASSERT_TRUE(result->ok()) << result->status();
  EXPECT_EQ((*result)->scale_factor(), 3);
}

TEST_F(BrowserWidgetClientTest, ACallThatFailsTellsTheHandlersWords) {
  absl::StatusOr<Empty> answer = client->Hide(Browser(1));
  EXPECT_EQ(answer.status(),
            absl::UnknownError("Method Hide() not implemented."));
  client->Hide(Browser(1), [&](absl::StatusOr<Empty> later) {
    answer = std::move(later);
    loop.Stop();
  });
  answer = Empty();
  loop.Run();
  EXPECT_EQ(answer.status(),
            absl::UnknownError("Method Hide() not implemented."));
}

TEST_F(BrowserWidgetClientTest, ACallEndsAtItsTimeout) {
  const auto answer =
      client->Show(Browser(1), {.timeout = absl::Milliseconds(1)});
  EXPECT_TRUE(absl::IsDeadlineExceeded(answer.status())) << answer.status();
  widget.on_shown->Run();
}

TEST_F(BrowserWidgetClientTest, ACallCanBeCancelled) {
  std::vector<absl::Status> ends;
  orvane::CallHandle call =
      client->Show(Browser(1), [&](const absl::StatusOr<Empty>& answer) {
        ends.push_back(answer.status());
      });
  loop.RunUntil([&] { return widget.on_shown != nullptr; });
  call.Cancel();
  EXPECT_THAT(ends, IsEmpty());
  loop.RunUntil([&] { return widget.shown->IsCanceled() && !ends.empty(); });
  EXPECT_THAT(ends,
              ElementsAre(absl::CancelledError("cancelled by the caller")));
  widget.on_shown->Run();
  call.Cancel();  // Harmless by now.
}

TEST_F(BrowserWidgetClientTest, EachMethodCallsItsNamesake) {
  class Nothing final : public BrowserWidgetRpc {};
  Nothing nothing;
  orvane::SocketServer empty(&loop, &nothing);
  const auto connected = orvane::ConnectInProcess(&loop, &empty);
  ASSERT_TRUE(connected.ok()) << connected.status();
  BrowserWidgetRpcClient c(connected->get());
  std::vector<std::string> words;
  const auto call = [&words](const auto& answer) {
    words.emplace_back(answer.status().message());
  };
  call(c.Focus({}));
  call(c.Unfocus({}));
  call(c.Attach({}));
  call(c.Detach({}));
  call(c.AssignHostWindow({}));
  call(c.Show({}));
  call(c.Hide({}));
  call(c.Minimize({}));
  call(c.Restore({}));
  call(c.SetDisplay({}));
  call(c.SetViewBounds({}));
  call(c.GetChromiumWindowHandle({}));
  call(c.ForwardKeyPress({}));
  call(c.ForwardKeyRelease({}));
  call(c.ForwardKeyType({}));
  call(c.ForwardMousePress({}));
  call(c.ForwardMouseRelease({}));
  call(c.ForwardMouseEnter({}));
  call(c.ForwardMouseExit({}));
  call(c.ForwardMouseDrag({}));
  call(c.ForwardMouseMove({}));
  call(c.ForwardMouseWheel({}));
  call(c.ForwardNativeKeyEvent({}));
  call(c.ForwardNativeMouseEvent({}));
  call(c.ForwardNativeTouchEvent({}));
  call(c.GetAccessibilityToken({}));
  call(c.SetParentAccessibilityNodes({}));
  call(c.AttachAccessibleWindow({}));
  call(c.ForwardTouchStart({}));
  call(c.ForwardTouchMove({}));
  call(c.ForwardTouchEnd({}));
  call(c.ForwardTouchCancel({}));
  call(c.ForwardDragEnter({}));
  call(c.ForwardDragOver({}));
  call(c.ForwardDragLeave({}));
  call(c.ForwardDragDrop({}));
  call(c.ForwardDragEnd({}));
  call(c.NotifyParentWindowChanged({}));
  call(c.SetDpiAware({}));
  call(c.SetForcedScaleFactor({}));
  std::vector<std::string> expected;
  expected.reserve(40);
  for (int i = 0; i < 40; ++i) {
    expected.push_back(absl::StrCat(
        "Method ",
        std::string(BrowserWidgetRpc::descriptor()->method(i)->name()),
        "() not implemented."));
  }
  EXPECT_EQ(words, expected);
}

// Event streams ---------------------------------------------------------------

TEST_F(BrowserWidgetClientTest, AHandlerGetsTheEventsOfItsKey) {
  std::vector<std::string> texts;
  const Stream tooltips = client->WhenTooltipChanged(
      Browser(1),
      [&](const TooltipChanged& event) { texts.push_back(event.text()); });
  Settle();
  orvane::Publish<TooltipChanged>(Browser(2), Tooltip("elsewhere"));
  orvane::Publish<TooltipChanged>(Browser(1), Tooltip("a"));
  orvane::Publish<TooltipChanged>(Browser(1), Tooltip("b"));
  Settle();
  EXPECT_THAT(texts, ElementsAre("a", "b"));
}

TEST_F(BrowserWidgetClientTest, TwoHandlersOfOneKeyGetEachEventOnce) {
  int first = 0;
  int second = 0;
  const Stream a = client->WhenTooltipChanged(
      Browser(1), [&](const TooltipChanged&) { ++first; });
  Stream b = client->WhenTooltipChanged(
      Browser(1), [&](const TooltipChanged&) { ++second; });
  Settle();
  EXPECT_EQ(orvane::Publish<TooltipChanged>(Browser(1), Tooltip("a")), 2u);
  Settle();
  b.reset();
  Settle();
  EXPECT_EQ(orvane::Publish<TooltipChanged>(Browser(1), Tooltip("b")), 1u);
  Settle();
  EXPECT_EQ(first, 2);
  EXPECT_EQ(second, 1);
}

TEST_F(BrowserWidgetClientTest, AHandlerNeverRunsOnceItsHandleIsGone) {
  Stream tooltips = client->WhenTooltipChanged(
      Browser(1), [&](const TooltipChanged&) { FAIL(); });
  Settle();
  // On its way when the handle goes.
  EXPECT_EQ(orvane::Publish<TooltipChanged>(Browser(1), Tooltip("a")), 1u);
  tooltips.reset();
  Settle();
  EXPECT_THAT(orvane::EventStream<TooltipChanged>::stream_map_, IsEmpty());
}

TEST_F(BrowserWidgetClientTest, AHandlerMayDestroyItsHandle) {
  Stream tooltips;
  std::vector<std::string> texts;
  tooltips =
      client->WhenTooltipChanged(Browser(1), [&](const TooltipChanged& event) {
        texts.push_back(event.text());
        tooltips.reset();
      });
  Settle();
  orvane::Publish<TooltipChanged>(Browser(1), Tooltip("a"));
  orvane::Publish<TooltipChanged>(Browser(1), Tooltip("b"));
  Settle();
  EXPECT_THAT(texts, ElementsAre("a"));
}

TEST_F(BrowserWidgetClientTest, AHandlerMayDestroyItsConnection) {
  bool ended = false;
  const Stream tooltips = client->WhenTooltipChanged(
      Browser(1), [&](const TooltipChanged&) { connection.reset(); },
      [&](const absl::Status& why) {
        EXPECT_TRUE(absl::IsCancelled(why)) << why;
        ended = true;
      });
  Settle();
  orvane::Publish<TooltipChanged>(Browser(1), Tooltip("a"));
  loop.RunUntil([&] { return server->connections() == 0; });
  EXPECT_TRUE(ended);
}

TEST_F(BrowserWidgetClientTest, AnEventThatCannotBeReadEndsItsStream) {
  absl::Status end;
  const Stream tooltips = client->WhenTooltipChanged(
      Browser(1), [&](const TooltipChanged&) { FAIL(); },
      [&](const absl::Status& why) { end = why; });
  Settle();
  const auto entry = orvane::EventStream<TooltipChanged>::stream_map_.begin();
  transport::StreamMessage frame;
  frame.set_payload("\xff");
  ASSERT_TRUE((*entry->second.begin())->Send(frame).ok());
  Settle();
  Settle();  // By now the widget has learnt of it as well.
  EXPECT_EQ(end, absl::InternalError(
                     "the server sent a message that cannot be parsed as "
                     "rpc.TooltipChanged"));
  EXPECT_THAT(orvane::EventStream<TooltipChanged>::stream_map_, IsEmpty());
}

// Opens a stream of events of type T by `open`, and publishes one.
template <typename T>
bool Arrives(orvane::EventLoop* loop, BrowserWidgetRpcClient* client,
             Stream (BrowserWidgetRpcClient::*open)(const BrowserId&,
                                                    orvane::OnEvent<T>,
                                                    orvane::OnEnd)) {
  bool arrived = false;
  const Stream stream = (client->*open)(
      Browser(1), [&](const T&) { arrived = true; }, nullptr);
  loop->RunUntil([] { return !orvane::EventStream<T>::stream_map_.empty(); });
  orvane::Publish<T>(Browser(1), T());
  loop->RunUntil([&] { return arrived; });
  return arrived;
}

TEST_F(BrowserWidgetClientTest, EachKindOfEventArrives) {
  using C = BrowserWidgetRpcClient;
  EXPECT_TRUE(Arrives(&loop, &*client, &C::WhenCursorChanged));
  EXPECT_TRUE(Arrives(&loop, &*client, &C::WhenTooltipChanged));
  EXPECT_TRUE(Arrives(&loop, &*client, &C::WhenDropDownCreated));
  EXPECT_TRUE(Arrives(&loop, &*client, &C::WhenDropDownDeleted));
  EXPECT_TRUE(Arrives(&loop, &*client, &C::WhenDragCursorUpdated));
  EXPECT_TRUE(Arrives(&loop, &*client, &C::WhenAriaLiveRegionChanged));
}

// Callback streams ------------------------------------------------------------

class BrowserWidgetCallbacks : public BrowserWidgetClientTest {
 protected:
  using Dialogs = orvane::Responder<CreateWebDialog>;

  // Has `on_call` answer the dialogs of browser 1.
  Stream Serve(orvane::OnCall<CreateWebDialog> on_call,
               orvane::OnEnd on_end = nullptr) {
    Stream stream = client->OnCreateWebDialog(Browser(1), std::move(on_call),
                                              std::move(on_end));
    Settle();
    return stream;
  }

  // Asks a question and records how it ended.
  void Ask(const std::string& question) {
    CreateWebDialogCall dialog;
    dialog.mutable_prompt()->set_message(question);
    orvane::Call<CreateWebDialog>(
        Browser(1), std::move(dialog),
        [this](const absl::StatusOr<CreateWebDialogResponse>& answer) {
          ends.push_back(
              answer.ok() ? answer->text()
                          : absl::StatusCodeToString(answer.status().code()));
        });
  }

  void AwaitEnds(std::size_t count) {
    loop.RunUntil([&] { return ends.size() == count; });
  }

  static CreateWebDialogResponse Answer(const std::string& text) {
    CreateWebDialogResponse response;
    response.set_text(text);
    return response;
  }

  std::vector<std::string> ends;
};

TEST_F(BrowserWidgetCallbacks, AFunctionAnswersEachCall) {
  const Stream dialogs =
      Serve([](const CreateWebDialogCall& call, Dialogs responder) {
        EXPECT_EQ(responder.key().value(), 1u);
        EXPECT_TRUE(std::move(responder)
                        .Respond(Answer("to " + call.prompt().message()))
                        .ok());
      });
  Ask("a");
  Ask("b");
  AwaitEnds(2);
  EXPECT_THAT(ends, ElementsAre("to a", "to b"));
}

TEST_F(BrowserWidgetCallbacks, AFunctionFailsACall) {
  const Stream dialogs =
      Serve([](const CreateWebDialogCall&, Dialogs responder) {
        std::move(responder).Fail("nobody is here");
      });
  Ask("a");
  AwaitEnds(1);
  EXPECT_THAT(ends, ElementsAre("UNKNOWN"));
}

TEST_F(BrowserWidgetCallbacks, ACallThatIsDroppedFails) {
  const Stream dialogs = Serve([](const CreateWebDialogCall&, Dialogs) {});
  Ask("a");
  AwaitEnds(1);
  EXPECT_THAT(ends, ElementsAre("UNKNOWN"));
}

TEST_F(BrowserWidgetCallbacks, CallsMayBeAnsweredLaterInAnyOrder) {
  std::vector<Dialogs> waiting;
  const Stream dialogs =
      Serve([&](const CreateWebDialogCall&, Dialogs responder) {
        waiting.push_back(std::move(responder));
      });
  Ask("a");
  Ask("b");
  loop.RunUntil([&] { return waiting.size() == 2; });
  EXPECT_TRUE(std::move(waiting[1]).Respond(Answer("second")).ok());
  EXPECT_TRUE(std::move(waiting[0]).Respond(Answer("first")).ok());
  AwaitEnds(2);
  EXPECT_THAT(ends, ElementsAre("second", "first"));
}

TEST_F(BrowserWidgetCallbacks, AnAnswerAfterTheHandleIsGoneGoesNowhere) {
  std::optional<Dialogs> waiting;
  Stream dialogs = Serve([&](const CreateWebDialogCall&, Dialogs responder) {
    waiting.emplace(std::move(responder));
  });
  Ask("a");
  loop.RunUntil([&] { return waiting.has_value(); });
  dialogs.reset();
  EXPECT_TRUE(absl::IsUnavailable((*std::move(waiting)).Respond(Answer("x"))));
  AwaitEnds(1);
  EXPECT_THAT(ends, ElementsAre("CANCELLED"));
  EXPECT_THAT(orvane::CallbackStream<CreateWebDialog>::stream_map_, IsEmpty());
}

TEST_F(BrowserWidgetCallbacks, AResponseTooLongForAFrameFailsTheCall) {
  absl::Status sent;
  const Stream dialogs =
      Serve([&](const CreateWebDialogCall&, Dialogs responder) {
        sent = std::move(responder).Respond(
            Answer(std::string(orvane::kDefaultMaxFrameBytes, 'x')));
      });
  Ask("a");
  AwaitEnds(1);
  EXPECT_TRUE(absl::IsResourceExhausted(sent)) << sent;
  EXPECT_THAT(ends, ElementsAre("UNKNOWN"));
}

TEST_F(BrowserWidgetCallbacks, AResponderMayOutliveTheConnection) {
  std::optional<Dialogs> waiting;
  const Stream dialogs =
      Serve([&](const CreateWebDialogCall&, Dialogs responder) {
        waiting.emplace(std::move(responder));
      });
  Ask("a");
  loop.RunUntil([&] { return waiting.has_value(); });
  connection.reset();
  waiting.reset();
  AwaitEnds(1);
  EXPECT_THAT(ends, ElementsAre("CANCELLED"));
}

TEST_F(BrowserWidgetCallbacks, AFrameThatCallsForNothingEndsItsStream) {
  absl::Status end;
  const Stream dialogs =
      Serve([](const CreateWebDialogCall&, Dialogs) { FAIL(); },
            [&](const absl::Status& why) { end = why; });
  const auto entry =
      orvane::CallbackStream<CreateWebDialog>::stream_map_.begin();
  ASSERT_TRUE(entry->second->Send({}).ok());
  Settle();
  EXPECT_EQ(end, absl::InternalError(
                     "the server sent a rpc.CreateWebDialog without a call"));
}

// Serves calls of type T by `open`, and makes one.
template <typename T>
bool IsAnswered(orvane::EventLoop* loop, BrowserWidgetRpcClient* client,
                Stream (BrowserWidgetRpcClient::*open)(const BrowserId&,
                                                       orvane::OnCall<T>,
                                                       orvane::OnEnd)) {
  const Stream stream = (client->*open)(
      Browser(1),
      [](const orvane::CallOf<T>&, orvane::Responder<T> responder) {
        EXPECT_TRUE(std::move(responder).Respond({}).ok());
      },
      nullptr);
  loop->RunUntil(
      [] { return !orvane::CallbackStream<T>::stream_map_.empty(); });
  std::optional<bool> answered;
  orvane::Call<T>(Browser(1), {},
                  [&](const auto& answer) { answered = answer.ok(); });
  loop->RunUntil([&] { return answered.has_value(); });
  return *answered;
}

TEST_F(BrowserWidgetCallbacks, EachKindOfCallIsAnswered) {
  using C = BrowserWidgetRpcClient;
  EXPECT_TRUE(IsAnswered(&loop, &*client, &C::OnCreateWebDialog));
  EXPECT_TRUE(IsAnswered(&loop, &*client, &C::OnUpdateSurface));
  EXPECT_TRUE(IsAnswered(&loop, &*client, &C::OnUpdateLayer));
  EXPECT_TRUE(IsAnswered(&loop, &*client, &C::OnShowDropdown));
  EXPECT_TRUE(IsAnswered(&loop, &*client, &C::OnTakeFocus));
  EXPECT_TRUE(IsAnswered(&loop, &*client, &C::OnAccessibilityRequestFocus));
}

// When the widget goes --------------------------------------------------------

TEST_F(BrowserWidgetClientTest, WhenTheWidgetGoesAllThatIsInProgressEnds) {
  std::vector<std::string> ends;
  const auto record = [&ends](const char* what) {
    return [&ends, what](const absl::Status& why) {
      ends.push_back(
          absl::StrCat(what, " ", absl::StatusCodeToString(why.code())));
    };
  };
  client->Show(Browser(1), [record](const absl::StatusOr<Empty>& answer) {
    record("call")(answer.status());
  });
  const Stream tooltips = client->WhenTooltipChanged(
      Browser(1), [](const TooltipChanged&) {}, record("events"));
  const Stream dialogs = client->OnCreateWebDialog(
      Browser(1),
      [](const CreateWebDialogCall&, orvane::Responder<CreateWebDialog>) {},
      record("callbacks"));
  Settle();
  KillWidget();
  EXPECT_THAT(ends, testing::UnorderedElementsAre("call UNAVAILABLE",
                                                  "events OK", "callbacks OK"));
  widget.on_shown->Run();
}

TEST_F(BrowserWidgetClientTest, WhatIsBegunOnceTheWidgetIsGoneEndsTheSameWay) {
  KillWidget();
  EXPECT_TRUE(absl::IsUnavailable(client->Show(Browser(1)).status()));
  std::vector<absl::StatusCode> ends;
  client->Show(Browser(1), [&](const absl::StatusOr<Empty>& answer) {
    ends.push_back(answer.status().code());
  });
  const Stream tooltips = client->WhenTooltipChanged(
      Browser(1), [](const TooltipChanged&) {},
      [&](const absl::Status& why) { ends.push_back(why.code()); });
  EXPECT_THAT(ends, IsEmpty());
  loop.RunUntilIdle();
  EXPECT_THAT(ends, ElementsAre(absl::StatusCode::kUnavailable,
                                absl::StatusCode::kUnavailable));
}

}  // namespace
}  // namespace rpc
