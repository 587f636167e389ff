"use strict";
// Moves the bars of the picture: in numbers of double precision, so that a microsecond of a long
// recording stays one.
const svg = document.getElementById("timeline");
let left, width;
const span = element => ({
  element, t: Number(element.dataset.t), d: Number(element.dataset.d)});
const whole = span(svg);
const tracks = [...svg.querySelectorAll(".track")].map(track => {
  const bars = [...track.children].map(span);
  // A bar reaches into view from no farther than the longest one does.
  const longest = bars.reduce((most, bar) => Math.max(most, bar.d), 0);
  return {bars, longest, shown: bars};
});
const marks = [...svg.querySelectorAll(".mark")].map(span);
let view = {t: whole.t, d: whole.d};

// As wide as there is room, in pixels: on a telephone, too, names keep the size of their letters.
function fit() {
  const all = Math.min(svg.parentElement.clientWidth, 1200);
  left = Math.min(300, Math.round(all * 0.35));
  width = all - left;
  svg.setAttribute("viewBox", `0 0 ${all} ${svg.viewBox.baseVal.height}`);
  document.getElementById("names").setAttribute("width", left - 4);
}

const x = t => left + (t - view.t) / view.d * width;

function place(element, t, d, least) {
  const from = Math.max(left, x(t)), to = Math.min(left + width, x(t + d));
  element.setAttribute("x", from);
  element.setAttribute("width", Math.max(to - from, least));
}

function first(bars, t) {
  let low = 0, high = bars.length;
  while (low < high) {
    const middle = (low + high) >> 1;
    if (bars[middle].t < t) low = middle + 1; else high = middle;
  }
  return low;
}

function drawTrack(track) {
  for (const bar of track.shown) bar.element.style.display = "none";
  track.shown = [];
  const end = view.t + view.d;
  for (let i = first(track.bars, view.t - track.longest); i < track.bars.length; ++i) {
    const bar = track.bars[i];
    if (bar.t > end) break;
    if (bar.t + bar.d < view.t) continue;
    bar.element.style.display = "";
    place(bar.element, bar.t, bar.d, 0.5);
    track.shown.push(bar);
  }
}

function drawMark(mark) {
  const visible = mark.t <= view.t + view.d && mark.t + mark.d >= view.t;
  mark.element.style.display = visible ? "" : "none";
  place(mark.element.querySelector("rect"), mark.t, mark.d, 1);
  mark.element.querySelector("text").setAttribute("x", Math.max(left, x(mark.t)) + 2);
}

// Where two would stand on each other, only one has its name shown: the chosen one first.
function drawNames() {
  const visible = marks.filter(({element}) => element.style.display === "");
  const isChosen = ({element}) => element.classList.contains("chosen");
  visible.sort((one, other) => isChosen(other) - isChosen(one));
  const taken = [];
  for (const {element} of visible) {
    const text = element.querySelector("text");
    text.style.display = "";
    const box = text.getBBox();
    const free = taken.every(other => other.y !== box.y || other.x > box.x + box.width
                             || other.x + other.width < box.x);
    if (free) taken.push(box); else text.style.display = "none";
  }
}

function add(parent, name, attributes, text) {
  const element = document.createElementNS(svg.namespaceURI, name);
  for (const [key, value] of Object.entries(attributes)) element.setAttribute(key, value);
  element.textContent = text || "";
  parent.append(element);
}

function drawAxis() {
  const axis = document.getElementById("axis");
  axis.replaceChildren();
  const least = view.d / Math.max(2, width / 110);
  const power = 10 ** Math.floor(Math.log10(least));
  const step = power * [1, 2, 5, 10].find(factor => factor * power >= least);
  for (let t = Math.ceil(view.t / step) * step; t <= view.t + view.d; t += step) {
    add(axis, "path", {class: "axis", d: `M${x(t)} 16V${svg.viewBox.baseVal.height}`});
    const text = `${Number((t / 1000).toFixed(4))} ms`;
    add(axis, "text", {x: x(t), y: 12, "text-anchor": "middle"}, text);
  }
}

let asked = false;
function show(t, d) {
  const length = Math.min(Math.max(d, 1), whole.d);
  view = {t: Math.min(Math.max(t, whole.t), whole.t + whole.d - length), d: length};
  if (asked) return;
  asked = true;
  requestAnimationFrame(() => {
    asked = false;
    draw();
  });
}
function draw() {
  tracks.forEach(drawTrack);
  marks.forEach(drawMark);
  drawNames();
  drawAxis();
}

function zoom(factor, at = view.t + view.d / 2) {
  const length = Math.min(Math.max(view.d * factor, 1), whole.d);
  show(at - (at - view.t) * length / view.d, length);
}

// Where it is in the view: 0 at its begin, 1 at its end.
const placeOf = clientX => {
  const box = svg.getBoundingClientRect();
  return ((clientX - box.left) / box.width * (left + width) - left) / width;
};
const timeAt = clientX => view.t + placeOf(clientX) * view.d;
svg.addEventListener("wheel", event => {
  event.preventDefault();
  zoom(1.002 ** event.deltaY, timeAt(event.clientX));
}, {passive: false});

// What a mouse or fingers hold stays below them: one moves the view, two stretch it.
const holds = new Map();
let isDragged = false;
function holdAnew() {
  for (const hold of holds.values()) hold.t = timeAt(hold.x);
}
function letGo(event) {
  if (holds.delete(event.pointerId)) holdAnew();
}
svg.addEventListener("pointerdown", event => {
  if (event.button !== 0) return;
  isDragged = holds.size > 0;
  holds.set(event.pointerId, {from: event.clientX, x: event.clientX});
  holdAnew();
});
addEventListener("pointerup", letGo);
addEventListener("pointercancel", letGo);
addEventListener("pointermove", event => {
  if (event.buttons === 0) letGo(event);
  const hold = holds.get(event.pointerId);
  if (!hold) return;
  hold.x = event.clientX;
  isDragged ||= Math.abs(hold.x - hold.from) > 3;
  const [first, second] = [...holds.values()].sort((one, other) => one.t - other.t);
  const at = placeOf(first.x);
  const d = second ? (second.t - first.t) / Math.max(placeOf(second.x) - at, 0.01) : view.d;
  show(first.t - at * d, d);
});
// A mark is a link: who drags by it does not want to follow it, nor to take it elsewhere.
svg.addEventListener("click", event => { if (isDragged) event.preventDefault(); });
svg.addEventListener("dragstart", event => event.preventDefault());
const keys = {
  "+": () => zoom(0.5), "-": () => zoom(2), "0": () => show(whole.t, whole.d),
  ArrowLeft: () => show(view.t - view.d / 5, view.d),
  ArrowRight: () => show(view.t + view.d / 5, view.d)};
addEventListener("keydown", event => {
  if (event.key in keys && !event.ctrlKey && !event.metaKey) keys[event.key]();
});
for (const button of document.querySelectorAll("button"))
  button.addEventListener("click", keys[button.value]);

addEventListener("resize", () => {
  fit();
  draw();
});

// A row of the table leads to its mark, and to its time.
function follow() {
  const mark = marks.find(({element}) => "#" + element.id === location.hash);
  for (const {element} of marks) element.classList.toggle("chosen", element === mark?.element);
  if (!mark) return;
  show(mark.t - mark.d * 0.3, mark.d * 1.6);
  svg.scrollIntoView({block: "center"});
}
addEventListener("hashchange", follow);
addEventListener("load", follow);  // after the browser has gone to the mark by itself
fit();
draw();
