"use strict";
// Bricks and their connections as a picture that moves. All names are put into text nodes.

const QUIET = ["ok", "plain", "note", "unseen", "waiting"];
const WIDTH = 150, HEIGHT = 46, TRAVEL = 700, MOST = 15;  // characters that fit
const $ = name => document.getElementById(name);
let air = {bricks: [], wrong: "", records: false}, chosen = "", places = new Map(), known = null;

function draw(tag, attributes, ...children) {
  const element = document.createElementNS("http://www.w3.org/2000/svg", tag);
  for (const name in attributes) element.setAttribute(name, attributes[name]);
  element.append(...children);
  return element;
}

function words(text, attributes) {
  return draw("text", attributes, text.length > MOST ? text.slice(0, MOST - 1) + "…" : text);
}

async function order(what) {
  document.body.setAttribute("aria-busy", "true");
  const answer = await fetch("order", {method: "POST", body: JSON.stringify({do: what, brick: chosen})});
  const {wrong} = await answer.json();
  document.body.removeAttribute("aria-busy");
  hint(wrong);
}

function hint(wrong) {
  const links = air.bricks.reduce((sum, brick) => sum + brick.calls.length, 0);
  const said = `${air.bricks.length} bricks, ${links} connections` + (air.bricks.some(brick => brick.recording) ? "" : "; nothing is recorded");
  $("hint").className = wrong || air.wrong ? "wrong" : "";
  $("hint").textContent = wrong || air.wrong || said;
}

// On an ellipse, the first one on the left.
function arrange() {
  const box = $("picture").getBoundingClientRect(), count = air.bricks.length;
  places = new Map(air.bricks.map((brick, i) => {
    const angle = Math.PI + 2 * Math.PI * i / Math.max(1, count);
    return [brick.address, {
      x: box.width / 2 + (count > 1 ? Math.min(box.width / 2 - WIDTH, 130 * count) * Math.cos(angle) : 0),
      y: box.height / 2 + (count > 2 ? (box.height / 2 - HEIGHT) * Math.sin(angle) : 0),
    }];
  }));
}

function show() {
  arrange();
  const links = [], bricks = [];
  for (const brick of air.bricks) {
    for (const call of brick.calls) {
      const a = places.get(brick.address), b = places.get(call.peer);
      if (!a || !b) continue;
      // Bent to the left of who called, so that several between two bricks are told apart; the words beside it.
      const length = Math.hypot(b.x - a.x, b.y - a.y), left = {x: (b.y - a.y) / length, y: (a.x - b.x) / length};
      const bend = 12 + 14 * (call.channel % 5), x = (a.x + b.x) / 2, y = (a.y + b.y) / 2;
      links.push(draw("path", {class: "link", d: `M${a.x} ${a.y}Q${x + left.x * bend} ${y + left.y * bend} ${b.x} ${b.y}`}),
        draw("text", {class: "channel", x: x + left.x * (bend / 2 + 36), y: y + left.y * (bend / 2 + 9) + 4}, "channel " + call.channel));
    }
    bricks.push(makeBrick(brick));
  }
  $("picture").replaceChildren(...links, ...bricks);
  const brick = air.bricks.find(brick => brick.address === chosen);
  $("orders").replaceChildren(...(brick && brick.programs ? [["out", "out of range"], ["back", "back"], ["short", "next send short"]] : [])
    .map(([what, text]) => {
      const button = document.createElement("button");
      button.type = "button";
      button.textContent = text;
      button.dataset.order = what;
      button.title = `${brick.name}: ${text}`;
      button.addEventListener("click", () => order(what));
      return button;
    }));
  $("record").setAttribute("aria-pressed", air.records);
  $("record").textContent = air.records ? "stop recording" : "record";
  hint("");
}

function makeBrick(brick) {
  const {x, y} = places.get(brick.address), away = brick.state.includes("absent") || brick.state.includes("down");
  const small = away ? "out of range" : brick.channels.length ? "channel " + brick.channels.join(", ") : "";
  const group = draw("g", {class: `brick${away ? " away" : ""}${brick.address === chosen ? " chosen" : ""}`, tabindex: 0, role: "button"},
    draw("title", {}, `${brick.name}, ${brick.address}`),
    draw("rect", {x: x - WIDTH / 2, y: y - HEIGHT / 2, width: WIDTH, height: HEIGHT, rx: 9}),
    words(brick.name, {x, y: y + (small ? -2 : 5)}), words(small, {class: "small", x, y: y + 15}));
  group.dataset.brick = brick.address;
  if (brick.recording) group.append(draw("circle", {class: "dot", cx: x + WIDTH / 2 - 12, cy: y - HEIGHT / 2 + 12, r: 4}));
  const choose = () => {
    chosen = chosen === brick.address ? "" : brick.address;
    show();
  };
  group.addEventListener("click", choose);
  group.addEventListener("keydown", event => event.key === "Enter" && choose());
  return group;
}

// A message that was sent just now travels from brick to brick.
function move(row) {
  const place = name => places.get((air.bricks.find(brick => brick.name === name) || {}).address);
  const a = place(row.from), b = place(row.to);
  if (!a || !b) return;
  const dot = draw("circle", {class: QUIET.includes(row.state) ? "message" : "message trouble", r: 6});
  $("picture").append(dot);
  const stopped = matchMedia("(prefers-reduced-motion: reduce)").matches;
  dot.animate([{transform: `translate(${a.x}px, ${a.y}px)`}, {transform: `translate(${b.x}px, ${b.y}px)`}],
    {duration: stopped ? 1 : TRAVEL, easing: "ease-in-out"}).addEventListener("finish", () => dot.remove());
}

// The frame with the messages passes on what it hears: a browser has few connections to one host.
const HEARD = {
  air: news => {
    air = news;
    show();
  },
  message: rows => {
    const first = known === null;
    known = known || new Set();
    rows.filter(row => row.what === "send" && !known.has(row.key)).slice(-30).forEach(row => first || move(row));
    rows.forEach(row => row.removed ? known.delete(row.key) : known.add(row.key));
  },
};
window.addEventListener("message", event => {
  if (event.origin !== location.origin || event.source !== window.frames[0]) return;
  HEARD[event.data.event](event.data.news);
});
$("record").addEventListener("click", () => order(air.records ? "stop" : "record"));
window.addEventListener("resize", show);
