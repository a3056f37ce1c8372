// For tests: the client's end of a callback stream, which also delivers what
// the client sends to the server's end, without a transport.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_SCRIPTED_HOST_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_SCRIPTED_HOST_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_id.pb.h"
#include "rpc/browser/browser_widget.pb.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/callback_stream.h"
#include "zimbrel/src/core/common/rpc/stream_channel.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"

namespace orvane::testing {

// A call that the server has sent.
template <CallMessage T>
struct SentCall {
  std::int64_t id;
  T message;
};

// A client with one open stream of T's method. What it sends reaches the
// server's end at once, and Complete() destroys the stream, as a transport may.
template <CallMessage T>
class ScriptedHost {
 public:
  using Stream = CallbackStream<T>;

  ScriptedHost(EventLoop* loop, rpc::BrowserWidgetRpc* service)
      : stream_(new Stream(
            service, Method(),
            StreamChannel(std::make_unique<Endpoint>(this, loop)))) {}
  ScriptedHost(const ScriptedHost&) = delete;
  ScriptedHost& operator=(const ScriptedHost&) = delete;
  ~ScriptedHost() {
    if (is_open()) End();
  }

  static const google::protobuf::MethodDescriptor* Method() {
    return rpc::BrowserWidgetRpc::descriptor()->FindMethodByName(
        "On" + std::string(T::descriptor()->name()));
  }

  void Subscribe(const BrowserId& browser) {
    Send(Subscription(browser, true));
  }
  void Unsubscribe(const BrowserId& browser) {
    Send(Subscription(browser, false));
  }

  void Answer(const BrowserId& browser, std::int64_t call_id,
              ResponseOf<T> response = ResponseOf<T>()) {
    T message;
    *message.mutable_browser_id() = browser;
    *message.mutable_response() = std::move(response);
    Send(message, call_id);
  }

  // Fails one call: sends only the browser and the call's id.
  void Fail(const BrowserId& browser, std::int64_t call_id) {
    T message;
    *message.mutable_browser_id() = browser;
    SendError(message, call_id);
  }

  void Send(const T& message, std::int64_t call_id = 0) {
    SendPayload(message.SerializeAsString(), call_id);
  }
  void SendPayload(std::string payload, std::int64_t call_id = 0) {
    auto frame = Frame(std::move(payload), call_id);
    stream_->OnNext(&frame);
  }
  void SendError(const T& message, std::int64_t call_id) {
    auto frame = Frame(message.SerializeAsString(), call_id);
    stream_->OnError(&frame);
  }

  // Ends the stream.
  void End() { stream_->OnCompleted(); }

  // Destroys the stream without ending it. A stream then leaves the keys of its
  // pending calls behind: frees them and returns how many there were.
  std::size_t Vanish() {
    std::vector<std::unique_ptr<const google::protobuf::Message>> left;
    for (const auto& [key, calls] : stream_->pending_calls_)
      left.emplace_back(key);
    stream_.reset();
    return left.size();
  }

  bool is_open() const { return stream_ != nullptr; }
  Stream& stream() { return *stream_; }
  const std::vector<SentCall<T>>& received() const { return received_; }
  std::int64_t last_id() const { return received_.back().id; }

  // What sending to this host results in from now on; only OK delivers.
  absl::Status send_result;
  // Runs when the server completes the stream, just before it is destroyed.
  std::function<void()> on_complete = [] {};

 private:
  class Endpoint final : public StreamEndpoint {
   public:
    Endpoint(ScriptedHost* host, EventLoop* loop) : host_(host), loop_(loop) {}

    absl::Status Send(const rpc::transport::StreamMessage& frame) override {
      if (!host_->send_result.ok()) return host_->send_result;
      T message;
      EXPECT_TRUE(message.ParseFromString(frame.payload()));
      host_->received_.push_back({frame.call_id(), std::move(message)});
      return absl::OkStatus();
    }
    void Complete() override {
      ScriptedHost* const host = host_;
      host->on_complete();
      host->stream_.reset();  // And this endpoint with it.
    }
    EventLoop& loop() override { return *loop_; }

   private:
    ScriptedHost* const host_;
    EventLoop* const loop_;
  };

  static T Subscription(const BrowserId& browser, bool subscribe) {
    T message;
    *message.mutable_browser_id() = browser;
    message.set_subscribe(subscribe);
    return message;
  }
  static rpc::transport::StreamMessage Frame(std::string payload,
                                             std::int64_t call_id) {
    rpc::transport::StreamMessage frame;
    frame.set_payload(std::move(payload));
    frame.set_call_id(call_id);
    return frame;
  }

  std::unique_ptr<Stream> stream_;
  std::vector<SentCall<T>> received_;
};

// Erases what a destroyed stream left in the registry under `browser`, if it
// left anything.
template <CallMessage T>
void RemoveRegistration(const BrowserId& browser) {
  if (CallbackStream<T>::stream_map_.contains(&browser)) {
    internal::EraseEntry(CallbackStream<T>::stream_map_, browser);
  }
}

// A service, a loop, and no registration before or after a test.
class CallbackStreamFixture : public ::testing::Test {
 protected:
  CallbackStreamFixture() { ExpectNoRegistrations(); }
  ~CallbackStreamFixture() override { ExpectNoRegistrations(); }

  EventLoop loop;
  rpc::BrowserWidgetRpc service;

 private:
  static void ExpectNoRegistrations() {
    EXPECT_TRUE(CallbackStream<rpc::CreateWebDialog>::stream_map_.empty());
    EXPECT_TRUE(CallbackStream<rpc::UpdateSurface>::stream_map_.empty());
    EXPECT_TRUE(CallbackStream<rpc::UpdateLayer>::stream_map_.empty());
    EXPECT_TRUE(CallbackStream<rpc::ShowDropdown>::stream_map_.empty());
    EXPECT_TRUE(CallbackStream<rpc::TakeFocus>::stream_map_.empty());
    EXPECT_TRUE(
        CallbackStream<rpc::AccessibilityRequestFocus>::stream_map_.empty());
  }
};

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_SCRIPTED_HOST_H_
