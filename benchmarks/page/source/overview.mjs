// The top of the page: what was measured where, and how it compares.
import {
  aimText,
  countStandings,
  figureAnchor,
  inWords,
  listFailures,
  listFigureAims,
  listRatioAims,
  workAnchor,
} from "./aims.mjs";
import { chart } from "./charts.mjs";
import { html, table } from "./html.mjs";
import { formatRatio, formatSpread, formatValue } from "./units.mjs";

export const verdict = (met) =>
  met ? html`<span class="met">✓ met</span>` : html`<span class="missed">✗ missed</span>`;

export function head({ machine }) {
  const facts = [
    ["Processor", machine.processor],
    ["Folder on the device", machine.device_folder],
    ["Folder in memory", machine.memory_folder],
    ["I/O engine", machine.engine],
    ["Date", html`<time>${machine.date}</time>`],
    ["Rounds", machine.rounds],
  ];
  return html`<header>
<h1>Orvane's measurements</h1>
<dl class="facts">
${facts.map(([name, value]) => html`<div><dt>${name}</dt><dd>${value}</dd></div>\n`)}</dl>
${machine.quick ? html`<p class="warning">A quick run: its figures are rough.</p>` : ""}
</header>`;
}

export function summary(results) {
  const aims = [...listRatioAims(results), ...listFigureAims(results)];
  const missed = aims.filter((aim) => !aim.met);
  const { ahead, level, behind } = countStandings(results);
  return html`<section aria-labelledby="summary">
<h2 id="summary">In short</h2>
<p class="summary"><strong>${aims.length - missed.length} of ${aims.length} aims met.</strong>
Compared with others: ahead in ${ahead}, level in ${level}, behind in ${behind}.</p>
<p class="hint">Ahead and behind mean in every round; level, that rounds differ. Comparisons of one size with another
are not counted.</p>
${missed.length ? html`<p>Missed: ${links(missed.map(({ id, anchor }) => [id, anchor]))}</p>` : ""}
${failures(results)}
</section>`;
}

const links = (targets) =>
  targets.map(([name, anchor], index) => html`${index ? ", " : ""}<a href="#${anchor}">${name}</a>`);

function failures(results) {
  const failed = listFailures(results);
  if (failed.length === 0) return "";
  return html`<p class="warning">Did not run: ${links(
    failed.map(({ contender, work, anchor }) => [`${contender.name} (${work.name})`, anchor]),
  )}. Comparisons with them are missing here.</p>`;
}

const aimColumns = [
  { name: "Aim" },
  { name: "Result" },
  { name: "Of what" },
  { name: "Compared" },
  { name: "Median", isNumber: true },
  { name: "Low – high", isNumber: true },
  { name: "Meant to be", isNumber: true },
  { name: "In words" },
];

function ratioRow(aim) {
  return {
    kind: aim.met ? "" : "is-missed",
    cells: [
      aim.id,
      verdict(aim.met),
      html`<a href="#${aim.anchor}">${aim.work.name}</a>`,
      `${aim.measure}: ${aim.contender} / ${aim.against}`,
      formatRatio(aim.median),
      formatSpread(aim.low, aim.high, formatRatio),
      aimText(aim, formatRatio),
      inWords(aim),
    ],
  };
}

function figureRow(aim) {
  const format = (value) => formatValue(value, aim.unit);
  return {
    kind: aim.met ? "" : "is-missed",
    cells: [
      aim.id,
      verdict(aim.met),
      html`<a href="#${aim.anchor}">${aim.figure.name}</a>`,
      aim.name,
      format(aim.median),
      formatSpread(aim.low, aim.high, format),
      aimText(aim, format),
      "–",
    ],
  };
}

export function aims(results) {
  const ratioAims = listRatioAims(results);
  const rows = [...ratioAims.map(ratioRow), ...listFigureAims(results).map(figureRow)];
  if (rows.length === 0) return html`<section><h2>Aims</h2><p>These results have no aims.</p></section>`;
  return html`<section aria-labelledby="aims">
<h2 id="aims">Aims</h2>
${table({ caption: "Every aim, with the median of all rounds and the lowest and highest", columns: aimColumns, rows })}
${ratioAims.length ? ratioChart(ratioAims) : ""}
</section>`;
}

function ratioChart(ratioAims) {
  const met = ratioAims.filter((aim) => aim.met).length;
  return chart({
    kind: "ratios",
    rows: ratioAims.length,
    title: "How many times as good as the other",
    hint:
      "Right of 1: ahead. Ratios of times are turned over, so that right is better in every row. " +
      "The marker is the median (● aim met, ◆ missed), the line through it goes from the lowest round to the highest; " +
      "the upright bar is the aim, met when the marker is on its right.",
    label: `Ratios of ${ratioAims.length} aims, ${met} of them met; the table above has the numbers.`,
  });
}

export function contents(results) {
  const entries = [
    ...results.works.map((work, index) => [work.name, workAnchor(index)]),
    ...results.figures.map((figure, index) => [figure.name, figureAnchor(index)]),
  ];
  return html`<nav aria-label="Contents">
<h2>What was measured</h2>
<ul>
${entries.map(([name, anchor]) => html`<li><a href="#${anchor}">${name}</a></li>\n`)}</ul>
</nav>`;
}
