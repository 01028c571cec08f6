// Growth curves: contenders that do the same at different sizes.

// Names of one curve differ by the size they end with: "orvane, 4096 blocks".
export const curveName = (name) => name.replace(/(^|[\s,:(/]+)\d.*$/u, "");

export const hasGrowth = (work) =>
  work.contenders.some((contender) => contender.error === "" && contender.place > 0);

const microsPerItem = (rate) => 1e6 / rate;

function toPoint(contender) {
  return {
    x: contender.place,
    y: microsPerItem(contender.rate),
    low: microsPerItem(Math.max(contender.rate, ...contender.rates)),
    high: microsPerItem(Math.min(contender.rate, ...contender.rates)),
  };
}

// Curves of time per item, in microseconds.
export function listCurves(work) {
  const curves = new Map();
  for (const contender of work.contenders) {
    if (contender.error !== "" || contender.place <= 0 || contender.rate <= 0) continue;
    const name = curveName(contender.name);
    if (!curves.has(name)) curves.set(name, []);
    curves.get(name).push(contender);
  }
  return [...curves].map(([name, contenders]) => ({
    name: name || work.name,
    contenders,
    points: contenders.map(toPoint).sort((a, b) => a.x - b.x),
  }));
}
