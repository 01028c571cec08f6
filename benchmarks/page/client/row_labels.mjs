// The names of a chart's rows: beside them where there is room, else above each, where they may be as
// long as the chart is wide.
const narrow = 640;
const shareForLabels = 0.45; // Chart.js cuts off what is over half
const gap = 2;
const fontSize = 12;
const lineHeight = 14;

const isNarrow = (chart) => chart.width < narrow;

// The text, cut so that it fits.
export function fitText(measure, text, width) {
  if (measure(text) <= width) return text;
  let length = text.length;
  while (length > 0 && measure(`${text.slice(0, length)}…`) > width) --length;
  return `${text.slice(0, length).trimEnd()}…`;
}

const measureIn = (context) => (text) => context.measureText(text).width;

// A Chart.js axis with these rows.
export function rowAxis(labels, theme) {
  return {
    type: "category",
    labels,
    grid: { display: false },
    border: { color: theme.strongLine },
    ticks: {
      autoSkip: false,
      color: theme.text,
      callback(index) {
        if (isNarrow(this.chart)) return "";
        return fitText(measureIn(this.chart.ctx), labels[index], this.chart.width * shareForLabels);
      },
    },
  };
}

// A Chart.js plugin.
export const rowLabels = {
  id: "rowLabels",
  beforeDatasetsDraw(chart, _, { labels, theme, halfHeight }) {
    if (!labels || !isNarrow(chart)) return;
    const { ctx: context, chartArea: area } = chart;
    context.save();
    context.font = `${fontSize}px ${chart.options.font.family}`;
    context.textBaseline = "bottom";
    chart.getDatasetMeta(0).data.forEach(({ y }, index) => {
      const text = fitText(measureIn(context), labels[index], area.width - gap);
      const [left, bottom] = [area.left + gap, y - halfHeight - gap];
      // Free of grid lines.
      context.fillStyle = theme.background;
      context.fillRect(left, bottom - lineHeight, context.measureText(text).width, lineHeight);
      context.fillStyle = theme.text;
      context.fillText(text, left, bottom);
    });
    context.restore();
  },
};
