// The monitor's tabs.
import {find, findAll} from "./dom.js";

const NAMES = ["record", "log", "phone", "status"];
let whenChosen;

// whenChosen(name) is called after a tab was brought to the front.
export function setUp(callback) {
  whenChosen = callback;
  for (const name of NAMES) {
    tab(name).addEventListener("click", () => choose(name));
    tab(name).addEventListener("keydown", (event) => step(name, event));
  }
}

const tab = (name) => find(`#tab-${name}`);

function choose(name) {
  for (const one of NAMES) {
    tab(one).setAttribute("aria-selected", String(one === name));
    tab(one).tabIndex = one === name ? 0 : -1;
    find(`#list-${one}`).hidden = one !== name;
  }
  for (const label of findAll("[data-for]")) label.hidden = !label.dataset.for.split(" ").includes(name);
  whenChosen(name);
}

function step(name, event) {
  const by = {ArrowRight: 1, ArrowLeft: NAMES.length - 1}[event.key];
  if (!by) return;
  const next = NAMES[(NAMES.indexOf(name) + by) % NAMES.length];
  choose(next);
  tab(next).focus();
}
