// Runs in every document of every page, in a world of its own: pages neither
// see nor change what is in here. Tells the widget what the engine does not,
// and does what it has no command for.
//
// What it reports is one JSON object a call of orvaneReport, `kind` first.
// Whatever comes from the page is cut, since the page decides how long it is.
(() => {
  "use strict";
  if (globalThis.orvaneAgent) return;

  const kMaxText = 64 * 1024;

  const report = (message) => globalThis.orvaneReport(JSON.stringify(message));
  const cut = (text) => String(text).slice(0, kMaxText).toWellFormed();
  // Where an element lies in the view; null if a frame of another site's is in
  // between, whose place cannot be seen from here.
  const placeOf = (element) => {
    let { x, y, width, height } = element.getBoundingClientRect();
    let inner = window;
    for (; inner.frameElement; inner = inner.parent) {
      const frame = inner.frameElement;
      const box = frame.getBoundingClientRect();
      x += box.x + frame.clientLeft;
      y += box.y + frame.clientTop;
    }
    return inner === window.top ? { x, y, width, height } : null;
  };
  // The innermost element of an event, inside open shadow roots too.
  const innermost = (event) => {
    const target = event.composedPath()[0];
    return target instanceof Element ? target : target?.parentElement ?? null;
  };
  const closest = (element, selector) => {
    while (element) {
      const found = element.closest(selector);
      if (found) return found;
      element = element.getRootNode().host;  // Out of the shadow root.
    }
    return null;
  };

  // The cursor and the tooltip ------------------------------------------------

  let pointer = null;  // Where it was last, in this document.
  let hasTooltip = false;

  const textTypes = new Set([
    "date", "datetime-local", "email", "month", "number", "password", "search",
    "tel", "text", "time", "url", "week"]);

  const isOverText = (element) => {
    if (!pointer) return false;
    const at = document.caretPositionFromPoint?.(pointer.x, pointer.y);
    if (at?.offsetNode.nodeType !== Node.TEXT_NODE) return false;
    if (!element.contains(at.offsetNode)) return false;
    const range = document.createRange();
    range.selectNodeContents(at.offsetNode);
    return [...range.getClientRects()].some(
      (box) => pointer.x >= box.left && pointer.x < box.right &&
               pointer.y >= box.top && pointer.y < box.bottom);
  };

  // The engine does not tell what it makes of `auto`.
  const resolveAuto = (element) => {
    if (closest(element, "a[href], area[href]")) return "pointer";
    if (element instanceof HTMLInputElement)
      return textTypes.has(element.type) ? "text" : "default";
    if (element instanceof HTMLTextAreaElement || element.isContentEditable)
      return "text";
    if (closest(element, "button, select, label")) return "default";
    if (getComputedStyle(element).userSelect === "none") return "default";
    return isOverText(element) ? "text" : "default";
  };

  const look = (element) => {
    let cursor = "default";
    let tooltip = "";
    let anchor = null;
    if (element) {
      // "url(a) 1 1, url(b), pointer": the keyword is the last.
      cursor = getComputedStyle(element).cursor.split(",").at(-1).trim();
      if (cursor === "auto") cursor = resolveAuto(element);
      anchor = closest(element, "[title]");
      const svg = element.closest("svg")?.querySelector(":scope > title");
      tooltip = anchor ? anchor.title ?? "" : svg?.textContent ?? "";
    }
    hasTooltip = tooltip !== "";
    report({ kind: "cursor", cursor: cut(cursor) });
    report({
      kind: "tooltip", text: cut(tooltip),
      direction: element ? getComputedStyle(element).direction : "ltr",
      anchor: anchor ? placeOf(anchor) : null });
  };

  addEventListener("mousemove", (event) => {
    pointer = { x: event.clientX, y: event.clientY };
    look(innermost(event));
  }, true);
  // Another document, if any, is under the pointer now and reports for itself.
  document.addEventListener("mouseleave", () => {
    pointer = null;
    if (hasTooltip) report({ kind: "tooltip", text: "" });
    hasTooltip = false;
  }, true);

  // The focus -----------------------------------------------------------------

  let hidesTab = false;       // The page must not see the widget's own Tab.
  let remembered = null;      // What had the focus when the view lost it.

  for (const type of ["keydown", "keyup"]) {
    addEventListener(type, (event) => {
      if (!hidesTab || event.key !== "Tab") return;
      event.stopImmediatePropagation();
      if (type === "keyup") hidesTab = false;
    }, true);
  }

  // Tab goes on from what had the focus last, so that it leads in from an
  // element at the edge of the page which is only there meanwhile.
  let edge = null;
  const beginTabAt = (place, tabIndex) => {
    remembered = null;
    hidesTab = true;
    edge = document.createElement("span");
    edge.tabIndex = tabIndex;  // 1 comes before those in the page's order.
    document.documentElement?.[place](edge);
    edge.focus({ preventScroll: true });
  };
  for (const type of ["focus", "focusin", "blur", "focusout"]) {
    addEventListener(type, (event) => {
      if (edge && event.target === edge) event.stopImmediatePropagation();
    }, true);
  }

  // Clicks say by themselves what is to have the focus.
  addEventListener("mousedown", () => { remembered = null; }, true);

  // Drop-downs ----------------------------------------------------------------

  // The engine's own list is in no picture and takes keys unseen, so it must not
  // open. The widget is told instead: it asks the host, or, if none serves
  // lists, has the page draw the list.
  let openList = null;  // { id, select, options }
  let lastList = 0;
  const kMaxItems = 10000;

  const drawnLists = new CSSStyleSheet();
  drawnLists.replaceSync(
    "select:not([multiple]):not([size]) { appearance: base-select; }" +
    "::picker(select) { appearance: base-select; }");

  const listFor = (event) => {
    const select = innermost(event)?.closest("select");
    const isList = select && !select.multiple && select.size <= 1;
    // One that the page draws takes its input itself while it is open.
    return isList && !select.disabled && !select.matches(":open") ? select
                                                                  : null;
  };

  const showList = (select) => {
    const items = [];
    const options = [];  // Of each item; null for what cannot be chosen.
    const add = (item, option) => {
      if (items.length === kMaxItems) return;
      items.push(item);
      options.push(option);
    };
    const addOption = (option, group, isDisabled) => add({
      type: "option", label: cut(option.label), value: cut(option.value),
      tooltip: cut(option.title), disabled: isDisabled || option.disabled,
      selected: option.selected, group,
      direction: getComputedStyle(option).direction }, option);
    for (const child of select.children) {
      if (child instanceof HTMLOptionElement) {
        addOption(child, null, false);
      } else if (child instanceof HTMLHRElement) {
        add({ type: "separator" }, null);
      } else if (child instanceof HTMLOptGroupElement) {
        const group = items.length;
        add({ type: "group", label: cut(child.label),
              disabled: child.disabled }, null);
        for (const option of child.querySelectorAll("option"))
          addOption(option, group, child.disabled);
      }
    }
    const style = getComputedStyle(select);
    openList = { id: ++lastList, select, options };
    report({
      kind: "list", list: openList.id, anchor: placeOf(select), items,
      direction: style.direction, fontSize: parseFloat(style.fontSize) });
  };

  addEventListener("mousedown", (event) => {
    const select = listFor(event);
    if (!select || event.button !== 0) return;
    event.preventDefault();
    select.focus();
    showList(select);
  }, true);

  addEventListener("keydown", (event) => {
    const select = listFor(event);
    if (!select) return;
    const isArrow = event.key === "ArrowDown" || event.key === "ArrowUp";
    const opens = event.key === " " || event.key === "Enter" ||
                  event.key === "F4" || (isArrow && event.altKey);
    if (!opens || event.ctrlKey || event.metaKey) return;
    event.preventDefault();
    showList(select);
  }, true);

  // Drags ---------------------------------------------------------------------

  // What a drop would do is known once all of the page's listeners have run.
  addEventListener("dragover", (event) => {
    const target = innermost(event);
    setTimeout(() => {
      const types = event.dataTransfer.types;
      const takesText = target && types.includes("text/plain") &&
        (target.isContentEditable || target.matches("textarea, input"));
      const takesFiles = target?.matches("input[type=file]") &&
                         types.includes("Files");
      report({
        kind: "drag",
        effect: event.defaultPrevented ? event.dataTransfer.dropEffect
                : takesText || takesFiles ? "copy" : "none" });
    });
  }, true);

  // Accessibility -------------------------------------------------------------

  const liveSelector = "[aria-live], [role=alert], [role=status], [role=log], " +
                       "[role=timer], [role=marquee], output";
  const regionIds = new WeakMap();
  let lastRegion = 0;
  let liveObserver = null;

  const politenessOf = (region) => {
    const stated = region.getAttribute("aria-live");
    if (["off", "polite", "assertive"].includes(stated)) return stated;
    const role = region.getAttribute("role");
    if (role === "alert") return "assertive";
    return role === "timer" || role === "marquee" ? "off" : "polite";
  };

  const announce = (region, changed, isRemoval) => {
    if (!regionIds.has(region)) regionIds.set(region, ++lastRegion);
    const role = region.getAttribute("role");
    const atomic = region.getAttribute("aria-atomic");
    const isAtomic = atomic === "true" ||
      (atomic === null && (role === "alert" || role === "status"));
    report({
      kind: "live", region: regionIds.get(region),
      text: cut(isAtomic ? region.textContent : isRemoval ? "" : changed),
      politeness: politenessOf(region), atomic: isAtomic,
      relevant: cut(region.getAttribute("aria-relevant") ?? ""),
      busy: region.getAttribute("aria-busy") === "true",
      language: cut(region.closest("[lang]")?.lang ?? "") });
  };

  const takeChanges = (changes) => {
    // One report for each region of a task, with all that it gained.
    const gained = new Map();
    const note = (node, text, isRemoval) => {
      const element = node instanceof Element ? node : node.parentElement;
      const region = element?.closest(liveSelector);
      if (!region) return;
      const before = gained.get(region) ?? { text: "", isRemoval: true };
      gained.set(region, {
        text: [before.text, text].filter(Boolean).join(" "),
        isRemoval: before.isRemoval && isRemoval });
    };
    for (const change of changes) {
      if (change.type === "characterData") {
        note(change.target, change.target.data, false);
        continue;
      }
      for (const node of change.addedNodes) {
        note(node.isConnected ? node : change.target, node.textContent, false);
      }
      if (change.removedNodes.length > 0 && change.addedNodes.length === 0)
        note(change.target, "", true);
    }
    for (const [region, { text, isRemoval }] of gained)
      announce(region, text, isRemoval);
  };

  // What the widget calls -----------------------------------------------------

  globalThis.orvaneAgent = {
    drawList(list) {
      if (openList?.id !== list) return;
      const { select } = openList;
      openList = null;
      if (!document.adoptedStyleSheets.includes(drawnLists)) {
        document.adoptedStyleSheets =
          [...document.adoptedStyleSheets, drawnLists];
      }
      try {
        select.showPicker();
      } catch {
        // Not in a frame of another site's; there the next press opens it.
      }
    },
    // Null: the list was closed without a choice.
    chooseFromList(list, index) {
      if (openList?.id !== list) return;
      const { select, options } = openList;
      openList = null;
      const option = index === null ? null : options[index];
      if (!option?.isConnected || option.selected) return;
      option.selected = true;
      for (const type of ["input", "change"])
        select.dispatchEvent(new Event(type, { bubbles: true }));
    },
    turnAccessibilityOn() {
      if (liveObserver) return;
      addEventListener("focusin", (event) => {
        const element = innermost(event);
        if (element) report({ kind: "focus", place: placeOf(element) });
      }, true);
      liveObserver = new MutationObserver(takeChanges);
      liveObserver.observe(document, {
        characterData: true, childList: true, subtree: true });
    },
    // The view has lost the focus. A page gives it up only if Tab finds nothing
    // to go to, so the document is inert while the widget sends one.
    leave() {
      const active = document.activeElement;
      if (active && active !== document.body) remembered = active;
      hidesTab = true;
      active?.blur();
      if (document.documentElement) document.documentElement.inert = true;
    },
    // After the Tab.
    left() {
      hidesTab = false;
      if (document.documentElement) document.documentElement.inert = false;
      return document.hasFocus();
    },
    // The view has the focus again.
    come() {
      const element = remembered;
      remembered = null;
      if (element?.isConnected) element.focus({ preventScroll: true });
      else window.focus();
    },
    // The widget sends a Tab that leads into the page, by its first element
    // or, if backward, by its last.
    expectTab() { beginTabAt("prepend", 1); },
    expectBackTab() { beginTabAt("append", 0); },
    haveTabbed() {
      edge?.remove();
      edge = null;
      // A page without anything to focus keeps the focus itself.
      if (!document.hasFocus()) window.focus();
    },
    hasFocus() {
      return document.hasFocus();
    },
    // Looks again at what the pointer is over, since the page has changed.
    look() {
      if (openList && !openList.select.isConnected) {
        report({ kind: "listGone", list: openList.id });
        openList = null;
      }
      if (!pointer) return;
      let element = document.elementFromPoint(pointer.x, pointer.y);
      while (element?.shadowRoot) {
        const inner = element.shadowRoot.elementFromPoint(pointer.x, pointer.y);
        if (!inner || inner === element) break;
        element = inner;
      }
      // A frame's content is looked at by the frame.
      if (!(element instanceof HTMLIFrameElement)) look(element);
    },
  };
})();
