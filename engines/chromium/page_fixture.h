// For tests: a browser between a host and an engine that does what the test
// says.

#ifndef ENGINES_CHROMIUM_PAGE_FIXTURE_H_
#define ENGINES_CHROMIUM_PAGE_FIXTURE_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "gtest/gtest.h"

#include "engines/chromium/addresses.h"
#include "engines/chromium/engine.h"
#include "engines/chromium/engine_fixture.h"
#include "engines/chromium/json.h"
#include "engines/chromium/page.h"
#include "engines/chromium/page_service.h"
#include "examples/widget_server/widget_service.h"
#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/testing/text.h"
#include "zimbrel/src/core/common/rpc/transport/in_process.h"
#include "zimbrel/src/core/common/rpc/transport/unix_socket.h"

namespace chromium::testing {

// Browser 1, whose target, session and window the engine calls "target",
// "session" and 7. The host drives it through a socket.
class PageFixture : public ::testing::Test {
 protected:
  PageFixture() {
    LaunchEngine();
    EXPECT_EQ(StartEngine(), absl::OkStatus());
    auto connected = orvane::ConnectInProcess(&loop_, &server_);
    EXPECT_TRUE(connected.ok()) << connected.status();
    connection_ = *std::move(connected);
    host_.emplace(connection_.get());
    browser_.set_value(1);
  }

  // A new engine, which the next launch connects to.
  void LaunchEngine() {
    auto pair = orvane::ConnectedPair();
    ASSERT_TRUE(pair.ok());
    scripted_ =
        std::make_unique<ScriptedEngine>(&loop_, std::move(pair->second));
    launched_.emplace(std::move(pair->first));
    scripted_->ReplyTo("Target.createTarget", {{"targetId", "target"}});
    scripted_->ReplyTo("Target.attachToTarget", {{"sessionId", "session"}});
    scripted_->ReplyTo("Browser.getWindowForTarget", {{"windowId", 7}});
    scripted_->ReplyTo("Emulation.getScreenInfos",
                       {{"screenInfos", {{{"id", "screen"}}}}});
    scripted_->ReplyTo("Page.addScriptToEvaluateOnNewDocument",
                       {{"identifier", "1"}});
  }

  // Start waits for replies.
  absl::Status StartEngine() {
    loop_.Post([this] {
      AnswerTheVersion();
      scripted_->Settle();
    });
    absl::Status status = engine_.Start();
    scripted_->Settle();
    return status;
  }
  void AnswerTheVersion() {
    scripted_->SendMessage({{"id", 1}, {"result", {{"product", "Test/1"}}}});
  }

  template <typename Request>
  Request New(const std::string& text = "") const {
    auto request = orvane::testing::Parsed<Request>(text);
    *request.mutable_browser_id() = browser_;
    return request;
  }

  // A call of the host's, whatever comes of it at the engine.
  template <typename Request, typename Method>
  absl::Status Call(Method method, const std::string& text = "") {
    const absl::Status status =
        ((*host_).*method)(New<Request>(text), {}).status();
    scripted_->Settle();
    return status;
  }

  // 320 x 200 DIPs, not shown.
  void Attach() {
    auto request = New<rpc::AttachRequest>();
    request.mutable_bounds()->set_width(320);
    request.mutable_bounds()->set_height(200);
    const auto result = host_->Attach(request);
    ASSERT_TRUE(result.ok()) << result.status();
    EXPECT_TRUE(result->attached()) << result->refusal();
    scripted_->Settle();
  }
  void Show() {
    EXPECT_TRUE(host_->Show(browser_).ok());
    scripted_->Settle();
  }

  // The engine tells something about the page.
  void Tell(const std::string& method, Json params = Json::object()) {
    scripted_->SendEvent(method, std::move(params), "session");
    scripted_->Settle();
  }
  // The main frame has a document, with our script in it.
  void TellOfDocument(int context = 5) {
    Tell("Runtime.executionContextCreated",
         {{"context",
           {{"id", context},
            {"name", "orvane"},
            {"auxData", {{"frameId", "target"}}}}}});
  }
  void Report(Json report, int context = 5) {
    Tell("Runtime.bindingCalled", {{"name", "orvaneReport"},
                                   {"payload", PrintJson(report)},
                                   {"executionContextId", context}});
  }

  // The scripts that were run in the page since the last look, but for the one
  // that asks whether it responds.
  std::vector<std::string> Scripts() {
    std::vector<std::string> scripts;
    for (const Json& params : scripted_->Params("Runtime.evaluate")) {
      if (Text(params, "expression") != "0")
        scripts.push_back(Text(params, "expression"));
    }
    return scripts;
  }

  orvane::EventLoop loop_;
  const orvane::testing::TemporaryFolder downloads_;
  std::unique_ptr<ScriptedEngine> scripted_;
  std::optional<orvane::OwnedDescriptor> launched_;
  int launches_ = 0;
  Engine engine_{&loop_, [this]() -> absl::StatusOr<LaunchedEngine> {
                   ++launches_;
                   return LaunchedEngine{nullptr, std::move(*launched_)};
                 }};
  const Addresses addresses_;
  PageService page_service_{/*allows_scripts=*/true};
  widget_server::WidgetService service_{
      {1}, [this](std::uint64_t browser, rpc::BrowserWidgetRpc* service) {
        auto page = std::make_shared<Page>(
            Page::Context{&loop_, &engine_, &addresses_, &page_service_,
                          downloads_.path()},
            browser, "https://first.example/", service);
        page_service_.Add(browser, page.get());
        return page;
      }};
  orvane::SocketServer server_{&loop_, {&service_, &page_service_}};
  std::unique_ptr<orvane::SocketClient> connection_;
  std::optional<rpc::BrowserWidgetRpcClient> host_;
  BrowserId browser_;
};

}  // namespace chromium::testing

#endif  // ENGINES_CHROMIUM_PAGE_FIXTURE_H_
