// Places for charts, which the scripts of the page fill.
import { html } from "./html.mjs";

// kind and index say what is drawn, label what a reader who cannot see it is told; rows is the number
// of rows of a chart that has some.
export function chart({ kind, index = 0, rows = 0, title, hint = "", label }) {
  return html`<figure class="chart">
<figcaption><strong>${title}</strong>${hint ? html` <span class="hint">${hint}</span>` : ""}</figcaption>
<div class="canvas-box"><canvas role="img" aria-label="${label}" data-chart="${kind}" data-index="${index}"
 data-rows="${rows}"></canvas></div>
</figure>`;
}
