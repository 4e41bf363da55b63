// The dialog in which a device is chosen, and what is plugged in as a tree.
import {act, find, make} from "./dom.js";
import {fieldsOf, grouped, valuesOf} from "./forms.js";

const dialog = find("#plug");
const kinds = new Map();
let place = "";

export function setUp(devices) {
  const select = find("#plug-kind");
  for (const [group, members] of grouped(devices)) {
    for (const kind of members) kinds.set(kind.key, kind);
    select.append(make("optgroup", {label: group},
      ...members.map((kind) => make("option", {value: kind.key}, kind.label))));
  }
  select.addEventListener("change", showKind);
  find("#plug-cancel").addEventListener("click", () => dialog.close());
  find("form", dialog).addEventListener("submit", (event) => {
    event.preventDefault();
    plugIn();
  });
}

function showKind() {
  const kind = kinds.get(find("#plug-kind").value);
  find("#plug-hint").textContent = kind.hint;
  find("#plug-fields").replaceChildren(...fieldsOf(kind.fields));
  find(".said", dialog).textContent = "";
}

function open(where) {
  place = where;
  find("#plug-title").textContent = `Plug in at ${nameOf(where)}`;
  showKind();
  dialog.showModal();
}

async function plugIn() {
  const answer = await act(find("button.main", dialog), find(".said", dialog), "plug",
    {kind: find("#plug-kind").value, place, fields: valuesOf(find("#plug-fields"))});
  if (answer) dialog.close();
}

// "1.2" is port 2 of the unit, "1.2.3" port 3 of the hub there.
function nameOf(where) {
  const [port, ...further] = where.split(".").slice(1);
  return further.length ? `port ${further.at(-1)} of the hub (${where})` : `port ${port} (${where})`;
}

// What hangs at that place, as an element of a tree.
export function branch(where, plugged) {
  const item = plugged.items.find((one) => one.place === where);
  if (!item) {
    if (!plugged.free.includes(where)) return null;
    const button = make("button", {type: "button", dataset: {plug: where}}, "Plug in…");
    button.setAttribute("aria-label", `Plug in at ${nameOf(where)}`);
    button.addEventListener("click", () => open(where));
    return make("li", {className: "free", dataset: {place: where}}, place_(where), make("span", {}, "empty"), button);
  }
  const said = make("output", {className: "said", "role": "alert"});
  const line = make("li", {dataset: {place: where}}, place_(where), make("strong", {}, item.label), ...about(item),
    ...buttonsOf(item, said), said);
  if (item.hub) {
    const behind = [1, 2, 3, 4].map((number) => branch(`${where}.${number}`, plugged));
    line.append(make("ul", {}, ...behind));
  }
  return line;
}

const place_ = (where) => make("span", {className: "place"}, where);

function about(item) {
  if (item.phone) return [make("span", {className: "shows"}, item.shows ? `as ${item.shows}` : "not on the bus")];
  if ("card" in item) return [make("span", {className: "shows"}, item.card ? "card inside" : "no card")];
  return [];
}

function buttonsOf(item, said) {
  const buttons = [];
  const offer = (text, action, values) => {
    const button = make("button", {type: "button"}, text);
    button.addEventListener("click", () => act(button, said, action, {number: item.number, ...values}));
    buttons.push(button);
  };
  if (item.phone && item.shows) offer("Leave bus", "phone", {});
  if (item.phone)
    for (const mode of item.modes.filter((one) => one !== item.shows)) offer(`Come as ${mode}`, "phone", {mode});
  if ("card" in item) offer(item.card ? "Eject card" : "Insert card", "card", {inside: !item.card});
  offer("Pull", "pull", {});
  return buttons;
}
