// What a browser's view costs, and how late it is, with the engine of the
// system's packages. A host in this process shows a page of text with a mark
// and
//
//   click       presses the mouse button, at which the mark changes its colour,
//               and waits for the picture in which it has done so
//   animation   counts the pictures of the mark, which moves all the time
//   idle        looks at what nothing costs
//
// The command line: FIGURE --interface NAME --size WIDTHxHEIGHT --duration-ms
// N. The interfaces are "widget", which is a host of orvane-chromium, and
// "pipe", which has no widget in between: it speaks to the engine, and counts
// its pictures as they come, compressed. No widget can be faster than that.
//
// Prints one line of JSON. Processor times are of all threads, of the engine
// all processes.

#include <getopt.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/strings/escaping.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"
#include "absl/time/clock.h"
#include "absl/time/time.h"

#include "engines/chromium/engine_pipe.h"
#include "engines/chromium/engine_process.h"
#include "engines/chromium/json.h"
#include "host/pixels.h"
#include "rpc/browser/browser_widget.client.h"
#include "zimbrel/src/core/common/rpc/event_loop.h"
#include "zimbrel/src/core/common/rpc/testing/child_process.h"
#include "zimbrel/src/core/common/rpc/testing/temporary_folder.h"
#include "zimbrel/src/core/common/rpc/transport/socket_client.h"

namespace {

using chromium::Json;
using chromium::Member;
using chromium::Text;
using orvane::testing::ChildProcess;

// The mark is in the upper left corner.
constexpr char kPage[] = R"(<!DOCTYPE html>
<style>
  body { margin: 0; font: 14px sans-serif }
  #mark { position: absolute; width: 96px; height: 96px; background: #008000 }
</style>
<div id=mark></div>
<script>
  for (let i = 0; i < 200; ++i) {
    const line = document.createElement("p");
    line.textContent = `${i} `.padEnd(300, "the quick brown fox jumps over ");
    document.body.append(line);
  }
  onmousedown = (event) => {
    event.preventDefault();
    mark.style.background = mark.style.background ? "" : "#800000";
  };
</script>)";
constexpr char kAnimation[] = R"(
<script>
  const step = (time) => {
    mark.style.left = `${time / 4 % 200}px`;
    requestAnimationFrame(step);
  };
  requestAnimationFrame(step);
</script>)";

// An engine takes milliseconds for what a call takes microseconds for.
constexpr int kLonger = 10;

constexpr absl::Duration kStillTime = absl::Milliseconds(500);
constexpr absl::Duration kBound = absl::Seconds(20);

struct Options {
  std::string figure;
  std::string interface = "widget";
  int width = 800;
  int height = 600;
  absl::Duration duration = kLonger * absl::Milliseconds(300);
};

[[noreturn]] void Fail(absl::string_view why) {
  std::fprintf(stderr, "%.*s\n", static_cast<int>(why.size()), why.data());
  std::exit(1);
}

template <typename T>
T Must(absl::StatusOr<T> value) {
  if (!value.ok()) Fail(value.status().ToString());
  return *std::move(value);
}

// Other processes

// Its children, their children, and so on.
std::vector<pid_t> DescendantsOf(pid_t process) {
  std::vector<pid_t> found;
  std::error_code error;
  for (const auto& thread : std::filesystem::directory_iterator(
           absl::StrCat("/proc/", process, "/task"), error)) {
    std::ifstream children(thread.path() / "children");
    for (pid_t child = 0; children >> child;) {
      found.push_back(child);
      const std::vector<pid_t> theirs = DescendantsOf(child);
      found.insert(found.end(), theirs.begin(), theirs.end());
    }
  }
  return found;
}

std::int64_t CpuUs(const std::vector<pid_t>& processes) {
  std::int64_t sum = 0;
  for (const pid_t process : processes) {
    clockid_t clock{};
    timespec time{};
    if (::clock_getcpuclockid(process, &clock) == 0 &&
        ::clock_gettime(clock, &time) == 0) {
      sum += std::int64_t{time.tv_sec} * 1'000'000 + time.tv_nsec / 1000;
    }
  }
  return sum;
}

// What is shared counts in parts.
std::int64_t MemoryKib(const std::vector<pid_t>& processes) {
  std::int64_t sum = 0;
  for (const pid_t process : processes) {
    std::ifstream map(absl::StrCat("/proc/", process, "/smaps_rollup"));
    for (std::string word; map >> word;) {
      std::int64_t kib = 0;
      if (word == "Pss:" && map >> kib) sum += kib;
    }
  }
  return sum;
}

// The browser

class Browser {
 public:
  explicit Browser(orvane::EventLoop* loop) : loop_(loop) {}
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;
  virtual ~Browser() = default;

  // Returns before the page has seen it.
  virtual void Press() = 0;
  virtual void Release() = 0;

  // Whether the picture is another one than when the button was pressed.
  virtual bool HasChanged() const = 0;

  // Nothing if there is none.
  virtual std::vector<pid_t> Widget() const = 0;
  virtual std::vector<pid_t> Engine() const = 0;

  std::int64_t pictures() const { return pictures_; }

  void RunUntil(const std::function<bool()>& done, absl::string_view what) {
    const auto bound = loop_->RunAfter(
        kBound, [what] { Fail(absl::StrCat(what, " does not come")); });
    loop_->RunUntil(done);
  }
  void RunFor(absl::Duration time) {
    bool has_passed = false;
    const auto timer = loop_->RunAfter(time, [&] { has_passed = true; });
    loop_->RunUntil([&] { return has_passed; });
  }

 protected:
  void CountPicture() { ++pictures_; }

 private:
  orvane::EventLoop* const loop_;
  std::int64_t pictures_ = 0;
};

class WidgetBrowser final : public Browser {
 public:
  WidgetBrowser(orvane::EventLoop* loop, const Options& options,
                const std::string& address)
      : Browser(loop),
        socket_(folder_.path() + "/widget.sock"),
        widget_(
            {ORVANE_CHROMIUM, "--socket=" + socket_, "--page=1=" + address}) {
    if (widget_.ReadLine().empty()) Fail(widget_.Wait().errors);
    connection_ = Must(orvane::SocketClient::Connect(loop, socket_));
    client_.emplace(connection_.get());
    browser_.set_value(1);
    surfaces_ = client_->OnUpdateSurface(
        browser_, [this](const rpc::UpdateSurfaceCall& call,
                         orvane::Responder<rpc::UpdateSurface> responder) {
          const absl::Status shown = picture_.Update(call.frame());
          if (!shown.ok()) Fail(shown.ToString());
          CountPicture();
          rpc::UpdateSurfaceResponse answer;
          *answer.mutable_receipt() =
              orvane::host::ReceiptFor(call.frame(), shown);
          std::move(responder).Respond(answer).IgnoreError();
        });
    rpc::AttachRequest attach;
    *attach.mutable_browser_id() = browser_;
    attach.mutable_bounds()->set_width(options.width);
    attach.mutable_bounds()->set_height(options.height);
    Must(client_->Attach(attach));
    Must(client_->Show(browser_));
    rpc::FocusRequest focus;
    *focus.mutable_browser_id() = browser_;
    focus.set_reason(rpc::FOCUS_REASON_WINDOW);
    Must(client_->Focus(focus));
    // Before the page there is an empty one.
    RunUntil([this] { return !picture_.is_empty() && Mark() == kGreen; },
             "the page");
  }

  void Press() override {
    before_ = Mark();
    rpc::MousePressRequest press;
    SetUp(press);
    press.mutable_pointer()->set_buttons(1);
    Must(client_->ForwardMousePress(press));
  }
  void Release() override {
    rpc::MouseReleaseRequest release;
    SetUp(release);
    Must(client_->ForwardMouseRelease(release));
  }
  bool HasChanged() const override { return Mark() != before_; }

  std::vector<pid_t> Widget() const override {
    return {DescendantsOf(::getpid()).front()};
  }
  std::vector<pid_t> Engine() const override {
    return DescendantsOf(Widget().front());
  }

 private:
  static constexpr std::uint32_t kGreen = 0x008000;

  template <typename Request>
  void SetUp(Request& request) const {
    *request.mutable_browser_id() = browser_;
    request.mutable_pointer()->mutable_position()->set_x(200);
    request.mutable_pointer()->mutable_position()->set_y(200);
    request.set_button(rpc::MOUSE_BUTTON_PRIMARY);
    request.set_click_count(1);
  }

  // A pixel of it.
  std::uint32_t Mark() const {
    const auto bgra = picture_.pixels().subspan(
        static_cast<std::size_t>(48 * picture_.stride_bytes()) + 48 * 4, 4);
    return static_cast<std::uint32_t>(bgra[2] << 16 | bgra[1] << 8 | bgra[0]);
  }

  const orvane::testing::TemporaryFolder folder_;
  const std::string socket_;
  ChildProcess widget_;
  std::unique_ptr<orvane::SocketClient> connection_;
  std::optional<rpc::BrowserWidgetRpcClient> client_;
  BrowserId browser_;
  orvane::host::Picture picture_;
  std::uint32_t before_ = 0;
  std::unique_ptr<orvane::ClientStream> surfaces_;
};

class PipeBrowser final : public Browser {
 public:
  PipeBrowser(orvane::EventLoop* loop, const Options& options,
              const std::string& address)
      : Browser(loop),
        process_(Must(chromium::EngineProcess::Start(loop, {}))),
        pipe_(Must(chromium::EnginePipe::Open(
            loop, process_->TakePipe(),
            [this](const chromium::EngineEvent& event) { OnEvent(event); },
            [this](const absl::Status& why) {
              Fail(absl::StrCat(why.message(), "; it ", process_->End()));
            }))) {
    const std::string target =
        Text(Call("Target.createTarget",
                  {{"url", "about:blank"}, {"windowState", "minimized"}}),
             "targetId");
    session_ = Text(Call("Target.attachToTarget",
                         {{"targetId", target}, {"flatten", true}}),
                    "sessionId");
    const Json window =
        Member(Call("Browser.getWindowForTarget", Json::object()), "windowId");
    Call("Page.enable", Json::object());
    Call(
        "Page.startScreencast",
        {{"format", "png"}, {"maxFramesInFlight", 2}, {"sendLastFrame", true}});
    Call("Browser.setWindowBounds",
         {{"windowId", window}, {"bounds", {{"windowState", "normal"}}}});
    Call("Browser.setWindowBounds",
         {{"windowId", window},
          {"bounds", {{"width", options.width}, {"height", options.height}}}});
    Call("Page.navigate", {{"url", address}});
    RunUntil([this] { return is_loaded_; }, "the page");
    RunUntil([this] { return pictures() > 0; }, "a picture");
  }

  void Press() override {
    before_ = pictures();
    Mouse("mousePressed", 1);
  }
  void Release() override { Mouse("mouseReleased", 0); }
  bool HasChanged() const override { return pictures() != before_; }

  std::vector<pid_t> Widget() const override { return {}; }
  std::vector<pid_t> Engine() const override {
    return DescendantsOf(::getpid());
  }

 private:
  Json Call(const std::string& method, Json params) {
    std::optional<absl::StatusOr<Json>> result;
    pipe_->Call(
        session_, method, std::move(params),
        [&](absl::StatusOr<Json> answer) { result = std::move(answer); });
    RunUntil([&] { return result.has_value(); }, method);
    return Must(*std::move(result));
  }

  void Mouse(const std::string& type, int buttons) {
    Call("Input.dispatchMouseEvent", {{"type", type},
                                      {"x", 200},
                                      {"y", 200},
                                      {"button", "left"},
                                      {"buttons", buttons},
                                      {"clickCount", 1}});
  }

  void OnEvent(const chromium::EngineEvent& event) {
    if (event.method == "Page.loadEventFired") is_loaded_ = true;
    if (event.method != "Page.screencastFrame") return;
    CountPicture();
    pipe_->Call(session_, "Page.screencastFrameAck",
                {{"sessionId", Member(event.params, "sessionId")}});
  }

  const std::unique_ptr<chromium::EngineProcess> process_;
  const std::unique_ptr<chromium::EnginePipe> pipe_;
  std::string session_;  // At first that of the engine as a whole.
  bool is_loaded_ = false;
  std::int64_t before_ = 0;
};

// The figures

// Until the page stands still.
void Settle(Browser& browser) {
  const absl::Time bound = absl::Now() + kBound;
  for (std::int64_t seen = -1; seen != browser.pictures();) {
    if (absl::Now() > bound) Fail("the page does not stand still");
    seen = browser.pictures();
    browser.RunFor(kStillTime);
  }
}

Json MeasureClicks(Browser& browser, absl::Duration duration) {
  std::vector<double> times_us;
  const absl::Time end = absl::Now() + duration;
  while (absl::Now() < end || times_us.empty()) {
    const absl::Time begun = absl::Now();
    browser.Press();
    browser.RunUntil([&] { return browser.HasChanged(); }, "a click's picture");
    times_us.push_back(absl::ToDoubleMicroseconds(absl::Now() - begun));
    browser.Release();
  }
  std::ranges::sort(times_us);
  const std::size_t count = times_us.size();
  return {{"operations", count},
          {"p50_us", times_us[count / 2]},
          {"p99_us", times_us[count * 99 / 100]}};
}

Json MeasurePictures(Browser& browser, absl::Duration duration) {
  const std::int64_t before = browser.pictures();
  const absl::Time begun = absl::Now();
  browser.RunFor(duration);
  const auto count = static_cast<double>(browser.pictures() - before);
  return {{"operations", count},
          {"per_s", count / absl::ToDoubleSeconds(absl::Now() - begun)}};
}

struct Usage {
  std::int64_t host_us;
  std::int64_t widget_us;
  std::int64_t engine_us;

  static Usage Now(const Browser& browser) {
    return {CpuUs({::getpid()}), CpuUs(browser.Widget()),
            CpuUs(browser.Engine())};
  }
};

Json Measure(Browser& browser, const Options& options) {
  const Usage before = Usage::Now(browser);
  const absl::Time begun = absl::Now();
  Json result = options.figure == "click"
                    ? MeasureClicks(browser, options.duration)
                    : MeasurePictures(browser, options.duration);
  const double seconds = absl::ToDoubleSeconds(absl::Now() - begun);
  const Usage after = Usage::Now(browser);
  const double operations = std::max(1.0, result["operations"].get<double>());
  const auto add = [&](const std::string& process, std::int64_t used_us) {
    const auto used = static_cast<double>(used_us);
    result[process + "_cpu_us"] = used / operations;
    result[process + "_cpu_us_per_s"] = used / seconds;
  };
  add("host", after.host_us - before.host_us);
  add("engine", after.engine_us - before.engine_us);
  result["engine_kib"] = MemoryKib(browser.Engine());
  if (!browser.Widget().empty()) {
    add("widget", after.widget_us - before.widget_us);
    result["widget_kib"] = MemoryKib(browser.Widget());
  }
  return result;
}

Options ParseCommandLine(int argc, char** argv) {
  constexpr option kOptions[] = {
      {"interface", required_argument, nullptr, 'i'},
      {"size", required_argument, nullptr, 's'},
      {"duration-ms", required_argument, nullptr, 'd'},
      {"pin", required_argument, nullptr, 'p'},
      {}};
  Options options;
  for (int found = 0;
       (found = ::getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    int count = 1;
    if (found == 'i') {
      options.interface = optarg;
    } else if (found == 's') {
      count = std::sscanf(optarg, "%dx%d", &options.width, &options.height) - 1;
    } else if (found == 'd') {
      options.duration = kLonger * absl::Milliseconds(std::atoi(optarg));
    } else if (found != 'p' || absl::string_view(optarg) != "free") {
      count = 0;
    }
    if (count != 1) Fail("see the beginning of engine_benchmark.cc");
  }
  if (optind + 1 == argc) options.figure = argv[optind];
  if (options.figure != "click" && options.figure != "animation" &&
      options.figure != "idle") {
    Fail("the figures are click, animation and idle");
  }
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = ParseCommandLine(argc, argv);
  const std::string engine = chromium::EngineCommand().path;
  if (!std::filesystem::exists(engine)) {
    Fail(absl::StrCat("no engine at ", engine,
                      "; install chromium-headless-shell"));
  }
  const std::string page =
      options.figure == "animation" ? absl::StrCat(kPage, kAnimation) : kPage;
  const std::string address =
      "data:text/html;base64," + absl::Base64Escape(page);
  orvane::EventLoop loop;
  std::unique_ptr<Browser> browser;
  if (options.interface == "pipe") {
    browser = std::make_unique<PipeBrowser>(&loop, options, address);
  } else {
    browser = std::make_unique<WidgetBrowser>(&loop, options, address);
  }
  if (options.figure == "animation") {
    browser->RunFor(kStillTime);  // Until what the start takes is over.
  } else {
    Settle(*browser);
  }
  std::puts(chromium::PrintJson(Measure(*browser, options)).c_str());
  return 0;
}
