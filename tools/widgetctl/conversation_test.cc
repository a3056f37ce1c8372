#include "tools/widgetctl/conversation.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/event_subscription.pb.h"
#include "tools/widgetctl/json.h"
#include "zimbrel/src/core/common/rpc/testing/frames.h"

namespace widgetctl {
namespace {

using orvane::testing::About;
using orvane::testing::Answer;
using orvane::testing::Browser;
using orvane::testing::CallFrame;
using orvane::testing::Frame;
using orvane::testing::kOnCreateWebDialog;
using orvane::testing::kShow;
using orvane::testing::kWhenTooltipChanged;
using orvane::testing::Serve;
using orvane::testing::Subscribe;
using orvane::testing::Tooltip;
using rpc::transport::StreamMessage;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string Bytes(const StreamMessage& frame) {
  const std::string body = frame.SerializeAsString();
  std::string bytes;
  for (const int shift : {0, 8, 16, 24})
    bytes.push_back(static_cast<char>(body.size() >> shift));
  return bytes + body;
}

StreamMessage Hello(const std::string& service) {
  rpc::transport::Hello hello;
  hello.set_service(service);
  hello.add_methods(1);
  return Frame(StreamMessage::KIND_HELLO, 0, hello.SerializeAsString());
}

StreamMessage Open(std::uint64_t id, std::uint32_t method) {
  StreamMessage frame = Frame(StreamMessage::KIND_OPEN, id);
  frame.set_method(method);
  return frame;
}

StreamMessage Next(std::uint64_t id, const google::protobuf::Message& payload,
                   std::int64_t call = 0) {
  StreamMessage frame =
      Frame(StreamMessage::KIND_NEXT, id, payload.SerializeAsString());
  frame.set_call_id(call);
  return frame;
}

rpc::CreateWebDialog Question(std::uint64_t browser) {
  rpc::CreateWebDialog message = About(browser);
  message.mutable_call();
  return message;
}

class ConversationTest : public testing::Test {
 protected:
  // What is said by these bytes, in a line for each frame.
  std::vector<std::string> Hear(Side from, const std::string& bytes) {
    std::vector<std::string> lines;
    conversation_->Take(from, bytes, now_, [&lines](const Said& said) {
      std::string line(said.what);
      if (said.method != nullptr)
        absl::StrAppend(&line, " ", said.method->name());
      absl::StrAppend(&line, " ", said.stream);
      if (said.call.has_value()) absl::StrAppend(&line, "/", *said.call);
      if (said.browser.has_value())
        absl::StrAppend(&line, " browser ", *said.browser);
      if (said.elapsed.has_value()) {
        absl::StrAppend(&line, " after ", absl::FormatDuration(*said.elapsed));
      }
      if (said.error_code != 0)
        absl::StrAppend(&line, " code ", said.error_code);
      if (!said.error.empty()) absl::StrAppend(&line, ": ", said.error);
      if (said.payload != nullptr)
        absl::StrAppend(&line, " ", ToJson(*said.payload));
      lines.push_back(line);
    });
    return lines;
  }
  std::vector<std::string> Hear(Side from, const StreamMessage& frame) {
    return Hear(from, Bytes(frame));
  }
  void Begin() { Hear(Side::kHost, Hello("rpc.BrowserWidgetRpc")); }

  absl::Time now_ = absl::UnixEpoch();
  static std::vector<const google::protobuf::ServiceDescriptor*> Services() {
    return {rpc::BrowserWidgetRpc::descriptor()};
  }
  std::optional<Conversation> conversation_{std::in_place, Services(), true};
};

TEST_F(ConversationTest, AHelloIsShownWithoutItsHashes) {
  EXPECT_THAT(Hear(Side::kHost, Hello("rpc.BrowserWidgetRpc")),
              ElementsAre(R"(hello 0 {"service":"rpc.BrowserWidgetRpc"})"));
}

TEST_F(ConversationTest, AReplyTellsItsCallAndItsTime) {
  Begin();
  EXPECT_THAT(Hear(Side::kHost, CallFrame(1, kShow, 7)),
              ElementsAre(R"(call Show 1 browser 7 {"value":"7"})"));
  now_ += absl::Milliseconds(3);
  EXPECT_THAT(Hear(Side::kWidget, Frame(StreamMessage::KIND_REPLY, 1)),
              ElementsAre("reply Show 1 browser 7 after 3ms {}"));
}

TEST_F(ConversationTest, AnErrorTellsItsCall) {
  Begin();
  Hear(Side::kHost, CallFrame(1, kShow, 7));
  StreamMessage error = Frame(StreamMessage::KIND_ERROR, 1);
  error.set_error_code(2);
  error.set_error_text("no");
  EXPECT_THAT(Hear(Side::kWidget, error),
              ElementsAre("error Show 1 browser 7 after 0 code 2: no"));
}

TEST_F(ConversationTest, ACancelledCallHasEnded) {
  Begin();
  Hear(Side::kHost, CallFrame(1, kShow, 7));
  EXPECT_THAT(Hear(Side::kHost, Frame(StreamMessage::KIND_CANCEL, 1)),
              ElementsAre("cancel Show 1 browser 7 after 0"));
  EXPECT_THAT(Hear(Side::kWidget, Frame(StreamMessage::KIND_REPLY, 1)),
              ElementsAre("reply 1"));
}

TEST_F(ConversationTest, EventsFollowASubscription) {
  Begin();
  EXPECT_THAT(Hear(Side::kHost, Open(1, kWhenTooltipChanged)),
              ElementsAre("open WhenTooltipChanged 1"));
  EXPECT_THAT(
      Hear(Side::kHost, Next(1, Subscribe(7))),
      ElementsAre(R"(subscribe WhenTooltipChanged 1 browser 7 {"value":"7"})"));
  EXPECT_THAT(Hear(Side::kWidget, Next(1, Tooltip("hi"))),
              ElementsAre(R"(event WhenTooltipChanged 1 {"text":"hi"})"));
  EXPECT_THAT(
      Hear(Side::kHost, Next(1, orvane::testing::Unsubscribe(7))),
      ElementsAre(
          R"(unsubscribe WhenTooltipChanged 1 browser 7 {"value":"7"})"));
  EXPECT_THAT(Hear(Side::kHost, Frame(StreamMessage::KIND_COMPLETE, 1)),
              ElementsAre("complete WhenTooltipChanged 1"));
  EXPECT_THAT(Hear(Side::kWidget, Frame(StreamMessage::KIND_COMPLETE, 1)),
              ElementsAre("complete WhenTooltipChanged 1"));
}

TEST_F(ConversationTest, AnAnswerTellsTheTimeOfItsCall) {
  Begin();
  Hear(Side::kHost, Open(1, kOnCreateWebDialog));
  EXPECT_THAT(
      Hear(Side::kHost, Next(1, Serve(7))),
      ElementsAre(R"(subscribe OnCreateWebDialog 1 browser 7 {"value":"7"})"));
  // Ids repeat under other keys.
  Hear(Side::kWidget, Next(1, Question(7), 5));
  now_ += absl::Seconds(1);
  EXPECT_THAT(Hear(Side::kWidget, Next(1, Question(8), 5)),
              ElementsAre("call OnCreateWebDialog 1/5 browser 8 "
                          R"({"browserId":{"value":"8"},"call":{}})"));
  now_ += absl::Seconds(1);
  EXPECT_THAT(
      Hear(Side::kHost, Next(1, Answer(7, "ok"), 5)),
      ElementsAre("answer OnCreateWebDialog 1/5 browser 7 after 2s "
                  R"({"browserId":{"value":"7"},"response":{"text":"ok"}})"));
  StreamMessage error =
      Frame(StreamMessage::KIND_ERROR, 1, About(8).SerializeAsString());
  error.set_call_id(5);
  EXPECT_THAT(Hear(Side::kHost, error),
              ElementsAre("error OnCreateWebDialog 1/5 browser 8 after 1s"));
}

TEST_F(ConversationTest, ACallThatTheWidgetGivesUpTellsItsBrowser) {
  Begin();
  Hear(Side::kHost, Open(1, kOnCreateWebDialog));
  Hear(Side::kWidget, Next(1, Question(7), 5));
  StreamMessage cancel = Frame(StreamMessage::KIND_CANCEL, 1);
  cancel.set_call_id(5);
  EXPECT_THAT(Hear(Side::kWidget, cancel),
              ElementsAre("cancel OnCreateWebDialog 1/5 browser 7 after 0"));
}

TEST_F(ConversationTest, AnAnswerTellsTheTimeOfItsCallWithoutPayloadsToo) {
  conversation_.emplace(Services(), false);
  Begin();
  Hear(Side::kHost, Open(1, kOnCreateWebDialog));
  EXPECT_THAT(Hear(Side::kWidget, Next(1, Question(7), 5)),
              ElementsAre("call OnCreateWebDialog 1/5"));
  EXPECT_THAT(Hear(Side::kHost, Next(1, Answer(7, "ok"), 5)),
              ElementsAre("answer OnCreateWebDialog 1/5 browser 7 after 0"));
}

TEST_F(ConversationTest, AMessageForAUnaryCallHasNoMeaning) {
  Begin();
  Hear(Side::kHost, CallFrame(1, kShow, 7));
  EXPECT_THAT(Hear(Side::kHost, Next(1, Subscribe(7))),
              ElementsAre("frame Show 1"));
  EXPECT_THAT(Hear(Side::kWidget, Next(1, Subscribe(7))),
              ElementsAre("frame Show 1"));
  EXPECT_THAT(Hear(Side::kWidget, Frame(StreamMessage::KIND_REPLY, 1)),
              ElementsAre("reply Show 1 browser 7 after 0 {}"));
}

TEST_F(ConversationTest, AnySplitOfTheBytesIsTheSame) {
  const std::string bytes =
      Bytes(Hello("rpc.BrowserWidgetRpc")) + Bytes(CallFrame(1, kShow, 7));
  std::vector<std::string> lines;
  for (const char byte : bytes) {
    for (std::string& line : Hear(Side::kHost, std::string(1, byte)))
      lines.push_back(std::move(line));
  }
  EXPECT_THAT(lines,
              ElementsAre(R"(hello 0 {"service":"rpc.BrowserWidgetRpc"})",
                          R"(call Show 1 browser 7 {"value":"7"})"));
}

TEST_F(ConversationTest, AServiceThatIsNotKnownHasNumbersAlone) {
  Hear(Side::kHost, Hello("door.Door"));
  EXPECT_THAT(Hear(Side::kHost, CallFrame(1, kShow, 7)), ElementsAre("call 1"));
  EXPECT_THAT(Hear(Side::kHost, Next(1, Subscribe(7))), ElementsAre("frame 1"));
  EXPECT_THAT(Hear(Side::kWidget, Frame(StreamMessage::KIND_REPLY, 1)),
              ElementsAre("reply 1"));
}

TEST_F(ConversationTest, AMethodThatIsNotThereHasNoName) {
  Begin();
  EXPECT_THAT(Hear(Side::kHost, CallFrame(1, 4'000'000'000, 7)),
              ElementsAre("call 1"));
}

TEST_F(ConversationTest, APayloadThatCannotBeParsedIsLeftOut) {
  Begin();
  StreamMessage call = CallFrame(1, kShow, 7);
  call.set_payload("\xff");
  EXPECT_THAT(Hear(Side::kHost, call), ElementsAre("call Show 1"));
}

TEST_F(ConversationTest, ALongFrameIsNotKept) {
  EXPECT_THAT(Hear(Side::kHost, std::string("\x01\0\0\x01", 4)),
              ElementsAre("unreadable 0: frame of 16777217 bytes; the limit is "
                          "16777216"));
}

TEST_F(ConversationTest, BytesThatAreNoFramesAreToldOnce) {
  const std::string no_frame("\x02\0\0\0\xff\xff", 6);
  EXPECT_THAT(Hear(Side::kHost, no_frame),
              ElementsAre("unreadable 0: the frame cannot be parsed"));
  EXPECT_THAT(Hear(Side::kHost, no_frame), IsEmpty());
  EXPECT_THAT(Hear(Side::kWidget, Hello("rpc.BrowserWidgetRpc")),
              ElementsAre(R"(hello 0 {"service":"rpc.BrowserWidgetRpc"})"));
}

}  // namespace
}  // namespace widgetctl
