// For tests: a server whose widget has streams, and clients of any kind for it.

#ifndef ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_STREAM_FIXTURE_H_
#define ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_STREAM_FIXTURE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "google/protobuf/service.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/transport/stream_message.pb.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/frames.h"
#include "zimbrel/src/core/common/rpc/testing/link.h"
#include "zimbrel/src/core/common/rpc/testing/raw_peer.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

namespace orvane::testing {

// How many keys the registries of all twelve kinds of stream hold.
inline std::size_t RegisteredKeys() {
  const auto of_events = []<typename... T>() {
    return (EventStream<T>::stream_map_.size() + ...);
  };
  const auto of_callbacks = []<typename... T>() {
    return (CallbackStream<T>::stream_map_.size() + ...);
  };
  return of_events.
         operator()<rpc::CursorChanged, rpc::TooltipChanged,
                    rpc::DropDownCreated, rpc::DropDownDeleted,
                    rpc::DragCursorUpdated, rpc::AriaLiveRegionChanged>() +
         of_callbacks.
         operator()<rpc::CreateWebDialog, rpc::UpdateSurface, rpc::UpdateLayer,
                    rpc::ShowDropdown, rpc::TakeFocus,
                    rpc::AccessibilityRequestFocus>();
}

// How many streams are listed for the tooltips of a browser.
inline std::size_t ListedForTooltips(std::uint64_t browser) {
  const BrowserId key = Browser(browser);
  const auto& registry = EventStream<rpc::TooltipChanged>::stream_map_;
  const auto entry = registry.find(&key);
  return entry == registry.end() ? 0 : entry->second.size();
}

// Show answers after it has done what the test put there, Hide when the test
// says so. No other call is served; all streams are.
class StreamingWidget final : public rpc::BrowserWidgetRpc {
 public:
  struct HeldCall {
    google::protobuf::RpcController* controller;
    google::protobuf::Closure* done;
  };

  void Show(google::protobuf::RpcController*, const BrowserId* request,
            google::protobuf::Empty*,
            google::protobuf::Closure* done) override {
    on_show(request->value());
    done->Run();
  }
  void Hide(google::protobuf::RpcController* controller, const BrowserId*,
            google::protobuf::Empty*,
            google::protobuf::Closure* done) override {
    held.push_back({controller, done});
  }

  std::function<void(std::uint64_t browser)> on_show = [](std::uint64_t) {};
  std::vector<HeldCall> held;
};

// Fails a test that leaves a key in a registry.
class StreamFixture : public ::testing::Test {
 protected:
  explicit StreamFixture(ServerLimits limits = {}) {
    EXPECT_EQ(RegisteredKeys(), 0u);
    server.emplace(&loop, &widget, limits);
  }
  ~StreamFixture() override {
    server.reset();
    loop.RunUntilIdle();
    EXPECT_EQ(RegisteredKeys(), 0u);
  }

  // Lets everything happen that can. What the client has been told since the
  // last time is in `client->frames`, and returned in words.
  std::vector<std::string> Settle(RawPeer* client) {
    loop.RunUntilIdle();
    client->frames.clear();
    client->Receive();
    std::vector<std::string> words;
    for (const auto& frame : client->frames) words.push_back(InWords(frame));
    return words;
  }

  // Calls the client that serves a browser. How that ends is told to `ends`,
  // with the question in front.
  CallHandle Ask(std::uint64_t browser, const std::string& question) {
    rpc::CreateWebDialogCall dialog;
    dialog.mutable_prompt()->set_message(question);
    return Call<rpc::CreateWebDialog>(
        Browser(browser), std::move(dialog),
        [this,
         question](const absl::StatusOr<rpc::CreateWebDialogResponse>& answer) {
          ends.push_back(absl::StrCat(
              question, " ",
              answer.ok() ? answer->text()
                          : absl::StatusCodeToString(answer.status().code())));
        });
  }

  EventLoop loop;
  StreamingWidget widget;
  std::optional<SocketServer> server;
  std::vector<std::string> ends;
};

}  // namespace orvane::testing

#endif  // ZIMBREL_SRC_CORE_COMMON_RPC_TESTING_STREAM_FIXTURE_H_
