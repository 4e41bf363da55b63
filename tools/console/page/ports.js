// The two ports of the unit: what hangs on them, what is mounted, and their state machines.
import {find, findAll, make} from "./dom.js";
import * as machine from "./machine.js";
import {branch} from "./plug.js";

const cards = new Map();        // the unit's own ports
const machines = new Map();     // every port number that was heard of: behind a hub there are more

export function setUp() {
  for (const number of [1, 2]) {
    const card = make("article", {className: "card", id: `port${number}`, "aria-label": `Port ${number}`},
      make("h2", {}, `Port ${number}`), make("ul", {className: "tree"}), make("table", {className: "mounts"}),
      make("div", {className: "machines"}));
    cards.set(number, card);
    find("#ports").append(card);
    machineOf(number);
  }
}

export function showPlugged(plugged) {
  for (const [number, card] of cards) replaceKeepingFocus(find(".tree", card), branch(`1.${number}`, plugged));
}

// A button that had the focus has it again when there is one of the same name.
function replaceKeepingFocus(tree, line) {
  const active = tree.contains(document.activeElement) ? document.activeElement : null;
  const where = active?.closest("[data-place]")?.dataset.place;
  tree.replaceChildren(line);
  if (!active) return;
  const buttons = findAll("button", tree).filter((one) => one.closest("[data-place]").dataset.place === where);
  (buttons.find((one) => one.textContent === active.textContent) ?? buttons.at(-1))?.focus();
}

export function showMounts(mounts) {
  for (const [number, card] of cards) {
    const rows = mounts.filter((mount) => mount.port % 10 === number).map((mount) => make("tr", {},
      ...[mount.path, mount.fs_type, mount.label, mount.uuid].map((text) => make("td", {}, text))));
    find(".mounts", card).replaceChildren(make("caption", {}, rows.length ? "Mounted" : "Nothing is mounted"), ...rows);
  }
}

export function showPorts(ports) {
  for (const [number, port] of Object.entries(ports)) show(machineOf(Number(number)), port);
  for (const [number, one] of machines) {
    if (String(number) in ports) continue;
    if (number < 10) show(one, {state: machine.first(), since: null, trail: []});
    else {
      one.element.remove();
      machines.delete(number);
    }
  }
}

function machineOf(number) {
  if (machines.has(number)) return machines.get(number);
  const {svg, light} = machine.picture(`State of port ${number}`);
  const one = {light, badge: make("strong", {className: "badge"}), since: make("span", {className: "since"}),
    device: make("span", {className: "device"}),
    trail: make("ol", {className: "trail", "aria-label": `States of port ${number} so far`}),
    ways: make("ul", {className: "ways-from", "aria-label": "What may happen next"})};
  const name = number < 10 ? "State" : `Port ${number}, port ${Math.floor(number / 10)} of the hub:`;
  one.element = make("section", {className: "port-state", dataset: {port: number}},
    make("h3", {}, `${name} `, one.badge, " ", one.since, " ", one.device),
    make("div", {className: "scroll"}, svg), one.trail,
    make("details", {}, make("summary", {}, "What may happen next"), one.ways));
  machines.set(number, one);
  find(".machines", cards.get(number % 10) ?? cards.get(1)).append(one.element);
  show(one, {state: machine.first(), since: null, trail: []});
  return one;
}

function show(one, port) {
  const names = port.trail.map(([, state]) => state);
  one.element.dataset.state = port.state;
  one.badge.textContent = port.state;
  one.since.textContent = port.since === null ? "" : `since ${port.since.toFixed(3)} s`;
  one.device.textContent = port.device ? `${port.device.type} ${port.device.ids} ${port.device.product}` : "";
  one.light(port.state, names.at(-2));
  one.trail.replaceChildren(...names.map((name) => make("li", {}, machine.short(name))));
  one.trail.scrollLeft = one.trail.scrollWidth;
  one.ways.replaceChildren(...machine.waysFrom(port.state).map((way) => make("li", {},
    make("code", {}, machine.short(way.to)), ` ${way.when}`)));
}
