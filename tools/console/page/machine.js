// The state machine of a port as a picture: all states, all ways, the current state lit.
import {draw} from "./dom.js";

const BOX = {width: 108, height: 26};
const STEP = {x: 138, y: 42};
const MARGIN = 6;
let machine;

export function setUp(description) {
  machine = description;
}

export const first = () => machine.first;
export const waysFrom = (state) => machine.ways.filter((way) => way.from === state);
export const short = (state) => state.replace("STATE_", "");

// An SVG element, and the function that lights a state in it.
export function picture(label) {
  const columns = Math.max(...machine.states.map((state) => state.column)) + 1;
  const rows = Math.max(...machine.states.map((state) => state.row)) + 1;
  const width = (columns - 1) * STEP.x + BOX.width + 2 * MARGIN;
  const height = (rows - 1) * STEP.y + BOX.height + 2 * MARGIN;
  const ways = draw("g", {class: "ways"});
  const states = draw("g", {class: "states"});
  const svg = draw("svg", {class: "machine", viewBox: `0 0 ${width} ${height}`, role: "img", "aria-label": label},
    draw("defs", {}, draw("marker", {id: "arrow", viewBox: "0 0 8 8", refX: 7, refY: 4, markerWidth: 6,
      markerHeight: 6, orient: "auto"}, draw("path", {d: "M0 0 8 4 0 8z", class: "tip"}))), ways, states);
  for (const way of machine.ways) addWay(ways, way.from, way.to, way.when);
  for (const state of machine.states) states.append(boxOf(state));
  return {svg, light: (state, before) => light(svg, ways, state, before, label)};
}

function boxOf(state) {
  const {x, y} = cornerOf(state);
  const text = draw("text", {x: x + BOX.width / 2, y: y + BOX.height / 2}, short(state.name));
  return draw("g", {class: state.never ? "state never" : "state", "data-state": state.name},
    draw("title", {}, state.never ? `${state.name}: never entered` : state.name),
    draw("rect", {x, y, width: BOX.width, height: BOX.height, rx: 6}), text);
}

function addWay(ways, from, to, when) {
  const isBack = stateOf(to).column < stateOf(from).column;
  const path = draw("path", {class: isBack ? "back" : "", d: curve(stateOf(from), stateOf(to)), "data-from": from,
    "data-to": to, "marker-end": "url(#arrow)"}, draw("title", {}, `${from} → ${to}: ${when}`));
  ways.append(path);
  return path;
}

function light(svg, ways, state, before, label) {
  svg.setAttribute("aria-label", `${label}: ${state}`);
  for (const box of svg.querySelectorAll(".state")) box.classList.toggle("lit", box.dataset.state === state);
  let taken = null;
  for (const path of ways.children) {
    const isTaken = path.dataset.from === before && path.dataset.to === state;
    path.classList.toggle("possible", path.dataset.from === state);
    path.classList.toggle("taken", isTaken);
    if (isTaken) taken = path;
  }
  if (!taken && before && before !== state && stateOf(before) && stateOf(state)) {
    taken = addWay(ways, before, state, "seen");
    taken.classList.add("taken");
  }
  if (taken) ways.append(taken);     // above the others
}

const stateOf = (name) => machine.states.find((state) => state.name === name);
const cornerOf = (state) => ({x: MARGIN + state.column * STEP.x, y: MARGIN + state.row * STEP.y});

// Forth in the upper half of the boxes, back in the lower one.
function curve(from, to) {
  const a = cornerOf(from);
  const b = cornerOf(to);
  if (from.column === to.column) {
    const x = a.x + BOX.width / 2;
    return from.row < to.row ? `M${x - 12} ${a.y + BOX.height}V${b.y}` : `M${x + 12} ${a.y}V${b.y + BOX.height}`;
  }
  const forth = from.column < to.column;
  const y = BOX.height * (forth ? 0.34 : 0.72);
  const start = {x: forth ? a.x + BOX.width : a.x, y: a.y + y};
  const end = {x: forth ? b.x : b.x + BOX.width, y: b.y + y};
  const pull = Math.max(14, Math.abs(end.x - start.x) / 2) * (forth ? 1 : -1);
  return `M${start.x} ${start.y}C${start.x + pull} ${start.y} ${end.x - pull} ${end.y} ${end.x} ${end.y}`;
}
