// A Chart.js plugin: lines from the lowest to the highest of all rounds, through the bars and points
// of datasets that have `spreads`; and, across the rows of those that have `bounds`, where aims stand.
const capHalf = 4;
const boundHalf = 8;

function strokeLines(context, lines, { colour, width }) {
  context.save();
  context.strokeStyle = colour;
  context.lineWidth = width;
  context.beginPath();
  for (const [x, y, toX, toY] of lines) {
    context.moveTo(x, y);
    context.lineTo(toX, toY);
  }
  context.stroke();
  context.restore();
}

const clamp = (value, low, high) => Math.min(Math.max(value, low), high);

function pixelOn(scale, value) {
  const [first, last] = scale.isHorizontal() ? [scale.left, scale.right] : [scale.top, scale.bottom];
  const pixel = scale.getPixelForValue(value);
  return Number.isFinite(pixel) ? clamp(pixel, first, last) : first;
}

function spreadLines(scale, element, [low, high]) {
  const [from, to] = [pixelOn(scale, low), pixelOn(scale, high)];
  if (scale.isHorizontal()) {
    const [top, bottom] = [element.y - capHalf, element.y + capHalf];
    return [
      [from, element.y, to, element.y],
      [from, top, from, bottom],
      [to, top, to, bottom],
    ];
  }
  const [left, right] = [element.x - capHalf, element.x + capHalf];
  return [
    [element.x, from, element.x, to],
    [left, from, right, from],
    [left, to, right, to],
  ];
}

function boundLine(scale, element, bound) {
  const x = pixelOn(scale, bound);
  return [x, element.y - boundHalf, x, element.y + boundHalf];
}

function drawSpreads(chart, meta, colour) {
  const { spreads: pairs = [], spreadColours } = chart.data.datasets[meta.index];
  meta.data.forEach((element, index) => {
    if (!pairs[index]) return;
    const lines = spreadLines(meta.vScale, element, pairs[index]);
    strokeLines(chart.ctx, lines, { colour: spreadColours?.[index] ?? colour, width: 1.5 });
  });
}

export const spreads = {
  id: "spreads",
  beforeDatasetsDraw(chart, _, { colour }) {
    for (const meta of chart.getSortedVisibleDatasetMetas()) {
      const { bounds = [] } = chart.data.datasets[meta.index];
      const lines = bounds.map((bound, index) => boundLine(meta.vScale, meta.data[index], bound));
      strokeLines(chart.ctx, lines, { colour, width: 4 });
      if (meta.type === "line") drawSpreads(chart, meta, colour);
    }
  },
  // Over bars, under points.
  afterDatasetsDraw(chart, _, { colour }) {
    for (const meta of chart.getSortedVisibleDatasetMetas()) {
      if (meta.type === "bar") drawSpreads(chart, meta, colour);
    }
  },
};
