// The lists of what happens: records, the log, what phones see. They share a filter and a pause.
import {find, make, shortPath} from "./dom.js";
import * as tabs from "./tabs.js";

const MOST = 2000;      // lines that a list shows
const NAMES = ["record", "log", "phone"];
const lists = {};
let paused = false;

export function setUp() {
  for (const name of NAMES) {
    lists[name] = {element: find(`#list-${name}`), tab: find(`#tab-${name}`), entries: new Map(), lines: new Map(),
      waiting: [], isAtEnd: true};
    const {element} = lists[name];
    element.addEventListener("scroll", () => {
      if (!element.hidden)
        lists[name].isAtEnd = element.scrollTop + element.clientHeight >= element.scrollHeight - 8;
    });
  }
  tabs.setUp((name) => lists[name] && settle(name));
  find("#pause").addEventListener("click", pause);
  find("#clear").addEventListener("click", clear);
  find("#filter").addEventListener("input", () => NAMES.forEach(refilter));
  for (const id of ["direction", "process", "port", "all-transfers"])
    find(`#${id}`).addEventListener("change", () => NAMES.forEach(refilter));
}

// ---- what comes ----

// entries: [[kind, number, data]]; one that came before replaces its line.
export function add(entries) {
  const lasting = NAMES.flatMap((name) => entries.filter(([kind]) => kind === name).slice(-MOST));
  for (const [name, number, data] of lasting) {
    const list = lists[name];
    list.entries.set(number, data);
    if (name === "record") offerProcesses(data);
    if (paused) list.waiting.push(number);
    else showEntry(name, number, data);
  }
  for (const name of NAMES) settle(name);
}

function showEntry(name, number, data) {
  const list = lists[name];
  const line = MAKERS[name](data);
  line.hidden = !passes(name, data);
  line.dataset.number = number;
  const before = list.lines.get(number);
  if (before) {
    line.open = before.open;
    before.replaceWith(line);
  } else {
    list.element.append(line);
  }
  list.lines.set(number, line);
}

function settle(name) {
  const list = lists[name];
  for (const number of [...list.lines.keys()].slice(0, Math.max(0, list.lines.size - MOST))) {
    list.lines.get(number).remove();
    list.lines.delete(number);
    list.entries.delete(number);
  }
  find(".count", list.tab).textContent = paused && list.waiting.length ? `${list.lines.size} + ${list.waiting.length}`
    : list.lines.size;
  if (list.isAtEnd && !paused) list.element.scrollTop = list.element.scrollHeight;
}

function pause() {
  paused = !paused;
  find("#pause").setAttribute("aria-pressed", String(paused));
  find("#pause").textContent = paused ? "Go on" : "Pause";
  if (paused) return;
  for (const name of NAMES) {
    for (const number of lists[name].waiting.splice(0)) {
      const data = lists[name].entries.get(number);
      if (data) showEntry(name, number, data);
    }
    settle(name);
  }
}

function clear() {
  for (const name of NAMES) {
    const list = lists[name];
    list.element.replaceChildren();
    list.entries.clear();
    list.lines.clear();
    list.waiting = [];
    settle(name);
  }
}

// ---- filter ----

function refilter(name) {
  const list = lists[name];
  for (const [number, line] of list.lines) line.hidden = !passes(name, list.entries.get(number));
  settle(name);
}

function passes(name, data) {
  const text = textOf(name, data).toLowerCase();
  const words = find("#filter").value.toLowerCase().split(" ").filter(Boolean);
  if (!words.every((word) => text.includes(word))) return false;
  if (name === "phone") return data.kind !== "class" || find("#all-transfers").checked;
  if (name !== "record") return true;
  const direction = find("#direction").value;
  const process = find("#process").value;
  const port = find("#port").value;
  return (!direction || data.direction === direction)
    && (!process || data.sender === process || data.receivers.includes(process))
    && (!port || typeof data.port === "number" && String(data.port % 10) === port);
}

function textOf(name, data) {
  if (name === "log") return `${data.source} ${data.from} ${data.text}`;
  if (name === "phone") return Object.values(data).join(" ");
  return [data.sender, ...data.receivers, data.name ?? "", data.outcome,
    ...data.fields.filter((field) => field.shown).map((field) => `${field.name}=${field.said}`)].join(" ");
}

function offerProcesses(data) {
  const select = find("#process");
  for (const name of [data.sender, ...data.receivers])
    if (name !== "usb" && ![...select.options].some((option) => option.value === name))
      select.append(make("option", {value: name}, name));
}

// ---- lines ----

const NAMED = /^[a-z]+$/;
const timeOf = (data) => make("time", {}, data.time.toFixed(3));

function recordLine(data) {
  const fields = data.fields.filter((field) => field.shown).map((field) => make("span", {className: "value"},
    make("i", {}, `${field.name}=`), field.name === "devpath" ? shortPath(field.said) : field.said, " "));
  const faults = data.outcome === "delivered" ? data.faults : [...data.faults, data.outcome];
  const summary = make("summary", {}, timeOf(data), make("span", {className: "who"}, whoOf(data)),
    make("b", {}, data.name ?? "unknown"), make("span", {className: "values"}, ...fields,
      ...faults.map((fault) => make("em", {className: "fault"}, ` ${fault}`))));
  const details = make("details", {className: `line record ${data.direction}`}, summary);
  details.addEventListener("toggle", () => {
    if (details.open && details.childElementCount === 1) details.append(insideOf(data));
  });
  return details;
}

function whoOf(data) {
  const named = data.receivers.filter((name) => NAMED.test(name));
  const others = data.receivers.length - named.length;
  const to = others && named.length ? `${named.join(", ")} + ${others} others` : data.receivers.join(", ");
  return `${data.sender} → ${to}`;
}

function insideOf(data) {
  const rows = data.fields.map((field) => make("tr", {}, make("td", {}, String(field.at)),
    make("td", {}, String(field.width)), make("th", {scope: "row"}, field.name), make("td", {}, field.said),
    make("td", {}, field.number === null ? "" : String(field.number))));
  const head = make("tr", {}, ...["at", "bytes", "field", "value", "number"].map((text) =>
    make("th", {scope: "col"}, text)));
  const table = make("table", {}, make("thead", {}, head), make("tbody", {}, ...rows));
  return make("div", {className: "inside"}, make("p", {}, `${data.sender} → ${data.receivers.join(", ")}, `
    + `${data.hex.length / 2} bytes, ${data.outcome}`), rows.length ? table : null, make("pre", {}, hexDump(data.hex)));
}

function hexDump(hex) {
  const bytes = hex.match(/../g) ?? [];
  const lines = [];
  for (let at = 0; at < bytes.length; at += 16) {
    const row = bytes.slice(at, at + 16);
    const text = row.map((byte) => parseInt(byte, 16))
      .map((code) => (code >= 0x20 && code < 0x7f ? String.fromCharCode(code) : ".")).join("");
    lines.push(`${at.toString(16).padStart(4, "0")}  ${row.join(" ").padEnd(47)}  ${text}`);
  }
  return lines.join("\n");
}

const SERIOUS = new Map([[160, "refused"], [192, "failed"]]);

// The service's lines are named by their thread, others by who wrote them.
const logLine = (data) => make("div",
  {className: `line log ${data.source} ${SERIOUS.get(data.level) ?? ""}`, title: data.from}, timeOf(data),
  make("span", {className: "who"}, data.from.split(" ")[0] || data.source),
  make("span", {className: "text"}, data.text));

function phoneLine(data) {
  const line = make("div", {className: `line phone ${data.kind}`}, timeOf(data),
    make("span", {className: "who"}, data.label));
  if (data.request) {
    const brought = data.data ? ` data ${data.data}` : "";
    const setup = `${data.type} request ${data.request} value ${data.value} index ${data.index}${brought}`;
    line.append(make("code", {}, setup), make("span", {className: "answer"}, `answers ${data.answer}`));
  }
  line.append(make("span", {className: "text"}, data.said));
  return line;
}

const MAKERS = {record: recordLine, log: logLine, phone: phoneLine};
