// Connects the page to the console: what is told, and the unit's own buttons.
import {act, find, findAll, make} from "./dom.js";
import * as machine from "./machine.js";
import * as monitor from "./monitor.js";
import * as plug from "./plug.js";
import * as ports from "./ports.js";
import * as requests from "./requests.js";
import * as status from "./status.js";

let session = null;
let version = 0;

const catalogue = await (await fetch("/catalogue")).json();
machine.setUp(catalogue.machine);
plug.setUp(catalogue.devices);
requests.setUp(catalogue.requests);
ports.setUp();
monitor.setUp();
setUpControls(catalogue.levels);
listen();

function listen() {
  const source = new EventSource("/feed");
  source.addEventListener("open", () => { find("#gone").hidden = true; });
  source.addEventListener("error", () => { find("#gone").hidden = false; });
  source.addEventListener("message", (event) => take(JSON.parse(event.data)));
}

// Each connection begins with everything that is kept; what was told before is passed over.
function take(told) {
  if (!Array.isArray(told)) {
    if (session && session !== told.session) location.reload();
    session = told.session;
    return;
  }
  const happened = [];
  for (const [number, kind, entry, data] of told) {
    if (number <= version) continue;
    version = number;
    if (kind in STANDING) STANDING[kind](data);
    else happened.push([kind, entry, data]);
  }
  monitor.add(happened);
}

const UNIT = {booting: "is booting", running: "runs", gone: "has ended", failed: "cannot boot"};

const STANDING = {
  unit: (data) => {
    stand("#unit", data.state, `Unit ${UNIT[data.state]}`, data.text);
    if (data.state !== "running") find("#unit").title = data.text;
  },
  service: (data) => {
    const ended = data.end ? `has ended (${data.end})` : "does not run";
    stand("#service", data.pid ? "running" : "gone", data.pid ? "Service runs" : `Service ${ended}`,
      data.pid ? `process ${data.pid}, log level ${data.level}` : "");
    find("#level").value = String(data.level);
    for (const button of findAll('[data-action="service"]'))
      button.hidden = button.dataset.what === "start" ? Boolean(data.pid) : !data.pid;
  },
  ports: ports.showPorts,
  mounts: ports.showMounts,
  plugged: ports.showPlugged,
  known: requests.showKnown,
  status: status.show,
};

function stand(selector, state, text, title) {
  const element = find(selector);
  element.dataset.state = state;
  element.title = title;
  find(".text", element).textContent = text;
}

function setUpControls(levels) {
  find("#level").append(...levels.map(({value, label}) => make("option", {value: String(value)}, label)));
  for (const button of findAll("#controls button"))
    button.addEventListener("click", () => act(button, find("#controls .said"), button.dataset.action,
      {what: button.dataset.what, level: Number(find("#level").value)}));
}
