// What clients must not do with streams, and what they are told. Much of it
// would end the process if it reached the service.

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

// Whatever `client` does, `bystander` receives an event and is served
// afterwards, and so is a client that connects then.
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

  // `client` opens stream 1.
  void Open(std::uint32_t method) {
    client.Send(OpenFrame(1, method));
    EXPECT_THAT(Settle(&client), IsEmpty());
  }

  std::vector<std::string> Told() { return Settle(&client); }

  // What `client` is told after it has sent this on a new stream 1.
  std::vector<std::string> ToldAfter(std::uint32_t method,
                                     const std::string& payload) {
    Open(method);
    client.Send(Frame(StreamMessage::KIND_NEXT, 1, payload));
    return Told();
  }

  void ExpectConnected() {
    EXPECT_FALSE(client.closed);
    client.Send(CallFrame(1000, kShow));
    EXPECT_THAT(Told(), ElementsAre("REPLY 1000"));
  }

  RawPeer client = ConnectRaw(*server);
  RawPeer bystander = ConnectRaw(*server);
};

// Methods.

TEST_F(ServerStreamRefusalsTest, NoUnaryMethodCanBeOpened) {
  for (std::uint32_t method = 0; method < kFirstStream; ++method) {
    const std::uint32_t id = method + 1;
    client.Send(OpenFrame(id, method));
    EXPECT_THAT(Told(), ElementsAre(absl::StrCat(
                            "ERROR ", id, " INVALID_ARGUMENT: ",
                            widget.GetDescriptor()
                                ->method(static_cast<int>(method))
                                ->full_name(),
                            " is not a stream and cannot be opened")));
  }
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, AnUnknownMethodCannotBeOpened) {
  client.Send(OpenFrame(1, kMethods));
  EXPECT_THAT(Told(), ElementsAre("ERROR 1 UNIMPLEMENTED: no method 52 in "
                                  "rpc.BrowserWidgetRpc, which has 52"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, TheLargestMethodNumberCannotBeOpened) {
  client.Send(OpenFrame(1, 0xffffffffu));
  EXPECT_THAT(Told(),
              ElementsAre("ERROR 1 UNIMPLEMENTED: no method 4294967295 in "
                          "rpc.BrowserWidgetRpc, which has 52"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, NoStreamCanBeCalled) {
  for (std::uint32_t method = kFirstStream; method < kMethods; ++method) {
    client.Send(CallFrame(method, method));
    EXPECT_THAT(Told(), ElementsAre(HasSubstr("is a stream and cannot be "
                                              "called")));
  }
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, WhatIsSentOnARefusedStreamIsRefusedToo) {
  client.Send(OpenFrame(1, kShow));
  client.Send(NextFrame(1, Subscribe(7)));
  client.Send(CompleteFrame(1));
  EXPECT_THAT(Told(),
              ElementsAre("ERROR 1 INVALID_ARGUMENT: "
                          "rpc.BrowserWidgetRpc.Show is not a stream and "
                          "cannot be opened",
                          "ERROR 1 NOT_FOUND: stream 1 is not open",
                          "ERROR 1 NOT_FOUND: stream 1 is not open"));
  EXPECT_EQ(ListedForTooltips(7), 1u);
  ExpectConnected();
}

// Streams that are not open.

TEST_F(ServerStreamRefusalsTest, NextOnAStreamThatIsNotOpen) {
  client.Send(NextFrame(5, Subscribe(7)));
  EXPECT_THAT(Told(), ElementsAre("ERROR 5 NOT_FOUND: stream 5 is not open"));
  EXPECT_EQ(ListedForTooltips(7), 1u);
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, ErrorOnAStreamThatIsNotOpen) {
  client.Send(ErrorFrame(5, About(7), 1));
  EXPECT_THAT(Told(), ElementsAre("ERROR 5 NOT_FOUND: stream 5 is not open"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, CompletionOfAStreamThatIsNotOpen) {
  client.Send(CompleteFrame(5));
  EXPECT_THAT(Told(), ElementsAre("ERROR 5 NOT_FOUND: stream 5 is not open"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, NextOnAStreamThatHasCompleted) {
  Open(kWhenTooltipChanged);
  client.Send(CompleteFrame(1));
  client.Send(NextFrame(1, Subscribe(7)));
  EXPECT_THAT(Told(), ElementsAre("COMPLETE 1",
                                  "ERROR 1 NOT_FOUND: stream 1 is not open"));
  EXPECT_EQ(ListedForTooltips(7), 1u);
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, ErrorOnAStreamThatHasCompleted) {
  Open(kOnCreateWebDialog);
  client.Send(CompleteFrame(1));
  client.Send(ErrorFrame(1, About(7), 1));
  EXPECT_THAT(Told(), ElementsAre("COMPLETE 1",
                                  "ERROR 1 NOT_FOUND: stream 1 is not open"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, CompletionOfAStreamThatHasCompleted) {
  Open(kOnCreateWebDialog);
  client.Send(CompleteFrame(1));
  client.Send(CompleteFrame(1));
  EXPECT_THAT(Told(), ElementsAre("COMPLETE 1",
                                  "ERROR 1 NOT_FOUND: stream 1 is not open"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, AStreamOfAnotherClientIsNotOpenForThisOne) {
  client.Send(NextFrame(1, Unsubscribe(7)));
  client.Send(CompleteFrame(1));
  EXPECT_THAT(Told(), ElementsAre("ERROR 1 NOT_FOUND: stream 1 is not open",
                                  "ERROR 1 NOT_FOUND: stream 1 is not open"));
  EXPECT_EQ(ListedForTooltips(7), 1u);
}

TEST_F(ServerStreamRefusalsTest, AUnaryCallIsNoStream) {
  client.Send(CallFrame(1, kHide));
  client.Send(NextFrame(1, Subscribe(7)));
  EXPECT_THAT(Told(), ElementsAre("ERROR 1 NOT_FOUND: stream 1 is not open"));
  ASSERT_THAT(widget.held, ::testing::SizeIs(1));
  EXPECT_FALSE(widget.held[0].controller->IsCanceled());
  widget.held[0].done->Run();
  EXPECT_THAT(Told(), ElementsAre("REPLY 1"));
}

// Stream ids.

TEST_F(ServerStreamRefusalsTest, AnIdUsedTwiceEndsTheConnection) {
  Open(kWhenTooltipChanged);
  client.Send(NextFrame(1, Subscribe(7)));
  client.Send(OpenFrame(1, kWhenTooltipChanged));
  EXPECT_THAT(Told(), ElementsAre("ERROR 0 INVALID_ARGUMENT: stream id 1 after "
                                  "1; each must be greater than the last"));
  EXPECT_TRUE(client.closed);
  EXPECT_EQ(ListedForTooltips(7), 1u);
}

TEST_F(ServerStreamRefusalsTest, TheIdOfACompletedStreamIsUsedUp) {
  Open(kWhenTooltipChanged);
  client.Send(CompleteFrame(1));
  client.Send(OpenFrame(1, kWhenTooltipChanged));
  EXPECT_THAT(Told(), ElementsAre("COMPLETE 1",
                                  "ERROR 0 INVALID_ARGUMENT: stream id 1 after "
                                  "1; each must be greater than the last"));
  EXPECT_TRUE(client.closed);
}

TEST_F(ServerStreamRefusalsTest, TheIdOfARefusedStreamIsUsedUp) {
  client.Send(OpenFrame(1, kShow));
  client.Send(OpenFrame(1, kWhenTooltipChanged));
  EXPECT_THAT(Told(), ElementsAre(HasSubstr("ERROR 1 INVALID_ARGUMENT"),
                                  HasSubstr("ERROR 0 INVALID_ARGUMENT")));
  EXPECT_TRUE(client.closed);
}

TEST_F(ServerStreamRefusalsTest, AStreamCannotHaveTheIdOfACall) {
  client.Send(CallFrame(1, kHide));
  client.Send(OpenFrame(1, kWhenTooltipChanged));
  EXPECT_THAT(Told(), ElementsAre("ERROR 0 INVALID_ARGUMENT: stream id 1 after "
                                  "1; each must be greater than the last"));
  EXPECT_TRUE(client.closed);
  ASSERT_THAT(widget.held, ::testing::SizeIs(1));
  EXPECT_TRUE(widget.held[0].controller->IsCanceled());
  widget.held[0].done->Run();
}

TEST_F(ServerStreamRefusalsTest, StreamId0EndsTheConnection) {
  client.Send(OpenFrame(0, kWhenTooltipChanged));
  EXPECT_THAT(Told(), ElementsAre("ERROR 0 INVALID_ARGUMENT: stream id 0 after "
                                  "0; each must be greater than the last"));
  EXPECT_TRUE(client.closed);
}

// Stream 0 is the connection itself, also in a frame without an id.
class FramesForStream0 : public ServerStreamRefusalsTest {
 protected:
  void ExpectTheEndAfter(const StreamMessage& frame) {
    Open(kWhenTooltipChanged);
    client.Send(NextFrame(1, Subscribe(7)));
    client.Send(frame);
    EXPECT_THAT(Told(),
                ElementsAre("ERROR 0 INVALID_ARGUMENT: a frame for stream 0, "
                            "which is the connection itself"));
    EXPECT_TRUE(client.closed);
    EXPECT_EQ(ListedForTooltips(7), 1u);  // The fixture's own.
  }
};

TEST_F(FramesForStream0, ANextEndsTheConnection) {
  ExpectTheEndAfter(NextFrame(0, Subscribe(8)));
}

TEST_F(FramesForStream0, AnErrorEndsTheConnection) {
  ExpectTheEndAfter(ErrorFrame(0, Subscribe(8), 1));
}

TEST_F(FramesForStream0, ACompleteEndsTheConnection) {
  ExpectTheEndAfter(CompleteFrame(0));
}

// Payloads on an event stream.

TEST_F(ServerStreamRefusalsTest, ABareSubscription) {
  EXPECT_THAT(ToldAfter(kWhenTooltipChanged, ""),
              ElementsAre("ERROR 1 INVALID_ARGUMENT: an EventSubscription "
                          "that neither subscribes nor unsubscribes",
                          "COMPLETE 1"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, ASubscriptionWithoutAnAction) {
  // Field 3, which does not exist.
  EXPECT_THAT(ToldAfter(kWhenTooltipChanged, "\x18\x01"),
              ElementsAre("ERROR 1 INVALID_ARGUMENT: an EventSubscription "
                          "that neither subscribes nor unsubscribes",
                          "COMPLETE 1"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, ASubscriptionThatCannotBeParsed) {
  EXPECT_THAT(
      ToldAfter(kWhenTooltipChanged, "\xff\xff"),
      ElementsAre(
          "ERROR 1 INVALID_ARGUMENT: the payload cannot be "
          "parsed as rpc.EventSubscription (malformed, or nested deeper "
          "than 100 levels)",
          "COMPLETE 1"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, ASubscriptionThatCanBeParsedInPart) {
  EXPECT_THAT(
      ToldAfter(kWhenTooltipChanged, Subscribe(9).SerializeAsString() + "\xff"),
      ElementsAre(
          HasSubstr("the payload cannot be parsed as rpc.EventSubscription"),
          "COMPLETE 1"));
  EXPECT_EQ(ListedForTooltips(9), 0u);
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, AnErrorOnAnEventStream) {
  Open(kWhenTooltipChanged);
  client.Send(ErrorFrame(1, Subscribe(9), 1));
  EXPECT_THAT(Told(), ElementsAre("ERROR 1 INVALID_ARGUMENT: an error on an "
                                  "event stream, which has no calls",
                                  "COMPLETE 1"));
  EXPECT_EQ(ListedForTooltips(9), 0u);
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, AStreamThatEndsForNonsenseLeavesItsKeys) {
  Open(kWhenTooltipChanged);
  client.Send(NextFrame(1, Subscribe(7)));
  client.Send(NextFrame(1, Subscribe(8)));
  loop.RunUntilIdle();
  EXPECT_EQ(ListedForTooltips(7), 2u);
  client.Send(Frame(StreamMessage::KIND_NEXT, 1));
  EXPECT_THAT(Told(), ElementsAre(HasSubstr("ERROR 1"), "COMPLETE 1"));
  EXPECT_EQ(ListedForTooltips(7), 1u);
  EXPECT_EQ(ListedForTooltips(8), 0u);
}

TEST_F(ServerStreamRefusalsTest, AfterNonsenseTheStreamIsNotOpen) {
  Open(kWhenTooltipChanged);
  client.Send(Frame(StreamMessage::KIND_NEXT, 1));
  client.Send(NextFrame(1, Subscribe(9)));
  EXPECT_THAT(
      Told(),
      ElementsAre(HasSubstr("neither subscribes nor unsubscribes"),
                  "COMPLETE 1", "ERROR 1 NOT_FOUND: stream 1 is not open"));
  EXPECT_EQ(ListedForTooltips(9), 0u);
}

// Payloads on a callback stream.

TEST_F(ServerStreamRefusalsTest, ABareCallbackFrameOfAnyType) {
  for (std::uint32_t method = kFirstCallbackStream; method < kMethods;
       ++method) {
    client.Send(OpenFrame(method, method));
    client.Send(Frame(StreamMessage::KIND_NEXT, method));
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

TEST_F(ServerStreamRefusalsTest, ACallFromTheClient) {
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
  EXPECT_THAT(
      ToldAfter(kOnCreateWebDialog, "\xff\xff"),
      ElementsAre("ERROR 1 INVALID_ARGUMENT: the payload cannot be "
                  "parsed as rpc.CreateWebDialog (malformed, or nested deeper "
                  "than 100 levels)",
                  "COMPLETE 1"));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, ACallbackFrameThatCanBeParsedInPart) {
  EXPECT_THAT(
      ToldAfter(kOnCreateWebDialog, Serve(9).SerializeAsString() + "\xff"),
      ElementsAre("ERROR 1 INVALID_ARGUMENT: the payload cannot be "
                  "parsed as rpc.CreateWebDialog (malformed, or nested deeper "
                  "than 100 levels)",
                  "COMPLETE 1"));
  EXPECT_FALSE(IsServed<rpc::CreateWebDialog>(Browser(9)));
  ExpectConnected();
}

TEST_F(ServerStreamRefusalsTest, AnAnswerThatCanBeParsedInPartIsNone) {
  Open(kOnCreateWebDialog);
  client.Send(NextFrame(1, Serve(9)));
  loop.RunUntilIdle();
  Ask(9, "name?");
  EXPECT_THAT(Told(), ElementsAre("NEXT 1"));
  StreamMessage frame =
      NextFrame(1, Answer(9, "A"), client.frames[0].call_id());
  frame.mutable_payload()->append("\xff");
  client.Send(frame);
  EXPECT_THAT(Told(), ElementsAre(HasSubstr("the payload cannot be parsed as"),
                                  "COMPLETE 1"));
  EXPECT_THAT(ends, ElementsAre("name? CANCELLED"));
}

TEST_F(ServerStreamRefusalsTest, AnErrorThatCannotBeParsed) {
  Open(kOnCreateWebDialog);
  client.Send(NextFrame(1, Serve(9)));
  client.Send(Frame(StreamMessage::KIND_ERROR, 1, "\xff\xff"));
  EXPECT_THAT(
      Told(),
      ElementsAre("ERROR 1 INVALID_ARGUMENT: the payload cannot be "
                  "parsed as rpc.CreateWebDialog (malformed, or nested deeper "
                  "than 100 levels)",
                  "COMPLETE 1"));
  EXPECT_FALSE(IsServed<rpc::CreateWebDialog>(Browser(9)));
  ExpectConnected();
}

// The end of a connection ends its streams.

TEST_F(ServerStreamRefusalsTest, BytesThatAreNoFrameEndTheStreams) {
  Open(kWhenTooltipChanged);
  client.Send(NextFrame(1, Subscribe(7)));
  client.Send(OpenFrame(2, kOnCreateWebDialog));
  client.Send(NextFrame(2, Serve(7)));
  loop.RunUntilIdle();
  Ask(7, "name?");
  EXPECT_THAT(Told(), ElementsAre("NEXT 2"));
  client.SendBytes(std::string("\x01\0\0\0\xff", 5));
  EXPECT_THAT(Told(),
              ElementsAre("ERROR 0 INVALID_ARGUMENT: a frame of 1 bytes "
                          "cannot be parsed as StreamMessage"));
  EXPECT_TRUE(client.closed);
  EXPECT_EQ(ListedForTooltips(7), 1u);
  EXPECT_EQ(RegisteredKeys(), 1u);
  EXPECT_THAT(ends, ElementsAre("name? CANCELLED"));
}

}  // namespace
}  // namespace orvane::testing
