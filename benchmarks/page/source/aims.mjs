// What the results say of how good the library is meant to be, and of how it compares.

export const workAnchor = (index) => `work-${index + 1}`;
export const figureAnchor = (index) => `figure-${index + 1}`;

const isAim = (entry) => entry.id !== "";

// Ratios whose aims stand in the results, with the work each belongs to.
export function listRatioAims(results) {
  return results.works.flatMap((work, index) =>
    work.ratios.filter(isAim).map((ratio) => ({ ...ratio, work, anchor: workAnchor(index) })),
  );
}

export function listFigureAims(results) {
  return results.figures.flatMap((figure, index) =>
    figure.values.filter(isAim).map((value) => ({ ...value, figure, anchor: figureAnchor(index) })),
  );
}

export function listFailures(results) {
  return results.works.flatMap((work, index) =>
    work.contenders
      .filter((contender) => contender.error !== "")
      .map((contender) => ({ contender, work, anchor: workAnchor(index) })),
  );
}

export function aimText({ at_least: atLeast, bound }, format) {
  return `${atLeast ? "at least" : "at most"} ${format(bound)}`;
}

// Times as good: ratios of times turned over, so that more is better whatever was measured.
export function asAdvantage(ratio) {
  if (ratio.measure === "rate") return pickSpread(ratio, (value) => value);
  const turned = pickSpread(ratio, (value) => 1 / value);
  return { ...turned, low: turned.high, high: turned.low };
}

function pickSpread(ratio, turn) {
  return {
    median: turn(ratio.median),
    low: turn(ratio.low),
    high: turn(ratio.high),
    bound: turn(ratio.bound),
  };
}

// "ahead" or "behind" only where no round says otherwise.
export function standing(ratio) {
  const advantage = asAdvantage(ratio);
  if (advantage.low > 1) return "ahead";
  return advantage.high < 1 ? "behind" : "level";
}

// Two places of a growth curve: the library compared with itself at another size.
function isGrowth(ratio, work) {
  const placeOf = (name) => work.contenders.find((contender) => contender.name === name)?.place ?? 0;
  const [place, otherPlace] = [placeOf(ratio.contender), placeOf(ratio.against)];
  return place > 0 && otherPlace > 0 && place !== otherPlace;
}

// How many comparisons with others are of each standing.
export function countStandings(results) {
  const counts = { ahead: 0, level: 0, behind: 0 };
  for (const work of results.works) {
    for (const ratio of work.ratios) {
      if (!isGrowth(ratio, work)) ++counts[standing(ratio)];
    }
  }
  return counts;
}

const comparatives = {
  rate: { more: "faster", less: "slower", times: "times as fast" },
  time: { more: "more time", less: "less time", times: "times the time" },
  "processor time": {
    more: "more processor time",
    less: "less processor time",
    times: "times the processor time",
  },
};

// A ratio in words: "3 % slower".
export function inWords({ measure, median }) {
  const words = comparatives[measure];
  if (median >= 2) return `${median.toFixed(1)} ${words.times}`;
  const percent = Math.round(Math.abs(median - 1) * 100);
  if (percent === 0) return "equal";
  return `${percent}\u00a0% ${median > 1 ? words.more : words.less}`;
}
