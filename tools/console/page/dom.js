// Making elements. Whatever comes from the unit reaches the page as text, never as markup.

// make("p", {className: "hint", "aria-label": "..."}, "text", otherElement, ...)
export function make(tag, properties = {}, ...children) {
  return furnish(document.createElement(tag), properties, children);
}

export function draw(tag, attributes = {}, ...children) {
  const element = document.createElementNS("http://www.w3.org/2000/svg", tag);
  for (const [name, value] of Object.entries(attributes)) element.setAttribute(name, value);
  element.append(...children);
  return element;
}

function furnish(element, properties, children) {
  for (const [name, value] of Object.entries(properties)) {
    if (name === "dataset") Object.assign(element.dataset, value);
    else if (name in element && !name.includes("-")) element[name] = value;
    else element.setAttribute(name, value);
  }
  element.append(...children.filter((child) => child !== null && child !== undefined));
  return element;
}

export const find = (selector, within = document) => within.querySelector(selector);
export const findAll = (selector, within = document) => [...within.querySelectorAll(selector)];

// All device paths of the unit begin alike.
export const shortPath = (text) => text.replace(/\/devices\/.*\/(?=usb\d)/, "…/");

// Does what an action needs on the way: the button waits, errors are shown beside it.
// Gives what the server gave, or null when it failed.
export async function act(button, said, action, values) {
  said.textContent = "";
  said.className = "said";
  button.disabled = true;
  try {
    const answer = await ask(action, values);
    if (answer.text) say(said, answer.text, "answer");
    return answer;
  } catch (error) {
    say(said, error.message, "error");
    return null;
  } finally {
    button.disabled = false;
  }
}

export function say(said, text, kind) {
  said.className = `said ${kind}`;
  said.textContent = text;
}

async function ask(action, values) {
  let response;
  try {
    response = await fetch(`/do/${action}`, {
      method: "POST", headers: {"Content-Type": "application/json"}, body: JSON.stringify(values),
    });
  } catch {
    throw new Error("the console does not answer");
  }
  const answer = await response.json();
  if (!response.ok) throw new Error(answer.error);
  return answer;
}
