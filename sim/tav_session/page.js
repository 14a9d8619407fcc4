"use strict";
// Draws a session: rows by time, of which those are made that can be seen. All that comes from a capture is put into text
// nodes. Events that come later: append(rows); a row of a known key takes the place of the one before.

const QUIET = ["ok", "plain", "note", "unseen", "waiting"];
const KEYS = [
  ["↓ ↑  j k", "next, previous"], ["n  p", "next, previous trouble"], ["Enter", "bytes, field by field"], ["Esc", "close"],
  ["/", "find text"], ["+  −", "more, less room for time"], ["0", "show all again"], ["Home  End", "first, last"],
];
const LINE = 18, LOW = 32, TIMES = 96, LARGEST = 12e6, PAUSE = .0995, LONG_WORD = /\S{40}/, MOST_PRINTED = 2000;

const $ = name => document.getElementById(name);
const data = JSON.parse($("session").textContent), STATES = data.states;
const rows = [], byKey = new Map();
let shown = [], tops = [], heights = [], total = 0, begin = 0, chosen = null, scale = 0, range = null, lanes = [], geometry = {};
let isPrinting = false;
const wanted = {bricks: new Set(), states: new Set()};  // bricks: those that are left out

function make(tag, properties = {}, ...children) {
  const {dataset, ...others} = properties;
  const element = Object.assign(document.createElement(tag), others);
  element.append(...children);
  return element;
}

function draw(tag, attributes) {
  const element = document.createElementNS("http://www.w3.org/2000/svg", tag);
  for (const name in attributes) element.setAttribute(name, attributes[name]);
  return element;
}

function isTrouble(row) {
  return !QUIET.includes(row.state);
}

function seconds(time) {
  return time < 1 ? (time * 1000).toFixed(time < .01 ? 1 : 0) + " ms" : time < 100 ? time.toFixed(1) + " s" : Math.round(time) + " s";
}

// ---- What there is -------------------------------------------------------------------------------------------------

function append(events) {
  let sorted = true;
  for (const event of events) {
    const before = byKey.get(event.key);
    if (event.removed) {
      byKey.delete(event.key);
    } else if (before) {
      delete before.ended;
      Object.assign(before, event);
    } else {
      sorted = sorted && (rows.length === 0 || rows[rows.length - 1].time <= event.time);
      byKey.set(event.key, event);
      rows.push(event);
    }
  }
  if (byKey.size < rows.length) rows.splice(0, rows.length, ...byKey.values());
  if (!sorted) rows.sort((a, b) => a.time - b.time);
  begin = rows.length ? rows[0].time : 0;
  const atEnd = $("scroller").scrollTop + $("scroller").clientHeight >= total - 4;
  listChoices();
  arrange();
  if (atEnd && data.live) $("scroller").scrollTop = total;
}

function listChoices() {
  const names = new Set(data.bricks);
  for (const row of rows) {
    if (row.from) names.add(row.from);
    if (row.to) names.add(row.to);
  }
  const order = new Intl.Collator("en", {numeric: true}).compare;
  lanes = [...names].sort(order);
  const counts = {}, kinds = new Set(), ids = new Set();
  let messages = 0, arrived = 0;
  for (const row of rows) {
    if (row.what === "send") {
      messages++;
      arrived += row.state === "ok";
    }
    if (isTrouble(row) && row.what !== "receive" || row.state === "unseen") counts[row.state] = (counts[row.state] || 0) + 1;
    if (row.kind) kinds.add(row.kind);
    if (row.id !== undefined) ids.add(row.id);
  }
  $("bricks").replaceChildren(...lanes.map(name => toggle(name, !wanted.bricks.has(name), () => flip(wanted.bricks, name))));
  $("states").replaceChildren(...Object.keys(STATES).filter(state => counts[state]).map(state => {
    const button = toggle(`${STATES[state][0]} ${counts[state]}`, wanted.states.has(state), () => flip(wanted.states, state));
    button.classList.add(state);
    button.title = STATES[state][1];
    return button;
  }));
  fill($("kind"), [...kinds].sort());
  fill($("id"), [...ids].sort(order).slice(0, 2000));
  const last = rows.length ? rows[rows.length - 1].time - begin : 0;
  const words = !messages ? "No message was sent" : `${arrived} of ${messages} message${messages === 1 ? "" : "s"} arrived as sent`;
  const when = rows.length ? `, in ${seconds(last)} from ${new Date(begin * 1000).toISOString().slice(0, 19).replace("T", " ")} UTC` : "";
  const hint = messages && arrived === messages ? ". Does a program miss one? Compare the sender, kind and id that it reads with those here." : "";
  $("summary").replaceChildren(make("b", {textContent: words}), when + hint);
}

function toggle(text, pressed, act) {
  const button = make("button", {type: "button", textContent: text});
  button.setAttribute("aria-pressed", pressed);
  button.addEventListener("click", act);
  return button;
}

function flip(set, name) {
  set.has(name) ? set.delete(name) : set.add(name);
  listChoices();
  arrange();
}

function fill(select, names) {
  const before = select.value;
  if (select.options.length - 1 === names.length && names.every((name, i) => select.options[i + 1].value === name)) return;
  select.replaceChildren(make("option", {value: "", textContent: "all"}),
    ...names.map(name => make("option", {value: name, textContent: name.length > 40 ? name.slice(0, 39) + "…" : name})));
  select.value = names.includes(before) ? before : "";
}

function passes(row, kind, id, text) {
  if ((row.from && wanted.bricks.has(row.from)) || (row.to && wanted.bricks.has(row.to))) return false;
  if (wanted.states.size && !wanted.states.has(row.state)) return false;
  if (kind && row.kind !== kind || id && row.id !== id) return false;
  if (range && (row.time < range[0] || row.time > range[1])) return false;
  return !text || [row.title, row.says, row.sender, row.id, row.value].some(part => part && part.toLowerCase().includes(text));
}

// ---- Where it stands -----------------------------------------------------------------------------------------------

function arrange() {
  const text = $("text").value.toLowerCase();
  const kind = $("kind").value, id = $("id").value;
  shown = rows.filter(row => passes(row, kind, id, text));
  if (isPrinting && shown.length > MOST_PRINTED) {
    const left = shown.splice(MOST_PRINTED).length;
    shown.push({key: "", time: shown[MOST_PRINTED - 1].time, what: "note", state: "note", title: "", says: `${left} more rows are not printed; choose a time, or filter.`});
  }
  const width = $("scroller").clientWidth || 1200;
  const visible = lanes.filter(name => !wanted.bricks.has(name));
  const words = Math.max(Math.min(260, width * .45), Math.min(620, (width - TIMES) * .42, width - TIMES - 110 * visible.length));
  const room = width - TIMES - words - 24;
  geometry = {words, width, x: new Map(visible.map((name, i) => [name, TIMES + room * (i + .42) / visible.length])), room,
    step: room / Math.max(1, visible.length)};
  const perLine = words / 7.3;
  tops = new Float64Array(shown.length);
  heights = new Float64Array(shown.length);
  let sum = 0;
  shown.forEach((row, i) => {
    const lines = Math.min(16, Math.ceil(((row.says || "").length + (isTrouble(row) ? 10 : 0)) / perLine) + LONG_WORD.test(row.says || ""));
    heights[i] = Math.max(i && row.time - shown[i - 1].time >= PAUSE ? LOW + 14 : LOW, 12 + LINE * lines);
    sum += heights[i];
  });
  const duration = shown.length ? shown[shown.length - 1].time - shown[0].time : 0;
  const perSecond = scale && duration ? Math.min(sum * 2 ** (scale - 1), LARGEST) / duration : 0;
  total = 8;
  shown.forEach((row, i) => {
    if (i) total += Math.max(0, perSecond * (row.time - shown[i - 1].time) - heights[i - 1]);
    tops[i] = total;
    total += heights[i];
  });
  total += 16;
  geometry.lives = new Map(visible.map(name => [name, findLives(name)]));
  $("sheet").style.height = total + "px";
  $("scale").textContent = perSecond ? `${Number(perSecond.toPrecision(2))} px/s` : "rows";
  drawLanes(visible);
  render();
}

function drawLanes(visible) {
  $("lanes").replaceChildren(...visible.map(name => {
    const isHere = data.recorded.includes(name) || data.live;
    const lane = make("div", {className: isHere ? "lane" : "lane absent", title: isHere ? name : name + ": not recorded"},
      make("bdi", {textContent: name}));
    lane.style.left = geometry.x.get(name) + "px";
    lane.style.maxWidth = Math.max(50, geometry.step - 6) + "px";
    return lane;
  }), place(make("span", {className: "column", textContent: "time, s"}), 16),
    place(make("span", {className: "column", textContent: "what a reader gets"}), geometry.width - geometry.words - 16));
}

// From where to where a brick's line goes: it ends with a program, and goes on with the next one.
function findLives(name) {
  const lives = [[0, Infinity]];
  for (const row of rows) {
    const isAlive = lives[lives.length - 1][1] === Infinity;
    if (row.ended === name && isAlive) lives[lives.length - 1][1] = heightOf(row);
    if (row.what === "start" && row.from === name && !isAlive) lives.push([heightOf(row), Infinity]);
  }
  return lives;
}

function heightOf(row) {
  const i = shown.findIndex(other => other.time >= row.time);
  return i < 0 ? total : tops[i] + (shown[i] === row ? 14 : 0);
}

function place(element, left) {
  element.style.left = left + "px";
  return element;
}

function find(y) {
  let low = 0, high = shown.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (tops[middle] + heights[middle] < y) low = middle + 1; else high = middle;
  }
  return low;
}

// ---- Drawing -------------------------------------------------------------------------------------------------------

function render() {
  const from = isPrinting ? 0 : find($("scroller").scrollTop - 200);
  const end = isPrinting ? total : $("scroller").scrollTop + $("scroller").clientHeight + 200;
  const elements = [], picture = draw("svg", {width: geometry.width, height: total});
  const first = isPrinting ? 0 : Math.max(0, $("scroller").scrollTop - 300), last = Math.min(Math.max(total, $("scroller").clientHeight), end + 300);
  for (const [name, x] of geometry.x) {
    for (const [y1, y2] of geometry.lives.get(name)) {
      if (y1 < last && y2 > first) picture.append(draw("line", {class: "life", x1: x, x2: x, y1: Math.max(y1, first), y2: Math.min(y2, last)}));
      if (y2 < last) picture.append(draw("line", {class: "life", x1: x - 8, x2: x + 8, y1: y2, y2}));
    }
  }
  const drawn = new Set();
  for (let i = from; i < shown.length && tops[i] < end; i++) {
    elements.push(makeRow(shown[i], i));
    drawRow(picture, shown[i], i, drawn);
  }
  if (!shown.length) elements.push(make("p", {id: "empty", textContent: rows.length ? "Nothing passes the filter." : "Nothing has happened yet."}));
  $("sheet").replaceChildren(picture, ...elements);
  drawOverview();
}

function makeRow(row, i) {
  const element = make("div", {className: `row ${row.state}`, id: "row" + i});
  element.setAttribute("role", "option");
  element.setAttribute("aria-selected", row === chosen);
  element.style.top = tops[i] + "px";
  element.style.height = heights[i] + "px";
  const ago = i ? row.time - shown[i - 1].time : 0;
  element.append(make("span", {className: "time"}, (row.time - begin).toFixed(3).padStart(8),
    make("i", {textContent: ago >= PAUSE ? "\n" + ("+" + seconds(ago)).padStart(8) : ""})), makeLabel(row));
  if (geometry.x.has(row.ended)) element.append(makePill("program ended", geometry.x.get(row.ended), row));
  const says = make("div", {className: "says"});
  if (isTrouble(row)) says.append(make("span", {className: "badge", textContent: STATES[row.state][0]}));
  says.append(make("bdi", {className: isTrouble(row) ? "" : "quiet", textContent: row.says || ""}));
  says.style.width = geometry.words + "px";
  says.style.maxHeight = heights[i] - 6 + "px";
  element.append(says);
  element.addEventListener("click", () => choose(i, true));
  return element;
}

function makeLabel(row) {
  const a = geometry.x.get(row.from), b = geometry.x.get(row.to);
  const isArrow = a !== undefined && b !== undefined && row.what !== "receive" && row.what !== "end";
  if (!isArrow) return makePill(row.title, row.what === "receive" ? b : a, row);
  const label = make("span", {className: "label", title: row.title.slice(0, 300)}, make("bdi", {textContent: row.title}));
  const free = a < b ? geometry.width - geometry.words - 40 - a : a - TIMES;
  label.style.maxWidth = Math.max(Math.abs(a - b) - 24, Math.min(260, free)) + "px";
  label.style[a < b ? "left" : "right"] = (a < b ? a : geometry.width - a) + 12 + "px";
  return label;
}

function makePill(text, x, row) {
  const label = make("span", {className: "label pill", title: text.slice(0, 300)}, make("bdi", {textContent: text}));
  const end = geometry.width - (row.says ? geometry.words + 16 : 0);
  const next = Math.min(...[...geometry.x.values()].filter(other => other > x), end);
  label.style.maxWidth = Math.max(60, next - x - 14) + "px";
  return place(label, Math.min(x + 10, next - 64));
}

function drawRow(picture, row, i, drawn) {
  const a = geometry.x.get(row.from), b = geometry.x.get(row.to);
  if (a === undefined || b === undefined) return;
  const y = tops[i] + 25;
  if (row.what === "receive") {
    for (const key of row.sends || []) drawArrow(picture, byKey.get(key), drawn);
    if (!(row.sends || []).length) arrow(picture, row.state, a, y, b, y, "");
  } else if (row.what === "send" && row.size) {
    drawArrow(picture, row, drawn);
  } else if (row.what === "connect" || row.what === "send") {
    const fails = isTrouble(row);
    arrow(picture, row.state, a, y, fails ? a + (b - a) * .86 : b, y, row.what === "connect" ? "dashed" : "", fails);
  }
}

// From where a message was sent to where it was read; several times if it was cut.
function drawArrow(picture, row, drawn) {
  const i = row ? indexOf(row) : -1;
  if (i < 0 || drawn.has(row)) return;
  drawn.add(row);
  const a = geometry.x.get(row.from), b = geometry.x.get(row.to), y = tops[i] + 25;
  const style = row.state === "swallowed" ? "dashed" : QUIET.includes(row.state) && row.state !== "ok" ? "faint" : "";
  for (const read of row.reads || []) {
    const there = read.key ? indexOf(byKey.get(read.key)) : -1;
    arrow(picture, row.state, a, y, b, there >= 0 ? tops[there] + 14 : y, style);
  }
  if (!(row.reads || []).length) {
    const isLost = isTrouble(row);
    arrow(picture, row.state, a, y, isLost ? a + (b - a) * .86 : b, y, style, isLost);
  }
}

function indexOf(row) {
  if (!row) return -1;
  let low = 0, high = shown.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (shown[middle].time < row.time) low = middle + 1; else high = middle;
  }
  while (low < shown.length && shown[low].time === row.time && shown[low] !== row) low++;
  return shown[low] === row ? low : -1;
}

function arrow(picture, state, x1, y1, x2, y2, style, isLost) {
  const group = draw("g", {class: state});
  const length = Math.hypot(x2 - x1, y2 - y1) || 1, dx = (x2 - x1) / length, dy = (y2 - y1) / length;
  const end = isLost ? 0 : 9;
  group.append(draw("line", {class: style, x1, y1, x2: x2 - dx * end, y2: y2 - dy * end}), draw("circle", {cx: x1, cy: y1, r: 3}));
  group.append(isLost ? draw("path", {d: `M${x2 - 6} ${y2 - 6}l12 12m0 -12l-12 12`}) :
    draw("path", {class: "tip", d: `M${x2} ${y2}L${x2 - dx * 10 - dy * 5} ${y2 - dy * 10 + dx * 5}L${x2 - dx * 10 + dy * 5} ${y2 - dy * 10 - dx * 5}Z`}));
  picture.append(group);
}

// ---- All of it, small ----------------------------------------------------------------------------------------------

function bounds() {
  return [begin, Math.max(begin + .001, rows.length ? rows[rows.length - 1].time : 0)];
}

function drawOverview() {
  const canvas = $("overview"), ratio = window.devicePixelRatio || 1, width = canvas.clientWidth, height = canvas.clientHeight;
  if (!width) return;
  canvas.width = width * ratio;
  canvas.height = height * ratio;
  const pen = canvas.getContext("2d"), style = getComputedStyle(document.documentElement);
  const colour = name => style.getPropertyValue("--" + name).trim();
  const [first, last] = bounds(), x = time => 4 + (width - 8) * (time - first) / (last - first);
  pen.scale(ratio, ratio);
  pen.font = "11px system-ui, sans-serif";
  let step = 10 ** Math.floor(Math.log10((last - first) / (width / 90)));
  step *= [1, 2, 5, 10].find(times => (last - first) / (step * times) <= width / 90) || 10;
  pen.fillStyle = colour("soft");
  pen.strokeStyle = colour("line");
  for (let tick = 0; tick <= last - first; tick += step) {
    pen.strokeRect(x(first + tick), 0, 0, height - 14);
    if (x(first + tick) < width - 30) pen.fillText(step < 1 ? tick.toFixed(Math.ceil(-Math.log10(step))) : Math.round(tick), x(first + tick) + 2, height - 3);
  }
  const colours = {};
  for (const pass of [false, true]) {  // troubles above all else
    for (const row of shown) {
      if (isTrouble(row) !== pass) continue;
      pen.fillStyle = colours[row.state] = colours[row.state] || (colour(row.state) || colour("plain"));
      pen.fillRect(x(row.time) - .8, pass ? 2 : 12, 1.6, pass ? height - 18 : height - 30);
    }
  }
  pen.strokeStyle = colour("text");
  if (range) pen.strokeRect(x(range[0]), 1, x(range[1]) - x(range[0]), height - 15);
  if (shown.length && !range) {
    const top = $("scroller").scrollTop, one = Math.min(find(top), shown.length - 1), two = Math.min(find(top + $("scroller").clientHeight), shown.length - 1);
    pen.globalAlpha = .5;
    pen.strokeRect(x(shown[one].time) - 2, 1, x(shown[two].time) - x(shown[one].time) + 4, height - 15);
  }
}

function timeAt(event) {
  const box = $("overview").getBoundingClientRect(), [first, last] = bounds();
  return first + (last - first) * Math.min(1, Math.max(0, (event.clientX - box.left - 4) / (box.width - 8)));
}

let dragged = null;
$("overview").addEventListener("pointerdown", event => {
  dragged = {from: timeAt(event), x: event.clientX};
  $("overview").setPointerCapture(event.pointerId);
});
$("overview").addEventListener("pointermove", event => {
  if (!dragged || Math.abs(event.clientX - dragged.x) < 5) return;
  range = [dragged.from, timeAt(event)].sort((a, b) => a - b);
  arrange();
});
$("overview").addEventListener("pointerup", event => {
  if (dragged && Math.abs(event.clientX - dragged.x) < 5) {
    const time = timeAt(event), i = shown.findIndex(row => row.time >= time);
    if (i >= 0) $("scroller").scrollTop = tops[i] - 60;
  }
  dragged = null;
});
$("overview").addEventListener("wheel", event => {
  event.preventDefault();
  const [first, last] = range || bounds(), at = timeAt(event), times = event.deltaY > 0 ? 1.4 : 1 / 1.4;
  const all = bounds(), next = [at - (at - first) * times, at + (last - at) * times];
  range = next[0] <= all[0] && next[1] >= all[1] ? null : [Math.max(all[0], next[0]), Math.min(all[1], next[1])];
  arrange();
}, {passive: false});

// ---- One of it, in full --------------------------------------------------------------------------------------------

function choose(i, opens) {
  if (i < 0 || i >= shown.length) return;
  chosen = shown[i];
  const box = $("scroller");
  if (tops[i] < box.scrollTop) box.scrollTop = tops[i] - 8;
  if (tops[i] + heights[i] > box.scrollTop + box.clientHeight) box.scrollTop = tops[i] + heights[i] - box.clientHeight + 8;
  render();
  box.setAttribute("aria-activedescendant", "row" + i);
  if (opens || !$("details").hidden) showDetails(chosen);
}

function showDetails(row) {
  const close = make("button", {type: "button", className: "close", textContent: "✕", title: "Close (Esc)"});
  close.addEventListener("click", hideDetails);
  const facts = make("table");
  const fact = (name, value) => value !== undefined && value !== "" &&
    facts.append(make("tr", {}, make("th", {textContent: name}), make("td", {}, make("bdi", {textContent: value}))));
  fact("time", `${(row.time - begin).toFixed(6)} s, ${new Date(row.time * 1000).toISOString()}`);
  fact("from", row.from);
  fact("to", row.to);
  fact("channel", row.channel || "");
  fact("format", row.format);
  fact("sender", row.sender);
  fact("id", row.id);
  fact("value", row.value);
  fact("size", row.size ? row.size + " bytes" : "");
  for (const read of row.reads || []) fact("read", `${read.size} bytes, ${seconds(Math.max(0, read.time - row.time))} later`);
  const says = make("p");
  if (STATES[row.state]) says.append(make("span", {className: "badge", textContent: STATES[row.state][0], title: STATES[row.state][1]}));
  says.append(make("bdi", {textContent: row.says || (STATES[row.state] || ["", ""])[1]}));
  const parts = [close, make("h2", {}, make("bdi", {textContent: row.title})), says, facts];
  if (row.findings && row.findings.length)
    parts.push(make("p", {className: "quiet", textContent: "The dissector says: " + row.findings.join("; ")}));
  if (row.fields && row.fields.length) parts.push(...makeBytes(row.fields));
  $("details").style.top = $("lanes").getBoundingClientRect().top + "px";
  $("details").style.width = window.innerWidth > 760 ? geometry.words + 30 + "px" : "100%";
  $("details").className = row.state;
  $("details").replaceChildren(...parts);
  $("details").hidden = false;
}

function makeBytes(fields) {
  const spaced = hex => hex.replace(/(..)(?=.)/g, "$1 ");
  const hex = make("div", {className: "hex"}, ...fields.map(([, bytes, name]) => make("span", {textContent: spaced(bytes), title: name})));
  const table = make("table", {className: "bytes"}, make("tr", {}, ...["offset", "bytes", "field", "value"].map(name => make("th", {textContent: name}))));
  for (const [at, bytes, name, value] of fields) {
    const text = bytes.length > 64 ? spaced(bytes.slice(0, 64)) + " …" : spaced(bytes);
    table.append(make("tr", {}, ...[at, text, name, value].map(cell => make("td", {}, make("bdi", {textContent: cell})))));
  }
  return [table, hex];
}

function hideDetails() {
  $("details").hidden = true;
  $("scroller").focus({preventScroll: true});
}

function showHelp() {
  const list = make("dl");
  for (const state in STATES)
    list.append(make("dt", {className: state}, make("span", {className: "badge", textContent: STATES[state][0]})), make("dd", {textContent: STATES[state][1]}));
  const keys = make("table", {}, ...KEYS.map(([key, what]) => make("tr", {}, make("td", {}, make("kbd", {textContent: key})), make("td", {textContent: what}))));
  const close = make("button", {type: "button", textContent: "Close"});
  close.addEventListener("click", () => $("help").close());
  $("help").replaceChildren(make("h2", {textContent: "How to read this"}), make("p", {textContent:
    "Each column is a brick, time goes down. An arrow is a message, from where it was sent to where it was read. " +
    "RFCOMM is a stream of bytes: what one receive brings is taken for one message, whatever it holds."}),
    ...(data.frames.length ? [make("p", {textContent: `Of ${data.frames.join(", ")} the radio's frames were captured. They do not tell what one receive brings.`})] : []),
    list, keys, close);
  $("help").showModal();
  $("help").scrollTop = 0;  // not where the button is that has the focus
}

// ---- Keys and the rest ---------------------------------------------------------------------------------------------

function step(by) {
  const i = chosen ? indexOf(chosen) : -1;
  choose(i < 0 ? find($("scroller").scrollTop) : i + by);
}

function stepToTrouble(by) {
  let i = chosen ? indexOf(chosen) + by : by > 0 ? 0 : shown.length - 1;
  while (i >= 0 && i < shown.length && !isTrouble(shown[i])) i += by;
  choose(i, !$("details").hidden);
}

function zoom(by) {
  const y = $("scroller").scrollTop, i = Math.min(find(y), shown.length - 1);
  scale = Math.max(0, Math.min(14, scale + by));
  arrange();
  if (i >= 0) $("scroller").scrollTop = tops[i];
}

function reset() {
  wanted.bricks.clear();
  wanted.states.clear();
  $("kind").value = $("id").value = $("text").value = "";
  range = null;
  scale = 0;
  listChoices();
  arrange();
}

const ACTIONS = {
  ArrowDown: () => step(1), j: () => step(1), ArrowUp: () => step(-1), k: () => step(-1), n: () => stepToTrouble(1), p: () => stepToTrouble(-1),
  PageDown: () => step(10), PageUp: () => step(-10), Home: () => choose(0), End: () => choose(shown.length - 1),
  Enter: () => chosen && showDetails(chosen), Escape: hideDetails, "/": () => $("text").focus(), "+": () => zoom(1), "-": () => zoom(-1),
  0: reset, "?": showHelp,
};

document.addEventListener("keydown", event => {
  const isTyping = /^(INPUT|SELECT)$/.test(event.target.tagName);
  if (isTyping && event.key === "Escape") return $("scroller").focus();
  if (isTyping || event.ctrlKey || event.altKey || event.metaKey || $("help").open || !Object.hasOwn(ACTIONS, event.key)) return;
  if (event.key === "Enter" && event.target.tagName === "BUTTON") return;
  event.preventDefault();
  ACTIONS[event.key]();
});
let isDue = false;
$("scroller").addEventListener("scroll", () => {
  if (isDue) return;
  isDue = true;
  requestAnimationFrame(() => { isDue = false; render(); });
});
for (const name of ["kind", "id", "text"]) $(name).addEventListener("input", arrange);
$("filter").addEventListener("submit", event => event.preventDefault());
$("wider").addEventListener("click", () => zoom(1));
$("closer").addEventListener("click", () => zoom(-1));
$("reset").addEventListener("click", reset);
$("help-button").addEventListener("click", showHelp);
window.addEventListener("resize", arrange);
matchMedia("(prefers-color-scheme: dark)").addEventListener("change", drawOverview);
window.addEventListener("beforeprint", () => { isPrinting = true; arrange(); });
window.addEventListener("afterprint", () => { isPrinting = false; arrange(); });

$("title").append(make("bdi", {textContent: data.title}));
append(data.rows);
$("scroller").focus({preventScroll: true});
if (data.live) {
  const source = new EventSource(data.live);
  const tell = (event, news) => window.parent !== window && window.parent.postMessage({event, news}, location.origin);
  source.addEventListener("open", () => {  // all that there is comes now
    rows.length = 0;
    byKey.clear();
  });
  source.addEventListener("message", event => {
    const news = JSON.parse(event.data);
    append(news);
    tell("message", news);
  });
  source.addEventListener("air", event => tell("air", JSON.parse(event.data)));  // for the page around it
}
