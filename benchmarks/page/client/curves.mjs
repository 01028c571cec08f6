// Charts of curves: how times are distributed, and how they grow.
import { listCurves } from "../source/growth.mjs";
import { hasLatencies, lowestShare, shareThatTookLonger } from "../source/latency.mjs";
import { formatMicros, formatShare, formatSize, formatSpread } from "../source/units.mjs";
import { logTicks } from "./log_ticks.mjs";

const dashes = [[], [7, 3], [2, 2], [9, 3, 2, 3]];
const logFrom = 20; // highest by lowest, where a linear axis would hide the lowest
const sizeOfTick = 55;

// Told apart by their dashes as well as by their colours.
function curve(name, points, index, colour) {
  return {
    label: name,
    data: points,
    borderColor: colour,
    backgroundColor: colour,
    borderWidth: 2,
    borderDash: dashes[index % dashes.length],
  };
}

const axis = (theme, title, format, more) => ({
  title: { display: true, text: title, color: theme.text },
  grid: { color: theme.grid },
  ticks: { color: theme.text, maxRotation: 0, autoSkip: false, callback: format },
  ...more,
});

function logAxis(theme, title, format, [min, max]) {
  const afterBuildTicks = (scale) => {
    scale.ticks = logTicks(min, max, scale.isHorizontal() ? scale.width : scale.height, sizeOfTick).map(
      (value) => ({ value }),
    );
  };
  return axis(theme, title, format, { type: "logarithmic", min, max, afterBuildTicks });
}

const legend = (theme) => ({
  position: "bottom",
  labels: {
    usePointStyle: true,
    pointStyleWidth: 36,
    generateLabels: (chart) => legendEntries(chart, theme),
  },
});

// As the curves are, dashes and all; Chart.js's own entries have none.
function legendEntries(chart, theme) {
  return chart.data.datasets.map(({ label, borderColor, borderDash }, datasetIndex) => ({
    text: label,
    fontColor: theme.text,
    pointStyle: "line",
    strokeStyle: borderColor,
    lineWidth: 2,
    lineDash: borderDash,
    hidden: !chart.isDatasetVisible(datasetIndex),
    datasetIndex,
  }));
}

const rangeOf = (values) => [Math.min(...values), Math.max(...values)];

function shareTick(share) {
  const quantile = { 0.5: "p50", 0.1: "p90", 0.01: "p99", 0.001: "p99.9", 0.0001: "p99.99" }[share];
  return quantile ? `${formatShare(share)} · ${quantile}` : formatShare(share);
}

function shareAxis(theme, floor) {
  const afterBuildTicks = (scale) => {
    const powers = Array.from({ length: Math.round(-Math.log10(floor)) + 1 }, (_, power) =>
      Number(`1e-${power}`),
    );
    scale.ticks = powers.map((value) => ({ value }));
  };
  return axis(theme, "took longer", shareTick, { type: "logarithmic", min: floor, max: 1, afterBuildTicks });
}

export function latencyChart(work, theme, colours) {
  const timed = work.contenders.filter(hasLatencies);
  const picked = colours.pick(timed);
  const floor = lowestShare(timed);
  const curves = timed.map(({ latency_bins: bins }) => shareThatTookLonger(bins, floor));
  const datasets = timed.map(({ name }, index) => ({
    ...curve(name, curves[index], index, picked[index]),
    pointRadius: 0,
    stepped: "after",
  }));
  const times = rangeOf(curves.flat().map(({ x }) => x));
  return {
    type: "line",
    data: { datasets },
    options: {
      interaction: { mode: "nearest", axis: "x", intersect: false },
      scales: { x: logAxis(theme, "time", formatMicros, times), y: shareAxis(theme, floor) },
      plugins: {
        legend: legend(theme),
        tooltip: {
          callbacks: {
            title: () => "",
            label: ({ dataset, raw }) =>
              `${dataset.label}: ${formatShare(raw.y)} took longer than ${formatMicros(raw.x)}`,
          },
        },
        spreads: { colour: theme.text },
      },
    },
  };
}

// Linear from zero, so that flat looks flat, unless that hides what is small.
function timeAxis(theme, points) {
  const [min, max] = rangeOf(points.flatMap(({ low, high }) => [low, high]));
  if (max / min > logFrom) return logAxis(theme, "time per item", formatMicros, [min / 1.1, max * 1.1]);
  return axis(theme, "time per item", formatMicros, { type: "linear", min: 0, suggestedMax: max * 1.1 });
}

// With ticks where there are points.
function sizeAxis(theme, points) {
  const sizes = [...new Set(points.map(({ x }) => x))].sort((a, b) => a - b);
  const afterBuildTicks = (scale) => {
    scale.ticks = sizes.map((value) => ({ value }));
  };
  const range = { min: sizes[0] / 1.2, max: sizes.at(-1) * 1.2 };
  const sized = axis(theme, "size", formatSize, { type: "logarithmic", ...range, afterBuildTicks });
  return { ...sized, ticks: { ...sized.ticks, autoSkip: true } };
}

export function growthChart(work, theme, colours) {
  const curves = listCurves(work);
  const picked = colours.pick(curves.map(({ contenders }) => contenders[0]));
  const points = curves.flatMap((one) => one.points);
  const datasets = curves.map((one, index) => ({
    ...curve(one.name, one.points, index, picked[index]),
    spreads: one.points.map(({ low, high }) => [low, high]),
    spreadColours: one.points.map(() => picked[index]),
    pointRadius: 4,
  }));
  return {
    type: "line",
    data: { datasets },
    options: {
      interaction: { mode: "nearest", intersect: false },
      scales: { x: sizeAxis(theme, points), y: timeAxis(theme, points) },
      plugins: {
        legend: legend(theme),
        tooltip: { callbacks: { title: ([{ raw }]) => formatSize(raw.x), label: growthLabel } },
        spreads: { colour: theme.text },
      },
    },
  };
}

const growthLabel = ({ dataset, raw }) =>
  `${dataset.label}: ${formatMicros(raw.y)} (${formatSpread(raw.low, raw.high, formatMicros)})`;
