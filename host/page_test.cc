#include "host/page.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "rpc/browser/browser_widget.rpc.h"
#include "rpc/browser/page.rpc.h"
#include "zimbrel/src/core/common/rpc/stream/call.h"
#include "zimbrel/src/core/common/rpc/stream/publish.h"
#include "zimbrel/src/core/common/rpc/testing/keys.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_server.h"

namespace orvane::host {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Records its calls in words, and tells the page that it has.
class PageServer final : public rpc::PageRpc {
 public:
  void CallMethod(const google::protobuf::MethodDescriptor* method,
                  google::protobuf::RpcController* controller,
                  const google::protobuf::Message* request,
                  google::protobuf::Message* response,
                  google::protobuf::Closure* done) override {
    if (method->name() == "GetPage") {
      static_cast<rpc::PageState*>(response)->set_title("First");
    } else if (method->name() == "Load") {
      const auto& load = static_cast<const rpc::LoadRequest&>(*request);
      calls.push_back("Load " + load.address());
      if (load.address() == "gopher://") controller->SetFailed("not allowed");
    } else {
      calls.push_back(method->name());
    }
    done->Run();
  }

  std::vector<std::string> calls;
};

class PageTest : public ::testing::Test {
 protected:
  void StartWidget() {
    server_.emplace(&loop_, &service_);
    EXPECT_EQ(server_->Listen(socket_), absl::OkStatus());
  }
  void Connect() {
    page_->Connect();
    loop_.RunUntilIdle();
  }
  std::vector<std::string> Calls() {
    loop_.RunUntilIdle();
    return std::exchange(service_.calls, {});
  }

  const orvane::testing::TemporaryFolder folder_;
  const std::string socket_ = folder_.path() + "/widget.sock";
  EventLoop loop_;
  PageServer service_;
  std::optional<SocketServer> server_;
  std::vector<std::string> titles_;  // "gone" once the widget has gone.
  std::vector<std::string> windows_;
  std::optional<Page> page_{
      std::in_place, &loop_, socket_, testing::Browser(7),
      PageHandlers{.on_state =
                       [this](const rpc::PageState* state) {
                         titles_.push_back(state == nullptr ? "gone"
                                                            : state->title());
                       },
                   .on_open_window =
                       [this](const rpc::OpenWindowCall& call) {
                         windows_.push_back(call.address());
                         return call.is_user_gesture();
                       }}};
};

TEST(AddressOfTest, AWholeAddressStaysAsItIs) {
  EXPECT_EQ(AddressOf("https://example.com/a:b"), "https://example.com/a:b");
  EXPECT_EQ(AddressOf("about:blank"), "about:blank");
  EXPECT_EQ(AddressOf("data:text/html,hello"), "data:text/html,hello");
}

TEST(AddressOfTest, WhatLacksTheSchemeGetsIt) {
  EXPECT_EQ(AddressOf(" example.com "), "https://example.com");
  EXPECT_EQ(AddressOf("example.com:8443/x"), "https://example.com:8443/x");
  EXPECT_EQ(AddressOf("localhost:8080"), "http://localhost:8080");
  EXPECT_EQ(AddressOf("127.0.0.1/x"), "http://127.0.0.1/x");
  EXPECT_EQ(AddressOf("/srv/index.html"), "file:///srv/index.html");
}

TEST_F(PageTest, ThePageIsToldAtOnceAndWhenItChanges) {
  StartWidget();
  Connect();
  EXPECT_THAT(titles_, ElementsAre("First"));
  rpc::PageChanged event;
  event.mutable_state()->set_title("Second");
  Publish<rpc::PageChanged>(testing::Browser(7), event);
  loop_.RunUntilIdle();
  EXPECT_THAT(titles_, ElementsAre("First", "Second"));
}

TEST_F(PageTest, AWidgetWithoutThePageServiceTellsNothing) {
  rpc::BrowserWidgetRpc other;
  SocketServer server(&loop_, &other);
  ASSERT_EQ(server.Listen(socket_), absl::OkStatus());
  Connect();
  page_->Reload();
  page_->Load("https://example.com");
  loop_.RunUntilIdle();
  EXPECT_THAT(titles_, IsEmpty());
}

TEST_F(PageTest, EachButtonIsACall) {
  StartWidget();
  page_->Reload();  // There is no widget yet.
  Connect();
  page_->Load("https://example.com");
  page_->Reload();
  page_->Stop();
  page_->GoBack();
  page_->GoForward();
  EXPECT_THAT(Calls(), ElementsAre("Load https://example.com", "Reload", "Stop",
                                   "GoBack", "GoForward"));
}

TEST_F(PageTest, AnAddressThatIsRefusedIsToldInWords) {
  StartWidget();
  Connect();
  absl::Status answered;
  page_->Load("gopher://",
              [&](const absl::StatusOr<google::protobuf::Empty>& answer) {
                answered = answer.status();
              });
  loop_.RunUntilIdle();
  EXPECT_EQ(answered.message(), "not allowed");
}

TEST_F(PageTest, APageMayEndBeforeTheAnswer) {
  StartWidget();
  Connect();
  bool is_answered = false;
  page_->Load("https://example.com", [&](const auto&) { is_answered = true; });
  page_.reset();
  loop_.RunUntilIdle();
  EXPECT_FALSE(is_answered);
}

TEST_F(PageTest, TheHostDecidesAboutWindows) {
  StartWidget();
  Connect();
  rpc::OpenWindowCall call;
  call.set_address("https://example.com/popup");
  call.set_is_user_gesture(true);
  std::optional<bool> is_loaded_here;
  Call<rpc::OpenWindow>(
      testing::Browser(7), call,
      [&](const absl::StatusOr<rpc::OpenWindowResponse>& answer) {
        is_loaded_here = answer->load_here();
      });
  loop_.RunUntilIdle();
  EXPECT_THAT(windows_, ElementsAre("https://example.com/popup"));
  EXPECT_EQ(is_loaded_here, true);
}

TEST_F(PageTest, ThePageIsNotKnownOnceTheWidgetHasGone) {
  StartWidget();
  Connect();
  server_.reset();
  loop_.RunUntilIdle();
  page_->Reload();
  EXPECT_THAT(titles_, ElementsAre("First", "gone"));
  StartWidget();
  Connect();
  EXPECT_THAT(titles_, ElementsAre("First", "gone", "First"));
}

}  // namespace
}  // namespace orvane::host
