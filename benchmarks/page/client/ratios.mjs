// The chart of all ratios that have aims: a row each, on one logarithmic axis.
import { aimText, asAdvantage, inWords } from "../source/aims.mjs";
import { formatRatio, formatSpread } from "../source/units.mjs";
import { logTicks } from "./log_ticks.mjs";
import { rowAxis } from "./row_labels.mjs";

const markerRadius = 6;
const room = 1.06;
const widthOfTick = 45;

// What names may be cut off from stands last.
const rowLabel = (aim) => `${aim.id}  ${aim.measure} / ${aim.against} · ${aim.work.name}`;

function describe(aim) {
  return [
    `${aim.measure}: ${aim.contender} / ${aim.against}`,
    `${formatRatio(aim.median)} (${formatSpread(aim.low, aim.high, formatRatio)}), ${inWords(aim)}`,
    `aim: ${aimText(aim, formatRatio)}, ${aim.met ? "met" : "missed"}`,
  ];
}

// From the lowest to the highest of all that is drawn; without what no logarithmic axis can show.
function rangeOf(advantages) {
  const values = advantages.flatMap(({ median, low, high, bound }) => [median, low, high, bound, 1]);
  const shown = values.filter((value) => value > 0 && Number.isFinite(value));
  return [Math.min(...shown) / room, Math.max(...shown) * room];
}

const advantageAxis = ([min, max], theme) => ({
  type: "logarithmic",
  position: "top",
  min,
  max,
  afterBuildTicks(axis) {
    axis.ticks = logTicks(min, max, axis.width, widthOfTick).map((value) => ({ value }));
  },
  grid: {
    color: ({ tick }) => (tick?.value === 1 ? theme.text : theme.grid),
    lineWidth: ({ tick }) => (tick?.value === 1 ? 1.5 : 1),
  },
  ticks: { color: theme.text, maxRotation: 0, autoSkip: false, callback: (value) => `${value}×` },
});

export function ratiosChart(aims, theme) {
  const advantages = aims.map(asAdvantage);
  const labels = aims.map(rowLabel);
  const colours = aims.map(({ met }) => (met ? theme.met : theme.missed));
  const dataset = {
    data: advantages.map(({ median }) => median),
    spreads: advantages.map(({ low, high }) => [low, high]),
    spreadColours: colours,
    bounds: advantages.map(({ bound }) => bound),
    showLine: false,
    clip: false,
    pointStyle: aims.map(({ met }) => (met ? "circle" : "rectRot")),
    pointRadius: aims.map(({ met }) => (met ? markerRadius - 1 : markerRadius)),
    pointHoverRadius: markerRadius + 1,
    pointBackgroundColor: colours,
    pointBorderColor: theme.background,
  };
  return {
    type: "line",
    data: { labels, datasets: [dataset] },
    options: {
      indexAxis: "y",
      interaction: { mode: "index", axis: "y", intersect: false },
      scales: {
        x: advantageAxis(rangeOf(advantages), theme),
        y: { ...rowAxis(labels, theme), offset: true },
      },
      plugins: {
        legend: { display: false },
        tooltip: {
          callbacks: {
            title: ([{ dataIndex }]) => labels[dataIndex],
            label: ({ dataIndex }) => describe(aims[dataIndex]),
          },
        },
        spreads: { colour: theme.bound },
        rowLabels: { labels, theme, halfHeight: markerRadius + 2 },
      },
    },
  };
}
