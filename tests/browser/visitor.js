// A browser that looks at the console, and what it sees.
import { mkdtempSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import puppeteer from "puppeteer-core";
import { output, until } from "./box.js";

const executablePath = process.env.CHROMIUM ?? "/usr/bin/chromium";

export async function openBrowser(...args) {
  const profile = mkdtempSync(join(tmpdir(), "kestrelbridge-browser-"));
  const browser = await puppeteer.launch({
    executablePath,
    headless: true,
    userDataDir: profile,
    args: [
      "--no-sandbox", // a sandbox inside of the tests' own namespaces
      "--disable-gpu",
      "--disable-dev-shm-usage",
      "--disable-background-networking",
      "--no-proxy-server",
      ...args,
    ],
  });
  return {
    browser,
    async close() {
      await browser.close();
      rmSync(profile, { recursive: true, force: true, maxRetries: 5 });
    },
  };
}

// What the page tells of each picture goes into window.seen: when it was shown, and when its unit came
// to the box. Errors of the page, and requests that failed, go into page.faults.
export async function visit(browser, url, { width = 1280, height = 900 } = {}) {
  const page = await browser.newPage();
  page.faults = [];
  page.on("pageerror", (error) => page.faults.push(error.message));
  page.on(
    "console",
    (message) =>
      message.text().includes("Content Security Policy") && page.faults.push(message.text()),
  );
  page.on("requestfailed", (request) =>
    page.faults.push(`${request.url()}: ${request.failure()?.errorText}`),
  );
  page.on(
    "response",
    (answer) => answer.status() >= 400 && page.faults.push(`${answer.url()}: ${answer.status()}`),
  );
  await page.setViewport({ width, height });
  await page.evaluateOnNewDocument(() => {
    window.seen = [];
    window.skipped = 0;
    addEventListener("kestrel-picture", ({ detail }) =>
      seen.push({ ...detail, told_ms: performance.now() }),
    );
    addEventListener("kestrel-skipped", () => ++skipped);
  });
  await page.goto(url);
  return page;
}

export const pictures = (page) => page.evaluate(() => seen.length);

// Until so many more pictures were shown.
export async function morePictures(page, count, seconds) {
  const before = await pictures(page);
  await until(
    async () => (await pictures(page)) >= before + count,
    `${count} more pictures`,
    seconds,
  );
}

export const text = (page, selector) => page.$eval(selector, (it) => it.textContent);

export const untilText = (page, selector, pattern, seconds) =>
  until(
    async () => pattern.test(await text(page, selector)),
    `${selector} says ${pattern}`,
    seconds,
  );

// The picture as it is on the screen, PNG.
export const screenshotOfPicture = async (page) => {
  const shown = await page.$("#canvas:not([hidden]), #video:not([hidden])");
  return shown.screenshot({ optimizeForSpeed: true });
};

export const keepScreenshot = (page, name) =>
  page.screenshot({ path: join(output, `${name}.png`) });

// The page's clock and the box's monotonic one are the same clock, but begin at other times. The tightest
// of some pairs of readings tells the difference, in milliseconds.
async function clockDifference(page) {
  let best = { width: Infinity, difference: 0 };
  for (let i = 0; i < 20; ++i) {
    const before = Number(process.hrtime.bigint()) / 1e6;
    const there = await page.evaluate(() => performance.now());
    const after = Number(process.hrtime.bigint()) / 1e6;
    if (after - before < best.width) {
      best = { width: after - before, difference: (before + after) / 2 - there };
    }
  }
  return best;
}

export const percentile = (values, share) =>
  [...values].sort((a, b) => a - b)[Math.floor(share * (values.length - 1))];

// From a unit's arrival, as the box stamped it, to its picture, over the pictures of some seconds.
// `doubt_ms` is how far the two clocks may be misread.
export async function measureLatency(page, seconds) {
  const { difference, width } = await clockDifference(page);
  const from = await pictures(page);
  await new Promise((resolve) => setTimeout(resolve, seconds * 1000));
  const seen = (await page.evaluate((first) => seen.slice(first), from)).filter(
    (it) => it.time_us !== null,
  );
  const latencies = seen.map((it) => it.shown_ms + difference - it.time_us / 1000);
  return {
    count: latencies.length,
    median: percentile(latencies, 0.5),
    p95: percentile(latencies, 0.95),
    doubt_ms: width / 2,
  };
}
