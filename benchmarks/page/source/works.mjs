// A section per work, with what every contender took for it, and one per figure.
import { aimText, figureAnchor, inWords, workAnchor } from "./aims.mjs";
import { chart } from "./charts.mjs";
import { hasGrowth } from "./growth.mjs";
import { html, table } from "./html.mjs";
import { hasLatencies } from "./latency.mjs";
import { verdict } from "./overview.mjs";
import {
  formatBytes,
  formatCount,
  formatMicros,
  formatRate,
  formatRatio,
  formatSize,
  formatSpread,
  formatValue,
} from "./units.mjs";

export function workSection(work, index) {
  const ran = work.contenders.filter((contender) => contender.error === "");
  const anchor = workAnchor(index);
  return html`<section id="${anchor}" aria-labelledby="${anchor}-name">
<h2 id="${anchor}-name">${work.name}</h2>
${ran.length ? workCharts(work, index, ran) : ""}
${ran.length ? contenderTable(work, ran) : ""}
${failureList(work)}
${work.ratios.length ? ratioTable(work) : ""}
</section>`;
}

function workCharts(work, index, ran) {
  const see = `${ran.length} contenders; the table below has the numbers.`;
  const rows = ran.length;
  const charts = [
    chart({
      kind: "rates",
      index,
      rows,
      title: `${work.unit}/s`,
      hint: "More is better.",
      label: `${work.unit} per second of ${see}`,
    }),
    chart({
      kind: "processor",
      index,
      rows,
      title: "Processor time per item",
      hint: "Less is better.",
      label: `Processor time per item of ${see}`,
    }),
  ];
  if (work.contenders.some(hasLatencies)) charts.push(latencyChart(index, see));
  if (hasGrowth(work)) charts.push(growthChart(index, see));
  return html`<div class="charts">${charts}</div>`;
}

function latencyChart(index, see) {
  return chart({
    kind: "latency",
    index,
    title: "Time from start to end",
    hint: "Which share of the items took longer. Lower and further left is better.",
    label: `Curves of the share of items that took longer than a time, of ${see}`,
  });
}

function growthChart(index, see) {
  return chart({
    kind: "growth",
    index,
    title: "Time per item as the size grows",
    hint: "Flat is best.",
    label: `Curves of the time per item at growing sizes, of ${see}`,
  });
}

const numberColumn = (name) => ({ name, isNumber: true });

function formatRates({ rate, rates }) {
  return formatSpread(Math.min(rate, ...rates), Math.max(rate, ...rates), formatCount);
}

const quantile = (name) => (contender) =>
  hasLatencies(contender) ? formatMicros(contender.latency_micros[name]) : "–";

// Names of what the work's contenders were measured by, with the cells.
function measures(work) {
  const sizes = [["Size", ({ place }) => formatSize(place)]];
  const quantiles = [
    ["p50", quantile("p50")],
    ["p99", quantile("p99")],
    ["p99.9", quantile("p999")],
  ];
  return [
    ...(hasGrowth(work) ? sizes : []),
    ["Median rate", ({ rate }) => formatRate(rate, work.unit)],
    ["Low – high", formatRates],
    ["Processor time", (contender) => formatMicros(contender.processor_micros)],
    ...(work.contenders.some(hasLatencies) ? quantiles : []),
    ["Allocations", (contender) => formatCount(contender.allocations_per_item)],
    ["Peak memory", (contender) => formatBytes(contender.peak_bytes)],
  ];
}

function contenderTable(work, ran) {
  const shown = measures(work);
  const columns = [{ name: "Contender" }, ...shown.map(([name]) => numberColumn(name))];
  const rows = ran.map((contender) => ({
    cells: [contender.name, ...shown.map(([, cell]) => cell(contender))],
  }));
  const caption =
    "Medians of all rounds, with the lowest and highest rate. Processor time and allocations are per item.";
  return table({ caption, columns, rows });
}

function failureList(work) {
  const failed = work.contenders.filter((contender) => contender.error !== "");
  return failed.map(
    ({ name, error }) => html`<p class="warning"><strong>${name}</strong> did not run: ${error}</p>\n`,
  );
}

function ratioTable(work) {
  const columns = [
    { name: "Compared" },
    { name: "In words" },
    numberColumn("Ratio"),
    numberColumn("Low – high"),
    { name: "Aim" },
    { name: "Result" },
  ];
  const rows = work.ratios.map((ratio) => ({
    kind: ratio.id && !ratio.met ? "is-missed" : "",
    cells: [
      `${ratio.measure}: ${ratio.contender} / ${ratio.against}`,
      inWords(ratio),
      formatRatio(ratio.median),
      formatSpread(ratio.low, ratio.high, formatRatio),
      ...aimCells(ratio, formatRatio),
    ],
  }));
  return table({
    caption: "Compared in the same round: median, lowest and highest of all rounds",
    columns,
    rows,
  });
}

function aimCells(entry, format) {
  if (entry.id === "") return ["–", "–"];
  return [`${entry.id}: ${aimText(entry, format)}`, verdict(entry.met)];
}

export function figureSection(figure, index) {
  const anchor = figureAnchor(index);
  const columns = [
    { name: "What" },
    numberColumn("Median"),
    numberColumn("Low – high"),
    { name: "Aim" },
    { name: "Result" },
  ];
  return html`<section id="${anchor}" aria-labelledby="${anchor}-name">
<h2 id="${anchor}-name">${figure.name}</h2>
${canBeDrawn(figure) ? figureChart(figure, index) : ""}
${table({ caption: "Median of all rounds, lowest and highest", columns, rows: figure.values.map(valueRow) })}
</section>`;
}

function valueRow(value) {
  const format = (number) => formatValue(number, value.unit);
  return {
    kind: value.id && !value.met ? "is-missed" : "",
    cells: [
      value.name,
      format(value.median),
      formatSpread(value.low, value.high, format),
      ...aimCells(value, format),
    ],
  };
}

// Bars side by side say something only of values of one unit.
const canBeDrawn = ({ values }) => values.length > 1 && values.every(({ unit }) => unit === values[0].unit);

function figureChart(figure, index) {
  return chart({
    kind: "figure",
    index,
    rows: figure.values.length,
    title: figure.values[0].unit,
    label: `${figure.name}: ${figure.values.length} values; the table below has the numbers.`,
  });
}
