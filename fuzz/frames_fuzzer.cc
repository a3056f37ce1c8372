// Up to three clients and a server take steps in any order, most of which are
// valid. A bystander, which is a fourth client, must get exactly its events;
// every call of the server must end once; and nothing may be left in a
// registry.
//
// The input is a list of steps of eight bytes each; see Step.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/method_kind.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/frames.h"
#include "zimbrel/src/core/common/rpc/testing/raw_peer.h"
#include "zimbrel/src/core/common/rpc/testing/stream_fixture.h"
#include "zimbrel/src/core/common/rpc/testing/then.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace orvane::testing {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::MessageFactory;
using google::protobuf::MethodDescriptor;
using google::protobuf::Reflection;
using rpc::transport::StreamMessage;

// Small, so that the steps reach them.
constexpr ServerLimits kLimits = {.max_connections = 4,
                                  .max_calls = 4,
                                  .max_streams = 6,
                                  .max_subscriptions = 6};
constexpr std::size_t kMaxSteps = 64;
constexpr int kMaxReactions = 20;
constexpr std::uint64_t kBrowsers = 4;
constexpr std::uint64_t kBystandersBrowser = 1;
constexpr std::uint8_t kResponse = 2;  // A variant.
constexpr std::uint8_t kEventTypes = kFirstCallbackStream - kFirstStream;
constexpr std::uint8_t kCallTypes = kMethods - kFirstCallbackStream;

struct Step {
  enum What : std::uint8_t {
    kConnect,
    kHangUp,
    kSend,
    kAnswerCall,  // The client answers a call that it has received.
    kSettle,      // Everything happens that can.
    kPublish,
    kCall,
    kCancel,
    kAnswerHeld,  // The server answers a call of a client.
    kWatchHeld,   // The server asks to be told when a client cancels a call.
    kReaction,    // What the server does inside its handlers.
    kShutDown,
    kRestart,
    kWhats
  };

  std::uint8_t what;
  std::uint8_t host;
  std::uint8_t kind;    // Of a frame, an event or a call.
  std::uint8_t id;      // Of a stream, or an index.
  std::uint8_t method;  // An index in the service, or beyond it; or a reaction.
  std::uint8_t browser;  // One of a few.
  std::uint8_t variant;  // Of a stream's message, or of the options.
  std::uint8_t damage;   // To the payload: see Payload.
};

struct Host {
  RawPeer peer;
  std::map<std::uint64_t, std::uint32_t> opened;  // Stream to method.
  std::vector<StreamMessage> calls;               // That were received.
};

template <typename T>
std::size_t PublishEmpty(std::uint64_t browser) {
  return Publish<T>(Browser(browser), T());
}

template <typename T>
CallHandle CallAbout(std::uint64_t browser, const std::function<void()>& on_end,
                     CallOptions options) {
  return Call<T>(
      Browser(browser), CallOf<T>(), [on_end](const auto&) { on_end(); },
      options);
}

// In the order of their methods.
constexpr std::array kPublishers = {&PublishEmpty<rpc::CursorChanged>,
                                    &PublishEmpty<rpc::TooltipChanged>,
                                    &PublishEmpty<rpc::DropDownCreated>,
                                    &PublishEmpty<rpc::DropDownDeleted>,
                                    &PublishEmpty<rpc::DragCursorUpdated>,
                                    &PublishEmpty<rpc::AriaLiveRegionChanged>};
constexpr std::array kCallers = {&CallAbout<rpc::CreateWebDialog>,
                                 &CallAbout<rpc::UpdateSurface>,
                                 &CallAbout<rpc::UpdateLayer>,
                                 &CallAbout<rpc::ShowDropdown>,
                                 &CallAbout<rpc::TakeFocus>,
                                 &CallAbout<rpc::AccessibilityRequestFocus>};
static_assert(kPublishers.size() == kEventTypes);
static_assert(kCallers.size() == kCallTypes);

const std::optional<rpc::transport::Hello>& Greeting() {
  static const std::optional<rpc::transport::Hello> hello =
      internal::MakeHello(*rpc::BrowserWidgetRpc::descriptor());
  return hello;
}

// A message that a client may send for a method. For a stream, `variant`
// chooses the kind of message.
std::string ValidPayload(std::uint32_t method, std::uint64_t browser,
                         std::uint8_t variant) {
  if (method >= kMethods) return "";
  const MethodDescriptor& declared =
      *rpc::BrowserWidgetRpc::descriptor()->method(static_cast<int>(method));
  if (KindOf(declared) == MethodKind::kEventStream) {
    return (variant % 2 == 0 ? Subscribe(browser) : Unsubscribe(browser))
        .SerializeAsString();
  }
  const Descriptor* const type = declared.input_type();
  if (type == BrowserId::descriptor())
    return Browser(browser).SerializeAsString();
  const std::unique_ptr<Message> message(
      MessageFactory::generated_factory()->GetPrototype(type)->New());
  const Reflection& fields = *message->GetReflection();
  fields.MutableMessage(message.get(), type->FindFieldByName(kKeyField))
      ->CopyFrom(Browser(browser));
  if (KindOf(declared) == MethodKind::kCallbackStream) {
    const FieldDescriptor* const subscribe =
        type->FindFieldByName(kSubscribeField);
    switch (variant % 4) {
      case 0:
        fields.SetBool(message.get(), subscribe, true);
        break;
      case 1:
        fields.SetBool(message.get(), subscribe, false);
        break;
      case kResponse:
        fields.MutableMessage(message.get(),
                              type->FindFieldByName(kResponseField));
        break;
      default:
        fields.MutableMessage(message.get(), type->FindFieldByName(kCallField));
    }
  }
  return message->SerializeAsString();
}

// The same message, with at most one mistake: the lowest two bits of `damage`
// choose the mistake, the others its place.
std::string Payload(std::uint32_t method, std::uint64_t browser,
                    std::uint8_t variant, std::uint8_t damage) {
  std::string payload = ValidPayload(method, browser, variant);
  if (payload.empty()) return payload;
  const std::size_t place = (damage >> 2) % payload.size();
  switch (damage % 4) {
    case 1:
      return "";
    case 2:
      return payload.substr(0, place);
    case 3:
      payload[place] = static_cast<char>(payload[place] ^ (1 << (damage >> 5)));
      return payload;
    default:
      return payload;
  }
}

class Play {
 public:
  Play() {
    EXPECT_EQ(RegisteredKeys(), 0u);
    widget_.on_show = [this](std::uint64_t) { React(); };
    Start();
  }

  void Take(const Step& step) {
    if (server_ == nullptr) Start();
    if (server_ == nullptr) return;  // A reaction calls this a second time.
    std::unique_ptr<Host>& host = hosts_[step.host % hosts_.size()];
    switch (step.what % Step::kWhats) {
      case Step::kConnect:
        return Connect(host);
      case Step::kHangUp:
        return host.reset();
      case Step::kSend:
        if (host != nullptr) Send(*host, step);
        return;
      case Step::kAnswerCall:
        if (host != nullptr) AnswerCall(*host, step);
        return;
      case Step::kSettle:
        return Settle();
      case Step::kPublish:
        return PublishOne(step);
      case Step::kCall:
        return CallHost(step);
      case Step::kCancel:
        return Cancel(step);
      case Step::kAnswerHeld:
        return AnswerHeld(step);
      case Step::kWatchHeld:
        return WatchHeld(step);
      case Step::kReaction:
        reaction_ = step;
        return;
      case Step::kShutDown:
        return ShutDown(step);
      default:
        return Destroy();
    }
  }

  void End() {
    reaction_.reset();
    Settle();
    hosts_ = {};
    bystander_.reset();
    loop_.RunUntilIdle();
    if (server_ != nullptr) {
      EXPECT_EQ(server_->connections(), 0u);
      // All clients have left; a server that shuts down waits for that.
      EXPECT_EQ(has_shut_down_, is_shutting_down_);
    }
    Destroy();
    loop_.RunUntilIdle();
    while (!widget_.held.empty()) AnswerHeld({});
    EXPECT_EQ(RegisteredKeys(), 0u);
    for (const int ends : call_ends_) EXPECT_EQ(ends, 1);
  }

 private:
  // Checks what the bystander got from the server before, then starts a new
  // server, to which the bystander connects.
  void Start() {
    CheckBystander();
    server_ = std::make_unique<SocketServer>(&loop_, &widget_, kLimits);
    is_shutting_down_ = false;
    has_shut_down_ = false;
    hosts_ = {};
    auto pair = ConnectedPair();
    ASSERT_TRUE(server_->Adopt(pair->first.Release()).ok());
    bystander_.emplace(std::move(pair->second), Greeting());
    for (std::uint8_t i = 0; i < kEventTypes; ++i) {
      bystander_->Send(OpenFrame(i + 1u, kFirstStream + i));
      bystander_->Send(NextFrame(i + 1u, Subscribe(kBystandersBrowser)));
    }
    loop_.RunUntilIdle();
  }

  // Reset before it is destroyed, so that code that its end runs does not use
  // it.
  void Destroy() { const auto dying = std::move(server_); }

  void Connect(std::unique_ptr<Host>& place) {
    auto pair = ConnectedPair();
    place.reset();
    // Fails if too many clients have left without the server having noticed.
    if (!server_->Adopt(pair->first.Release()).ok()) return;
    place = std::make_unique<Host>(
        Host{RawPeer(std::move(pair->second), Greeting()), {}, {}});
  }

  static void Send(Host& host, const Step& step) {
    StreamMessage frame;
    frame.set_kind(static_cast<StreamMessage::Kind>(
        step.kind % (StreamMessage::Kind_ARRAYSIZE + 1)));
    frame.set_stream_id(step.id);
    std::uint32_t method = step.method % (kMethods + 1);
    if (frame.kind() == StreamMessage::KIND_OPEN) {
      host.opened.emplace(step.id, method);
    }
    if (frame.kind() == StreamMessage::KIND_CALL ||
        frame.kind() == StreamMessage::KIND_OPEN) {
      frame.set_method(method);
    } else if (const auto opened = host.opened.find(step.id);
               opened != host.opened.end()) {
      // Usually a message of the stream.
      frame.set_call_id(step.method);
      if (step.method != 0xff) method = opened->second;
    }
    frame.set_payload(
        Payload(method, step.browser % kBrowsers, step.variant, step.damage));
    host.peer.Send(frame);
  }

  static void AnswerCall(Host& host, const Step& step) {
    if (host.calls.empty()) return;
    StreamMessage frame = host.calls[step.id % host.calls.size()];
    const auto stream = host.opened.find(frame.stream_id());
    if (stream == host.opened.end()) return;
    if (step.kind % 2 == 1) frame.set_kind(StreamMessage::KIND_ERROR);
    frame.set_payload(Payload(stream->second, step.browser % kBrowsers,
                              kResponse, step.damage));
    host.peer.Send(frame);
  }

  // Also reads what the clients were sent, so that they notice the end of their
  // connections: a server that shuts down ends them once it has answered all
  // calls.
  void Settle() {
    loop_.RunUntilIdle();
    CheckBystander();
    for (auto& host : hosts_) {
      if (host == nullptr) continue;
      host->peer.Receive();
      for (StreamMessage& frame : host->peer.frames) {
        if (frame.call_id() != 0) host->calls.push_back(std::move(frame));
      }
      host->peer.frames.clear();
      if (host->peer.closed) host.reset();
    }
    if (is_shutting_down_ && server_ != nullptr && widget_.held.empty()) {
      EXPECT_EQ(server_->connections(), 0u);
      EXPECT_TRUE(has_shut_down_);
    }
  }

  void CheckBystander() {
    if (!bystander_.has_value()) return;
    loop_.RunUntilIdle();
    bystander_->frames.clear();
    bystander_->Receive();
    std::vector<std::uint64_t> got;
    for (const StreamMessage& frame : bystander_->frames) {
      EXPECT_NE(frame.kind(), StreamMessage::KIND_ERROR) << InWords(frame);
      if (frame.kind() == StreamMessage::KIND_NEXT)
        got.push_back(frame.stream_id());
    }
    EXPECT_EQ(got, std::exchange(due_, {}));
    EXPECT_EQ(bystander_->closed, server_ == nullptr || is_shutting_down_);
  }

  void PublishOne(const Step& step) {
    // While a server ends, it is not defined who still gets the event.
    if (server_ == nullptr) return;
    const std::uint8_t type = step.kind % kEventTypes;
    const std::uint64_t browser = step.browser % kBrowsers;
    const std::size_t took = kPublishers[type](browser);
    if (browser != kBystandersBrowser || is_shutting_down_) return;
    EXPECT_GE(took, 1u);
    due_.push_back(type + 1u);
  }

  void CallHost(const Step& step) {
    constexpr std::array kTimeouts = {absl::InfiniteDuration(), absl::Hours(1),
                                      absl::ZeroDuration(), -absl::Seconds(1)};
    int& ends = call_ends_.emplace_back(0);
    handles_.push_back(kCallers[step.kind % kCallTypes](
        step.browser % kBrowsers,
        [this, &ends] {
          ++ends;
          React();
        },
        {.timeout = kTimeouts[step.variant % kTimeouts.size()]}));
  }

  void Cancel(const Step& step) {
    if (!handles_.empty()) handles_[step.id % handles_.size()].Cancel();
  }

  void AnswerHeld(const Step& step) {
    if (widget_.held.empty()) return;
    const auto at = widget_.held.begin() +
                    static_cast<std::ptrdiff_t>(step.id % widget_.held.size());
    const StreamingWidget::HeldCall call = *at;
    widget_.held.erase(at);
    watched_.erase(call.controller);
    if (step.variant % 2 == 1) call.controller->SetFailed("no");
    call.done->Run();
  }

  void WatchHeld(const Step& step) {
    if (widget_.held.empty()) return;
    const auto& call = widget_.held[step.id % widget_.held.size()];
    if (!watched_.insert(call.controller).second) return;
    call.controller->NotifyOnCancel(new Then([this] { React(); }));
  }

  // Called inside a handler or continuation. `method` is the reaction's kind.
  void React() {
    if (!reaction_.has_value() || reactions_ == kMaxReactions) return;
    ++reactions_;
    const Step step = *reaction_;
    switch (step.method % 6) {
      case 0:
        return PublishOne(step);
      case 1:
        return CallHost(step);
      case 2:
        return Cancel(step);
      case 3:
        return AnswerHeld(step);
      case 4:
        return ShutDown(step);
      default:
        return Destroy();
    }
  }

  void ShutDown(const Step& step) {
    if (server_ == nullptr) return;
    // A second call does nothing.
    const bool is_first = !std::exchange(is_shutting_down_, true);
    server_->Shutdown(
        step.variant % 2 == 0 ? absl::ZeroDuration() : absl::Hours(1),
        [this, is_first] {
          EXPECT_TRUE(is_first);
          EXPECT_FALSE(std::exchange(has_shut_down_, true));
        });
  }

  EventLoop loop_;
  StreamingWidget widget_;
  std::set<google::protobuf::RpcController*> watched_;  // Of the held calls.
  std::optional<Step> reaction_;
  int reactions_ = 0;

  std::unique_ptr<SocketServer> server_;
  bool is_shutting_down_ = false;
  bool has_shut_down_ = false;

  std::array<std::unique_ptr<Host>, 3> hosts_;
  std::optional<RawPeer> bystander_;
  std::vector<std::uint64_t> due_;  // By the bystander's stream.

  std::deque<int> call_ends_;  // Of each call that was made.
  std::vector<CallHandle> handles_;
};

}  // namespace
}  // namespace orvane::testing

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  orvane::testing::Play play;
  const std::size_t steps = std::min(size / sizeof(orvane::testing::Step),
                                     orvane::testing::kMaxSteps);
  for (std::size_t i = 0; i < steps; ++i) {
    orvane::testing::Step step;
    std::memcpy(&step, data + i * sizeof step, sizeof step);
    play.Take(step);
  }
  play.End();
  return 0;
}
