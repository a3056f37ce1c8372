#include "zimbrel/src/core/common/rpc/transport/wire/handshake.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "gmock/gmock.h"
#include "google/protobuf/descriptor.pb.h"
#include "google/protobuf/empty.pb.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/testing/frames.h"
#include "zimbrel/src/core/common/rpc/testing/raw_peer.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace orvane::testing {
namespace {

using google::protobuf::ServiceDescriptor;
using internal::CompareHellos;
using internal::MakeHello;
using rpc::transport::Hello;
using rpc::transport::Limits;
using rpc::transport::StreamMessage;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

const ServiceDescriptor& Widget() {
  return *rpc::BrowserWidgetRpc::descriptor();
}

Hello WithMethods(Hello hello, int count) {
  while (hello.methods_size() < count) hello.add_methods(0x1234);
  hello.mutable_methods()->Truncate(count);
  return hello;
}

Hello WithProtocols(std::uint32_t oldest, std::uint32_t newest) {
  Hello hello = MakeHello(Widget());
  hello.set_oldest_protocol(oldest);
  hello.set_newest_protocol(newest);
  return hello;
}

Hello WithAnotherMethod(int index) {
  Hello hello = MakeHello(Widget());
  hello.set_methods(index, hello.methods(index) + 1);
  return hello;
}

// A service of two methods, whose messages are those that are compiled in.
class Lines {
 public:
  Lines() : pool_(google::protobuf::DescriptorPool::generated_pool()) {
    google::protobuf::FileDescriptorProto file;
    file.set_name("lines.proto");
    file.add_dependency(google::protobuf::Empty::descriptor()->file()->name());
    file.add_dependency(BrowserId::descriptor()->file()->name());
    file.add_service()->set_name("Lines");
    Add("Ask", /*stream=*/false, file.mutable_service(0)->add_method());
    Add("Watch", /*stream=*/true, file.mutable_service(0)->add_method());
    service_ = pool_.BuildFile(file)->service(0);
  }

  const ServiceDescriptor& service() const { return *service_; }

 private:
  static void Add(const std::string& name, bool stream,
                  google::protobuf::MethodDescriptorProto* method) {
    method->set_name(name);
    method->set_input_type(".BrowserId");
    method->set_output_type(".google.protobuf.Empty");
    method->set_client_streaming(stream);
    method->set_server_streaming(stream);
  }

  google::protobuf::DescriptorPool pool_;
  const ServiceDescriptor* service_;
};

// The hello ------------------------------------------------------------------

TEST(Introduction, NamesTheServiceAndTheProtocols) {
  const Hello hello = MakeHello(Widget());
  EXPECT_EQ(hello.service(), "rpc.BrowserWidgetRpc");
  EXPECT_EQ(hello.oldest_protocol(), 1u);
  EXPECT_EQ(hello.newest_protocol(), 2u);
  EXPECT_EQ(hello.methods_size(), 52);
}

// Computed by hand from the comment in the proto.
TEST(Introduction, HashesTheLinesOfTheMethods) {
  // FNV-1a of "Ask(BrowserId) returns (google.protobuf.Empty)\n", and on with
  // "Watch(stream BrowserId) returns (stream google.protobuf.Empty)\n".
  EXPECT_THAT(MakeHello(Lines().service()).methods(),
              ElementsAre(0x60a66a444ab18fafu, 0xa7e8a0d16bda53f5u));
}

// Compatible ends -------------------------------------------------------------

TEST(Fit, TwoOfTheSameVersion) {
  EXPECT_TRUE(CompareHellos(MakeHello(Widget()), MakeHello(Widget())).ok());
}

TEST(Fit, AnEndWithMoreMethodsOnEitherSide) {
  const Hello now = MakeHello(Widget());
  const Hello later = WithMethods(now, 60);
  EXPECT_TRUE(CompareHellos(now, later).ok());
  EXPECT_TRUE(CompareHellos(later, now).ok());
}

TEST(Fit, AnEndThatSpeaksNewerProtocolsTooOnEitherSide) {
  const Hello now = MakeHello(Widget());
  EXPECT_TRUE(CompareHellos(now, WithProtocols(1, 3)).ok());
  EXPECT_TRUE(CompareHellos(WithProtocols(1, 3), now).ok());
}

TEST(Misfit, NoProtocolInCommon) {
  const absl::Status fit =
      CompareHellos(MakeHello(Widget()), WithProtocols(3, 4));
  EXPECT_EQ(fit.code(), absl::StatusCode::kFailedPrecondition);
  EXPECT_THAT(fit.message(),
              AllOf(HasSubstr("differ in protocol"),
                    HasSubstr("the client speaks protocols 1 to 2 and"),
                    HasSubstr("the server protocols 3 to 4 and")));
  EXPECT_FALSE(CompareHellos(WithProtocols(3, 4), MakeHello(Widget())).ok());
}

TEST(Misfit, AnotherService) {
  Hello other = WithMethods(MakeHello(Widget()), 2);
  other.set_service("rpc.Other");
  const absl::Status fit = CompareHellos(other, MakeHello(Widget()));
  EXPECT_EQ(fit.code(), absl::StatusCode::kFailedPrecondition);
  EXPECT_THAT(
      fit.message(),
      AllOf(HasSubstr("differ in service"),
            HasSubstr("the client speaks protocols 1 to 2 and rpc.Other with "
                      "2 methods ("),
            HasSubstr("the server protocols 1 to 2 and rpc.BrowserWidgetRpc "
                      "with 52 methods (")));
}

TEST(Misfit, AMethodThatIsNotTheSame) {
  const absl::Status fit =
      CompareHellos(MakeHello(Widget()), WithAnotherMethod(17));
  EXPECT_EQ(fit.code(), absl::StatusCode::kFailedPrecondition);
  EXPECT_THAT(fit.message(), HasSubstr("differ in method 17;"));
}

TEST(Misfit, AMethodThatIsNotTheSameAmongFewer) {
  EXPECT_FALSE(
      CompareHellos(MakeHello(Widget()), WithMethods(WithAnotherMethod(3), 4))
          .ok());
}

// A server meets a client ----------------------------------------------------

class ServerMeetsClient : public StreamFixture {
 protected:
  ServerMeetsClient() = default;
  explicit ServerMeetsClient(const ServerLimits& limits)
      : StreamFixture(limits) {}

  RawPeer Connect(const std::optional<Hello>& hello) {
    auto pair = ConnectedPair();
    EXPECT_TRUE(server->Adopt(pair->first.Release()).ok());
    return {std::move(pair->second), hello};
  }
};

TEST_F(ServerMeetsClient, AnswersItsHello) {
  RawPeer client = ConnectRaw(*server);
  EXPECT_THAT(Settle(&client), IsEmpty());
  ASSERT_TRUE(client.hello.has_value());
  EXPECT_FALSE(client.closed);
  client.hello->clear_limits();
  EXPECT_EQ(client.hello->SerializeAsString(),
            MakeHello(Widget()).SerializeAsString());
}

TEST_F(ServerMeetsClient, TellsItsLimits) {
  RawPeer client = ConnectRaw(*server);
  Settle(&client);
  ASSERT_TRUE(client.hello.has_value());
  const Limits& limits = client.hello->limits();
  EXPECT_EQ(limits.max_frame_bytes(), 4194304u);
  EXPECT_EQ(limits.max_message_depth(), 100u);
  EXPECT_EQ(limits.max_calls(), 1024u);
  EXPECT_EQ(limits.max_streams(), 1024u);
  EXPECT_EQ(limits.max_subscriptions(), 2048u);
  EXPECT_EQ(limits.max_queued_bytes(), 16777216u);
  EXPECT_EQ(limits.max_frame_ms(), 10000u);
}

class ServerOfOtherLimits : public ServerMeetsClient {
 protected:
  ServerOfOtherLimits()
      : ServerMeetsClient({.max_frame_bytes = 1,
                           .max_message_depth = 1000,
                           .max_queued_bytes = std::size_t{5} << 30,
                           .max_frame_time = absl::InfiniteDuration()}) {}
};

TEST_F(ServerOfOtherLimits, TellsThoseThatItKeeps) {
  RawPeer client = ConnectRaw(*server);
  Settle(&client);
  ASSERT_TRUE(client.hello.has_value());
  const Limits& limits = client.hello->limits();
  EXPECT_EQ(limits.max_frame_bytes(), 4096u);
  EXPECT_EQ(limits.max_message_depth(), 100u);
  EXPECT_EQ(limits.max_queued_bytes(), std::uint64_t{5} << 30);
  EXPECT_FALSE(limits.has_max_frame_ms());
}

TEST_F(ServerOfOtherLimits, IsNotSentFramesThatAreTooLongForIt) {
  const std::unique_ptr<SocketClient> client = testing::Connect(&loop, *server);
  const auto* const show = Widget().method(kShow);
  EXPECT_TRUE(client->CallAndWait(show, Browser(7)).ok());
  BrowserId longer = Browser(7);
  longer.GetReflection()->MutableUnknownFields(&longer)->AddLengthDelimited(
      99, std::string(4096, 'x'));
  EXPECT_THAT(
      client->CallAndWait(show, longer).status(),
      absl::ResourceExhaustedError("frame of 4111 bytes; the limit is 4096"));
  EXPECT_TRUE(client->CallAndWait(show, Browser(7)).ok());
}

TEST_F(ServerMeetsClient, SaysNothingBefore) {
  RawPeer client = Connect(std::nullopt);
  EXPECT_THAT(Settle(&client), IsEmpty());
  EXPECT_FALSE(client.hello.has_value());
  EXPECT_FALSE(client.closed);
}

TEST_F(ServerMeetsClient, ServesOneThatKnowsMoreMethods) {
  RawPeer client = Connect(WithMethods(MakeHello(Widget()), 60));
  client.Send(CallFrame(1, kShow));
  client.Send(CallFrame(2, kMethods));
  EXPECT_THAT(Settle(&client),
              ElementsAre("REPLY 1",
                          "ERROR 2 UNIMPLEMENTED: no method 52 in "
                          "rpc.BrowserWidgetRpc, which has 52"));
}

TEST_F(ServerMeetsClient, ServesOneThatKnowsFewerMethods) {
  RawPeer client = Connect(WithMethods(MakeHello(Widget()), 6));
  client.Send(CallFrame(1, kShow));
  EXPECT_THAT(Settle(&client), ElementsAre("REPLY 1"));
}

TEST_F(ServerMeetsClient, PartsInWordsFromOneThatDoesNotFit) {
  int shown = 0;
  widget.on_show = [&shown](std::uint64_t) { ++shown; };
  RawPeer client = Connect(WithProtocols(3, 3));
  client.Send(CallFrame(1, kShow));
  EXPECT_THAT(Settle(&client),
              ElementsAre(AllOf(HasSubstr("ERROR 0 FAILED_PRECONDITION"),
                                HasSubstr("the client speaks protocol 3 and"),
                                HasSubstr("the server protocols 1 to 2 and"))));
  EXPECT_TRUE(client.hello.has_value());
  EXPECT_TRUE(client.closed);
  EXPECT_EQ(shown, 0);
}

TEST_F(ServerMeetsClient, PartsFromOneThatBeginsWithACall) {
  RawPeer client = Connect(std::nullopt);
  client.Send(CallFrame(1, kShow));
  EXPECT_THAT(Settle(&client),
              ElementsAre("ERROR 0 INVALID_ARGUMENT: the first frame is not "
                          "a hello that can be parsed"));
  EXPECT_TRUE(client.closed);
}

TEST_F(ServerMeetsClient, PartsFromOneWhoseHelloCannotBeRead) {
  RawPeer client = Connect(std::nullopt);
  client.Send(Frame(StreamMessage::KIND_HELLO, 0, "\xff"));
  EXPECT_THAT(Settle(&client),
              ElementsAre(HasSubstr("the first frame is not a hello")));
}

TEST_F(ServerMeetsClient, PartsFromOneThatSaysHelloTwice) {
  RawPeer client = ConnectRaw(*server);
  client.Send(Frame(StreamMessage::KIND_HELLO, 0,
                    MakeHello(Widget()).SerializeAsString()));
  EXPECT_THAT(Settle(&client),
              ElementsAre("ERROR 0 INVALID_ARGUMENT: a second hello"));
}

// A client meets a server ----------------------------------------------------

class ClientMeetsServer : public ::testing::Test {
 protected:
  void Connect(const std::optional<Hello>& hello) {
    auto pair = ConnectedPair();
    server.emplace(std::move(pair->first), hello);
    client = *SocketClient::Adopt(&loop, pair->second.Release());
  }

  // How a call ends that the server does not answer.
  absl::Status Call(const google::protobuf::MethodDescriptor* method =
                        Widget().method(kShow)) {
    return client->CallAndWait(method, BrowserId()).status();
  }

  EventLoop loop;
  std::optional<RawPeer> server;
  std::unique_ptr<SocketClient> client;
};

TEST_F(ClientMeetsServer, SaysHelloWhenItIsFirstUsed) {
  Connect(MakeHello(Widget()));
  loop.RunUntilIdle();
  server->Receive();
  EXPECT_FALSE(server->hello.has_value());
  const auto stream = client->OpenStream(Widget().method(kFirstStream), {});
  loop.RunUntilIdle();
  server->Receive();
  ASSERT_TRUE(server->hello.has_value());
  EXPECT_EQ(server->hello->SerializeAsString(),
            MakeHello(Widget()).SerializeAsString());
}

TEST_F(ClientMeetsServer, PartsInWordsFromOneThatDoesNotFit) {
  Connect(WithAnotherMethod(50));
  const absl::Status why = Call();
  EXPECT_EQ(why.code(), absl::StatusCode::kFailedPrecondition);
  EXPECT_THAT(why.message(), HasSubstr("differ in method 50"));
  EXPECT_EQ(client->status(), why);
  server->Receive();
  EXPECT_TRUE(server->closed);
}

TEST_F(ClientMeetsServer, PartsBeforeItsFirstCallFromOneThatDidNotFitByThen) {
  Connect(WithProtocols(7, 8));
  loop.RunUntilIdle();
  EXPECT_TRUE(client->status().ok());
  EXPECT_EQ(Call().code(), absl::StatusCode::kFailedPrecondition);
  server->Receive();
  EXPECT_TRUE(server->closed);
  EXPECT_THAT(server->frames, IsEmpty());
}

TEST_F(ClientMeetsServer, PartsFromOneThatSaysNoHello) {
  Connect(std::nullopt);
  server->Send(Frame(StreamMessage::KIND_REPLY, 1));
  const absl::Status why = Call();
  EXPECT_EQ(why.code(), absl::StatusCode::kUnavailable);
  EXPECT_THAT(why.message(), HasSubstr("first frame"));
}

TEST_F(ClientMeetsServer, PartsFromOneWhoseHelloCannotBeRead) {
  Connect(std::nullopt);
  server->Send(Frame(StreamMessage::KIND_HELLO, 0, "\xff"));
  EXPECT_THAT(Call().message(), HasSubstr("hello"));
}

TEST_F(ClientMeetsServer, TakesARefusalInPlaceOfAHello) {
  Connect(std::nullopt);
  StreamMessage refusal = Frame(StreamMessage::KIND_ERROR, 0);
  refusal.set_error_text("64 clients are connected");
  server->Send(refusal);
  EXPECT_THAT(Call().message(), HasSubstr("64 clients are connected"));
}

TEST_F(ClientMeetsServer, LearnsItsLimits) {
  Hello hello = MakeHello(Widget());
  hello.mutable_limits()->set_max_calls(3);
  Connect(hello);
  EXPECT_FALSE(client->server_limits().has_max_calls());
  loop.RunUntilIdle();
  EXPECT_EQ(client->server_limits().max_calls(), 3u);
  EXPECT_FALSE(client->server_limits().has_max_frame_bytes());
}

TEST_F(ClientMeetsServer, IsForOneServiceOnly) {
  Connect(MakeHello(Widget()));
  const auto stream = client->OpenStream(Widget().method(kFirstStream), {});
  const Lines other;
  const absl::Status why = Call(other.service().method(0));
  EXPECT_EQ(why.code(), absl::StatusCode::kInvalidArgument);
  EXPECT_EQ(why.message(),
            "the connection is for rpc.BrowserWidgetRpc and cannot be used for "
            "Lines");
  EXPECT_TRUE(client->status().ok());
}

}  // namespace
}  // namespace orvane::testing
