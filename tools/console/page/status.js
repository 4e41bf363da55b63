// The service's own numbers and lists, as it tells them.
import {find, make, shortPath} from "./dom.js";

export function show(tables) {
  find("#list-status").replaceChildren(...tables.length ? tables.map(tableOf)
    : [make("p", {className: "hint"}, "The service does not run.")]);
}

function tableOf({title, columns, rows}) {
  const head = columns.some(Boolean) && rows.length
    ? [make("thead", {}, make("tr", {}, ...columns.map((text) => make("th", {scope: "col"}, text))))] : [];
  const lines = rows.map((row) => make("tr", {}, ...row.map((text) => make("td", {title: text}, shortPath(text)))));
  const caption = make("caption", {}, rows.length ? title : `${title}: none`);
  return make("table", {className: "numbers"}, caption, ...head, make("tbody", {}, ...lines));
}
