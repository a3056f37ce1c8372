#include "engines/chromium/engine_pipe.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/string_view.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "engines/chromium/engine_fixture.h"
#include "engines/chromium/json.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace chromium {
namespace {

using ::testing::ElementsAre;
using ::testing::Gt;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class EnginePipeTest : public ::testing::Test {
 protected:
  void Open(PipeLimits limits = {}) {
    auto pair = orvane::ConnectedPair();
    ASSERT_TRUE(pair.ok());
    engine_ = std::make_unique<testing::ScriptedEngine>(
        &loop_, std::move(pair->second));
    auto pipe = EnginePipe::Open(
        &loop_, std::move(pair->first),
        [this](EngineEvent event) { events_.push_back(std::move(event)); },
        [this](absl::Status why) { ends_.push_back(std::move(why)); }, limits);
    ASSERT_TRUE(pipe.ok());
    pipe_ = *std::move(pipe);
    loop_.RunUntilIdle();
  }

  // Adds "method: result" or "method: status" to answers_.
  void Call(const std::string& method,
            orvane::CallOptions options = {.timeout = absl::Minutes(1)}) {
    pipe_->Call(
        "", method, Json::object(),
        [this, method](absl::StatusOr<Json> answer) {
          answers_.push_back(
              method + ": " +
              (answer.ok() ? PrintJson(*answer)
                           : absl::StatusCodeToString(answer.status().code())));
          last_status_ = answer.status();
        },
        options);
  }

  void Send(absl::string_view bytes) {
    engine_->SendBytes(bytes);
    loop_.RunUntilIdle();
  }

  orvane::EventLoop loop_;
  std::unique_ptr<testing::ScriptedEngine> engine_;
  std::unique_ptr<EnginePipe> pipe_;
  std::vector<EngineEvent> events_;
  std::vector<absl::Status> ends_;
  std::vector<std::string> answers_;
  absl::Status last_status_;
};

// A message of a test, with its NUL.
std::string Message(absl::string_view json) { return std::string(json) + '\0'; }

// Commands and replies

TEST_F(EnginePipeTest, ACommandIsJsonAndANul) {
  Open();
  pipe_->Call("S", "Page.navigate", {{"url", "about:blank"}});
  EXPECT_THAT(engine_->Receive(),
              ElementsAre(Json{{"id", 1},
                               {"method", "Page.navigate"},
                               {"params", {{"url", "about:blank"}}},
                               {"sessionId", "S"}}));
}

TEST_F(EnginePipeTest, ACommandToTheEngineHasNoSession) {
  Open();
  pipe_->Call("", "Browser.getVersion", Json::object());
  const auto received = engine_->Receive();
  ASSERT_THAT(received, SizeIs(1));
  EXPECT_FALSE(received[0].contains("sessionId"));
}

TEST_F(EnginePipeTest, RepliesMayComeInAnyOrder) {
  Open();
  Call("first");
  Call("second");
  Send(Message(R"({"id":2,"result":{"b":2}})"));
  Send(Message(R"({"id":1,"result":{"a":1}})"));
  EXPECT_THAT(answers_, ElementsAre(R"(second: {"b":2})", R"(first: {"a":1})"));
}

TEST_F(EnginePipeTest, ASecondReplyIsDropped) {
  Open();
  Call("once");
  Send(Message(R"({"id":1,"result":{}})") + Message(R"({"id":1,"result":{}})") +
       Message(R"({"id":77,"result":{}})") +
       Message(R"({"id":4294967297,"result":{}})"));
  EXPECT_THAT(answers_, ElementsAre("once: {}"));
  EXPECT_THAT(ends_, IsEmpty());
}

TEST_F(EnginePipeTest, AnErrorTellsTheCommandAndTheEnginesWords) {
  Open();
  Call("Page.fly");
  Send(Message(
      R"({"id":1,"error":{"code":-32601,"message":"'Page.fly' wasn't found"}})"));
  EXPECT_EQ(last_status_,
            absl::UnimplementedError("Page.fly: 'Page.fly' wasn't found"));
}

TEST_F(EnginePipeTest, ErrorsAreToldApart) {
  Open();
  for (const int code : {-32602, -32001, -32000}) {
    Call("x");
    Send(Message(R"({"id":)" + std::to_string(answers_.size() + 1) +
                 R"(,"error":{"code":)" + std::to_string(code) + "}}"));
  }
  EXPECT_THAT(answers_, ElementsAre("x: INVALID_ARGUMENT", "x: NOT_FOUND",
                                    "x: INTERNAL"));
}

TEST_F(EnginePipeTest, AnUnreadableReplyFailsItsCommand) {
  Open();
  Call("Runtime.evaluate");
  Send(Message(R"({"id":1,"result":{"value":"\ud800"}})"));
  EXPECT_THAT(answers_, ElementsAre("Runtime.evaluate: DATA_LOSS"));
}

TEST_F(EnginePipeTest, ACommandWithoutReplyFailsInTime) {
  Open();
  Call("slow", {.timeout = absl::Milliseconds(1)});
  loop_.RunUntil([this] { return !answers_.empty(); });
  EXPECT_THAT(answers_, ElementsAre("slow: DEADLINE_EXCEEDED"));
  Send(Message(R"({"id":1,"result":{}})"));  // Late.
  EXPECT_THAT(answers_, SizeIs(1));
}

TEST_F(EnginePipeTest, AnAnswerNeverComesInsideCall) {
  Open({.max_waiting = 0});
  Call("refused");
  EXPECT_THAT(answers_, IsEmpty());
  loop_.RunUntilIdle();
  EXPECT_THAT(answers_, SizeIs(1));
}

// Events

TEST_F(EnginePipeTest, AnEventTellsItsSession) {
  Open();
  Send(Message(
      R"({"method":"Page.loadEventFired","params":{"t":1.5},"sessionId":"S"})"));
  ASSERT_THAT(events_, SizeIs(1));
  EXPECT_EQ(events_[0].session, "S");
  EXPECT_EQ(events_[0].method, "Page.loadEventFired");
  EXPECT_EQ(Number(events_[0].params, "t"), 1.5);
}

TEST_F(EnginePipeTest, AnyCutOfTheBytesGivesTheSameMessages) {
  const std::string bytes = Message(R"({"id":1,"result":{"x":"\u00e4"}})") +
                            Message(R"({"method":"a.b","params":{}})");
  for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
    Open();
    answers_.clear();
    events_.clear();
    Call("c");
    Send(absl::string_view(bytes).substr(0, cut));
    Send(absl::string_view(bytes).substr(cut));
    EXPECT_THAT(answers_, ElementsAre("c: {\"x\":\"ä\"}")) << cut;
    EXPECT_THAT(events_, SizeIs(1)) << cut;
  }
}

TEST_F(EnginePipeTest, APictureIsKeptOutOfTheJson) {
  Open();
  const std::string picture(3'000'000, 'A');
  Send(Message(R"({"method":"Page.screencastFrame","params":{"data":")" +
               picture + R"(","sessionId":7},"sessionId":"S"})"));
  ASSERT_THAT(events_, SizeIs(1));
  EXPECT_EQ(events_[0].picture, picture);
  EXPECT_EQ(Number(events_[0].params, "sessionId"), 7);
  EXPECT_EQ(Text(events_[0].params, "data"), "");
}

TEST_F(EnginePipeTest, TheConsoleIsNotRead) {
  Open();
  Send(Message(R"({"method":"Runtime.consoleAPICalled","params":{}})"));
  EXPECT_THAT(events_, IsEmpty());
}

TEST_F(EnginePipeTest, WhatIsNotJsonIsDropped) {
  Open();
  Send(Message("nonsense") + Message("") + Message("[1]") + Message("{}") +
       Message(R"({"method":7})") + Message(R"({"id":"seven"})") +
       Message(R"({"method":"a","params":{"n":1e999}})") +
       Message(R"({"method":"good","params":{}})"));
  ASSERT_THAT(events_, SizeIs(1));
  EXPECT_EQ(events_[0].method, "good");
  EXPECT_THAT(ends_, IsEmpty());
}

TEST_F(EnginePipeTest, DeepNestingHurtsNobody) {
  Open();
  const std::string deep(1'000'000, '[');
  Send(Message(R"({"method":"a","params":)" + deep) +
       Message(R"({"method":"good","params":{}})"));
  EXPECT_THAT(events_, SizeIs(1));
}

// Limits

// A page that threw a text of 300 MB ended the engine, and with it all pages.
TEST_F(EnginePipeTest, AnEventThatIsTooLongHasNoParameters) {
  const std::string event = R"({"method":"abc","params":{"text":")" +
                            std::string(3000, 'x') +
                            R"(,\"sessionId\":\"no\"}"},"sessionId":"S"})";
  Open({.max_message_bytes = event.size()});
  Send(Message(event));
  ASSERT_THAT(events_, SizeIs(1));
  EXPECT_THAT(Text(events_[0].params, "text"), SizeIs(Gt(3000u)));
  std::string longer = event;
  longer.insert(longer.find('x'), 10'000, 'y');
  for (std::size_t i = 0; i <= longer.size(); i += 97)
    engine_->SendBytes(Message(longer).substr(i, 97));
  Send(Message(R"({"method":"next","params":{}})"));
  ASSERT_THAT(events_, SizeIs(3));
  EXPECT_EQ(events_[1].method, "abc");
  EXPECT_EQ(events_[1].session, "S");
  EXPECT_EQ(events_[1].params, Json::object());
  EXPECT_EQ(events_[2].method, "next");
  EXPECT_EQ(events_[2].session, "");
  EXPECT_THAT(ends_, IsEmpty());
}

TEST_F(EnginePipeTest, AReplyThatIsTooLongIsLost) {
  Open({.max_message_bytes = 2000});
  Call("long");
  Call("short");
  Send(Message(R"({"id":1,"result":{"text":")" + std::string(9000, 'x') +
               R"("}})"));
  Send(Message(R"({"id":2,"result":{}})"));
  EXPECT_THAT(answers_, ElementsAre("long: DATA_LOSS", "short: {}"));
}

TEST_F(EnginePipeTest, APictureMayBeLongerUpToALimitThatEndsThePipe) {
  const std::string picture =
      R"({"method":"Page.screencastFrame","params":{"data":")" +
      std::string(3000, 'x') + R"("}})";
  Open({.max_picture_bytes = picture.size(), .max_message_bytes = 1000});
  Send(Message(picture));
  ASSERT_THAT(events_, SizeIs(1));
  EXPECT_THAT(events_[0].picture, SizeIs(3000));
  Send(picture + "x");  // No NUL yet.
  ASSERT_THAT(ends_, SizeIs(1));
  EXPECT_EQ(ends_[0].code(), absl::StatusCode::kResourceExhausted);
}

TEST_F(EnginePipeTest, AnEngineThatDoesNotReadIsSentNoMoreThanTheLimit) {
  Open({.max_unsent_bytes = 2'000'000});
  for (int i = 0; i < 3; ++i) {
    pipe_->Call("", "big", {{"text", std::string(900'000, 'x')}},
                [this](const absl::StatusOr<Json>& answer) {
                  answers_.push_back(answer.status().ToString());
                },
                {.timeout = absl::InfiniteDuration()});
  }
  loop_.RunUntilIdle();
  ASSERT_THAT(answers_, SizeIs(1));
  EXPECT_THAT(answers_[0], HasSubstr("beyond the limit of 2000000"));
  engine_->Settle();  // It reads again, and gets the others whole.
  EXPECT_THAT(engine_->commands(), SizeIs(2));
}

TEST_F(EnginePipeTest, CommandsThatWaitAreLimited) {
  Open({.max_waiting = 2});
  Call("a");
  Call("b");
  Call("c");
  loop_.RunUntilIdle();
  EXPECT_THAT(answers_, ElementsAre("c: RESOURCE_EXHAUSTED"));
}

// The end

TEST_F(EnginePipeTest, TheEndFailsWhatWaitsAndIsThenTold) {
  Open();
  Call("a");
  Call("b");
  engine_->Close();
  loop_.RunUntilIdle();
  EXPECT_THAT(answers_, ElementsAre("a: UNAVAILABLE", "b: UNAVAILABLE"));
  EXPECT_THAT(ends_, SizeIs(1));
}

TEST_F(EnginePipeTest, TheEndInAMessageIsTheEnd) {
  const std::string message = Message(R"({"method":"a","params":{}})");
  for (std::size_t length = 0; length < message.size(); ++length) {
    Open();
    ends_.clear();
    Send(absl::string_view(message).substr(0, length));
    engine_->Close();
    loop_.RunUntilIdle();
    EXPECT_THAT(ends_, SizeIs(1)) << length;
    EXPECT_THAT(events_, IsEmpty()) << length;
  }
}

TEST_F(EnginePipeTest, WhatCameBeforeTheEndIsReceived) {
  Open();
  engine_->SendBytes(Message(R"({"method":"last","params":{}})"));
  engine_->Close();
  loop_.RunUntilIdle();
  EXPECT_THAT(events_, SizeIs(1));
  EXPECT_THAT(ends_, SizeIs(1));
}

TEST_F(EnginePipeTest, ACommandAfterTheEndFails) {
  Open();
  engine_->Close();
  loop_.RunUntilIdle();
  Call("late");
  pipe_->Call("", "late too", Json::object());
  loop_.RunUntilIdle();
  EXPECT_THAT(answers_, ElementsAre("late: UNAVAILABLE"));
  EXPECT_THAT(ends_, SizeIs(1));
}

TEST_F(EnginePipeTest, ACommandToAnEngineThatIsGoneEndsThePipe) {
  Open();
  engine_->Close();
  Call("a");  // The end has not been read yet.
  loop_.RunUntilIdle();
  EXPECT_THAT(answers_, ElementsAre("a: UNAVAILABLE"));
  EXPECT_THAT(ends_, SizeIs(1));
}

TEST_F(EnginePipeTest, CallbacksMayDestroyThePipe) {
  Open();
  pipe_->Call("", "a", Json::object(),
              [this](const absl::StatusOr<Json>&) { pipe_.reset(); });
  Call("dropped");
  Send(Message(R"({"id":1,"result":{}})") +
       Message(R"({"method":"late","params":{}})"));
  EXPECT_EQ(pipe_, nullptr);
  EXPECT_THAT(events_, IsEmpty());
  EXPECT_THAT(answers_, IsEmpty());
}

TEST_F(EnginePipeTest, AContinuationMayDestroyThePipeAtItsEnd) {
  Open();
  pipe_->Call("", "a", Json::object(),
              [this](const absl::StatusOr<Json>&) { pipe_.reset(); });
  Call("dropped");
  engine_->Close();
  loop_.RunUntilIdle();
  EXPECT_EQ(pipe_, nullptr);
  EXPECT_THAT(answers_, IsEmpty());
}

}  // namespace
}  // namespace chromium
