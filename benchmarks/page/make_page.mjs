// make_page.mjs RESULTS.json OUT.html
// Makes a page of what orvane_bench measured. Exits 2, and leaves OUT.html as it was, when it cannot.
import { rename, rm, writeFile } from "node:fs/promises";
import { makePage } from "./source/page.mjs";
import { BadResults, readResults } from "./source/results.mjs";

// A reader of the page never sees half of one.
async function replaceFile(path, content) {
  const unfinished = `${path}.${process.pid}.tmp`;
  try {
    await writeFile(unfinished, content, { flag: "wx" });
    await rename(unfinished, path);
  } catch (error) {
    await rm(unfinished, { force: true });
    throw error;
  }
}

async function main(paths) {
  if (paths.length !== 2) throw new Error("expects RESULTS.json and OUT.html");
  const [resultsPath, pagePath] = paths;
  try {
    await replaceFile(pagePath, await makePage(await readResults(resultsPath)));
  } catch (error) {
    throw error instanceof BadResults ? new BadResults(`${resultsPath}: ${error.message}`) : error;
  }
}

main(process.argv.slice(2)).catch((error) => {
  console.error(`bench_page: ${error.message.split("\n")[0]}`);
  process.exitCode = 2;
});
