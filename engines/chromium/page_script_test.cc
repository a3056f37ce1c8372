// The script that runs in pages, by itself: in a page's own world, where its
// reports can be read and events be made up.

#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

#include "engines/chromium/json.h"
#include "engines/chromium/page_script.h"
#include "engines/chromium/real_engine_fixture.h"

namespace chromium {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

class PageScriptTest : public testing::RealEngineFixture {
 protected:
  // A page with that body, and the script in it.
  void Open(const std::string& body) {
    RealEngineFixture::Open(body, {"--allow-scripts"});
    Run("var reports = [];"
        "var orvaneReport = (text) => reports.push(JSON.parse(text));");
    Run(kPageScript);
    Run("reports.length = 0");
  }

  // The value of a script, or of what its promise resolves to.
  Json Run(const std::string& script) {
    auto request = New<rpc::EvaluateRequest>();
    request.set_script(script);
    request.set_timeout_ms(60'000);
    const auto outcome = pages_->Evaluate(request);
    EXPECT_TRUE(outcome.ok()) << outcome.status();
    if (!outcome.ok()) return Json();
    EXPECT_EQ(outcome->exception(), "") << script;
    return ParseJson(std::string(outcome->json())).value_or(Json());
  }

  // What the script has reported, once all that is pending has happened. The
  // reports are gone then.
  Json AllReports() {
    return Run(
        "new Promise((resolve) => requestAnimationFrame(() => setTimeout(() =>"
        "  resolve(reports.splice(0)))))");
  }
  static std::vector<Json> Of(const std::string& kind, const Json& reports) {
    std::vector<Json> found;
    for (const Json& report : reports) {
      if (Text(report, "kind") == kind) found.push_back(report);
    }
    return found;
  }
  std::vector<Json> Reports(const std::string& kind) {
    return Of(kind, AllReports());
  }

  // The cursor that is reported for the middle of that element.
  std::string CursorOver(const std::string& element) {
    Run("(() => { const box = " + element +
        ".getBoundingClientRect();"
        "const at = { clientX: box.x + box.width / 2,"
        "             clientY: box.y + box.height / 2 };"
        "document.elementFromPoint(at.clientX, at.clientY).dispatchEvent("
        "  new MouseEvent('mousemove', { bubbles: true, composed: true, ...at "
        "}));"
        "})()");
    const std::vector<Json> cursors = Reports("cursor");
    EXPECT_THAT(cursors, SizeIs(1));
    return cursors.empty() ? "" : Text(cursors[0], "cursor");
  }
};

TEST_F(PageScriptTest, RunsOnceInADocument) {
  Open("");
  Run("document.title = 'A'");
  Run(kPageScript);
  Run("document.title = 'B'");
  EXPECT_THAT(Reports("title"), SizeIs(2));  // One for each title.
}

TEST_F(PageScriptTest, ResolvesTheCursorThatIsAuto) {
  Open(
      "<p id=p style='font-size:40px;margin:0'>WWWW</p>"
      "<a id=a href=x style='display:block;width:9px;height:9px'></a>"
      "<input id=i><input id=c type=checkbox><button id=b>B</button>"
      "<div id=e contenteditable style='width:50px;height:20px'></div>"
      "<div id=n style='width:50px;height:20px'></div>");
  EXPECT_EQ(CursorOver("p.firstChild.parentElement"), "default");
  EXPECT_EQ(CursorOver("a"), "pointer");
  EXPECT_EQ(CursorOver("i"), "text");
  EXPECT_EQ(CursorOver("c"), "default");
  EXPECT_EQ(CursorOver("b"), "default");
  EXPECT_EQ(CursorOver("e"), "text");
  EXPECT_EQ(CursorOver("n"), "default");
}

TEST_F(PageScriptTest, TellsTheKeywordBehindAnImageThatCannotBeLoaded) {
  Open(
      "<div id=d style='width:50px;height:50px;"
      "cursor:url(data:image/png,none) 1 2, crosshair'></div>");
  EXPECT_EQ(CursorOver("d"), "crosshair");
  EXPECT_THAT(Reports("cursor"), IsEmpty());
}

TEST_F(PageScriptTest, TellsNothingOfThePointerWhileTheFocusLeaves) {
  Open("<div id=d style='width:50px;height:50px;cursor:wait'></div>");
  EXPECT_EQ(CursorOver("d"), "wait");
  Run("orvaneAgent.leave();"
      "document.documentElement.dispatchEvent(new MouseEvent('mousemove',"
      "  { bubbles: true, clientX: 9, clientY: 9 }));"
      "document.dispatchEvent(new MouseEvent('mouseleave'));"
      "orvaneAgent.left()");
  EXPECT_THAT(Reports("cursor"), IsEmpty());
  Run("orvaneAgent.look()");
  const std::vector<Json> cursors = Reports("cursor");
  ASSERT_THAT(cursors, SizeIs(1));
  EXPECT_EQ(Text(cursors[0], "cursor"), "wait");
}

TEST_F(PageScriptTest, FindsATooltipOutsideAShadowRoot) {
  Open("<div id=d title='Outside' style='width:50px;height:50px'></div>");
  Run("d.attachShadow({ mode: 'open' }).innerHTML ="
      "  '<div style=\"width:50px;height:50px\"></div>'");
  Run("d.shadowRoot.firstChild.dispatchEvent(new MouseEvent('mousemove',"
      "  { bubbles: true, composed: true, clientX: 9, clientY: 9 }))");
  const std::vector<Json> tooltips = Reports("tooltip");
  ASSERT_THAT(tooltips, SizeIs(1));
  EXPECT_EQ(Text(tooltips[0], "text"), "Outside");
  EXPECT_EQ(Number(Member(tooltips[0], "anchor"), "width"), 50);
}

TEST_F(PageScriptTest, CutsAndRepairsWhatThePageSays) {
  Open("");
  Run("document.title = 'a'.repeat(100000)");
  Run("new Promise((resolve) => setTimeout(resolve))");
  Run("void (document.title = 'x\\ud800y')");
  const std::vector<Json> titles = Reports("title");
  ASSERT_THAT(titles, SizeIs(2));
  EXPECT_THAT(Text(titles[0], "title"), SizeIs(65536));
  EXPECT_EQ(Text(titles[1], "title"), "x\xef\xbf\xbdy");
}

TEST_F(PageScriptTest, ReportsAListWithItsGroups) {
  Open(
      "<select id=s><option>A<optgroup label=G disabled><option>B</optgroup>"
      "<hr><option disabled selected value=v>C</select>");
  Run("s.dispatchEvent(new MouseEvent('mousedown', { bubbles: true }))");
  const std::vector<Json> lists = Reports("list");
  ASSERT_THAT(lists, SizeIs(1));
  const Json& items = Member(lists[0], "items");
  ASSERT_THAT(items, SizeIs(5));
  EXPECT_EQ(Text(items[0], "label"), "A");
  EXPECT_EQ(Text(items[1], "type"), "group");
  EXPECT_EQ(Number(items[2], "group"), 1);
  EXPECT_TRUE(Flag(items[2], "disabled"));
  EXPECT_EQ(Text(items[3], "type"), "separator");
  EXPECT_EQ(Text(items[4], "value"), "v");
  EXPECT_TRUE(Flag(items[4], "selected"));
}

// A list of megabytes reached no host, and one of more ended the engine.
TEST_F(PageScriptTest, ReportsWhatFitsOfALongList) {
  Open("<select id=s hidden></select>");
  Run("for (let i = 0; i < 1000; ++i)"
      "  s.add(new Option('L'.repeat(70000), 'V'.repeat(70000)))");
  Run("s.dispatchEvent(new MouseEvent('mousedown', { bubbles: true }))");
  const std::vector<Json> lists = Reports("list");
  ASSERT_THAT(lists, SizeIs(1));
  const Json& items = Member(lists[0], "items");
  EXPECT_THAT(items, SizeIs(8));
  EXPECT_THAT(Text(items[0], "label"), SizeIs(65536));
  EXPECT_LT(PrintJson(lists[0]).size(), 1100u * 1024);
}

TEST_F(PageScriptTest, OpensNoListThatIsDisabledOrShowsItsOptions) {
  Open(
      "<select id=a disabled><option>A</select>"
      "<select id=b multiple><option>B</select>"
      "<select id=c size=3><option>C</select>");
  Run("for (const s of [a, b, c])"
      "  s.dispatchEvent(new MouseEvent('mousedown', { bubbles: true }))");
  EXPECT_THAT(Reports("list"), IsEmpty());
}

TEST_F(PageScriptTest, MakesAChoiceAsAUserWould) {
  Open("<select id=s><option>A<option>B</select>");
  Run("var seen = []; for (const type of ['input', 'change'])"
      "  document.addEventListener(type, () => seen.push(type + s.value));");
  Run("s.dispatchEvent(new MouseEvent('mousedown', { bubbles: true }))");
  Run("orvaneAgent.chooseFromList(1, 1)");
  EXPECT_EQ(Run("seen"), Json({"inputB", "changeB"}));
  // It is closed by now.
  Run("orvaneAgent.chooseFromList(1, 0)");
  EXPECT_EQ(Run("s.value"), "B");
}

TEST_F(PageScriptTest, AsksForNoColourOfADisabledInput) {
  Open(
      "<input id=a type=color list=l value='#010203' disabled>"
      "<input id=b type=color list=l value='#010203'>"
      "<datalist id=l><option value='#ffffff'></datalist>");
  Run("for (const i of [a, b])"
      "  i.dispatchEvent(new MouseEvent('click', { bubbles: true }))");
  const std::vector<Json> wishes = Reports("color");
  ASSERT_THAT(wishes, SizeIs(1));
  EXPECT_EQ(Text(wishes[0], "value"), "#010203");
  EXPECT_EQ(Member(wishes[0], "suggested"), Json({"#ffffff"}));
}

TEST_F(PageScriptTest, KeepsTheChoosersOfDatesFromOpening) {
  Open("<input id=d type=date>");
  EXPECT_EQ(Run("d.dispatchEvent(new MouseEvent('click',"
                "  { bubbles: true, cancelable: true }))"),
            false);
  EXPECT_EQ(Run("d.dispatchEvent(new KeyboardEvent('keydown',"
                "  { key: 'F4', bubbles: true, cancelable: true }))"),
            false);
  EXPECT_EQ(Run("d.dispatchEvent(new KeyboardEvent('keydown',"
                "  { key: '1', bubbles: true, cancelable: true }))"),
            true);
}

TEST_F(PageScriptTest, AnnouncesWhatALiveRegionGains) {
  Open(
      "<div id=a aria-live=assertive><span id=x>one</span></div>"
      "<div id=b role=status>old</div><div id=c>silent</div>");
  Run("orvaneAgent.turnAccessibilityOn()");
  Run("x.textContent = 'two'; b.append(' new'); c.textContent = 'changed'");
  const std::vector<Json> announced = Reports("live");
  ASSERT_THAT(announced, SizeIs(2));
  EXPECT_EQ(Text(announced[0], "text"), "two");
  EXPECT_EQ(Text(announced[0], "politeness"), "assertive");
  EXPECT_EQ(Text(announced[1], "text"), "old new");  // The whole, as a status.
  EXPECT_TRUE(Flag(announced[1], "atomic"));
}

TEST_F(PageScriptTest, AnnouncesWhatChangesInsideShadowRoots) {
  Open("<div id=outer></div>");
  Run("outer.attachShadow({ mode: 'open' }).innerHTML ="
      "  '<p id=inner></p>';"
      "var inner = outer.shadowRoot.getElementById('inner')"
      "  .attachShadow({ mode: 'open' });"
      "inner.innerHTML = '<style>i { top: 0 }</style>"
      "<div lang=de role=status><i>old</i></div>'");
  Run("orvaneAgent.turnAccessibilityOn()");
  EXPECT_THAT(Reports("live"), IsEmpty());
  Run("inner.querySelector('div').append(' new')");
  const std::vector<Json> announced = Reports("live");
  ASSERT_THAT(announced, SizeIs(1));
  EXPECT_EQ(Text(announced[0], "text"), "old new");
  EXPECT_EQ(Text(announced[0], "language"), "de");
}

TEST_F(PageScriptTest, AnnouncesAlertsThatComeWithTheirShadowRoot) {
  Open("");
  Run("orvaneAgent.turnAccessibilityOn()");
  Run("customElements.define('x-toast', class extends HTMLElement {"
      "  connectedCallback() {"
      "    this.attachShadow({ mode: 'open' }).innerHTML ="
      "      '<style>i { top: 0 }</style><div role=alert><i>Saved</i></div>'"
      "      + '<div role=status>Idle</div>'; } });"
      "document.body.append(document.createElement('x-toast'))");
  const std::vector<Json> announced = Reports("live");
  ASSERT_THAT(announced, SizeIs(1));
  EXPECT_EQ(Text(announced[0], "text"), "Saved");
  EXPECT_EQ(Text(announced[0], "politeness"), "assertive");
}

TEST_F(PageScriptTest, FindsAShadowRootThatIsAttachedLater) {
  Open("<div id=d></div>");
  Run("orvaneAgent.turnAccessibilityOn()");
  Run("d.attachShadow({ mode: 'open' }).innerHTML ="
      "  '<div role=alert>At last</div>'");
  // Nothing in the page changes from here on.
  std::vector<Json> announced;
  while (announced.empty()) announced = Reports("live");
  EXPECT_EQ(Text(announced[0], "text"), "At last");
}

TEST_F(PageScriptTest, AnnouncesWhatIsDrawnInsideALiveRegion) {
  Open("<div id=host aria-live=polite></div><div id=card><b>one</b></div>");
  Run("host.attachShadow({ mode: 'open' }).innerHTML = '<p>a</p>';"
      "card.attachShadow({ mode: 'open' }).innerHTML ="
      "  '<div role=status>Now: <slot></slot></div>'");
  Run("orvaneAgent.turnAccessibilityOn()");
  Run("host.shadowRoot.firstChild.textContent = 'b';"
      "card.firstChild.textContent = 'two'");
  const std::vector<Json> announced = Reports("live");
  ASSERT_THAT(announced, SizeIs(2));
  EXPECT_EQ(Text(announced[0], "text"), "b");
  EXPECT_EQ(Text(announced[1], "text"), "Now: two");
}

TEST_F(PageScriptTest, TellsNothingOfClosedShadowRoots) {
  Open("<div id=d></div>");
  Run("var root = d.attachShadow({ mode: 'closed' });"
      "root.innerHTML = '<div role=status></div>'");
  Run("orvaneAgent.turnAccessibilityOn()");
  Run("root.firstChild.textContent = 'unheard'");
  EXPECT_THAT(Reports("live"), IsEmpty());
}

// What pages do to it, some on purpose

TEST_F(PageScriptTest, NamesOfElementsHideNothing) {
  // The names are those of what it uses; the first one made it run for ever.
  Open(
      "<form name=host></form><form name=title></form><form name=hasFocus>"
      "</form><form name=activeElement></form><form name=documentElement>"
      "</form><form name=querySelectorAll></form><form name=body></form>"
      "<form name=elementFromPoint></form><form name=createElement></form>"
      "<form id=f aria-live=polite title=Tip"
      " style='width:99px;height:99px;cursor:wait'>"
      "<input name=closest type=hidden><input name=title type=hidden>"
      "<input name=getAttribute type=hidden><input name=matches type=hidden>"
      "<input name=getRootNode type=hidden><input name=contains type=hidden>"
      "<input name=parentNode type=hidden><input name=shadowRoot type=hidden>"
      "<input name=getBoundingClientRect type=hidden>"
      "<input name=childNodes type=hidden><input name=isConnected type=hidden>"
      "</form>");
  Run("orvaneAgent.turnAccessibilityOn()");
  Run("EventTarget.prototype.dispatchEvent.call(f, new MouseEvent('mousemove',"
      "  { bubbles: true, clientX: 9, clientY: 9 }));"
      "Node.prototype.appendChild.call(f, new Text('news'));"
      "EventTarget.prototype.dispatchEvent.call(f, new FocusEvent('focusin',"
      "  { bubbles: true }))");
  const Json reports = AllReports();
  ASSERT_THAT(Of("cursor", reports), SizeIs(1));
  EXPECT_EQ(Text(Of("cursor", reports)[0], "cursor"), "wait");
  ASSERT_THAT(Of("tooltip", reports), SizeIs(1));
  EXPECT_EQ(Text(Of("tooltip", reports)[0], "text"), "Tip");
  ASSERT_THAT(Of("live", reports), SizeIs(1));
  EXPECT_EQ(Text(Of("live", reports)[0], "text"), "news");
  EXPECT_THAT(Of("focus", reports), SizeIs(1));
  Run("orvaneAgent.look(); orvaneAgent.leave()");
  EXPECT_EQ(Run("document.firstElementChild.inert"), true);
  Run("orvaneAgent.left(); orvaneAgent.expectTab(); orvaneAgent.haveTabbed();"
      "orvaneAgent.come()");
}

TEST_F(PageScriptTest, DeepAndWidePagesAreNoTrouble) {
  Open("<div id=d aria-live=polite hidden></div>");
  Run("orvaneAgent.turnAccessibilityOn()");
  Run("var deep = document.createElement('div'); var at = deep;"
      "for (let i = 0; i < 40; ++i) {"
      "  at.insertAdjacentHTML('beforeend', '<i>'.repeat(400));"
      "  while (at.firstChild) at = at.firstChild; }"
      "at.append('deep'); d.append(deep)");
  std::vector<Json> announced = Reports("live");
  ASSERT_THAT(announced, SizeIs(1));
  EXPECT_EQ(Text(announced[0], "text"), "deep");
  Run("deep.remove(); var wide = document.createElement('div');"
      "for (let i = 0; i < 300000; ++i) wide.append('x'); d.append(wide)");
  announced = Reports("live");
  ASSERT_THAT(announced, SizeIs(1));
  EXPECT_THAT(Text(announced[0], "text"), SizeIs(65536));
}

}  // namespace
}  // namespace chromium
