// Times Mozilla's readability on jsdom over a folder of pages.
// Usage: node readability_js_bench.cjs NODE_MODULES_DIR PAGES_DIR [REPEATS]
// Each page is read into memory first; only new JSDOM(bytes) and Readability.parse() are timed,
// REPEATS times per page. A page's time is the median of its runs; prints the median over pages
// and their sum as JSON.
"use strict";
const fs = require("fs");
const path = require("path");

const [modules, folder, repeatArg] = process.argv.slice(2);
const { JSDOM, VirtualConsole } = require(path.join(modules, "jsdom"));
const { Readability } = require(path.join(modules, "@mozilla/readability"));
const repeats = Number(repeatArg || 3);

const median = (values) => {
  const sorted = [...values].sort((a, b) => a - b);
  const middle = Math.floor(sorted.length / 2);
  return sorted.length % 2 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
};
const cpuMs = () => {
  const usage = process.cpuUsage();
  return (usage.user + usage.system) / 1000;
};

const pages = fs.readdirSync(folder).filter((name) => name.endsWith(".html")).sort()
  .map((name) => ({ name, bytes: fs.readFileSync(path.join(folder, name)) }));
const quiet = new VirtualConsole();  // pages' CSS and markup complaints are not our output
const wall = [], cpu = [], failed = [];
for (const page of pages) {
  const pageWall = [], pageCpu = [];
  try {
    for (let i = 0; i < repeats; i++) {
      const w0 = performance.now(), c0 = cpuMs();
      const dom = new JSDOM(page.bytes, { virtualConsole: quiet });
      new Readability(dom.window.document).parse();
      const c1 = cpuMs(), w1 = performance.now();
      dom.window.close();
      pageWall.push(w1 - w0);
      pageCpu.push(c1 - c0);
    }
  } catch (error) {
    failed.push(`${page.name}: ${error.name}`);
    continue;
  }
  wall.push(median(pageWall));
  cpu.push(median(pageCpu));
}
const sum = (values) => values.reduce((a, b) => a + b, 0);
console.log(JSON.stringify({
  pages: wall.length,
  median_ms: wall.length ? median(wall) : 0,
  total_ms: sum(wall),
  cpu_median_ms: cpu.length ? median(cpu) : 0,
  cpu_total_ms: sum(cpu),
  failed,
}));
