// For tests: the client's end of an event stream, which also delivers what the
// client sends to the server's end, without a transport.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_EVENT_HOST_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_EVENT_HOST_H_

#include <sanitizer/asan_interface.h>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_id.pb.h"
#include "rpc/browser/browser_widget.pb.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/event_subscription.pb.h"
#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/stream/event_stream.h"
#include "zimbrel/src/core/common/rpc/stream_channel.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"

namespace orvane::testing {

// The event-stream method whose events are T.
template <EventMessage T>
const google::protobuf::MethodDescriptor* MethodOf() {
  return rpc::BrowserWidgetRpc::descriptor()->FindMethodByName(
      "When" + std::string(T::descriptor()->name()));
}

// A host with at most one open stream of T's method. The stream lies inside
// this object, so each that is opened has the address of the one before, and
// whoever touches it in between is caught.
template <EventMessage T>
class EventHost {
 public:
  using Stream = EventStream<T>;

  EventHost(EventLoop* loop, Service* service)
      : loop_(loop), service_(service) {
    Lock();
    Open();
  }
  EventHost(const EventHost&) = delete;
  EventHost& operator=(const EventHost&) = delete;
  ~EventHost() {
    Vanish();
    ASAN_UNPOISON_MEMORY_REGION(memory_.data(), memory_.size());
  }

  void Open() {
    ASAN_UNPOISON_MEMORY_REGION(memory_.data(), memory_.size());
    new (memory_.data()) Stream(service_, MethodOf<T>(), MakeChannel());
    is_open_ = true;
  }

  // A channel to this host, for a stream elsewhere.
  StreamChannel MakeChannel() {
    return StreamChannel(std::make_unique<Endpoint>(this));
  }

  void Subscribe(std::uint64_t browser) { Send(testing::Subscribe(browser)); }
  void Unsubscribe(std::uint64_t browser) {
    Send(testing::Unsubscribe(browser));
  }
  void Send(const rpc::EventSubscription& request) {
    SendPayload(request.SerializeAsString());
  }
  void SendPayload(std::string_view payload) {
    rpc::transport::StreamMessage frame;
    frame.set_payload(std::string(payload));
    stream()->OnNext(&frame);
  }

  // Ends the stream without destroying it.
  void Complete() { stream()->OnCompleted(); }

  // Destroys the stream without ending it, if it is open.
  void Vanish() {
    if (!is_open_) return;
    is_open_ = false;
    AbstractStream* const stream = this->stream();
    stream->~AbstractStream();
    Lock();
  }

  // Ends the stream and destroys it.
  void Leave() {
    Complete();
    Vanish();
  }

  bool is_open() const { return is_open_; }

  // The address of the stream, also after it was destroyed.
  Stream* stream() { return reinterpret_cast<Stream*>(memory_.data()); }

  std::vector<std::string> received;  // Payloads.
  int completions = 0;

  // What sending to this host results in from now on; only OK delivers.
  absl::Status send_result;
  // Run with the payload of each event that arrives, and at each completion.
  std::function<void(const std::string& payload)> on_event = [](auto&) {};
  std::function<void()> on_complete = [] {};

 private:
  class Endpoint final : public StreamEndpoint {
   public:
    explicit Endpoint(EventHost* host) : host_(host) {}

    absl::Status Send(const rpc::transport::StreamMessage& frame) override {
      if (!host_->send_result.ok()) return host_->send_result;
      host_->received.push_back(frame.payload());
      host_->on_event(frame.payload());
      return absl::OkStatus();
    }
    void Complete() override {
      ++host_->completions;
      host_->on_complete();
    }
    EventLoop& loop() override { return *host_->loop_; }

   private:
    EventHost* const host_;
  };

  // Without the address sanitizer, using the memory still crashes, since the
  // bytes in it are not valid pointers.
  void Lock() {
    std::memset(memory_.data(), 0xDB, memory_.size());
    ASAN_POISON_MEMORY_REGION(memory_.data(), memory_.size());
  }

  EventLoop* const loop_;
  Service* const service_;
  bool is_open_ = false;
  alignas(Stream) std::array<std::byte, sizeof(Stream)> memory_;
};

// A service, a loop, and no subscription before or after a test.
class EventStreamFixture : public ::testing::Test {
 protected:
  EventStreamFixture() { ExpectNoSubscriptions(); }
  ~EventStreamFixture() override { ExpectNoSubscriptions(); }

  EventLoop loop;
  rpc::BrowserWidgetRpc service;

 private:
  static void ExpectNoSubscriptions() {
    EXPECT_TRUE(EventStream<rpc::CursorChanged>::stream_map_.empty());
    EXPECT_TRUE(EventStream<rpc::TooltipChanged>::stream_map_.empty());
    EXPECT_TRUE(EventStream<rpc::DropDownCreated>::stream_map_.empty());
    EXPECT_TRUE(EventStream<rpc::DropDownDeleted>::stream_map_.empty());
    EXPECT_TRUE(EventStream<rpc::DragCursorUpdated>::stream_map_.empty());
    EXPECT_TRUE(EventStream<rpc::AriaLiveRegionChanged>::stream_map_.empty());
  }
};

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_EVENT_HOST_H_
