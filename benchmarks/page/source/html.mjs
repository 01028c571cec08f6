// HTML from templates in which every text is escaped.

class Markup {
  constructor(text) {
    this.text = text;
  }
  toString() {
    return this.text;
  }
}

const entities = { "&": "&amp;", "<": "&lt;", ">": "&gt;", '"': "&quot;", "'": "&#39;" };
const escape = (text) => text.replace(/[&<>"']/g, (character) => entities[character]);

function render(value) {
  if (value instanceof Markup) return value.text;
  if (Array.isArray(value)) return value.map(render).join("");
  return value === null || value === undefined ? "" : escape(String(value));
}

// html`<p>${text}</p>`: texts are escaped, markup and lists of it are not.
export function html(strings, ...values) {
  return new Markup(String.raw({ raw: strings }, ...values.map(render)));
}

// For what is known to be safe where it is put.
export const trusted = (text) => new Markup(text);

// JSON for a script element, which nothing in it can end.
export const embedJson = (value) => trusted(JSON.stringify(value).replace(/</g, "\\u003c"));

// On narrow screens each row is shown as a list of its cells, each with its column's name; that
// changes the display of the elements, so their roles are given in full.
export function table({ caption, columns, rows }) {
  const heads = columns.map(
    ({ name, isNumber }) =>
      html`<th role="columnheader" scope="col"${isNumber ? trusted(' class="number"') : ""}>${name}</th>`,
  );
  return html`<table role="table">
<caption>${caption}</caption>
<thead role="rowgroup"><tr role="row">${heads}</tr></thead>
<tbody role="rowgroup">
${rows.map((row) => tableRow(columns, row))}</tbody>
</table>`;
}

// The first cell is the row's head.
function tableRow(columns, { cells, kind = "" }) {
  const rendered = cells.map((cell, index) => tableCell(columns[index], cell, index === 0));
  return html`<tr role="row" class="${kind}">${rendered}</tr>
`;
}

function tableCell({ name, isNumber }, content, isHead) {
  const kind = isNumber ? trusted(' class="number"') : "";
  if (isHead) return html`<th role="rowheader" scope="row"${kind}>${content}</th>`;
  return html`<td role="cell"${kind} data-label="${name}"><span>${content}</span></td>`;
}
