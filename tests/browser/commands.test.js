// Every control of the page, pressed as a user would, until the simulated camera's telemetry shows it.
import assert from "node:assert/strict";
import { after, before, test } from "node:test";
import { createBox, kLocal, until } from "./box.js";
import { openBrowser, text, untilText, visit } from "./visitor.js";

const box = createBox();
let chromium;
let page;
before(async () => {
  chromium = await openBrowser();
  await box.start(kLocal);
  page = await visit(chromium.browser, `http://${kLocal}/`);
  await untilText(page, "#cell-mode .value", /video/);
});
after(async () => {
  await chromium.close();
  await box.stop();
});

const selectorOf = (cmd) => `#control-${cmd}`;

// Presses the word's button, or takes it from the list; the button alone where there is no word.
async function choose(cmd, word) {
  const control = selectorOf(cmd);
  await until(
    () => page.$eval(control, (it) => !it.classList.contains("off")),
    `the camera's mode allows ${cmd}`,
  );
  const place = await page.$eval(
    control,
    (it, wanted) => {
      const options = [...it.querySelectorAll("option")].map((option) => option.textContent);
      const buttons = [...it.querySelectorAll("button:not(.again)")].map(
        (button) => button.textContent,
      );
      return options.length > 0
        ? { option: String(options.indexOf(wanted) - 1) } // the first says that none is known
        : {
            button:
              wanted === undefined
                ? 0
                : buttons.findIndex((name) => name.replace("…", "") === wanted),
          };
    },
    word,
  );
  if (place.option !== undefined) {
    await page.select(`${control} select`, place.option);
    return;
  }
  assert.ok(place.button >= 0, `${cmd} has no button ${word}`);
  const buttons = await page.$$(`${control} button:not(.again)`);
  await buttons[place.button].click();
}

const stateOf = (cmd) => page.$eval(selectorOf(cmd), (it) => it.dataset.state ?? "");

const untilState = (cmd, state, seconds = 8) =>
  until(async () => (await stateOf(cmd)) === state, `${cmd} is ${state}`, seconds).catch(
    async (error) => {
      throw new Error(
        `${error.message}; it is ${await stateOf(cmd)}: ${await text(page, `${selectorOf(cmd)} .status`)}`,
      );
    },
  );

const confirm = async (word) => {
  await page.waitForSelector("#ask[open]");
  assert.equal(await page.$eval("#ask-yes", (it) => it.disabled), true);
  await page.type("#ask-word", word);
  await page.click("#ask-yes");
};

// cmd, word, what shows it: a selector and what it says then.
const kSteps = [
  ["ev", "+0.7", "#cell-ev .value", /^\+0\.7$/], // while the exposure is automatic
  ["video_mode", "manual", "#cell-image-mode .value", /^manual$/],
  ["shutter", "1/500", "#exposure-strip", /1\/500/],
  ["iso", "800", "#exposure-strip", /800/],
  ["wb", "cloudy", "#cell-wb .value", /^cloudy$/],
  ["color", "d-cinelike", "#cell-color .value", /^d-cinelike$/],
  ["video_resolution", "3840x2160@25", "#cell-format", /3840×2160 25p/],
  ["antiflicker", "50", "#items-list", /50 Hz/],
  ["video_std", "PAL", "#items-list", /PAL/],
  ["camera", "photo", "#cell-mode .value", /^photo$/],
  ["shot", undefined, "#cell-shots .value", /^\d+$/],
  ["shotmode", "raw", "#cell-format", /RAW/],
  ["video_aspect", "4:3", "#items-list", /4:3/],
  ["camera", "video", "#cell-mode .value", /^video$/],
  ["record", undefined, "#control-record .name", /stop/i],
  ["record", undefined, "#control-record .name", /record/i],
];
// What telemetry does not show is known to have gone out; the camera's own log tells the rest.
const kUnshown = [
  ["wifi", "2.4"],
  ["power", "sleep"],
];
const kAsked = [
  ["resetcamera", undefined, "reset"],
  ["format", "sd", "format"],
];

for (const [cmd, word, selector, says] of kSteps) {
  test(`${cmd} ${word ?? ""}`, async () => {
    await choose(cmd, word);
    await untilState(cmd, "done");
    await untilText(page, selector, says);
  });
}

test("white balance with a temperature", async () => {
  await page.$eval("#value-wb", (it) => (it.value = ""));
  await page.type("#value-wb", "4300");
  await page.click("#control-wb .value-form button");
  await untilState("wb", "done");
  await untilText(page, "#cell-wb .value", /^4300 K$/);
});

test("the histogram comes as a curve, and goes", async () => {
  for (const [word, hidden] of [
    ["off", true],
    ["on", false],
  ]) {
    await choose("histogram", word);
    await untilState("histogram", "done");
    await until(
      () => page.$eval("#histogram", (it, h) => it.hasAttribute("hidden") === h, hidden),
      `histogram ${word}`,
    );
  }
  assert.match(
    await page.$eval("#histogram-line", (it) => it.getAttribute("d")),
    /^M0 [\d.]+(C[-\d. ]+){63}$/,
  );
});

for (const [cmd, word] of kUnshown) {
  test(`${cmd} ${word}, which no telemetry shows`, async () => {
    await choose(cmd, word);
    await untilState(cmd, "sent");
  });
}

for (const [cmd, word, asked] of kAsked) {
  test(`${cmd} asks for the word ${asked}`, async () => {
    await choose(cmd, word);
    await confirm(asked);
    await until(async () => /^(sent|done)$/.test(await stateOf(cmd)), `${cmd} went out`);
  });
}

test("shutdown that is not confirmed is not sent", async () => {
  const before = await stateOf("power");
  await page.$eval("#control-power .status", (it) => (it.textContent = ""));
  await choose("power", "shutdown");
  await page.waitForSelector("#ask[open]");
  await page.type("#ask-word", "shut");
  await page.keyboard.press("Enter");
  assert.equal(await page.$eval("#ask", (it) => it.open), true, "half a word is no confirmation");
  await page.keyboard.press("Escape");
  assert.equal(await stateOf("power"), before);
  assert.equal(await text(page, "#control-power .status"), "");
});

test("no control is without a test", async () => {
  const tested = new Set(
    [...kSteps, ...kUnshown, ...kAsked, ["histogram"]].map(([cmd]) => `control-${cmd}`),
  );
  const controls = await page.$$eval(".control", (them) => them.map((it) => it.id));
  assert.deepEqual(new Set(controls), tested);
});

test("a command without effect is failed after three seconds, and can be sent again", async () => {
  await untilText(page, "#cell-mode .value", /^video$/);
  await box.share.signal("SIGSTOP"); // no command gets on, no telemetry comes back
  await choose("color", "vivid");
  assert.equal(await stateOf("color"), "pending");
  await untilState("color", "failed");
  await box.share.signal("SIGCONT");
  await until(
    () => page.$eval("#control-color .again", (it) => !it.hidden && !it.disabled),
    "Send again can be pressed",
  );
  await page.click("#control-color .again");
  await untilState("color", "done");
});

test("keys: space records, s shoots, ? helps; not from within a control", async () => {
  const press = (key) => page.keyboard.press(key);
  await page.evaluate(() => document.activeElement.blur());
  await press("Space");
  await untilText(page, "#control-record .name", /stop/i);
  await press("Space");
  await untilText(page, "#control-record .name", /record/i);
  await choose("camera", "photo");
  await untilText(page, "#cell-mode .value", /^photo$/);
  const shots = Number(await text(page, "#cell-shots .value"));
  await page.evaluate(() => document.activeElement.blur());
  await press("s");
  await until(
    async () => Number(await text(page, "#cell-shots .value")) === shots - 1,
    "one shot less",
  );
  await page.focus("#value-wb");
  await press("?");
  assert.equal(await page.$eval("#help", (it) => it.open), false);
  await page.evaluate(() => document.activeElement.blur());
  await press("?");
  assert.equal(await page.$eval("#help", (it) => it.open), true);
  assert.deepEqual(page.faults, []);
});
