// Who gets in: the password, foreign pages, names that were pointed here, messages that are none.
import assert from "node:assert/strict";
import { mkdtempSync, writeFileSync } from "node:fs";
import { createServer } from "node:http";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { after, before, test } from "node:test";
import { createBox, kLocal, kOutside, until } from "./box.js";
import {
  keepScreenshot,
  morePictures,
  openBrowser,
  pictures,
  text,
  untilText,
  visit,
} from "./visitor.js";

const kPassword = 'a long one "with" <signs> ä';
const kForeign = "127.0.0.1:8099";
const kRebound = `evil.example:${kOutside.split(":")[1]}`;

const box = createBox();
let chromium;
let foreign;
before(async () => {
  chromium = await openBrowser(`--host-resolver-rules=MAP evil.example ${kOutside.split(":")[0]}`);
  const file = join(mkdtempSync(join(tmpdir(), "kestrelbridge-")), "password");
  writeFileSync(file, `${kPassword}\n`, { mode: 0o600 });
  await box.start(kOutside, "--password-file", file);
  foreign = createServer((_, answer) => answer.end("<!doctype html><title>foreign</title>"));
  await new Promise((resolve) => foreign.listen(8099, "127.0.0.1", resolve));
});
after(async () => {
  await chromium.close();
  foreign.close();
  await box.stop();
});

// How a WebSocket from that page to that address ends: "opened", or the code it was closed with.
const trySocket = (page, address, path, message = null) =>
  page.evaluate(
    (url, sent) =>
      new Promise((resolve) => {
        const socket = new WebSocket(url);
        socket.onmessage = () => sent === null && resolve("opened");
        socket.onopen = () =>
          sent !== null && socket.send(typeof sent === "number" ? "x".repeat(sent) : sent);
        socket.onclose = (event) => resolve(event.code);
      }),
    `ws://${address}/${path}`,
    message,
  );

async function signIn(page, password) {
  await page.waitForSelector("#sign-in[open]");
  await page.$eval("#password", (it) => (it.value = ""));
  await page.type("#password", password);
  await page.keyboard.press("Enter");
}

test("a wrong password shows nothing, the right one everything, signing out nothing again", async () => {
  const page = await visit(chromium.browser, `http://${kOutside}/`);
  await signIn(page, "a wrong one");
  await untilText(page, "#sign-in-error", /wrong password|try again/);
  await keepScreenshot(page, "sign-in");
  assert.equal(await pictures(page), 0);
  assert.equal(await trySocket(page, kOutside, "video"), 4401);
  assert.equal(await trySocket(page, kOutside, "state"), 4401);

  await until(
    async () => {
      await signIn(page, kPassword);
      return page.waitForSelector("#sign-in:not([open])", { timeout: 1500 }).catch(() => null);
    },
    "signed in",
    30,
  );
  await morePictures(page, 10);
  assert.equal(await page.evaluate(() => document.cookie), "", "no script can read the cookie");
  await Promise.all([page.waitForNavigation(), page.click("#sign-out")]);
  await page.waitForSelector("#sign-in[open]");
  assert.equal(await pictures(page), 0);
  // Chromium calls an answer without content aborted.
  assert.deepEqual(
    page.faults.filter((it) => !/sign-(in|out): /.test(it)),
    [],
  );
  await page.close();
});

test("a page from elsewhere gets no socket, a name that was pointed here no page", async () => {
  await box.startConsole(kLocal);
  const page = await chromium.browser.newPage();
  await page.goto(`http://${kForeign}/`);
  assert.equal(await trySocket(page, kLocal, "video"), 1006);
  assert.equal(await trySocket(page, kLocal, "state"), 1006);

  await box.startConsole(kOutside, "--view-only");
  const answer = await page.goto(`http://${kRebound}/`);
  assert.ok(answer.status() >= 400, `the answer was ${answer.status()}`);
  assert.ok((await page.goto(`http://${kOutside}/`)).status() < 400);
  await page.close();
});

test("a console that only shows says so, and presses nothing", async () => {
  const page = await visit(chromium.browser, `http://${kOutside}/`);
  await morePictures(page, 5);
  await untilText(page, "#controls-note", /only shows/);
  const enabled = await page.$$eval(
    ".control :is(button, select, input)",
    (them) => them.filter((it) => !it.disabled).length,
  );
  assert.equal(enabled, 0);
  await page.close();
});

test("oversize and broken messages end their own socket only", async () => {
  await box.startConsole(kLocal);
  const page = await visit(chromium.browser, `http://${kLocal}/`);
  await morePictures(page, 10);
  for (const message of [
    200_000,
    "{",
    "[]",
    '{"type":"command"}',
    '{"type":"command","id":-1,"cmd":"iso"}',
    `{"type":${"[".repeat(2000)}`,
  ]) {
    const code = await trySocket(page, kLocal, "state", message);
    assert.ok([1006, 1008, 1009].includes(code), `${String(message).slice(0, 40)} gave ${code}`);
  }
  await morePictures(page, 30, 5);
  assert.match(await text(page, "#lamp-camera"), /up/);
  assert.deepEqual(page.faults, []);
  await page.close();
});
