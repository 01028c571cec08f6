// Charts of horizontal bars, one per contender or value.
import { formatCount, formatMicros, formatSpread, formatValue } from "../source/units.mjs";
import { rowAxis } from "./row_labels.mjs";

const barHeight = 14;

// rows: name, value, low and high (none without a spread), colour.
function barChart(rows, format, theme) {
  const labels = rows.map(({ name, value }) => `${name}: ${format(value)}`);
  const spreadOf = ({ low, high }) => (low === undefined ? null : [low, high]);
  return {
    type: "bar",
    data: {
      labels,
      datasets: [
        {
          data: rows.map(({ value }) => value),
          spreads: rows.map(spreadOf),
          backgroundColor: rows.map(({ colour }) => colour),
          barThickness: barHeight,
        },
      ],
    },
    options: {
      indexAxis: "y",
      scales: {
        x: lengthAxis(format, theme, Math.max(...rows.map(({ value, high = value }) => high))),
        y: rowAxis(labels, theme),
      },
      plugins: {
        legend: { display: false },
        tooltip: {
          callbacks: { title: () => "", label: ({ dataIndex }) => describe(rows[dataIndex], format) },
        },
        spreads: { colour: theme.text },
        rowLabels: { labels, theme, halfHeight: barHeight / 2 },
      },
    },
  };
}

const lengthAxis = (format, theme, longest) => ({
  type: "linear",
  beginAtZero: true,
  suggestedMax: longest,
  grid: { color: theme.grid },
  ticks: { color: theme.text, callback: format, maxTicksLimit: 6, maxRotation: 0 },
});

function describe({ name, value, low, high }, format) {
  const range = low === undefined ? "" : ` (${formatSpread(low, high, format)})`;
  return `${name}: ${format(value)}${range}`;
}

const listRan = (work) => work.contenders.filter(({ error }) => error === "");

function contenderRows(work, colours, measure) {
  const ran = listRan(work);
  const picked = colours.pick(ran);
  return ran.map((contender, index) => ({
    name: contender.name,
    colour: picked[index],
    ...measure(contender),
  }));
}

export function ratesChart(work, theme, colours) {
  const rows = contenderRows(work, colours, ({ rate, rates }) => ({
    value: rate,
    low: Math.min(rate, ...rates),
    high: Math.max(rate, ...rates),
  }));
  return barChart(rows, formatCount, theme);
}

export function processorChart(work, theme, colours) {
  const rows = contenderRows(work, colours, (contender) => ({ value: contender.processor_micros }));
  return barChart(rows, formatMicros, theme);
}

export function figureChart(figure, theme) {
  const rows = figure.values.map(({ name, median, low, high }) => ({
    name,
    value: median,
    low,
    high,
    colour: theme.contenders[0],
  }));
  return barChart(rows, (value) => formatValue(value, figure.values[0].unit), theme);
}
