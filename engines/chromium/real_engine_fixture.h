// For tests with the system's engine: the program, driven by a host through its
// socket. Pages say what they saw in live regions, which reach the host as
// events.

#ifndef ENGINES_CHROMIUM_REAL_ENGINE_FIXTURE_H_
#define ENGINES_CHROMIUM_REAL_ENGINE_FIXTURE_H_

#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/ascii.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "gtest/gtest.h"

#include "engines/chromium/engine.h"
#include "engines/chromium/engine_process.h"
#include "host/pixels.h"
#include "rpc/browser/browser_widget.client.h"
#include "rpc/browser/page.client.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/testing/text.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace chromium::testing {

using Stream = std::unique_ptr<orvane::ClientStream>;

// A page or an image as an address.
inline std::string AddressOf(const std::string& content,
                             const std::string& type = "text/html") {
  std::string address = "data:" + type + ";charset=utf-8,";
  for (const char byte : content) {
    if (absl::ascii_isalnum(static_cast<unsigned char>(byte))) {
      address += byte;
    } else {
      absl::StrAppend(
          &address, "%",
          absl::Hex(static_cast<unsigned char>(byte), absl::kZeroPad2));
    }
  }
  return address;
}

// What each page begins with: no margins, and a way to tell the test something.
inline constexpr char kBegin[] =
    "<!DOCTYPE html><body style='margin:0;background:rgb(0,128,0)'>"
    "<script>const tell = (text) => {"
    "  const region = document.createElement('div');"
    "  region.setAttribute('aria-live', 'polite');"
    "  region.style.display = 'none';"
    "  region.textContent = text;"
    "  document.documentElement.append(region); };"
    "const tellOf = (type, what) =>"
    "  addEventListener(type, (event) => tell(what(event)));</script>";

// Browser 1 at 320 x 200 DIPs, shown.
class RealEngineFixture : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string engine = EngineCommand().path;
    if (!std::filesystem::exists(engine)) {
      GTEST_SKIP() << "no engine at " << engine
                   << "; install chromium-headless-shell";
    }
    static const absl::Status* const started = new absl::Status(StartAlone());
    for (const char* const part_of_the_sandbox : {"sandbox", "zygote"}) {
      if (absl::StrContains(started->message(), part_of_the_sandbox))
        GTEST_SKIP() << "the engine has no sandbox here: " << *started;
    }
  }

  // Whether the engine comes up at all. Some containers forbid what its sandbox
  // is made of, and it never runs without.
  static absl::Status StartAlone() {
    orvane::EventLoop loop;
    Engine engine(&loop, [&] { return LaunchEngine(&loop, EngineCommand()); });
    return engine.Start();
  }

  void Open(const std::string& body, std::vector<std::string> options = {}) {
    OpenAddress(AddressOf(kBegin + body), std::move(options));
    AwaitPage();
  }

  // Waits until the page takes input: it can be seen before all of it is there.
  void AwaitPage() {
    // Before it there is an empty page, which is white.
    AwaitPicture([this](const orvane::host::Picture&) {
      return PixelAt(0, 199) != 0xffffff;
    });
    loop_.RunUntil([this] { return !state_.is_loading(); });
  }

  // Starts the program with that page, connects to it, and follows the page's
  // state.
  void Start(const std::string& address, std::vector<std::string> options) {
    std::vector<std::string> command = {ORVANE_CHROMIUM, "--socket=" + socket(),
                                        "--page=1=" + address};
    command.insert(command.end(), options.begin(), options.end());
    server_ =
        std::make_unique<orvane::testing::ChildProcess>(std::move(command));
    ASSERT_EQ(server_->ReadLine(), "orvane-chromium listens at " + socket());
    connection_ = Connect();
    widget_.emplace(connection_.get());
    page_connection_ = Connect();
    pages_.emplace(page_connection_.get());
    browser_.set_value(1);
    Watch();
  }

  void Watch() {
    watching_ = pages_->WhenPageChanged(
        browser_,
        [this](const rpc::PageChanged& event) { state_ = event.state(); });
    const auto state = pages_->GetPage(browser_);
    ASSERT_TRUE(state.ok()) << state.status();
    state_ = *state;
  }

  void OpenAddress(const std::string& address,
                   std::vector<std::string> options = {}) {
    Start(address, std::move(options));
    ServeDialogs();
    ServeSurfaces();
    reports_ = widget_->WhenAriaLiveRegionChanged(
        browser_, [this](const rpc::AriaLiveRegionChanged& event) {
          told_.emplace_back(event.text());
        });
    auto attach = New<rpc::AttachRequest>();
    attach.mutable_bounds()->set_width(320);
    attach.mutable_bounds()->set_height(200);
    ASSERT_TRUE(widget_->Attach(attach).ok());
    ASSERT_TRUE(widget_->GetAccessibilityToken(browser_).ok());
    ASSERT_TRUE(widget_->Show(browser_).ok());
  }

  std::string socket() const { return folder_.path() + "/widget.sock"; }

  std::unique_ptr<orvane::SocketClient> Connect() {
    auto connected = orvane::SocketClient::Connect(&loop_, socket());
    EXPECT_TRUE(connected.ok()) << connected.status();
    return *std::move(connected);
  }

  template <typename Request>
  Request New(const std::string& text = "") const {
    auto request = orvane::testing::Parsed<Request>(text);
    *request.mutable_browser_id() = browser_;
    return request;
  }

  // Answers dialogs as the test says.
  void ServeDialogs() {
    dialogs_ = widget_->OnCreateWebDialog(
        browser_, [this](const rpc::CreateWebDialogCall& call,
                         orvane::Responder<rpc::CreateWebDialog> responder) {
          asked_.push_back(call);
          EXPECT_TRUE(std::move(responder).Respond(answer_).ok());
        });
  }

  // Presents every picture and keeps the latest.
  void ServeSurfaces() {
    surfaces_ = widget_->OnUpdateSurface(
        browser_, [this](const rpc::UpdateSurfaceCall& call,
                         orvane::Responder<rpc::UpdateSurface> responder) {
          EXPECT_EQ(picture_.Update(call.frame()), absl::OkStatus());
          frame_ = call.frame();
          rpc::UpdateSurfaceResponse answer;
          answer.mutable_receipt()->set_frame_id(call.frame().frame_id());
          answer.mutable_receipt()->set_outcome(rpc::FRAME_OUTCOME_PRESENTED);
          EXPECT_TRUE(std::move(responder).Respond(answer).ok());
        });
  }

  // Waits for a picture of which that is true.
  void AwaitPicture(
      const std::function<bool(const orvane::host::Picture&)>& is_right) {
    loop_.RunUntil([&] { return !picture_.is_empty() && is_right(picture_); });
  }
  std::uint32_t PixelAt(std::size_t x, std::size_t y) const {
    const auto width = static_cast<std::size_t>(picture_.width());
    const auto bgra = picture_.pixels().subspan(4 * (y * width + x), 4);
    return static_cast<std::uint32_t>(bgra[2] << 16 | bgra[1] << 8 | bgra[0]);
  }
  void AwaitColor(std::size_t x, std::size_t y, std::uint32_t rgb) {
    AwaitPicture(
        [&](const orvane::host::Picture&) { return PixelAt(x, y) == rgb; });
  }

  // Waits until the page has told something; returns it.
  std::string Told() {
    loop_.RunUntil([this] { return !told_.empty(); });
    std::string text = told_.front();
    told_.erase(told_.begin());
    return text;
  }

  // Waits until it has told this, whatever it tells before.
  void AwaitTold(const std::string& text) {
    while (Told() != text) {
    }
  }

  std::string At(int x, int y, const std::string& more = "") const {
    return absl::StrCat("pointer { position { x: ", x, " y: ", y, " } ", more,
                        " } ");
  }
  void Move(int x, int y) {
    EXPECT_TRUE(
        widget_->ForwardMouseMove(New<rpc::MouseMoveRequest>(At(x, y))).ok());
  }
  void Click(int x, int y) {
    const std::string button = "button: MOUSE_BUTTON_PRIMARY click_count: 1";
    EXPECT_TRUE(widget_
                    ->ForwardMousePress(New<rpc::MousePressRequest>(
                        At(x, y, "buttons: 1") + button))
                    .ok());
    EXPECT_TRUE(widget_
                    ->ForwardMouseRelease(
                        New<rpc::MouseReleaseRequest>(At(x, y) + button))
                    .ok());
  }
  void Focus(const std::string& reason) {
    EXPECT_TRUE(
        widget_->Focus(New<rpc::FocusRequest>("reason: FOCUS_REASON_" + reason))
            .ok());
  }
  void Press(const std::string& key) {
    EXPECT_TRUE(
        widget_
            ->ForwardKeyPress(New<rpc::KeyPressRequest>("key { " + key + " }"))
            .ok());
  }
  void Release(const std::string& key) {
    EXPECT_TRUE(widget_
                    ->ForwardKeyRelease(
                        New<rpc::KeyReleaseRequest>("key { " + key + " }"))
                    .ok());
  }
  void Type(const std::string& text, const std::string& more = "") {
    EXPECT_TRUE(widget_
                    ->ForwardKeyType(New<rpc::KeyTypeRequest>(
                        absl::StrCat("text: '", text, "' ", more)))
                    .ok());
  }

  // As nobody, if this is root.
  void LetTheEngineReadFiles() {
    ::chmod(files_.path().c_str(), 0755);
    for (const auto& entry :
         std::filesystem::recursive_directory_iterator(files_.path())) {
      std::filesystem::permissions(entry, std::filesystem::perms(0755));
    }
  }

  // The engine, a child of the program's.
  pid_t EnginePid() const {
    const std::string pid = absl::StrCat(ServerPid());
    std::ifstream children("/proc/" + pid + "/task/" + pid + "/children");
    pid_t child = 0;
    children >> child;
    return child;
  }
  pid_t ServerPid() const {
    const std::string self = absl::StrCat(::getpid());
    std::ifstream children("/proc/" + self + "/task/" + self + "/children");
    pid_t child = 0;
    children >> child;
    return child;
  }

  orvane::EventLoop loop_;
  const orvane::testing::TemporaryFolder folder_;  // Of the socket.
  const orvane::testing::TemporaryFolder files_;
  std::unique_ptr<orvane::testing::ChildProcess> server_;
  std::unique_ptr<orvane::SocketClient> connection_;
  std::optional<rpc::BrowserWidgetRpcClient> widget_;
  std::unique_ptr<orvane::SocketClient> page_connection_;
  std::optional<rpc::PageRpcClient> pages_;
  BrowserId browser_;
  rpc::PageState state_;
  Stream watching_;
  Stream reports_;
  Stream dialogs_;
  Stream surfaces_;
  std::vector<std::string> told_;
  std::vector<rpc::CreateWebDialogCall> asked_;
  rpc::CreateWebDialogResponse answer_;  // To what is asked.
  orvane::host::Picture picture_;
  rpc::PixelFrame frame_;
};

}  // namespace chromium::testing

#endif  // ENGINES_CHROMIUM_REAL_ENGINE_FIXTURE_H_
