// A session while system calls fail or are cut short: after every number of
// them, and at every byte of the session.

#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "absl/time/time.h"
#include "gmock/gmock.h"
#include "google/protobuf/empty.pb.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/testing/faulty_sockets.h"
#include "zimbrel/src/core/common/rpc/testing/forked_process.h"
#include "zimbrel/src/core/common/rpc/testing/frames.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace orvane::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::UnorderedElementsAre;

// The client's side of a session with everything in it: calls that are answered
// at once, later, and with an error; events; a callback.
class Client {
 public:
  Client(EventLoop* loop, int descriptor)
      : client_(*SocketClient::Adopt(loop, descriptor)),
        widget_(client_.get()) {}

  void Begin() {
    widget_.Show(Browser(7), Ends("Show"));
    widget_.Hide(Browser(7), Ends("Hide"));
    widget_.Minimize(Browser(7), Ends("Minimize"));
    events_ = widget_.WhenAriaLiveRegionChanged(
        Browser(7),
        [this](const rpc::AriaLiveRegionChanged& event) {
          told.push_back(absl::StrCat("event ", event.text().size()));
        },
        Ended("events"));
    calls_ = widget_.OnCreateWebDialog(
        Browser(7),
        [this](const rpc::CreateWebDialogCall& call,
               Responder<rpc::CreateWebDialog> responder) {
          told.push_back("asked " + call.prompt().message());
          rpc::CreateWebDialogResponse answer;
          answer.set_text("yes");
          std::move(responder).Respond(std::move(answer)).IgnoreError();
        },
        Ended("calls"));
  }

  const absl::Status& status() const { return client_->status(); }

  std::vector<std::string> told;

 private:
  OnAnswer<google::protobuf::Empty> Ends(const std::string& what) {
    return [this, what](const absl::StatusOr<google::protobuf::Empty>& answer) {
      told.push_back(absl::StrCat(
          what, " ", absl::StatusCodeToString(answer.status().code())));
    };
  }
  OnEnd Ended(const std::string& what) {
    return [this, what](const absl::Status& why) {
      told.push_back(
          absl::StrCat(what, " end ", absl::StatusCodeToString(why.code())));
    };
  }

  std::unique_ptr<SocketClient> client_;
  rpc::BrowserWidgetRpcClient widget_;
  std::unique_ptr<ClientStream> events_;
  std::unique_ptr<ClientStream> calls_;
};

class FaultsTest : public StreamFixture {
 protected:
  ~FaultsTest() override {
    SetSocketFaults({});
    AnswerHeldCalls();
  }

  // The server's side of the session, once the client has begun.
  void ServeTheRest() {
    loop.RunUntilIdle();
    rpc::AriaLiveRegionChanged event;
    event.set_text(std::string(event_bytes_, 'x'));
    Publish(Browser(7), event);
    Ask(7, "Sure?");
    loop.RunUntilIdle();
    AnswerHeldCalls();
    loop.RunUntilIdle();
  }

  void AnswerHeldCalls() {
    for (const auto& call : std::exchange(widget.held, {})) call.done->Run();
  }

  // Plays the whole session under faults; the result is the same as without.
  void ExpectAllAsEver(const SocketFaults& faults) {
    auto pair = ConnectedPair();
    ASSERT_TRUE(server->Adopt(pair->first.Release()).ok());
    Client client(&loop, pair->second.Release());
    SetSocketFaults(faults);
    client.Begin();
    ServeTheRest();
    EXPECT_THAT(client.told, ElementsAre("Show OK", "Minimize UNKNOWN",
                                         absl::StrCat("event ", event_bytes_),
                                         "asked Sure?", "Hide OK"));
    EXPECT_THAT(ends, ElementsAre("Sure? yes"));
  }

  // The bytes that each side sends in a session without faults.
  struct Speeches {
    std::string of_client;
    std::string of_server;
  };
  Speeches RecordSession() {
    auto pair = ConnectedPair();
    const int server_end = pair->first.get();
    const int client_end = pair->second.get();
    Record(server_end);
    Record(client_end);
    EXPECT_TRUE(server->Adopt(pair->first.Release()).ok());
    {
      Client client(&loop, pair->second.Release());
      client.Begin();
      ServeTheRest();
    }
    Speeches speeches{Recorded(client_end), Recorded(server_end)};
    loop.RunUntilIdle();
    ends.clear();
    return speeches;
  }

  std::size_t event_bytes_ = 10;
};

// The system's calls ---------------------------------------------------------

TEST_F(FaultsTest, ShortReadsAndWritesChangeNothing) {
  for (const std::size_t bytes : {1, 2, 3, 5, 64}) {
    SCOPED_TRACE(bytes);
    ends.clear();
    ExpectAllAsEver({.max_bytes = bytes});
  }
}

TEST_F(FaultsTest, InterruptedCallsChangeNothing) {
  for (const int every : {2, 3, 5}) {
    SCOPED_TRACE(every);
    ends.clear();
    ExpectAllAsEver({.interrupt_every = every});
    EXPECT_GT(InterruptedCalls(), 0);
  }
}

TEST_F(FaultsTest, BothTogetherChangeNothing) {
  ExpectAllAsEver({.max_bytes = 1, .interrupt_every = 2});
  EXPECT_GT(InterruptedCalls(), 0);
}

TEST_F(FaultsTest, AListenThatFailsAtAnyStepLeavesNothingBehind) {
  const TemporaryFolder folder;
  const std::string new_folder = folder.path() + "/new";
  std::vector<std::string> errors;
  absl::Status listens;
  do {
    SetSocketFaults({.failing_setup = static_cast<int>(errors.size()) + 1});
    listens = server->Listen(new_folder + "/s");
    SetSocketFaults({});
    if (listens.ok()) break;
    errors.emplace_back(listens.message());
    EXPECT_FALSE(std::filesystem::exists(new_folder)) << listens;
  } while (errors.size() < 100);
  EXPECT_THAT(
      errors,
      ElementsAre(HasSubstr("cannot make the socket's folder"),
                  HasSubstr("cannot open the lock"),
                  HasSubstr("cannot take the lock"),
                  HasSubstr("cannot make a socket"), HasSubstr("cannot bind"),
                  HasSubstr("/s private"), HasSubstr("cannot listen at"),
                  HasSubstr("cannot watch descriptor")));
  EXPECT_TRUE(ConnectTo(new_folder + "/s").ok());
}

TEST_F(FaultsTest, ASocketThatIsFullTimeAndAgainChangesNothing) {
  event_bytes_ = std::size_t{2} << 20;  // Ten times what a socket takes.
  ExpectAllAsEver({});
}

// It used to lose what was queued and keep the connection, so that callers
// waited for ever.
TEST_F(FaultsTest, ARequestThatTheSystemRefusesToSendEndsTheConnection) {
  auto pair = ConnectedPair();
  ASSERT_TRUE(server->Adopt(pair->first.Release()).ok());
  Client client(&loop, pair->second.Release());
  SetSocketFaults({.failing_sends = 1, .send_error = ENOBUFS});
  client.Begin();
  loop.RunUntilIdle();
  EXPECT_THAT(client.told,
              ElementsAre("Show UNAVAILABLE", "Hide UNAVAILABLE",
                          "Minimize UNAVAILABLE", "events end UNAVAILABLE",
                          "calls end UNAVAILABLE"));
  EXPECT_THAT(client.status().message(),
              HasSubstr("No buffer space available"));
  EXPECT_EQ(server->connections(), 0u);
}

TEST_F(FaultsTest, AReplyThatTheSystemRefusesToSendEndsTheConnection) {
  auto pair = ConnectedPair();
  ASSERT_TRUE(server->Adopt(pair->first.Release()).ok());
  Client client(&loop, pair->second.Release());
  client.Begin();
  loop.RunUntilIdle();
  client.told.clear();
  SetSocketFaults({.failing_sends = 1, .send_error = ENOMEM});
  AnswerHeldCalls();
  loop.RunUntilIdle();
  EXPECT_THAT(client.told,
              ElementsAre("Hide UNAVAILABLE", "events end UNAVAILABLE",
                          "calls end UNAVAILABLE"));
  EXPECT_EQ(server->connections(), 0u);
}

TEST_F(FaultsTest, AClientThatComesWhenNoDescriptorIsLeftIsServedLater) {
  const TemporaryFolder folder;
  const std::string path = folder.path() + "/s";
  ASSERT_TRUE(server->Listen(path).ok());
  SetSocketFaults({.failing_accepts = 2});
  const auto client = SocketClient::Connect(&loop, path);
  ASSERT_TRUE(client.ok());
  // If it tried again and again, there would be a connection by now.
  loop.RunUntilIdle();
  EXPECT_EQ(server->connections(), 0u);
  EXPECT_TRUE(loop.RunUntil([this] { return server->connections() == 1; }));
}

// An end at every byte -------------------------------------------------------

class CutClientTest : public FaultsTest,
                      public ::testing::WithParamInterface<bool> {
 protected:
  // A client that sends the first bytes of `speech` and then disconnects: with
  // an end of file or with a reset, which happens if a socket is closed before
  // all its input has been read.
  void SayPartOf(const std::string& speech, std::size_t bytes) {
    auto pair = ConnectedPair();
    ASSERT_TRUE(server->Adopt(pair->first.Release()).ok());
    std::optional<RawPeer> client(std::in_place, std::move(pair->second),
                                  std::nullopt);
    client->SendBytes(speech.substr(0, bytes));
    ServeTheRest();
    const bool is_reset = GetParam();
    if (!is_reset) client->Receive();
    client.reset();
    loop.RunUntilIdle();
  }
};

TEST_P(CutClientTest, AClientThatGoesAfterAnyByteLeavesNothing) {
  const std::string speech = RecordSession().of_client;
  ASSERT_GT(speech.size(), 500u);
  for (std::size_t bytes = 0; bytes <= speech.size(); ++bytes) {
    SCOPED_TRACE(bytes);
    ends.clear();
    SayPartOf(speech, bytes);
    EXPECT_EQ(server->connections(), 0u);
    EXPECT_EQ(RegisteredKeys(), 0u);
    EXPECT_EQ(ends.size(), 1u);
  }
  ends.clear();
  ExpectAllAsEver({});
}

INSTANTIATE_TEST_SUITE_P(, CutClientTest, ::testing::Bool(),
                         [](const auto& with_reset) {
                           return with_reset.param ? "Reset" : "EndOfFile";
                         });

TEST_F(FaultsTest, AServerThatGoesAfterAnyByteEndsAllOnceAtItsClient) {
  const std::string speech = RecordSession().of_server;
  ASSERT_GT(speech.size(), 500u);
  for (std::size_t bytes = 0; bytes < speech.size(); ++bytes) {
    SCOPED_TRACE(bytes);
    auto pair = ConnectedPair();
    Client client(&loop, pair->second.Release());
    client.Begin();
    {
      RawPeer dying(std::move(pair->first), std::nullopt);
      dying.SendBytes(speech.substr(0, bytes));
      loop.RunUntilIdle();
    }
    loop.RunUntilIdle();
    std::vector<std::string> ended;
    for (const std::string& what : client.told) {
      const std::string name = what.substr(0, what.find(' '));
      if (name != "event" && name != "asked") ended.push_back(name);
    }
    EXPECT_THAT(ended, UnorderedElementsAre("Show", "Hide", "Minimize",
                                            "events", "calls"));
  }
}

// Processes ------------------------------------------------------------------

// A client in a process of its own, which watches browser 7 and is then
// stopped.
class StoppedClientTest : public FaultsTest {
 protected:
  StoppedClientTest() {
    auto pair = ConnectedPair();
    const int client_end = pair->second.get();
    client_.emplace([client_end] {
      EventLoop its_loop;
      Client client(&its_loop, client_end);
      client.Begin();
      its_loop.Run();
    });
    EXPECT_TRUE(server->Adopt(pair->first.Release()).ok());
    loop.RunUntil([this] { return !widget.held.empty(); });
    loop.RunUntil([] { return RegisteredKeys() == 2; });
    EXPECT_TRUE(client_->Stop());
  }

  std::optional<ForkedProcess> client_;
};

TEST_F(StoppedClientTest, HoldsUpNobodyElse) {
  Ask(7, "Hello?");
  ExpectAllAsEver({});
}

TEST_F(StoppedClientTest, IsCutOffAtAShutdown) {
  bool has_ended = false;
  server->Shutdown(absl::Milliseconds(1), [&has_ended] { has_ended = true; });
  EXPECT_TRUE(loop.RunUntil([&has_ended] { return has_ended; }));
}

TEST_F(StoppedClientTest, LeavesNothingWhenItIsKilled) {
  Ask(7, "Hello?");
  EXPECT_TRUE(client_->Kill());
  loop.RunUntil([this] { return server->connections() == 0; });
  loop.RunUntilIdle();
  EXPECT_EQ(RegisteredKeys(), 0u);
  EXPECT_THAT(ends, ElementsAre("Hello? CANCELLED"));
}

}  // namespace
}  // namespace orvane::testing
