// Ticks of logarithmic axes.

const steps = [
  [1, 1.1, 1.2, 1.3, 1.4, 1.5, 1.75, 2, 2.5, 3, 3.5, 4, 4.5, 5, 5.5, 6, 6.5, 7, 7.5, 8, 8.5, 9, 9.5],
  [1, 1.1, 1.2, 1.3, 1.4, 1.5, 1.75, 2, 2.5, 3, 4, 5, 6, 7, 8, 9],
  [1, 1.25, 1.5, 2, 2.5, 3, 4, 5, 6, 7, 8, 9],
  [1, 1.5, 2, 3, 4, 5, 6, 7, 8, 9],
  [1, 1.5, 2, 3, 5, 7],
  [1, 2, 5],
  [1],
];

function ticksOf(min, max, factors) {
  const ticks = [];
  for (let exponent = Math.floor(Math.log10(min)); 10 ** exponent <= max; ++exponent) {
    // Through text, for 9 * 0.1 is not 0.9.
    ticks.push(...factors.map((factor) => Number(`${factor}e${exponent}`)));
  }
  return ticks.filter((tick) => tick >= min && tick <= max);
}

// The narrowest gap between two neighbours, as a share of the whole axis.
function narrowestGap(ticks, min, max) {
  const gaps = ticks.slice(1).map((tick, index) => Math.log(tick / ticks[index]) / Math.log(max / min));
  return Math.min(1, ...gaps);
}

// As many round numbers as fit on an axis of this length when each takes so much of it.
export function logTicks(min, max, length, lengthOfTick) {
  const candidates = steps.map((factors) => ticksOf(min, max, factors));
  return (
    candidates.find((ticks) => narrowestGap(ticks, min, max) * length >= lengthOfTick) ?? candidates.at(-1)
  );
}
