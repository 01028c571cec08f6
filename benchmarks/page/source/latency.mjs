// Latency curves: which share of the items took longer than a time.

// The narrowest bins there are; the first one's lower edge is not in the results.
const binStep = 1.023;

const countItems = (bins) => bins.reduce((sum, [, count]) => sum + count, 0);

export const hasLatencies = ({ error, latency_bins: bins }) => error === "" && countItems(bins) > 0;

// Points of falling shares. The last one, where no item is left, stands at the floor given, for a
// logarithmic axis has no zero.
export function shareThatTookLonger(bins, floor) {
  const total = countItems(bins);
  const points = [{ x: bins[0][0] / binStep, y: 1 }];
  let left = total;
  for (const [upperMicros, count] of bins) {
    left -= count;
    points.push({ x: upperMicros, y: Math.max(left / total, floor) });
  }
  return points;
}

// The power of ten below the share that one item is of the most that a contender did.
export function lowestShare(contenders) {
  const most = Math.max(...contenders.map((contender) => countItems(contender.latency_bins)));
  return 10 ** -(Math.floor(Math.log10(most)) + 1);
}
