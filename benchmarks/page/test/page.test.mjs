// The page that make_page.mjs writes, and what it refuses to make one of.
import assert from "node:assert/strict";
import { spawnSync } from "node:child_process";
import { createHash } from "node:crypto";
import { mkdtempSync, readdirSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, test } from "node:test";
import { fileURLToPath } from "node:url";

const pathOf = (name) => fileURLToPath(new URL(name, import.meta.url));
const samplePath = pathOf("sample.json");
const folder = mkdtempSync(join(tmpdir(), "bench_page-"));
after(() => rmSync(folder, { recursive: true }));

const readSample = () => JSON.parse(readFileSync(samplePath, "utf8"));

function run(...paths) {
  return spawnSync(process.execPath, [pathOf("../make_page.mjs"), ...paths], { encoding: "utf8" });
}

function writeResults(content) {
  const path = join(folder, "results.json");
  writeFileSync(path, typeof content === "string" ? content : JSON.stringify(content));
  return path;
}

function makePage(resultsPath) {
  const pagePath = join(folder, "page.html");
  const { status, stderr } = run(resultsPath, pagePath);
  assert.equal(stderr, "");
  assert.equal(status, 0);
  return readFileSync(pagePath, "utf8");
}

const inScripts = /<script[^>]*>[\s\S]*?<\/script>/g;
const markupOf = (page) => page.replace(inScripts, "").replace(/<style>[\s\S]*?<\/style>/g, "");

// Rows of cells' texts.
function rowsOf(markup) {
  const rows = markup.match(/<tr role="row"[\s\S]*?<\/tr>/g) ?? [];
  return rows.map((row) =>
    row
      .match(/<t[hd][\s\S]*?<\/t[hd]>/g)
      .map((cell) => cell.replace(/<[^>]*>/g, "").replaceAll("\u00a0", " ")),
  );
}

const samplePage = makePage(samplePath);

test("The page names nothing to load", () => {
  const markup = markupOf(samplePage);
  assert.doesNotMatch(markup, /https?:/);
  assert.doesNotMatch(markup, /\s(src|srcset|poster|action|data)\s*=/);
  assert.doesNotMatch(markup, /<(link|iframe|object|embed|img|base)\b/);
  for (const [, target] of markup.matchAll(/href="([^"]*)"/g)) assert.match(target, /^#/);
  const style = samplePage.match(/<style>([\s\S]*?)<\/style>/)[1];
  assert.doesNotMatch(style, /url\(|@import/);
  assert.doesNotMatch(samplePage, /<script[^>]*\ssrc/);
  assert.doesNotMatch(
    samplePage.match(/<script>([\s\S]*?)<\/script>/)[1],
    /\bfetch\(|XMLHttpRequest|\bimport\(/,
  );
});

test("The page's policy admits its own script and style only", () => {
  const policy = samplePage.match(/Content-Security-Policy" content="([^"]*)"/)[1];
  const checksum = (text) => `'sha256-${createHash("sha256").update(text).digest("base64")}'`;
  const script = samplePage.match(/<script>([\s\S]*?)<\/script>/)[1];
  const style = samplePage.match(/<style>([\s\S]*?)<\/style>/)[1];
  assert.ok(policy.startsWith("default-src 'none';"));
  assert.ok(policy.includes(`script-src ${checksum(script)};`));
  assert.ok(policy.includes(`style-src ${checksum(style)};`));
});

test("Every link leads to a place in the page", () => {
  const markup = markupOf(samplePage);
  const targets = [...markup.matchAll(/href="#([^"]*)"/g)].map(([, target]) => target);
  assert.ok(targets.length > 0);
  for (const target of targets) assert.ok(markup.includes(`id="${target}"`), target);
});

test("Every aim stands in the table with its result", () => {
  const { works, figures } = readSample();
  const entries = [...works.flatMap(({ ratios }) => ratios), ...figures.flatMap(({ values }) => values)];
  const aims = entries.filter(({ id }) => id !== "");
  const rows = rowsOf(markupOf(samplePage));
  for (const { id, met } of aims) {
    const row = rows.find(([head]) => head === id);
    assert.equal(row[1], met ? "✓ met" : "✗ missed", id);
  }
  const met = aims.filter((aim) => aim.met).length;
  assert.ok(met > 0 && met < aims.length);
  assert.ok(samplePage.includes(`${met} of ${aims.length} aims met.`));
});

test("An aim's row says how much, how sure, and what was meant", () => {
  const row = rowsOf(markupOf(samplePage)).find(([head]) => head === "S3");
  assert.deepEqual(row.slice(2), [
    "sample ext4: random 4 KiB reads, 61 in flight",
    "processor time: orvane / io_uring",
    "1.17",
    "1.12 – 1.21",
    "at most 1.10",
    "17 % more processor time",
  ]);
});

test("The numbers of every contender stand in a table", () => {
  const row = rowsOf(markupOf(samplePage)).find(([head]) => head === "io_uring");
  assert.equal(row[1], "421 k reads/s");
  assert.equal(row.at(-1), "2 MiB");
});

test("Comparisons with others are counted, those of one size with another are not", () => {
  assert.match(samplePage, /ahead in 5, level in 1, behind in 1\./);
});

test("A contender that did not run is shown with its error", () => {
  assert.match(
    samplePage,
    /<strong>mapping<\/strong> did not run: sample: mmap: Cannot allocate memory &lt;12&gt;/,
  );
  assert.match(samplePage, /Did not run: <a href="#work-1">mapping/);
});

test("A work of which nobody ran has no charts", () => {
  const results = readSample();
  results.works = results.works.slice(0, 1);
  results.works[0].contenders = [{ name: "orvane", error: "no file" }];
  results.works[0].ratios = [];
  results.figures = [];
  const page = markupOf(makePage(writeResults(results)));
  assert.doesNotMatch(page, /<canvas/);
  assert.match(page, /<strong>orvane<\/strong> did not run: no file/);
  assert.match(page, /These results have no aims\./);
});

test("Texts of the results cannot become markup or script", () => {
  const hostile = `</script><script>alert("1")</script><img src='x' onerror="a">&amp;<!--`;
  const replaceTexts = (value, key) => {
    if (typeof value === "string") return ["measure", "id"].includes(key) || value === "" ? value : hostile;
    if (value === null || typeof value !== "object") return value;
    if (Array.isArray(value)) return value.map((item) => replaceTexts(item));
    return Object.fromEntries(Object.entries(value).map(([name, item]) => [name, replaceTexts(item, name)]));
  };
  const page = makePage(writeResults(replaceTexts(readSample())));
  assert.equal(page.match(/<script/g).length, samplePage.match(/<script/g).length);
  assert.doesNotMatch(markupOf(page), /<img|<!--/);
  assert.ok(page.includes("&lt;/script&gt;&lt;script&gt;alert(&quot;1&quot;)&lt;/script&gt;"));
  const embedded = page.match(/<script type="application\/json" id="results">([\s\S]*?)<\/script>/)[1];
  assert.equal(JSON.parse(embedded).machine.processor, hostile);
});

function refusal(content) {
  const pagePath = join(folder, "refused.html");
  const { status, stderr } = run(
    content === undefined ? join(folder, "none.json") : writeResults(content),
    pagePath,
  );
  assert.equal(status, 2);
  assert.match(stderr, /^bench_page: [^\n]+\n$/);
  assert.deepEqual(
    readdirSync(folder).filter((name) => name.startsWith("refused")),
    [],
  );
  return stderr;
}

const without = (change) => {
  const results = readSample();
  change(results);
  return results;
};

test("A missing file is named", () => assert.match(refusal(), /none\.json/));

test("What is not JSON is refused", () => {
  assert.match(refusal("works:\nnone"), /results\.json: not JSON/);
  assert.match(refusal(""), /results\.json: not JSON/);
  assert.match(refusal("[1]"), /the file is not an object/);
  assert.match(refusal("null"), /the file is not an object/);
});

test("What is missing or of another kind is named", () => {
  const cases = [
    [({ machine }) => delete machine.date, /: machine\.date is missing/],
    [(results) => delete results.figures, /: figures is missing/],
    [(results) => (results.works = {}), /: works is not a list/],
    [
      ({ works }) => (works[1].contenders[0].rate = "fast"),
      /: works\[1\]\.contenders\[0\]\.rate is not a number/,
    ],
    [
      ({ works }) => (works[0].contenders[0].rates[2] = null),
      /: works\[0\]\.contenders\[0\]\.rates\[2\] is not a number/,
    ],
    [({ works }) => works[0].contenders[0].latency_bins.push([1]), /latency_bins\[\d+\] is not a pair/],
    [
      ({ works }) => (works[0].ratios[0].measure = "speed"),
      /: works\[0\]\.ratios\[0\]\.measure is not rate, time or/,
    ],
    [({ works }) => delete works[0].ratios[0].met, /: works\[0\]\.ratios\[0\]\.met is missing/],
    [
      ({ figures }) => (figures[0].values[0].met = 1),
      /: figures\[0\]\.values\[0\]\.met is not true or false/,
    ],
  ];
  for (const [change, message] of cases) assert.match(refusal(without(change)), message);
});

test("A page that cannot be replaced leaves nothing behind, and the old one as it was", () => {
  const pagePath = join(folder, "old.html");
  writeFileSync(pagePath, "old");
  assert.equal(run(writeResults("{"), pagePath).status, 2);
  assert.equal(readFileSync(pagePath, "utf8"), "old");
  assert.equal(run(samplePath, join(folder, "no", "folder.html")).status, 2);
  assert.deepEqual(
    readdirSync(folder).filter((name) => name.endsWith(".tmp")),
    [],
  );
});

test("Other numbers of arguments are refused", () => {
  assert.equal(run(samplePath).status, 2);
  assert.equal(run(samplePath, "a", "b").status, 2);
});
