// The page's looks at four widths and in both themes: nothing sticks out, everything can be hit with a
// thumb, read and named. The screenshots are kept.
import assert from "node:assert/strict";
import { after, before, test } from "node:test";
import { createBox, kLocal, until } from "./box.js";
import { keepScreenshot, morePictures, openBrowser, untilText, visit } from "./visitor.js";

const kThumb = 44; // CSS pixels
const kLowestContrast = 4.5; // AA for text
const kViews = [
  { name: "360", width: 360, height: 740 },
  { name: "landscape", width: 740, height: 360, full: true },
  { name: "820", width: 820, height: 1180 },
  { name: "1440", width: 1440, height: 900 },
];

const box = createBox();
let chromium;
before(async () => {
  chromium = await openBrowser();
  await box.start(kLocal);
});
after(async () => {
  await chromium.close();
  await box.stop();
});

// What is wrong with how the page looks, in words. Runs in the page.
function findFaults(thumb, lowest_contrast) {
  const faults = [];
  const isSeen = (it) =>
    it.checkVisibility({ visibilityProperty: true, opacityProperty: true }) &&
    it.closest(".said, #picture") === null;
  const label = (it) =>
    `${it.tagName.toLowerCase()}#${it.id || it.closest("[id]")?.id} "${it.textContent.trim().slice(0, 30)}"`;
  if (document.documentElement.scrollWidth > innerWidth) {
    faults.push(
      `the page is ${document.documentElement.scrollWidth} wide, the window ${innerWidth}`,
    );
  }
  for (const it of document.querySelectorAll("button, select, input, summary")) {
    const { width, height } = it.getBoundingClientRect();
    if (isSeen(it) && (height < thumb || width < thumb) && !it.classList.contains("again")) {
      faults.push(`${label(it)} is ${width}x${height}: too small for a thumb`);
    }
    const name = it.ariaLabel || it.textContent.trim() || it.labels?.[0]?.textContent;
    if (!name && it.closest("dialog:not([open])") === null) {
      faults.push(`${label(it)} has no name`);
    }
  }
  const rgba = (text) => {
    const [r, g, b, a = 1] = text.match(/[\d.]+/g).map(Number);
    return { rgb: [r, g, b], a };
  };
  const ground = (it) => {
    for (let at = it; at !== null; at = at.parentElement) {
      const { rgb, a } = rgba(getComputedStyle(at).backgroundColor);
      if (a > 0.6) {
        return rgb;
      }
    }
    return [255, 255, 255];
  };
  const luminance = (rgb) => {
    const [r, g, b] = rgb
      .map((it) => it / 255)
      .map((it) => (it <= 0.04045 ? it / 12.92 : ((it + 0.055) / 1.055) ** 2.4));
    return 0.2126 * r + 0.7152 * g + 0.0722 * b;
  };
  const texts = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
  while (texts.nextNode()) {
    const it = texts.currentNode.parentElement;
    if (
      texts.currentNode.data.trim() === "" ||
      !isSeen(it) ||
      it.closest(":disabled, .u-wrap") !== null
    ) {
      continue; // what is off needs no contrast
    }
    const [low, high] = [
      luminance(rgba(getComputedStyle(it).color).rgb),
      luminance(ground(it)),
    ].sort((a, b) => a - b);
    const contrast = (high + 0.05) / (low + 0.05);
    if (contrast < lowest_contrast) {
      faults.push(`${label(it)} has a contrast of ${contrast.toFixed(2)}`);
    }
  }
  return [...new Set(faults)];
}

for (const { name, width, height, full } of kViews) {
  test(`at ${name}, in both themes`, async () => {
    const page = await visit(chromium.browser, `http://${kLocal}/`, { width, height });
    await morePictures(page, 30);
    await untilText(page, "#cell-mode .value", /video/);
    if (full) {
      await page.click("#full");
      await until(() => page.$eval("#stage", (it) => it.classList.contains("full")), "full screen");
      const record = await page.$eval("#control-record button", (it) =>
        it.getBoundingClientRect().toJSON(),
      );
      assert.ok(
        record.right <= width && record.bottom <= height && record.top >= 0,
        "record is in sight",
      );
    } else {
      await page.evaluate(() =>
        document.querySelectorAll("details").forEach((it) => (it.open = true)),
      );
      await until(
        () => page.evaluate(() => document.querySelectorAll("#counters-table tr").length > 20),
        "the counters",
      );
    }
    for (const theme of ["dark", "sunlight"]) {
      await page.evaluate((wanted) => {
        if (document.documentElement.dataset.theme !== wanted) {
          document.getElementById("theme").click();
        }
      }, theme);
      await morePictures(page, 5);
      await keepScreenshot(page, `page-${name}-${theme}`);
      assert.deepEqual(await page.evaluate(findFaults, kThumb, kLowestContrast), [], theme);
    }
    assert.deepEqual(page.faults, []);
    await page.close();
  });
}

test("the plots are drawn when they come into sight", async () => {
  const page = await visit(chromium.browser, `http://${kLocal}/`, { width: 1440, height: 900 });
  await morePictures(page, 5);
  await page.$eval("#link", (it) => it.scrollIntoView());
  await until(async () => (await page.$$("#plots canvas")).length === 5, "five plots");
  await untilText(page, "#plots", /(29|30|31) a second/);
  await untilText(page, "#events", /camera found/);
  await keepScreenshot(page, "link");
  await page.close();
});
