// The forms of what can be asked.
import {act, find, make, say} from "./dom.js";
import {fieldsOf, grouped, setValue, valuesOf} from "./forms.js";

const abouts = [];      // the forms that are about a device
let known = [];         // what SDCM was told of the devices on the ports

export function setUp(requests) {
  const place = find("#request-groups");
  for (const [group, members] of grouped(requests)) {
    const details = make("details", {className: "group", open: place.childElementCount === 0},
      make("summary", {}, group), ...members.map(formOf));
    place.append(details);
  }
}

function formOf(request) {
  const said = make("output", {className: "said", "role": "alert"});
  const button = make("button", {type: "submit", className: "main"}, "Send");
  const form = make("form", {dataset: {request: request.key}},
    make("h3", {}, request.label), make("p", {className: "hint"}, request.hint));
  if (request.about) form.append(aboutOf(form));
  form.append(...fieldsOf(request.fields), make("div", {className: "buttons"}, button), said);
  form.addEventListener("submit", async (event) => {
    event.preventDefault();
    const answer = await act(button, said, "request", {request: request.key, fields: valuesOf(form)});
    if (answer && !answer.text) say(said, "done", "done");
  });
  return form;
}

// A choice of devices, which fills in their ids.
function aboutOf(form) {
  const select = make("select", {id: `about-${form.dataset.request}`});
  select.addEventListener("change", () => fill(form, select.value));
  abouts.push({form, select});
  return make("div", {className: "field"}, make("label", {htmlFor: select.id}, "Device"), select);
}

// What has come is chosen; else the choice stays, and follows what its device becomes.
export function showKnown(devices) {
  const come = devices.find((device) => !known.some((before) => before.port === device.port));
  known = devices;
  for (const {form, select} of abouts) {
    const chosen = come ? String(come.port) : select.value;
    const none = make("option", {value: ""}, known.length ? "as typed below" : "nothing is attached");
    select.replaceChildren(...known.map(optionOf), none);
    select.value = known.some((device) => String(device.port) === chosen) ? chosen : "";
    fill(form, select.value);
  }
}

function optionOf(device) {
  const text = `port ${device.port}: ${device.product || "device"} (${id(device.vid)}:${id(device.pid)})`;
  return make("option", {value: String(device.port)}, text);
}

function fill(form, port) {
  const device = known.find((one) => String(one.port) === port);
  if (!device) return;
  setValue(form, "vid", `0x${id(device.vid)}`);
  setValue(form, "pid", `0x${id(device.pid)}`);
  setValue(form, "serial", device.serial);
  setValue(form, "devpath", device.devpath);
}

const id = (number) => number.toString(16).padStart(4, "0");
