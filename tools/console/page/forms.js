// Forms made of the catalogue's fields.
import {find, findAll, make} from "./dom.js";

let ids = 0;

// The fields as elements, the advanced ones folded away.
export function fieldsOf(fields) {
  const usual = fields.filter((field) => !field.advanced).map(labelled);
  const advanced = fields.filter((field) => field.advanced).map(labelled);
  if (advanced.length) usual.push(make("details", {className: "advanced"}, make("summary", {}, "More"), ...advanced));
  return usual;
}

function labelled(field) {
  const id = `field${++ids}`;
  const input = inputOf(field, id);
  const hint = field.hint ? make("small", {id: `${id}-hint`, className: "hint"}, field.hint) : null;
  if (hint) input.setAttribute("aria-describedby", hint.id);
  return make("div", {className: "field"}, make("label", {htmlFor: id}, field.label), input, hint);
}

function inputOf(field, id) {
  if (field.kind !== "choice")
    return make("input", {id, name: field.name, value: String(field.default), autocomplete: "off", spellcheck: false});
  const options = field.choices.map(({value, label}) => make("option", {value: String(value)}, label));
  const select = make("select", {id, name: field.name}, ...options);
  select.value = String(field.default);
  return select;
}

export function valuesOf(form) {
  const values = {};
  for (const input of findAll("[name]", form)) values[input.name] = input.value;
  return values;
}

export function setValue(form, name, value) {
  const input = find(`[name="${name}"]`, form);
  if (input) input.value = value;
}

// [{group, ...}] as a map from groups to members, in order.
export function grouped(members) {
  const groups = new Map();
  for (const member of members) groups.set(member.group, [...(groups.get(member.group) ?? []), member]);
  return groups;
}
