// Numbers as people read them. Number and unit stay on one line: the space between does not break.
const space = "\u00a0";

const withUnit = (number, unit) => (unit ? number + space + unit : number);

// Three digits that count, without zeros at the end.
function threeDigits(value) {
  const rounded = Number(value.toPrecision(3));
  return Math.abs(rounded) >= 1e-4 || rounded === 0 ? String(rounded) : rounded.toExponential();
}

// In the largest of these steps, which are pairs of size and unit, that is not larger than the value.
function inSteps(value, steps) {
  const magnitude = Math.abs(Number(value.toPrecision(3)));
  const [size, unit] = steps.findLast(([stepSize]) => magnitude >= stepSize) ?? steps[0];
  return [threeDigits(value / size), unit];
}

const thousands = [
  [1, ""],
  [1e3, "k"],
  [1e6, "M"],
  [1e9, "G"],
];
const binary = [
  [1, "B"],
  [2 ** 10, "KiB"],
  [2 ** 20, "MiB"],
  [2 ** 30, "GiB"],
];
const micros = [
  [1e-3, "ns"],
  [1, "µs"],
  [1e3, "ms"],
  [1e6, "s"],
];

export const formatCount = (value) => withUnit(...inSteps(value, thousands));
const formatExactly = (value) => value.toLocaleString("en").replaceAll(",", space);

// Sizes are mostly powers of two: 64 Ki, where 65.5 k would hide it.
export function formatSize(size) {
  const [step, unit] = size % 2 ** 20 === 0 ? [2 ** 20, "Mi"] : [2 ** 10, "Ki"];
  return size > 0 && size % step === 0 ? withUnit(formatExactly(size / step), unit) : formatExactly(size);
}

export const formatBytes = (value) => withUnit(...inSteps(value, binary));
export const formatMicros = (value) => withUnit(...inSteps(value, micros));

export function formatRate(itemsPerSecond, unit) {
  const [number, prefix] = inSteps(itemsPerSecond, thousands);
  return withUnit(number, `${prefix}${prefix ? space : ""}${unit}/s`);
}

// Two decimals, for ratios are mostly near 1, and 0.97 has to differ from 0.93.
export function formatRatio(ratio) {
  if (ratio >= 100) return threeDigits(ratio);
  if (ratio >= 10) return ratio.toFixed(1);
  return ratio >= 0.095 || ratio === 0 ? ratio.toFixed(2) : ratio.toPrecision(2);
}

export const formatShare = (share) => withUnit(threeDigits(100 * share), "%");

const inUnit = new Map([
  ["bytes", formatBytes],
  ["B", formatBytes],
  ["share", formatShare],
  ["s", (value) => formatMicros(1e6 * value)],
  ["ms", (value) => formatMicros(1e3 * value)],
  ["µs", formatMicros],
  ["us", formatMicros],
  ["ns", (value) => formatMicros(value / 1e3)],
]);

// A value whose unit is named by the measurement.
export function formatValue(value, unit) {
  const format = inUnit.get(unit);
  if (format) return format(value);
  const [number, prefix] = inSteps(value, thousands);
  return withUnit(number, [prefix, unit].filter(Boolean).join(space));
}

export const formatSpread = (low, high, format) => `${format(low)} – ${format(high)}`;
