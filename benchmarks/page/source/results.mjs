// The results file of orvane_bench: reading it, and refusing what a page cannot be made of.
import { readFile } from "node:fs/promises";

export class BadResults extends Error {}

const isText = (value) => typeof value === "string";
const isNumber = (value) => typeof value === "number" && Number.isFinite(value);
const isFlag = (value) => typeof value === "boolean";
const isMeasure = (value) => ["rate", "time", "processor time"].includes(value);

const text = leaf(isText, "a text");
const number = leaf(isNumber, "a number");
const flag = leaf(isFlag, "true or false");

// Checks are functions of a value and of the path that names it.
function leaf(accepts, kind) {
  return (value, path) => {
    if (!accepts(value)) throw new BadResults(`${path} is not ${kind}`);
  };
}

const list = (check) => (value, path) => {
  if (!Array.isArray(value)) throw new BadResults(`${path} is not a list`);
  value.forEach((item, index) => check(item, `${path}[${index}]`));
};

const fields = (checks) => (value, path) => {
  if (value === null || typeof value !== "object" || Array.isArray(value)) {
    throw new BadResults(`${path || "the file"} is not an object`);
  }
  for (const [name, check] of Object.entries(checks)) {
    const place = path ? `${path}.${name}` : name;
    if (!Object.hasOwn(value, name)) throw new BadResults(`${place} is missing`);
    check(value[name], place);
  }
};

const both = (first, second) => (value, path) => {
  first(value, path);
  second(value, path);
};

const checkBin = both(
  list(number),
  leaf((bin) => bin.length === 2, "a pair of upper edge and count"),
);

const checkMeasured = fields({
  place: number,
  rates: list(number),
  rate: number,
  processor_micros: number,
  latency_micros: fields({ p50: number, p99: number, p999: number }),
  latency_bins: list(checkBin),
  allocations_per_item: number,
  peak_bytes: number,
});

// One that did not run has measured nothing.
const checkContender = both(fields({ name: text, error: text }), (contender, path) => {
  if (contender.error === "") checkMeasured(contender, path);
});

const spread = { median: number, low: number, high: number };
const checkAim = fields({ at_least: flag, bound: number, met: flag });

const checkRatio = fields({
  id: text,
  contender: text,
  against: text,
  measure: leaf(isMeasure, "rate, time or processor time"),
  ...spread,
});

const checkValue = fields({ id: text, name: text, unit: text, ...spread });

const withAim = (check) =>
  both(check, (value, path) => {
    if (value.id !== "") checkAim(value, path);
  });

const checkResults = fields({
  machine: fields({
    processor: text,
    device_folder: text,
    memory_folder: text,
    engine: text,
    date: text,
    rounds: number,
    quick: flag,
  }),
  works: list(
    fields({ name: text, unit: text, contenders: list(checkContender), ratios: list(withAim(checkRatio)) }),
  ),
  figures: list(fields({ name: text, values: list(withAim(checkValue)) })),
});

function parse(content) {
  try {
    return JSON.parse(content);
  } catch (error) {
    throw new BadResults(`not JSON: ${error.message}`);
  }
}

export async function readResults(path) {
  const results = parse(await readFile(path, "utf8"));
  checkResults(results, "");
  return results;
}
