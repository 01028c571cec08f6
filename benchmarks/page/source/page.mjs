// The whole page: one file, which loads nothing.
import { createHash } from "node:crypto";
import { readFile } from "node:fs/promises";
import { fileURLToPath } from "node:url";
import { build } from "esbuild";
import { embedJson, html, trusted } from "./html.mjs";
import { aims, contents, head, summary } from "./overview.mjs";
import { figureSection, workSection } from "./works.mjs";

const pathOf = (name) => fileURLToPath(new URL(`../client/${name}`, import.meta.url));

async function bundleScript() {
  const { outputFiles } = await build({
    entryPoints: [pathOf("main.mjs")],
    bundle: true,
    minify: true,
    write: false,
    format: "iife",
    target: "es2020",
    charset: "utf8",
    legalComments: "inline",
    logLevel: "silent",
  });
  return outputFiles[0].text;
}

const checksum = (text) => `'sha256-${createHash("sha256").update(text).digest("base64")}'`;

// Lets the browser run this script and use this style, and load nothing.
function contentPolicy(script, style) {
  return `default-src 'none'; script-src ${checksum(script)}; style-src ${checksum(style)}; base-uri 'none'; form-action 'none'`;
}

export async function makePage(results) {
  const [script, style] = await Promise.all([bundleScript(), readFile(pathOf("page.css"), "utf8")]);
  const page = html`<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta http-equiv="Content-Security-Policy" content="${trusted(contentPolicy(script, style))}">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta name="color-scheme" content="light dark">
<title>Orvane's measurements, ${results.machine.date}</title>
<style>${trusted(style)}</style>
</head>
<body>
${head(results)}
<main>
<noscript><p class="warning">The charts need scripts. Every number stands in the tables as well.</p></noscript>
${summary(results)}
${aims(results)}
${contents(results)}
${results.works.map(workSection)}
${results.figures.map(figureSection)}
</main>
<script type="application/json" id="results">${embedJson(results)}</script>
<script>${trusted(script)}</script>
</body>
</html>
`;
  return page.toString();
}
