// Runs in every document of every page, in a world of its own: pages neither
// see nor change what is in here. Tells the widget what the engine does not,
// and does what it has no command for.
//
// What it reports is one JSON object a call of orvaneReport, `kind` first.
// Whatever comes from the page is cut, since the page decides how long it is.
(() => {
  "use strict";
  // An element of that id would be a member of the global object too.
  if (Object.hasOwn(globalThis, "orvaneAgent")) return;

  const kMaxText = 64 * 1024;

  const report = (message) => globalThis.orvaneReport(JSON.stringify(message));
  const cut = (text, longest = kMaxText) =>
    String(text).slice(0, longest).toWellFormed();
  // Elements can hide the members of their document or form by their names, as
  // in <img name=title>. What this returns has the members that are never
  // hidden; it is not the node itself.
  const bare = (node) =>
    node !== document && !(node instanceof HTMLFormElement) ? node
    : new Proxy({}, {
        get(_, name) {
          const member = Reflect.get(Object.getPrototypeOf(node), name, node);
          return typeof member === "function" ? member.bind(node) : member;
        },
        set: (_, name, value) =>
          Reflect.set(Object.getPrototypeOf(node), name, value, node),
      });
  const doc = bare(document);

  // Where an element lies in the view; null if a frame of another site's is in
  // between, whose place cannot be seen from here.
  const placeOf = (element) => {
    let { x, y, width, height } = bare(element).getBoundingClientRect();
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
    while (true) {
      const found = bare(element).closest(selector);
      if (found) return found;
      const root = bare(element).getRootNode();
      if (!(root instanceof ShadowRoot)) return null;
      element = root.host;
    }
  };

  // The cursor and the tooltip ------------------------------------------------

  let pointer = null;  // Where it was last, in this document.
  let hasTooltip = false;
  let isLeaving = false;  // From leave() to left().

  const textTypes = new Set([
    "date", "datetime-local", "email", "month", "number", "password", "search",
    "tel", "text", "time", "url", "week"]);

  const isOverText = (element) => {
    if (!pointer) return false;
    const at = doc.caretPositionFromPoint?.(pointer.x, pointer.y);
    if (at?.offsetNode.nodeType !== Node.TEXT_NODE) return false;
    if (!bare(element).contains(at.offsetNode)) return false;
    const range = doc.createRange();
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
    if (element instanceof HTMLTextAreaElement ||
        bare(element).isContentEditable)
      return "text";
    if (closest(element, "button, select, label")) return "default";
    if (getComputedStyle(element).userSelect === "none") return "default";
    return isOverText(element) ? "text" : "default";
  };

  // The pixels of an image, straight and in base64, scaled to be no larger.
  const pixelsOf = async (address, maxSide, mayShrink) => {
    const image = new Image();
    image.crossOrigin = "anonymous";  // Else its pixels could not be read.
    image.src = address;
    await image.decode();
    const longest = Math.max(image.naturalWidth, image.naturalHeight);
    if (longest > maxSide && !mayShrink) throw new Error("too large");
    const scale = Math.min(1, maxSide / longest);
    const width = Math.max(1, Math.round(image.naturalWidth * scale));
    const height = Math.max(1, Math.round(image.naturalHeight * scale));
    const canvas = new OffscreenCanvas(width, height).getContext("2d");
    canvas.drawImage(image, 0, 0, width, height);
    const { data } = canvas.getImageData(0, 0, width, height);
    let pixels = "";
    for (let i = 0; i < data.length; i += 8192)
      pixels += String.fromCharCode(...data.subarray(i, i + 8192));
    return { width, height, pixels: btoa(pixels) };
  };

  // Images of cursors: by address, their number; by number, the image or null.
  const kMaxCursorSide = 128;
  const kMaxCursorImages = 64;
  const cursorNumbers = new Map();
  const cursorImages = [null];

  // The number of the image, 0 without one. "url("a") 1 2, url("b"), pointer":
  // the first one counts, or else the keyword at the end.
  const cursorImage = (value) => {
    const parts = /^url\("((?:[^"\\]|\\.)*)"\)(?: ([\d.]+) ([\d.]+))?,/.exec(value);
    if (!parts) return { image: 0 };
    const address = parts[1].replace(/\\(.)/g, "$1");
    const hotspot = { x: Number(parts[2] ?? 0), y: Number(parts[3] ?? 0) };
    if (!cursorNumbers.has(address)) {
      if (cursorImages.length > kMaxCursorImages) return { image: 0 };
      const number = cursorImages.push(null) - 1;
      cursorNumbers.set(address, number);
      pixelsOf(address, kMaxCursorSide, false).then((image) => {
        cursorImages[number] = image;
        orvaneAgent.look();
      }, () => {});  // The keyword stays.
    }
    const image = cursorNumbers.get(address);
    return cursorImages[image] ? { image, ...hotspot } : { image: 0 };
  };

  const look = (element) => {
    let cursor = "default";
    let image = { image: 0 };
    let tooltip = "";
    let anchor = null;
    if (element) {
      const value = getComputedStyle(element).cursor;
      image = cursorImage(value);
      cursor = value.slice(value.lastIndexOf(",") + 1).trim();
      if (cursor === "auto") cursor = resolveAuto(element);
      anchor = closest(element, "[title]");
      const svg = closest(element, "svg")?.querySelector(":scope > title");
      tooltip = (anchor ? bare(anchor).getAttribute("title")
                        : svg?.textContent) ?? "";
    }
    hasTooltip = tooltip !== "";
    report({ kind: "cursor", cursor: cut(cursor), ...image });
    report({
      kind: "tooltip", text: cut(tooltip),
      direction: element ? getComputedStyle(element).direction : "ltr",
      anchor: anchor ? placeOf(anchor) : null });
  };

  // The engine makes up moves when the page changes. Nothing is found under the
  // pointer while the document is inert.
  addEventListener("mousemove", (event) => {
    if (isLeaving) return;
    pointer = { x: event.clientX, y: event.clientY };
    look(innermost(event));
  }, true);
  // Another document, if any, is under the pointer now and reports for itself.
  doc.addEventListener("mouseleave", () => {
    if (isLeaving) return;
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
    edge = doc.createElement("span");
    edge.tabIndex = tabIndex;  // 1 comes before those in the page's order.
    doc.documentElement?.[place](edge);
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
  const kMaxListText = 1024 * 1024;  // More does not fit into a call to a host.
  const kItemText = 50;              // What an item takes beside its texts.

  const drawnLists = new CSSStyleSheet();
  drawnLists.replaceSync(
    "select:not([multiple]):not([size]) { appearance: base-select; }" +
    "::picker(select) { appearance: base-select; }");

  const listFor = (event) => {
    const target = innermost(event);
    const select = target && bare(target).closest("select");
    const isList = select && !select.multiple && select.size <= 1;
    // One that the page draws takes its input itself while it is open.
    return isList && !select.disabled && !select.matches(":open") ? select
                                                                  : null;
  };

  const showList = (select) => {
    const items = [];
    const options = [];  // Of each item; null for what cannot be chosen.
    let left = kMaxListText;
    const add = (item, option) => {
      if (items.length === kMaxItems || left <= 0) return;
      for (const name of ["label", "value", "tooltip"]) {
        item[name] = cut(item[name] ?? "", Math.min(Math.max(left, 0), kMaxText));
        left -= item[name].length;
      }
      left -= kItemText;
      items.push(item);
      options.push(option);
    };
    const addOption = (option, group, isDisabled) => add({
      type: "option", label: option.label, value: option.value,
      tooltip: option.title, disabled: isDisabled || option.disabled,
      selected: option.selected, group,
      direction: getComputedStyle(option).direction }, option);
    for (const child of select.children) {
      if (child instanceof HTMLOptionElement) {
        addOption(child, null, false);
      } else if (child instanceof HTMLHRElement) {
        add({ type: "separator" }, null);
      } else if (child instanceof HTMLOptGroupElement) {
        const group = items.length;
        add({ type: "group", label: child.label,
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

  // Choosers ------------------------------------------------------------------

  // The engine's own are in no picture, as its lists are not. Colours are the
  // host's to choose; dates and times can be typed.
  let openColor = null;  // { id, input }
  let lastColor = 0;

  const hasChooser = (element) =>
    element instanceof HTMLInputElement &&
    element.matches("[type=date], [type=time], [type=month], [type=week], " +
                    "[type=datetime-local]");

  const askForColor = (input) => {
    if (input.disabled) return;
    openColor = { id: ++lastColor, input };
    report({
      kind: "color", color: openColor.id, value: cut(input.value),
      suggested: [...input.list?.options ?? []].slice(0, 100).map(
        (option) => cut(option.value, 7)) });  // "#rrggbb"
  };

  addEventListener("click", (event) => {
    const element = innermost(event);
    if (hasChooser(element)) event.preventDefault();
    if (!(element instanceof HTMLInputElement) || element.type !== "color")
      return;
    event.preventDefault();
    askForColor(element);
  }, true);

  addEventListener("keydown", (event) => {
    if (!hasChooser(innermost(event))) return;
    const opens = event.key === " " || event.key === "F4" ||
                  (event.altKey && event.key === "ArrowDown");
    if (opens) event.preventDefault();
  }, true);

  // Drags ---------------------------------------------------------------------

  // A drop on another target is told to the page by one of its own, which it
  // must not see. The effect, or null.
  let takenEffect = null;
  for (const type of ["dragenter", "dragover", "dragleave", "drop"]) {
    addEventListener(type, (event) => {
      if (!takenEffect) return;
      event.preventDefault();
      event.stopImmediatePropagation();
      event.dataTransfer.dropEffect = takenEffect;
    }, true);
  }

  // What a drop would do is known once all of the page's listeners have run.
  addEventListener("dragover", (event) => {
    if (takenEffect) return;
    const target = innermost(event);
    const types = event.dataTransfer.types;  // None once the event is over.
    setTimeout(() => {
      const takesText = target && types.includes("text/plain") &&
        (bare(target).isContentEditable ||
         bare(target).matches("textarea, input"));
      const takesFiles = target && bare(target).matches("input[type=file]") &&
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
  const watchedRoots = new WeakSet();
  const kMaxAnnounced = 100;  // Regions of a task. Nobody listens to more.
  const kRootsInterval = 1000;  // ms

  // The parent as the page is drawn: content of a shadow root lies in the
  // element that has it, and what is put into a slot lies there. Closed shadow
  // roots cannot be seen from here.
  const drawnParent = (node) =>
    node instanceof ShadowRoot ? node.host
                               : bare(node).assignedSlot ?? bare(node).parentNode;
  const drawnChildren = (node) => {
    const assigned = node instanceof HTMLSlotElement ? node.assignedNodes() : [];
    if (assigned.length > 0) return assigned;
    return bare(bare(node).shadowRoot ?? node).childNodes;
  };
  const regionOf = (node) => {
    for (let at = node; at; at = drawnParent(at)) {
      if (at instanceof Element && bare(at).matches(liveSelector)) return at;
    }
    return null;
  };

  // A page can nest deeper than functions can call themselves.
  const textOf = (node) => {
    let text = "";
    const rest = [node];
    while (rest.length > 0 && text.length < kMaxText) {
      const next = rest.pop();
      if (next instanceof Text) text += next.data;
      const isCode = next instanceof HTMLStyleElement ||
                     next instanceof HTMLScriptElement;
      if (isCode) continue;
      for (const child of [...drawnChildren(next)].reverse()) rest.push(child);
    }
    return text;
  };

  const politenessOf = (region) => {
    const stated = bare(region).getAttribute("aria-live");
    if (["off", "polite", "assertive"].includes(stated)) return stated;
    const role = bare(region).getAttribute("role");
    if (role === "alert") return "assertive";
    return role === "timer" || role === "marquee" ? "off" : "polite";
  };

  const announce = (region, changed, isRemoval) => {
    if (!regionIds.has(region)) regionIds.set(region, ++lastRegion);
    const attribute = (name) => bare(region).getAttribute(name);
    const role = attribute("role");
    const atomic = attribute("aria-atomic");
    const isAtomic = atomic === "true" ||
      (atomic === null && (role === "alert" || role === "status"));
    const language = closest(region, "[lang]");
    report({
      kind: "live", region: regionIds.get(region),
      text: cut(isAtomic ? textOf(region) : isRemoval ? "" : changed),
      politeness: politenessOf(region), atomic: isAtomic,
      relevant: cut(attribute("aria-relevant") ?? ""),
      busy: attribute("aria-busy") === "true",
      language: cut(language ? bare(language).getAttribute("lang") : "") });
  };

  // What live regions have gained, each with all of it.
  class Gains {
    #gains = new Map();

    note(node, text, isRemoval) {
      const region = regionOf(node);
      if (!region) return;
      const before = this.#gains.get(region);
      if (!before && this.#gains.size === kMaxAnnounced) return;
      const texts = [before?.text, text].filter(Boolean).join(" ");
      this.#gains.set(region, {
        text: texts.slice(0, kMaxText),
        isRemoval: (before?.isRemoval ?? true) && isRemoval });
    }
    // An alert is one as soon as it is there; other regions are silent until
    // they change.
    noteAlerts(root) {
      for (const alert of bare(root).querySelectorAll("[role=alert]")) {
        const text = textOf(alert);
        if (text.trim() !== "") this.note(alert, text, false);
      }
    }
    announce() {
      for (const [region, { text, isRemoval }] of this.#gains)
        announce(region, text, isRemoval);
    }
  }

  const watchChanges = (root) => {
    watchedRoots.add(root);
    liveObserver.observe(root, {
      characterData: true, childList: true, subtree: true });
  };

  // Watches the shadow roots below a node that are not watched yet, and those
  // in them. Their alerts are new, unless `gains` is null.
  const watchRoots = (node, gains) => {
    const rest = [node];
    while (rest.length > 0) {
      const next = bare(rest.pop());
      for (const element of [next, ...next.querySelectorAll("*")]) {
        const root = bare(element).shadowRoot;
        if (!root || watchedRoots.has(root)) continue;
        watchChanges(root);
        gains?.noteAlerts(root);
        rest.push(root);
      }
    }
  };

  const takeChanges = (changes) => {
    const gains = new Gains();
    for (const change of changes) {
      if (change.type === "characterData") {
        gains.note(change.target, change.target.data, false);
        continue;
      }
      for (const node of change.addedNodes) {
        const isThere = bare(node).isConnected;
        gains.note(isThere ? node : change.target, textOf(node), false);
        if (!isThere || !(node instanceof Element)) continue;
        gains.noteAlerts(node);
        watchRoots(node, gains);
      }
      if (change.removedNodes.length > 0 && change.addedNodes.length === 0)
        gains.note(change.target, "", true);
    }
    gains.announce();
  };

  // Nothing tells of a shadow root that is attached to an element of the page.
  const lookForRootsLater = () => {
    setTimeout(() => requestIdleCallback(() => {
      const gains = new Gains();
      watchRoots(document, gains);
      gains.announce();
      lookForRootsLater();
    }), kRootsInterval);
  };

  // The title and the icon, of the main frame ---------------------------------

  const kMaxIconSide = 64;
  let title = "";
  let icon = null;          // The address of the one that was reported last.
  let isIconLoading = false;

  const iconAddress = () => {
    const link = [...doc.querySelectorAll("link[rel~=icon i]")].at(-1);
    if (link?.href) return link.href;
    return /^https?:$/.test(location.protocol)
             ? new URL("/favicon.ico", location).href : "";
  };

  const reportIcon = async () => {
    if (isIconLoading || doc.readyState !== "complete") return;
    const address = iconAddress();
    if (address === icon) return;
    icon = address;
    isIconLoading = true;
    try {
      report({ kind: "icon", ...await pixelsOf(address, kMaxIconSide, true) });
    } catch {
      report({ kind: "icon" });  // There is none that can be read.
    }
    isIconLoading = false;
    reportIcon();  // It may be another one by now.
  };

  const reportTitle = () => {
    if (doc.title === title) return;
    title = doc.title;
    report({ kind: "title", title: cut(title) });
  };

  let isHeadWatched = false;
  const watchHead = () => {
    reportTitle();
    if (isHeadWatched) return;
    isHeadWatched = true;
    bodyAwaited.disconnect();
    new MutationObserver(() => {
      reportTitle();
      reportIcon();
    }).observe(doc.head ?? document, {
      attributes: true, characterData: true, childList: true, subtree: true });
  };
  // A page whose loading is stopped never says that its content is there.
  const bodyAwaited = new MutationObserver(() => {
    if (doc.body) watchHead();
  });

  if (window === window.top) {
    if (doc.body || doc.readyState !== "loading") watchHead();
    else bodyAwaited.observe(document, { childList: true, subtree: true });
    addEventListener("DOMContentLoaded", watchHead, { once: true });
    addEventListener("load", reportIcon, { once: true });
  }

  // What the widget calls -----------------------------------------------------

  globalThis.orvaneAgent = {
    takeDrops(effect) { takenEffect = effect; },
    drawList(list) {
      if (openList?.id !== list) return;
      const { select } = openList;
      openList = null;
      if (!doc.adoptedStyleSheets.includes(drawnLists)) {
        doc.adoptedStyleSheets =
          [...doc.adoptedStyleSheets, drawnLists];
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
    // Null: none was chosen.
    chooseColor(color, value) {
      if (openColor?.id !== color) return;
      const { input } = openColor;
      openColor = null;
      if (value === null || input.value === value) return;
      input.value = value;
      for (const type of ["input", "change"])
        input.dispatchEvent(new Event(type, { bubbles: true }));
    },
    cursorImage(number) { return cursorImages[number] ?? null; },
    turnAccessibilityOn() {
      if (liveObserver) return;
      addEventListener("focusin", (event) => {
        const element = innermost(event);
        if (element) report({ kind: "focus", place: placeOf(element) });
      }, true);
      liveObserver = new MutationObserver(takeChanges);
      watchChanges(document);
      watchRoots(document, null);
      lookForRootsLater();
    },
    // The view has lost the focus. A page gives it up only if Tab finds nothing
    // to go to, so the document is inert while the widget sends one.
    leave() {
      const active = doc.activeElement;
      if (active && active !== doc.body) remembered = active;
      hidesTab = true;
      isLeaving = true;
      if (active) bare(active).blur();
      if (doc.documentElement) doc.documentElement.inert = true;
    },
    // After the Tab.
    left() {
      hidesTab = false;
      isLeaving = false;
      if (doc.documentElement) doc.documentElement.inert = false;
      return doc.hasFocus();
    },
    // The view has the focus again.
    come() {
      const element = remembered;
      remembered = null;
      if (element && bare(element).isConnected)
        bare(element).focus({ preventScroll: true });
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
      if (!doc.hasFocus()) window.focus();
    },
    hasFocus() {
      return doc.hasFocus();
    },
    // Looks again at what the pointer is over, since the page has changed.
    look() {
      if (openList && !openList.select.isConnected) {
        report({ kind: "listGone", list: openList.id });
        openList = null;
      }
      if (!pointer) return;
      let element = doc.elementFromPoint(pointer.x, pointer.y);
      for (let root; element && (root = bare(element).shadowRoot);) {
        const inner = root.elementFromPoint(pointer.x, pointer.y);
        if (!inner || inner === element) break;
        element = inner;
      }
      // A frame's content is looked at by the frame.
      if (!(element instanceof HTMLIFrameElement)) look(element);
    },
  };
})();
