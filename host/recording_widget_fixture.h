// For tests: a widget that records what a host calls, at the other end of a
// pair of sockets.

#ifndef HOST_RECORDING_WIDGET_FIXTURE_H_
#define HOST_RECORDING_WIDGET_FIXTURE_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "absl/strings/strip.h"
#include "google/protobuf/descriptor.h"
#include "google/protobuf/message.h"
#include "google/protobuf/service.h"
#include "gtest/gtest.h"

#include "host/input_calls.h"
#include "rpc/browser/browser_widget.rpc.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"
#include "zimbrel/src/core/common/rpc/testing/link.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

namespace orvane::host {

// Answers every call, or holds it until AnswerAll; fails those in `failing`.
class RecordingWidget final : public rpc::BrowserWidgetRpc {
 public:
  void CallMethod(const google::protobuf::MethodDescriptor* method,
                  google::protobuf::RpcController* controller,
                  const google::protobuf::Message* request,
                  google::protobuf::Message*,
                  google::protobuf::Closure* done) override {
    const std::string name(absl::StripPrefix(method->name(), "Forward"));
    requests.emplace_back(request->New())->CopyFrom(*request);
    calls.push_back(name + Describe(*request));
    if (failing.contains(name)) controller->SetFailed("refused");
    if (is_holding) {
      held.push_back(done);
    } else {
      done->Run();
    }
  }

  void AnswerAll() {
    for (google::protobuf::Closure* done : std::exchange(held, {})) done->Run();
  }

  bool is_holding = false;
  std::set<std::string> failing;  // Names without "Forward".
  std::vector<google::protobuf::Closure*> held;
  std::vector<std::string> calls;  // In words, such as "MouseMove 3,4".
  std::vector<std::unique_ptr<google::protobuf::Message>> requests;

 private:
  // What matters in most tests: position, buttons held, button, clicks, and the
  // operation of a drag.
  static std::string Describe(const google::protobuf::Message& request) {
    const google::protobuf::Reflection& fields = *request.GetReflection();
    const google::protobuf::Descriptor& type = *request.GetDescriptor();
    std::string words;
    if (const auto* pointer = type.FindFieldByName("pointer"))
      words += Describe(fields.GetMessage(request, pointer));
    if (const auto* position = type.FindFieldByName("position")) {
      const auto& at = static_cast<const rpc::PointDip&>(
          fields.GetMessage(request, position));
      absl::StrAppend(&words, " ", at.x(), ",", at.y());
    }
    if (const auto* buttons = type.FindFieldByName("buttons")) {
      if (const std::uint32_t held = fields.GetUInt32(request, buttons))
        absl::StrAppend(&words, " held ", held);
    }
    if (const auto* button = type.FindFieldByName("button")) {
      absl::StrAppend(&words, " ",
                      absl::StripPrefix(fields.GetEnum(request, button)->name(),
                                        "MOUSE_BUTTON_"));
    }
    if (const auto* count = type.FindFieldByName("click_count"))
      absl::StrAppend(&words, " x", fields.GetUInt32(request, count));
    if (const auto* operation = type.FindFieldByName("operation")) {
      absl::StrAppend(
          &words, " ",
          absl::StripPrefix(fields.GetEnum(request, operation)->name(),
                            "DRAG_OPERATION_"));
    }
    return words;
  }
};

class RecordingWidgetFixture : public ::testing::Test {
 protected:
  // What the widget was called since the last time, in words.
  std::vector<std::string> Calls() {
    loop.RunUntilIdle();
    return std::exchange(widget.calls, {});
  }

  // The latest request, which must be a T.
  template <typename T>
  T Latest() {
    loop.RunUntilIdle();
    EXPECT_FALSE(widget.requests.empty());
    const auto* const latest =
        dynamic_cast<const T*>(widget.requests.back().get());
    EXPECT_NE(latest, nullptr) << "a " << widget.requests.back()->GetTypeName();
    return latest == nullptr ? T() : *latest;
  }

  const BrowserId kBrowser = testing::Browser(7);
  EventLoop loop;
  RecordingWidget widget;
  std::optional<SocketServer> server{std::in_place, &loop, &widget};
  const std::unique_ptr<SocketClient> connection =
      testing::Connect(&loop, *server);
  std::optional<InputCalls> calls{std::in_place, connection.get(), kBrowser};
};

}  // namespace orvane::host

#endif  // HOST_RECORDING_WIDGET_FIXTURE_H_
