// The window with a page of a real engine in it. What happens on the page
// becomes its title, which is the window's.

#include <algorithm>
#include <csignal>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "absl/strings/escaping.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "gtest/gtest.h"

#include "examples/gtk_host/window_fixture.h"
#include "rpc/browser/page.client.h"

namespace gtk_host::testing {
namespace {

using orvane::testing::ChildProcess;

constexpr Rgb kMark = 0xff0080;
constexpr Rgb kPaper = 0xffffff;

constexpr char kBegin[] =
    "<!DOCTYPE html><title>Ready</title><body style='margin:0'>"
    "<style>* { position: absolute; outline: none }"
    "  #mark { left: 0; top: 0; width: 8px; height: 8px; background: #ff0080 }"
    "  .here { left: 20px; top: 20px; width: 200px; height: 30px }</style>"
    "<div id=mark></div>"
    "<script>const tell = (text) => document.title = text;</script>";

class RealWindowTest : public WindowFixture {
 protected:
  RealWindowTest() : WindowFixture(kMark, {0, 0}) {}

  void SetUp() override {
    WindowFixture::SetUp();
    if (IsSkipped()) return;
    static const auto* const complaint = new std::string(Complaint());
    // Some containers forbid what the engine's sandbox is made of.
    for (const char* const part : {"no engine at", "sandbox", "zygote"}) {
      if (absl::StrContains(*complaint, part))
        GTEST_SKIP() << "the engine does not run here: " << *complaint;
    }
  }

  // What the widget says if it does not start.
  std::string Complaint() const {
    ChildProcess widget(
        {ORVANE_CHROMIUM, "--socket", socket(), "--page=1=about:blank"});
    return widget.ReadLine().empty() ? widget.Wait().errors : "";
  }

  void StartWidget(const std::string& body) { StartWidgetAt(socket(), body); }
  void StartWidgetAt(const std::string& path, const std::string& body) {
    widget_ = std::make_unique<ChildProcess>(std::vector<std::string>{
        ORVANE_CHROMIUM, "--socket", path, "--page=2=about:blank",
        absl::StrCat("--page=1=data:text/html;base64,",
                     absl::Base64Escape(kBegin + body))});
    ASSERT_EQ(widget_->ReadLine(), "orvane-chromium listens at " + path);
  }

  void Start(const std::string& body,
             const std::vector<std::string>& environment = {},
             const std::vector<std::string>& options = {}) {
    StartWidget(body);
    StartHost(environment, options);
    AwaitPageBelowTheBar();
  }

  // The address bar appears once the widget has said that it serves pages, and
  // moves the page.
  void AwaitPageBelowTheBar() {
    AwaitWindow();
    Await("the address bar, and the page below it", [this] {
      const std::optional<Area> mark = screen_->Take().Find(mark_);
      return mark.has_value() && mark->y > screen_->PlaceOf(window()).y;
    });
    AwaitPage();
  }

  // GTK's mark of the focus, and what is selected, are blue. Both take some
  // time to appear and to go.
  bool IsFocusInTheBar() const {
    const Area place = screen_->PlaceOf(window());
    const Image bar =
        screen_->Take({place.x, place.y, place.width, page_.y - place.y});
    return std::any_of(bar.pixels().begin(), bar.pixels().end(), [](Rgb color) {
      return (color & 0xff) > (color >> 16) + 0x30;
    });
  }

  // Leads the focus into the bar above the page, which marks what has it.
  void LeaveThePageBy(const std::string& key) {
    Await("the bar without the focus", [this] { return !IsFocusInTheBar(); });
    screen_->PressKey(key);
    Await("the focus in the bar", [this] { return IsFocusInTheBar(); });
  }

  void GoTo(const std::string& address) {
    LeaveThePageBy("Control_L+l");
    screen_->Type(address);
    screen_->PressKey("Return");
  }

  std::string Saved(const std::string& name) const {
    std::ifstream file(files() + "/" + name);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  void ClickHere() { Click(40, 35); }

  // In the middle of the address bar, between what lies at its ends.
  Point AddressBar() const {
    const Area place = screen_->PlaceOf(window());
    return {place.x + place.width / 2, (place.y + page_.y) / 2};
  }

  // The page's address is there too, so what is loaded is none.
  void AwaitInTheAddress(const std::string& text) {
    screen_->Click(AddressBar());
    screen_->PressKey("Return");
    Await("a page whose address has " + text,
          [&] { return absl::StrContains(screen_->TitleOf(window()), text); });
  }

  // Begins to drag what is .here, over which the page has this cursor.
  void BeginDrag(const std::string& cursor) {
    MoveTo(40, 35);
    Await("the page's cursor", [&] { return screen_->Cursor() == cursor; });
    screen_->Press();
    MoveUntil("the cursor of a drag", At(50, 35),
              [&] { return screen_->Cursor() != cursor; });
  }
  void DragTo(const Point& target) {
    MoveUntil("the cursor of a copy", target,
              [] { return absl::StrContains(screen_->Cursor(), "copy"); });
  }
};

TEST_F(RealWindowTest, TypedTextReachesTheField) {
  Start("<input class=here oninput='tell(value)'>");
  ClickHere();
  screen_->Type("Ada 7!");
  AwaitTitle("Ada 7!");
}

TEST_F(RealWindowTest, ALineOfAListIsChosenByClick) {
  Start(
      "<select class=here onchange='tell(value)'>"
      "<option>Assam<option>Darjeeling<option>Sencha</select>");
  ClickHere();
  AwaitPopup();
  screen_->Click(LineBelowTheChosen(2));
  AwaitTitle("Sencha");
  AwaitNoPopup();
}

TEST_F(RealWindowTest, APromptIsAnswered) {
  Start(
      "<button class=here onclick="
      "'setTimeout(() => tell(`Hello, ${prompt(`Who?`)}`))'></button>");
  ClickHere();
  AwaitDialog();
  screen_->Type("Ada");
  screen_->PressKey("Return");
  AwaitTitle("Hello, Ada");
  AwaitNoDialog();
}

constexpr char kTellsTheFocus[] =
    "<input class=here onfocus='tell(`in`)' onblur='tell(`out`)'>";

TEST_F(RealWindowTest, TabLeavesThePageAndComesBack) {
  Start(kTellsTheFocus);
  ClickHere();
  AwaitTitle("in");
  LeaveThePageBy("Tab");
  AwaitTitle("out");
  screen_->PressKey("shift+Tab");
  AwaitTitle("in");
  LeaveThePageBy("shift+Tab");
  AwaitTitle("out");
  screen_->PressKey("Tab");
  AwaitTitle("in");
}

TEST_F(RealWindowTest, AnAddressIsTypedAndThePageBeforeComesBack) {
  Start(kTellsTheFocus);
  ClickHere();
  AwaitTitle("in");
  GoTo("data:text/html,<title>There</title>");
  AwaitTitle("There");
  Await("the end of the page before",
        [this] { return !screen_->Take().Find(mark_).has_value(); });
  const Area place = screen_->PlaceOf(window());
  screen_->Click({place.x + 15, place.y + 15});  // "Back"
  AwaitPage();
  Await("its title", [] { return screen_->TitleOf(window()) != "There"; });
}

// What is said lies between the bar and the page, and has another colour than
// the page.
TEST_F(RealWindowTest, AnAddressThatCannotBeLoadedIsToldAboveThePage) {
  Start("");
  EXPECT_EQ(ColorAt(400, 6), kPaper);
  GoTo("127.0.0.1:1");
  AwaitTitle("http://127.0.0.1:1/");
  Await("words above the page", [this] { return ColorAt(400, 6) != kPaper; });
  GoTo("data:text/html,<title>There</title>");
  AwaitTitle("There");
  AwaitColor(400, 6, kPaper);
}

constexpr Rgb kIcon = 0xffc800;
constexpr char kHasAnIcon[] =
    "<link rel=icon href=\"data:image/svg+xml,<svg xmlns='http://www.w3.org/"
    "2000/svg' width='32' height='32'><rect width='32' height='32' "
    "fill='%23ffc800'/></svg>\">";

TEST_F(RealWindowTest, ThePagesIconIsSeenInTheBarWhileThePageIs) {
  Start(kHasAnIcon);
  Await("the icon above the page", [this] {
    const std::optional<Area> icon = screen_->Take().Find(kIcon);
    return icon.has_value() && icon->y + icon->height <= page_.y;
  });
  GoTo("data:text/html,<title>There</title>");
  AwaitTitle("There");
  Await("the end of the icon",
        [] { return !screen_->Take().Find(kIcon).has_value(); });
}

TEST_F(RealWindowTest, ThePagesIconIsSeenOnItsTabToo) {
  constexpr int kIconSide = 16;
  const auto height_of_icons = [] {
    return screen_->Take().Find(kIcon).value_or(Area{}).height;
  };
  Start(kHasAnIcon, {}, {"--browser=1", "--browser=2"});
  Await("one icon in the bar and one on the tab below it",
        [&] { return height_of_icons() > 2 * kIconSide; });
  screen_->PressKey("Control_L+Next");
  Await("the one on the tab alone",
        [&] { return height_of_icons() == kIconSide; });
}

constexpr char kOffersAFile[] =
    "<a class=here href='data:text/plain,hello' download='name.txt'>Save</a>";

// What is said lies below the page, and has another colour than the page. While
// the file is being saved, it ends further to the left.
TEST_F(RealWindowTest, AFileIsSavedAndToldBelowThePageUntilThatIsClosed) {
  Start(kOffersAFile, MakeFolderForFiles());
  const Area place = screen_->PlaceOf(window());
  const int bottom = place.y + place.height;
  const Area folder = {place.x + 250, bottom - 30, 80, 20};
  const auto colors_of_the_folder = [&] {
    const Image image = screen_->Take(folder);
    return std::set<Rgb>(image.pixels().begin(), image.pixels().end()).size();
  };
  EXPECT_EQ(colors_of_the_folder(), 1u);
  ClickHere();
  Await("the words with the folder", [&] {
    return screen_->ColorAt({place.x + 5, bottom - 5}) != kPaper &&
           colors_of_the_folder() > 1;
  });
  EXPECT_EQ(Saved("name.txt"), "hello");
  screen_->Click({place.x + place.width - 20, bottom - 20});
  Await("the end of the words", [&] {
    return screen_->ColorAt({place.x + 5, bottom - 5}) == kPaper;
  });
}

TEST_F(RealWindowTest, AFileIsNotSavedOverAnother) {
  const std::vector<std::string> environment = MakeFolderForFiles();
  std::ofstream(files() + "/name.txt") << "mine";
  Start(kOffersAFile, environment);
  ClickHere();
  Await("the file", [this] { return Saved("name (2).txt") == "hello"; });
  ClickHere();
  Await("another one", [this] { return Saved("name (3).txt") == "hello"; });
  EXPECT_EQ(Saved("name.txt"), "mine");
}

// Tells how a drag of the page's has ended. A title would put the page's
// address back into the bar.
constexpr char kTellsOfDrags[] =
    "<script>ondragend = (e) => document.body.style.background ="
    "    {copy: '#00ff00', none: '#ff0000'}[e.dataTransfer.dropEffect];"
    "</script>";
constexpr Rgb kCopied = 0x00ff00;
constexpr Rgb kNotDropped = 0xff0000;

constexpr char kLink[] = "<a class=here href='https://a.example/tea'>Tea</a>";

TEST_F(RealWindowTest, ALinkIsDraggedToTheAddressBar) {
  Start(absl::StrCat(kLink, kTellsOfDrags));
  BeginDrag("pointer");
  DragTo(AddressBar());
  screen_->Release();
  AwaitColor(300, 300, kCopied);
  AwaitInTheAddress("https://a.example/tea");
}

TEST_F(RealWindowTest, ALinkIsDraggedIntoAFieldOfThePage) {
  Start(absl::StrCat(
      kLink, kTellsOfDrags,
      "<input style='left:20px;top:100px;width:200px' oninput='tell(value)'>"));
  BeginDrag("pointer");
  DragTo(At(40, 110));
  screen_->Release();
  AwaitTitle("https://a.example/tea");
  AwaitColor(300, 300, kCopied);
  // The mouse is the page's again.
  Click(100, 110);
  screen_->PressKey("End");
  screen_->Type("!");
  AwaitTitle("https://a.example/tea!");
}

TEST_F(RealWindowTest, WhatIsDroppedNowhereIsTold) {
  Start(absl::StrCat(kLink, kTellsOfDrags,
                     "<script>onclick = () => tell('clicked')</script>"));
  BeginDrag("pointer");
  DragTo(AddressBar());
  const Area place = screen_->PlaceOf(window());
  screen_->MoveTo({place.x + place.width + 200, place.y + 200});
  Await("the cursor of none",
        [] { return !absl::StrContains(screen_->Cursor(), "copy"); });
  screen_->Release();
  AwaitColor(300, 300, kNotDropped);
  Click(300, 300);
  AwaitTitle("clicked");
}

TEST_F(RealWindowTest, AWidgetMayDieWhileItsPageDrags) {
  Start(absl::StrCat(kLink, kTellsOfDrags));
  BeginDrag("pointer");
  widget_->Signal(SIGKILL);
  widget_->Wait();
  Await("a dimmed picture", [this] { return ColorAt(4, 4) != kMark; });
  screen_->MoveTo({page_.x + 300, page_.y + 300});
  screen_->Release();
  StartWidget("<script>onclick = () => tell('clicked')</script>");
  AwaitPageBelowTheBar();
  Click(300, 300);
  AwaitTitle("clicked");
}

TEST_F(RealWindowTest, TheWheelScrollsThePage) {
  Start(
      "<div style='width:10px;height:5000px'></div>"
      "<script>onscroll = () => tell(`${scrollY > 0}`)</script>");
  MoveTo(300, 300);
  screen_->Press(5);
  screen_->Release(5);
  AwaitTitle("true");
}

TEST_F(RealWindowTest, ThePageIsLaidOutForTheWindowsSizeAndScale) {
  scale_ = 2;
  Start(
      "<script>onresize = () => "
      "tell(`${innerWidth} at ${devicePixelRatio}`)</script>",
      {"GDK_SCALE=2"});
  screen_->Resize(window(), 1000, 800);
  AwaitTitle("500 at 2");
}

TEST_F(RealWindowTest, AWidgetThatDiesIsToldAndTheNextTakesItsPlace) {
  const std::string body = "<input class=here oninput='tell(value)'>";
  Start(body);
  widget_->Signal(SIGKILL);
  widget_->Wait();
  Await("a dimmed picture", [this] { return ColorAt(4, 4) != kMark; });
  StartWidget(body);
  AwaitPageBelowTheBar();
  ClickHere();
  screen_->Type("again");
  AwaitTitle("again");
}

class RecordedWindowTest : public RealWindowTest {
 protected:
  static ChildProcess::Result Widgetctl(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), WIDGETCTL);
    return ChildProcess(std::move(arguments)).Wait();
  }

  // The engine, whose page has been loaded.
  void StartEngine() {
    StartWidgetAt(engine_, kBody);
    const auto connection =
        orvane::SocketClient::Connect(&screen_->loop(), engine_);
    ASSERT_TRUE(connection.ok()) << connection.status();
    rpc::PageRpcClient pages(connection->get());
    bool is_loaded = false;
    const auto look = [&is_loaded](const rpc::PageState& page) {
      is_loaded = page.title() == "Ready" && !page.is_loading();
    };
    const auto changes = pages.WhenPageChanged(
        browser_, [&](const rpc::PageChanged& event) { look(event.state()); });
    pages.GetPage(browser_, [&](const absl::StatusOr<rpc::PageState>& page) {
      if (page.ok()) look(*page);
    });
    Await("a loaded page", [&is_loaded] { return is_loaded; });
  }
  void StopEngine() {
    widget_->Signal(SIGTERM);
    EXPECT_EQ(std::exchange(widget_, nullptr)->Wait().exit_code, 0);
  }

  static constexpr char kBody[] =
      "<input class=here style='cursor: crosshair' oninput='tell(value)'>"
      "<select class=here style='top: 60px' onchange='tell(value)'>"
      "<option>Assam<option>Darjeeling<option>Sencha</select>";
  const std::string engine_ = folder_.path() + "/engine.sock";
  const std::string session_ = folder_.path() + "/recorded.session";
};

TEST_F(RecordedWindowTest, WhatAUserDoesIsPlayedBackToAnotherWidget) {
  StartEngine();
  ChildProcess recorder({WIDGETCTL, "--socket", engine_, "record", session_,
                         socket(), "--text", "--varying", "WhenPageChanged",
                         "--varying", "WhenCursorChanged"});
  ASSERT_EQ(recorder.ReadLine(), "hosts connect to " + socket());
  StartHost();
  AwaitPageBelowTheBar();
  ClickHere();
  screen_->Type("Ada");
  AwaitTitle("Ada");
  Click(40, 75);
  AwaitPopup();
  screen_->Click(LineBelowTheChosen(2));
  AwaitTitle("Sencha");
  AwaitNoPopup();
  screen_->Close(window());
  AwaitNoWindow();
  EXPECT_EQ(std::exchange(host_, nullptr)->Wait().exit_code, 0);
  recorder.Signal(SIGTERM);
  EXPECT_EQ(recorder.Wait().exit_code, 0);
  StopEngine();

  StartEngine();
  const ChildProcess::Result played =
      Widgetctl({"--socket", engine_, "--timeout", "30", "run", session_});
  EXPECT_EQ(played.exit_code, 0) << played.output << played.errors;
  StopEngine();
}

}  // namespace
}  // namespace gtk_host::testing
