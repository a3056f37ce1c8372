// What hosts must not do with streams, and what they hear. Much of it would end
// the process if it came as far as the service.

#include <cstdint>
#include <string>
#include <vector>

#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"

namespace orvane::testing {
namespace {

using ::rpc::transport::StreamMessage;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// Whatever `host` does, `bystander` hears an event and is served afterwards,
// and so is a host that connects then.
class ServerStreamRefusalsTest : public StreamFixture {
 protected:
  ServerStreamRefusalsTest() {
    bystander.Send(OpenFrame(1, kWhenTooltipChanged));
    bystander.Send(NextFrame(1, Subscribe(7)));
    EXPECT_THAT(Settle(&bystander), IsEmpty());
  }

  ~ServerStreamRefusalsTest() override {
    Publish(Browser(7), Tooltip("tip"));
    bystander.Send(CallFrame(2, kShow));
    EXPECT_THAT(Settle(&bystander), ElementsAre("NEXT 1", "REPLY 2"));
    RawPeer late = ConnectRaw(*server);
    late.Send(CallFrame(1, kShow));
    EXPECT_THAT(Settle(&late), ElementsAre("REPLY 1"));
  }

  // `host` opens stream 1.
  void Open(std::uint32_t method) {
    host.Send(OpenFrame(1, method));
    EXPECT_THAT(Settle(&host), IsEmpty());
  }

  std::vector<std::string> Told() { return Settle(&host); }

  // What `host` is told when it sends this on a fresh stream 1.
  std::vector<std::string> ToldAfter(std::uint32_t method,
                                     const std::string& payload) {
    Open(method);
    host.Send(Frame(StreamMessage::KIND_NEXT, 1, payload));
    return Told();
  }

  void ExpectConnected() {
    EXPECT_FALSE(host.closed);
    host.Send(CallFrame(1000, kShow));
    EXPECT_THAT(Told(), ElementsAre("REPLY 1000"));
  }

  RawPeer host = ConnectRaw(*server);
  RawPeer bystander = ConnectRaw(*server);
};

// Methods.

TEST_F(ServerStreamRefusalsTest, NoUnaryMethodCanBeOpened) {
  for (std::uint32_t method = 0; method < kFirstStream; ++method) {
    const std::uint32_t id = method + 1;
    host.Send(OpenFrame(id, method));
    EXPECT_THAT(Told(), ElementsAre(absl::StrCat(
                            "ERROR ", id, " INVALID_ARGUMENT: ",
                            widget.GetDescriptor()
                                ->method(static_cast<int>(method))
                                ->full_name(),
                            " is no stream and cannot be opened")));
  }
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, AnUnknownMethodCannotBeOpened) {
  host.Send(OpenFrame(1, kMethods));
  EXPECT_THAT(Told(), ElementsAre("ERROR 1 UNIMPLEMENTED: no method 52 in "
                                  "rpc.BrowserWidgetRpc, which has 52"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, TheLargestMethodNumberCannotBeOpened) {
  host.Send(OpenFrame(1, 0xffffffffu));
  EXPECT_THAT(Told(),
              ElementsAre("ERROR 1 UNIMPLEMENTED: no method 4294967295 in "
                          "rpc.BrowserWidgetRpc, which has 52"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, NoStreamCanBeCalled) {
  for (std::uint32_t method = kFirstStream; method < kMethods; ++method) {
    host.Send(CallFrame(method, method));
    EXPECT_THAT(Told(), ElementsAre(HasSubstr("is a stream and cannot be "
                                              "called")));
  }
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, WhatIsSentOnARefusedStreamIsRefusedToo) {
  host.Send(OpenFrame(1, kShow));
  host.Send(NextFrame(1, Subscribe(7)));
  host.Send(CompleteFrame(1));
  EXPECT_THAT(Told(), ElementsAre("ERROR 1 INVALID_ARGUMENT: "
                                  "rpc.BrowserWidgetRpc.Show is no stream and "
                                  "cannot be opened",
                                  "ERROR 1 NOT_FOUND: stream 1 is not open",
                                  "ERROR 1 NOT_FOUND: stream 1 is not open"));
  EXPECT_EQ(ListedForTooltips(7), 1u);
  ExpectConnected();
}

// Streams that are not open.

TEST_F(ServerStreamRefusalsTest, NextOnAStreamThatIsNotOpen) {
  host.Send(NextFrame(5, Subscribe(7)));
  EXPECT_THAT(Told(), ElementsAre("ERROR 5 NOT_FOUND: stream 5 is not open"));
  EXPECT_EQ(ListedForTooltips(7), 1u);
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, ErrorOnAStreamThatIsNotOpen) {
  host.Send(ErrorFrame(5, About(7), 1));
  EXPECT_THAT(Told(), ElementsAre("ERROR 5 NOT_FOUND: stream 5 is not open"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, CompletionOfAStreamThatIsNotOpen) {
  host.Send(CompleteFrame(5));
  EXPECT_THAT(Told(), ElementsAre("ERROR 5 NOT_FOUND: stream 5 is not open"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, NextOnAStreamThatHasCompleted) {
  Open(kWhenTooltipChanged);
  host.Send(CompleteFrame(1));
  host.Send(NextFrame(1, Subscribe(7)));
  EXPECT_THAT(Told(), ElementsAre("COMPLETE 1",
                                  "ERROR 1 NOT_FOUND: stream 1 is not open"));
  EXPECT_EQ(ListedForTooltips(7), 1u);
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, ErrorOnAStreamThatHasCompleted) {
  Open(kOnCreateWebDialog);
  host.Send(CompleteFrame(1));
  host.Send(ErrorFrame(1, About(7), 1));
  EXPECT_THAT(Told(), ElementsAre("COMPLETE 1",
                                  "ERROR 1 NOT_FOUND: stream 1 is not open"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, CompletionOfAStreamThatHasCompleted) {
  Open(kOnCreateWebDialog);
  host.Send(CompleteFrame(1));
  host.Send(CompleteFrame(1));
  EXPECT_THAT(Told(), ElementsAre("COMPLETE 1",
                                  "ERROR 1 NOT_FOUND: stream 1 is not open"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, AStreamOfAnotherHostIsNotOpenForThisOne) {
  host.Send(NextFrame(1, Unsubscribe(7)));
  host.Send(CompleteFrame(1));
  EXPECT_THAT(Told(), ElementsAre("ERROR 1 NOT_FOUND: stream 1 is not open",
                                  "ERROR 1 NOT_FOUND: stream 1 is not open"));
  EXPECT_EQ(ListedForTooltips(7), 1u);
}

TEST_F(ServerStreamRefusalsTest, AUnaryCallIsNoStream) {
  host.Send(CallFrame(1, kHide));
  host.Send(NextFrame(1, Subscribe(7)));
  EXPECT_THAT(Told(), ElementsAre("ERROR 1 NOT_FOUND: stream 1 is not open"));
  ASSERT_THAT(widget.held, ::testing::SizeIs(1));
  EXPECT_FALSE(widget.held[0].controller->IsCanceled());
  widget.held[0].done->Run();
  EXPECT_THAT(Told(), ElementsAre("REPLY 1"));
}

// Numbers.

TEST_F(ServerStreamRefusalsTest, AnIdUsedTwiceEndsTheConnection) {
  Open(kWhenTooltipChanged);
  host.Send(NextFrame(1, Subscribe(7)));
  host.Send(OpenFrame(1, kWhenTooltipChanged));
  EXPECT_THAT(Told(), ElementsAre("ERROR 0 INVALID_ARGUMENT: stream id 1 after "
                                  "1; each must be greater than the last"));
  EXPECT_TRUE(host.closed);
  EXPECT_EQ(ListedForTooltips(7), 1u);
}

TEST_F(ServerStreamRefusalsTest, TheIdOfACompletedStreamIsUsedUp) {
  Open(kWhenTooltipChanged);
  host.Send(CompleteFrame(1));
  host.Send(OpenFrame(1, kWhenTooltipChanged));
  EXPECT_THAT(Told(), ElementsAre("COMPLETE 1",
                                  "ERROR 0 INVALID_ARGUMENT: stream id 1 after "
                                  "1; each must be greater than the last"));
  EXPECT_TRUE(host.closed);
}

TEST_F(ServerStreamRefusalsTest, TheIdOfARefusedStreamIsUsedUp) {
  host.Send(OpenFrame(1, kShow));
  host.Send(OpenFrame(1, kWhenTooltipChanged));
  EXPECT_THAT(Told(), ElementsAre(HasSubstr("ERROR 1 INVALID_ARGUMENT"),
                                  HasSubstr("ERROR 0 INVALID_ARGUMENT")));
  EXPECT_TRUE(host.closed);
}

TEST_F(ServerStreamRefusalsTest, AStreamCannotHaveTheIdOfACall) {
  host.Send(CallFrame(1, kHide));
  host.Send(OpenFrame(1, kWhenTooltipChanged));
  EXPECT_THAT(Told(), ElementsAre("ERROR 0 INVALID_ARGUMENT: stream id 1 after "
                                  "1; each must be greater than the last"));
  EXPECT_TRUE(host.closed);
  ASSERT_THAT(widget.held, ::testing::SizeIs(1));
  EXPECT_TRUE(widget.held[0].controller->IsCanceled());
  widget.held[0].done->Run();
}

TEST_F(ServerStreamRefusalsTest, StreamId0EndsTheConnection) {
  host.Send(OpenFrame(0, kWhenTooltipChanged));
  EXPECT_THAT(Told(), ElementsAre("ERROR 0 INVALID_ARGUMENT: stream id 0 after "
                                  "0; each must be greater than the last"));
  EXPECT_TRUE(host.closed);
}

// Payloads on an event stream.

TEST_F(ServerStreamRefusalsTest, ABareSubscription) {
  EXPECT_THAT(ToldAfter(kWhenTooltipChanged, ""),
              ElementsAre("ERROR 1 INVALID_ARGUMENT: a subscription frame that "
                          "asks for nothing",
                          "COMPLETE 1"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, ASubscriptionWithoutAnAction) {
  // Field 3, which there is not.
  EXPECT_THAT(ToldAfter(kWhenTooltipChanged, "\x18\x01"),
              ElementsAre("ERROR 1 INVALID_ARGUMENT: a subscription frame that "
                          "asks for nothing",
                          "COMPLETE 1"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, ASubscriptionThatCannotBeParsed) {
  EXPECT_THAT(ToldAfter(kWhenTooltipChanged, "\xff\xff"),
              ElementsAre("ERROR 1 INVALID_ARGUMENT: the payload is no "
                          "rpc.EventSubscription, or nested deeper than 100",
                          "COMPLETE 1"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, ASubscriptionThatCanBeParsedInPart) {
  EXPECT_THAT(
      ToldAfter(kWhenTooltipChanged, Subscribe(9).SerializeAsString() + "\xff"),
      ElementsAre(HasSubstr("the payload is no rpc.EventSubscription"),
                  "COMPLETE 1"));
  EXPECT_EQ(ListedForTooltips(9), 0u);
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, AnErrorOnAnEventStream) {
  Open(kWhenTooltipChanged);
  host.Send(ErrorFrame(1, Subscribe(9), 1));
  EXPECT_THAT(Told(), ElementsAre("ERROR 1 INVALID_ARGUMENT: an error on an "
                                  "event stream, which has no calls",
                                  "COMPLETE 1"));
  EXPECT_EQ(ListedForTooltips(9), 0u);
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, AStreamThatEndsForNonsenseLeavesItsKeys) {
  Open(kWhenTooltipChanged);
  host.Send(NextFrame(1, Subscribe(7)));
  host.Send(NextFrame(1, Subscribe(8)));
  loop.RunUntilIdle();
  EXPECT_EQ(ListedForTooltips(7), 2u);
  host.Send(Frame(StreamMessage::KIND_NEXT, 1));
  EXPECT_THAT(Told(), ElementsAre(HasSubstr("ERROR 1"), "COMPLETE 1"));
  EXPECT_EQ(ListedForTooltips(7), 1u);
  EXPECT_EQ(ListedForTooltips(8), 0u);
}

TEST_F(ServerStreamRefusalsTest, AfterNonsenseTheStreamIsNotOpen) {
  Open(kWhenTooltipChanged);
  host.Send(Frame(StreamMessage::KIND_NEXT, 1));
  host.Send(NextFrame(1, Subscribe(9)));
  EXPECT_THAT(Told(), ElementsAre(HasSubstr("asks for nothing"), "COMPLETE 1",
                                  "ERROR 1 NOT_FOUND: stream 1 is not open"));
  EXPECT_EQ(ListedForTooltips(9), 0u);
}

// Payloads on a callback stream.

TEST_F(ServerStreamRefusalsTest, ABareCallbackFrameOfAnyType) {
  for (std::uint32_t method = kFirstCallbackStream; method < kMethods;
       ++method) {
    host.Send(OpenFrame(method, method));
    host.Send(Frame(StreamMessage::KIND_NEXT, method));
    const auto* const type =
        widget.GetDescriptor()->method(static_cast<int>(method))->input_type();
    EXPECT_THAT(
        Told(),
        ElementsAre(absl::StrCat("ERROR ", method, " INVALID_ARGUMENT: a ",
                                 type->full_name(),
                                 " that neither subscribes nor responds"),
                    absl::StrCat("COMPLETE ", method)));
  }
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, ACallbackFrameThatOnlyNamesItsBrowser) {
  EXPECT_THAT(ToldAfter(kOnCreateWebDialog, About(7).SerializeAsString()),
              ElementsAre("ERROR 1 INVALID_ARGUMENT: a rpc.CreateWebDialog "
                          "that neither subscribes nor responds",
                          "COMPLETE 1"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, ACallFromTheHost) {
  rpc::CreateWebDialog message = About(7);
  message.mutable_call()->mutable_alert();
  EXPECT_THAT(ToldAfter(kOnCreateWebDialog, message.SerializeAsString()),
              ElementsAre("ERROR 1 INVALID_ARGUMENT: a rpc.CreateWebDialog "
                          "that neither subscribes nor responds",
                          "COMPLETE 1"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, AResponseThatACallReplacesIsACall) {
  rpc::CreateWebDialog call;
  call.mutable_call()->mutable_alert();
  EXPECT_THAT(
      ToldAfter(kOnCreateWebDialog, Answer(7, "Ada").SerializeAsString() +
                                        call.SerializeAsString()),
      ElementsAre(HasSubstr("neither subscribes nor responds"), "COMPLETE 1"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, ACallbackFrameThatCannotBeParsed) {
  EXPECT_THAT(ToldAfter(kOnCreateWebDialog, "\xff\xff"),
              ElementsAre("ERROR 1 INVALID_ARGUMENT: the payload is no "
                          "rpc.CreateWebDialog, or nested deeper than 100",
                          "COMPLETE 1"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, ACallbackFrameThatCanBeParsedInPart) {
  EXPECT_THAT(
      ToldAfter(kOnCreateWebDialog, Serve(9).SerializeAsString() + "\xff"),
      ElementsAre("ERROR 1 INVALID_ARGUMENT: the payload is no "
                  "rpc.CreateWebDialog, or nested deeper than 100",
                  "COMPLETE 1"));
  EXPECT_FALSE(IsServed<rpc::CreateWebDialog>(Browser(9)));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, AnAnswerThatCanBeParsedInPartIsNone) {
  Open(kOnCreateWebDialog);
  host.Send(NextFrame(1, Serve(9)));
  loop.RunUntilIdle();
  Ask(9, "name?");
  EXPECT_THAT(Told(), ElementsAre("NEXT 1"));
  StreamMessage frame = NextFrame(1, Answer(9, "A"), host.frames[0].call_id());
  frame.mutable_payload()->append("\xff");
  host.Send(frame);
  EXPECT_THAT(Told(),
              ElementsAre(HasSubstr("the payload is no"), "COMPLETE 1"));
  EXPECT_THAT(ends, ElementsAre("name? CANCELLED"));
}

TEST_F(ServerStreamRefusalsTest, AnErrorThatCannotBeParsed) {
  Open(kOnCreateWebDialog);
  host.Send(NextFrame(1, Serve(9)));
  host.Send(Frame(StreamMessage::KIND_ERROR, 1, "\xff\xff"));
  EXPECT_THAT(Told(),
              ElementsAre("ERROR 1 INVALID_ARGUMENT: the payload is no "
                          "rpc.CreateWebDialog, or nested deeper than 100",
                          "COMPLETE 1"));
  EXPECT_FALSE(IsServed<rpc::CreateWebDialog>(Browser(9)));
  ExpectConnected();
}

// What ends the connection ends its streams.

TEST_F(ServerStreamRefusalsTest, BytesThatAreNoFrameEndTheStreams) {
  Open(kWhenTooltipChanged);
  host.Send(NextFrame(1, Subscribe(7)));
  host.Send(OpenFrame(2, kOnCreateWebDialog));
  host.Send(NextFrame(2, Serve(7)));
  loop.RunUntilIdle();
  Ask(7, "name?");
  EXPECT_THAT(Told(), ElementsAre("NEXT 2"));
  host.SendBytes(std::string("\x01\0\0\0\xff", 5));
  EXPECT_THAT(Told(), ElementsAre("ERROR 0 INVALID_ARGUMENT: frame of 1 bytes "
                                  "that is no StreamMessage"));
  EXPECT_TRUE(host.closed);
  EXPECT_EQ(ListedForTooltips(7), 1u);
  EXPECT_EQ(RegisteredKeys(), 1u);
  EXPECT_THAT(ends, ElementsAre("name? CANCELLED"));
}

}  // namespace
}  // namespace orvane::testing
