// How the widget's streams are opened, and what its accessors are for.

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"

namespace rpc {
namespace {

using google::protobuf::Message;
using google::protobuf::MethodDescriptor;
using orvane::AbstractStream;
using orvane::CallbackStream;
using orvane::EventStream;
using orvane::StreamChannel;
using rpc::transport::StreamMessage;

const MethodDescriptor* Method(const std::string& name) {
  return BrowserWidgetRpc::descriptor()->FindMethodByName(name);
}

// What came of one channel.
struct Traffic {
  std::vector<std::string> sent;
  bool completed = false;
  bool released = false;
};

class Endpoint final : public orvane::StreamEndpoint {
 public:
  Endpoint(orvane::EventLoop* loop, Traffic* traffic)
      : loop_(loop), traffic_(traffic) {}
  ~Endpoint() override { traffic_->released = true; }

  absl::Status Send(const StreamMessage& frame) override {
    traffic_->sent.push_back(frame.payload());
    return absl::OkStatus();
  }
  void Complete() override { traffic_->completed = true; }
  orvane::EventLoop& loop() override { return *loop_; }

 private:
  orvane::EventLoop* const loop_;
  Traffic* const traffic_;
};

class BrowserWidgetStreams : public testing::Test {
 protected:
  // Asks `service` to open `method`.
  std::unique_ptr<AbstractStream> Open(const MethodDescriptor* method) {
    return std::unique_ptr<AbstractStream>(service.OpenStream(
        method, StreamChannel(std::make_unique<Endpoint>(&loop, &traffic))));
  }

  template <typename Stream>
  void ExpectOpens(const std::string& method) {
    const std::unique_ptr<AbstractStream> stream = Open(Method(method));
    EXPECT_NE(dynamic_cast<Stream*>(stream.get()), nullptr) << method;
    EXPECT_EQ(&stream->loop(), &loop) << method;
    EXPECT_TRUE(Stream::stream_map_.empty()) << method;
    traffic = {};
  }

  // Remembers which methods it was asked for the request of, and so shows the
  // service and the method that a stream holds.
  class Widget final : public BrowserWidgetRpc {
   public:
    const Message& GetRequestPrototype(
        const MethodDescriptor* method) const override {
      asked.push_back(method);
      return BrowserWidgetRpc::GetRequestPrototype(method);
    }
    const Message& GetResponsePrototype(
        const MethodDescriptor* method) const override {
      asked.push_back(method);
      return BrowserWidgetRpc::GetResponsePrototype(method);
    }
    orvane::Publisher<TooltipChanged> WhenTooltipChanged() override {
      return orvane::Publish<TooltipChanged>;
    }
    orvane::Caller<TakeFocus> OnTakeFocus() override {
      return orvane::Call<TakeFocus>;
    }

    mutable std::vector<const MethodDescriptor*> asked;
  };

  orvane::EventLoop loop;
  Traffic traffic;
  Widget service;
};

TEST_F(BrowserWidgetStreams, EachMethodOpensTheStreamOfItsMessage) {
  ExpectOpens<EventStream<CursorChanged>>("WhenCursorChanged");
  ExpectOpens<EventStream<TooltipChanged>>("WhenTooltipChanged");
  ExpectOpens<EventStream<DropDownCreated>>("WhenDropDownCreated");
  ExpectOpens<EventStream<DropDownDeleted>>("WhenDropDownDeleted");
  ExpectOpens<EventStream<DragCursorUpdated>>("WhenDragCursorUpdated");
  ExpectOpens<EventStream<AriaLiveRegionChanged>>("WhenAriaLiveRegionChanged");
  ExpectOpens<CallbackStream<CreateWebDialog>>("OnCreateWebDialog");
  ExpectOpens<CallbackStream<UpdateSurface>>("OnUpdateSurface");
  ExpectOpens<CallbackStream<UpdateLayer>>("OnUpdateLayer");
  ExpectOpens<CallbackStream<ShowDropdown>>("OnShowDropdown");
  ExpectOpens<CallbackStream<TakeFocus>>("OnTakeFocus");
  ExpectOpens<CallbackStream<AccessibilityRequestFocus>>(
      "OnAccessibilityRequestFocus");
}

TEST_F(BrowserWidgetStreams, AnEventStreamHoldsTheServiceAndTheMethod) {
  const auto stream = Open(Method("WhenCursorChanged"));
  StreamMessage nothing;
  stream->OnNext(&nothing);
  EXPECT_EQ(service.asked, std::vector{Method("WhenCursorChanged")});
}

TEST_F(BrowserWidgetStreams, ACallbackStreamHoldsTheServiceAndTheMethod) {
  const auto stream = Open(Method("OnCreateWebDialog"));
  CreateWebDialog subscription;
  subscription.set_subscribe(false);
  StreamMessage frame;
  frame.set_payload(subscription.SerializeAsString());
  stream->OnNext(&frame);
  EXPECT_EQ(service.asked, std::vector{Method("OnCreateWebDialog")});
}

TEST_F(BrowserWidgetStreams, TheChannelMovesIntoTheStream) {
  for (const char* const method : {"WhenCursorChanged", "OnCreateWebDialog"}) {
    traffic = {};
    auto stream = Open(Method(method));
    // The caller's channel is gone by now, and has released nothing.
    EXPECT_FALSE(traffic.released) << method;
    stream->OnCompleted();
    EXPECT_TRUE(traffic.completed) << method;
    stream.reset();
    EXPECT_TRUE(traffic.released) << method;
  }
}

TEST_F(BrowserWidgetStreams, OpeningTwiceMakesTwoStreamsThatNobodyLists) {
  const auto first = Open(Method("OnTakeFocus"));
  const auto second = Open(Method("OnTakeFocus"));
  EXPECT_NE(first, second);
  EXPECT_TRUE(CallbackStream<TakeFocus>::stream_map_.empty());
}

TEST_F(BrowserWidgetStreams, WhatAnAccessorReturnsPublishes) {
  const auto stream = Open(Method("WhenTooltipChanged"));
  BrowserId browser;
  browser.set_value(7);
  EventSubscription subscription;
  *subscription.mutable_subscribe() = browser;
  StreamMessage frame;
  frame.set_payload(subscription.SerializeAsString());
  stream->OnNext(&frame);

  TooltipChanged event;
  event.set_text("Save");
  BrowserWidgetRpc& widget = service;
  EXPECT_EQ(widget.WhenTooltipChanged()(browser, event), 1u);
  EXPECT_EQ(traffic.sent, std::vector{event.SerializeAsString()});
  stream->OnCompleted();
}

TEST_F(BrowserWidgetStreams, WhatAnAccessorReturnsCalls) {
  const auto stream = Open(Method("OnTakeFocus"));
  TakeFocus subscription;
  subscription.mutable_browser_id()->set_value(7);
  subscription.set_subscribe(true);
  StreamMessage frame;
  frame.set_payload(subscription.SerializeAsString());
  stream->OnNext(&frame);

  absl::Status end;
  BrowserWidgetRpc& widget = service;
  widget.OnTakeFocus()(subscription.browser_id(), TakeFocusCall(),
                       [&](const absl::StatusOr<TakeFocusResponse>& answer) {
                         end = answer.status();
                       },
                       {});
  EXPECT_EQ(traffic.sent.size(), 1u);
  stream->OnCompleted();
  loop.RunUntilIdle();
  EXPECT_TRUE(absl::IsCancelled(end)) << end;
}

}  // namespace
}  // namespace rpc
