// What the page computes from the results.
import assert from "node:assert/strict";
import { test } from "node:test";
import { ContenderColours } from "../client/colours.mjs";
import { logTicks } from "../client/log_ticks.mjs";
import { fitText } from "../client/row_labels.mjs";
import { asAdvantage, inWords, standing } from "../source/aims.mjs";
import { listCurves } from "../source/growth.mjs";
import { lowestShare, shareThatTookLonger } from "../source/latency.mjs";
import * as units from "../source/units.mjs";

const plain = (text) => text.replaceAll("\u00a0", " ");

test("Numbers have three digits and the unit that keeps them short", () => {
  const cases = [
    [units.formatRate(412345, "reads"), "412 k reads/s"],
    [units.formatRate(7.25, "reads"), "7.25 reads/s"],
    [units.formatCount(999.6), "1 k"],
    [units.formatCount(999600), "1 M"],
    [units.formatCount(0.0002), "0.0002"],
    [units.formatCount(0), "0"],
    [units.formatMicros(0.32), "320 ns"],
    [units.formatMicros(146), "146 µs"],
    [units.formatMicros(3712), "3.71 ms"],
    [units.formatMicros(2.5e6), "2.5 s"],
    [units.formatBytes(3 * 2 ** 20), "3 MiB"],
    [units.formatBytes(212), "212 B"],
    [units.formatSize(524288), "512 Ki"],
    [units.formatSize(2 ** 20), "1 Mi"],
    [units.formatSize(61), "61"],
    [units.formatSize(100000), "100 000"],
    [units.formatRatio(0.973), "0.97"],
    [units.formatRatio(12.34), "12.3"],
    [units.formatRatio(0.0123), "0.012"],
    [units.formatValue(0.981, "share"), "98.1 %"],
    [units.formatValue(4096, "bytes"), "4 KiB"],
    [units.formatValue(1048576, "objects"), "1.05 M objects"],
    [units.formatValue(12, ""), "12"],
    [units.formatSpread(0.93, 1.01, units.formatRatio), "0.93 – 1.01"],
  ];
  for (const [text, expected] of cases) assert.equal(plain(text), expected);
});

test("Ratios are put in words by what they are of", () => {
  const words = (measure, median) => plain(inWords({ measure, median }));
  assert.equal(words("rate", 0.97), "3 % slower");
  assert.equal(words("rate", 1.29), "29 % faster");
  assert.equal(words("rate", 2.19), "2.2 times as fast");
  assert.equal(words("time", 0.61), "39 % less time");
  assert.equal(words("processor time", 1.17), "17 % more processor time");
  assert.equal(words("processor time", 3), "3.0 times the processor time");
  assert.equal(words("time", 1.001), "equal");
});

test("An advantage turns ratios of times over", () => {
  const ratio = { measure: "time", median: 0.5, low: 0.4, high: 0.8, bound: 1 };
  assert.deepEqual(asAdvantage(ratio), { median: 2, low: 1.25, high: 2.5, bound: 1 });
  assert.equal(standing(ratio), "ahead");
  assert.equal(standing({ ...ratio, measure: "rate" }), "behind");
  assert.equal(standing({ ...ratio, high: 1.1 }), "level");
});

test("Growth curves join what differs in its size alone, smallest first", () => {
  const contender = (name, place, rate) => ({ name, place, rate, rates: [rate / 2, rate * 2], error: "" });
  const work = {
    name: "hits",
    contenders: [
      contender("orvane, 4096 blocks", 4096, 5e5),
      contender("orvane, 64 blocks", 64, 1e6),
      contender("a map: 64 blocks", 64, 2e5),
      contender("pread", 0, 1e5),
      { ...contender("a map: 4096 blocks", 4096, 1), error: "no memory" },
    ],
  };
  const curves = listCurves(work).map(({ name, points }) => [name, points.map(({ x, y }) => [x, y])]);
  assert.deepEqual(curves, [
    [
      "orvane",
      [
        [64, 1],
        [4096, 2],
      ],
    ],
    ["a map", [[64, 5]]],
  ]);
  assert.deepEqual(listCurves(work)[0].points[0], { x: 64, y: 1, low: 0.5, high: 2 });
  const sizes = { name: "hits", contenders: [contender("64 blocks", 64, 1e6)] };
  assert.equal(listCurves(sizes)[0].name, "hits");
});

test("Latency curves fall from all to none", () => {
  const bins = [
    [10, 90],
    [20, 9],
    [40, 1],
  ];
  const floor = lowestShare([{ latency_bins: bins }]);
  assert.equal(floor, 0.001);
  const points = shareThatTookLonger(bins, floor);
  assert.deepEqual(
    points.map(({ y }) => y),
    [1, 0.1, 0.01, 0.001],
  );
  assert.deepEqual(
    points.slice(1).map(({ x }) => x),
    [10, 20, 40],
  );
  assert.ok(points[0].x < 10 && points[0].x > 9.7);
});

test("Logarithmic axes have round ticks that do not meet", () => {
  assert.deepEqual(logTicks(0.85, 1.3, 300, 45), [0.9, 1, 1.1, 1.2, 1.3]);
  assert.deepEqual(logTicks(0.5, 200, 100, 45), [1, 10, 100]);
  assert.deepEqual(logTicks(0.5, 200, 600, 45), [0.5, 1, 2, 5, 10, 20, 50, 100, 200]);
});

test("Texts are cut to what fits", () => {
  const measure = (text) => text.length;
  assert.equal(fitText(measure, "short", 5), "short");
  assert.equal(fitText(measure, "far too long", 8), "far too…");
  assert.equal(fitText(measure, "far too long", 9), "far too…");
  assert.equal(fitText(measure, "no room", 0), "…");
});

test("A contender keeps its colour, and the library's are its own", () => {
  const theme = { contenders: ["ours", "ours too", "a", "b"] };
  const contenders = (...names) => names.map((name) => ({ name, place: 0 }));
  const works = [
    { contenders: contenders("io_uring", "orvane") },
    { contenders: contenders("orvane", "pread", "mapping") },
  ];
  const colours = new ContenderColours(works, theme);
  assert.deepEqual(colours.pick(works[0].contenders), ["a", "ours"]);
  assert.deepEqual(colours.pick(works[1].contenders), ["ours", "b", "a"]);
  assert.deepEqual(colours.pick(contenders("io_uring", "mapping")), ["a", "b"]);
});

test("The points of a growth curve are of one colour", () => {
  const contenders = [64, 4096].map((place) => ({ name: `orvane, ${place} blocks`, place, error: "" }));
  const colours = new ContenderColours([{ contenders }], { contenders: ["ours", "ours too", "a"] });
  assert.deepEqual(colours.pick(contenders), ["ours", "ours"]);
});
