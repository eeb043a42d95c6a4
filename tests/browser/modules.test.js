// The page's own rules, and what it makes of messages that no console would send.
import assert from "node:assert/strict";
import { readFileSync, readdirSync, statSync } from "node:fs";
import { join } from "node:path";
import { test } from "node:test";
import {
  createUnitPreparer,
  isSps,
  joinNals,
  readSps,
  splitNals,
  withRestriction,
} from "../../console/page/h264.js";
import { liveEdge } from "../../console/page/live_edge.js";
import { createMediaClock } from "../../console/page/player_mse.js";
import { readMessage } from "../../console/page/state_socket.js";
import { parseUnit } from "../../console/page/video_socket.js";
import { testPattern } from "./box.js";
import { clipWithoutRestriction, makeClip } from "./pictures.js";

const spsOf = (clip) => splitNals(readFileSync(clip)).find(isSps);

test("a parameter set without a restriction gets one, and says the same otherwise", () => {
  const kClips = [
    [testPattern, "1280x720"],
    [makeClip("odd.h264", "854x478", "ref=3"), "854x478"],
    [makeClip("baseline.h264", "320x240", "no-8x8dct=1:cabac=0:ref=2"), "320x240"],
    [
      makeClip(
        "hrd.h264",
        "640x360",
        "nal-hrd=vbr:vbv-maxrate=1500:vbv-bufsize=1500:colorprim=bt709:transfer=bt709:colormatrix=bt709",
      ),
      "640x360",
    ],
    [makeClip("interlaced.h264", "720x576", "tff=1"), "720x576"],
  ];
  for (const [clip, size] of kClips) {
    const whole = spsOf(clip);
    assert.equal(withRestriction(whole), whole, "x264 writes a restriction: nothing to do");
    const bare = spsOf(clipWithoutRestriction(clip));
    const before = readSps(bare);
    const after = readSps(withRestriction(bare));
    assert.equal(`${before.width}x${before.height}`, size);
    assert.equal(before.has_restriction, false);
    assert.equal(after.has_restriction, true);
    for (const member of ["width", "height", "codec", "reference_frames"]) {
      assert.equal(after[member], before[member], `${clip}: ${member}`);
    }
    const { bytes, sps } = createUnitPreparer()(
      joinNals([bare, Uint8Array.of(0x68, 1), Uint8Array.of(0x65, 2)]),
    );
    assert.equal(sps.width, before.width);
    assert.deepEqual(
      splitNals(bytes).map((nal) => nal[0] & 0x1f),
      [7, 8, 5],
    );
    assert.equal(readSps(splitNals(bytes)[0]).has_restriction, true, "a player gets the new one");
  }
});

test("broken parameter sets are passed on as they are", () => {
  const nal = spsOf(testPattern);
  const prepare = createUnitPreparer();
  for (let length = 1; length < nal.length; ++length) {
    for (const [at, value] of [
      [length - 1, 0xff],
      [length >> 1, 0x01],
    ]) {
      const unit = Uint8Array.from([0, 0, 0, 1, ...nal.slice(0, length)]);
      unit[4 + Math.max(1, at)] = value;
      const { bytes } = prepare(unit);
      assert.ok(bytes.length >= 4 && bytes.length < unit.length + 40);
    }
  }
  assert.deepEqual(prepare(new Uint8Array()), { bytes: new Uint8Array(), sps: null });
});

test("the live edge: behind by so much, may the rate change, what to do", () => {
  for (const [behind_ms, may_change, jumps, slowest, fastest] of [
    [1000, true, true, 1, 1],
    [301, true, true, 1, 1],
    [250, true, false, 1.05, 1.1],
    [120, true, false, 1.01, 1.1],
    [85, true, false, 1, 1],
    [10, true, false, 0.9, 0.99],
    [200, false, true, 1, 1],
    [120, false, false, 1, 1],
    [10, false, false, 1, 1],
  ]) {
    const { jump_to_ms, rate } = liveEdge(behind_ms, may_change);
    assert.equal(jump_to_ms !== null, jumps, `${behind_ms}`);
    assert.ok(jump_to_ms === null || (jump_to_ms >= 70 && jump_to_ms <= 100));
    assert.ok(rate >= slowest && rate <= fastest, `${behind_ms}: ${rate}`);
  }
});

test("the media's clock follows the box's: no drift in an hour, no trouble from a gap", () => {
  const clock = createMediaClock();
  const kPeriod_us = 33_367;
  let media_ms = 0;
  let time_us = 5_000_000;
  for (let i = 0; i < 100_000; ++i) {
    media_ms += clock.durationOf(time_us);
    time_us += kPeriod_us;
  }
  assert.ok(Math.abs(media_ms - (kPeriod_us * 100_000) / 1000) < 100);
  time_us += 20_000_000;
  for (let i = 0; i < 10; ++i, time_us += kPeriod_us) {
    assert.ok(clock.durationOf(time_us) < 100, "the gap is not played");
  }
});

test("messages that no console sends do no harm", () => {
  const unit = (length, told = length, time = 1n) => {
    const view = new DataView(new ArrayBuffer(16 + length));
    view.setBigUint64(0, time, true);
    view.setUint32(8, told, true);
    return view.buffer;
  };
  for (const bad of [
    null,
    "text",
    new ArrayBuffer(0),
    new ArrayBuffer(16),
    unit(5, 6),
    unit(5, 4),
    unit(5, 0xffffffff),
    unit(5, 5, 2n ** 60n),
  ]) {
    assert.equal(parseUnit(bad), null);
  }
  assert.equal(parseUnit(unit(5)).bytes.length, 5);

  for (const bad of [
    "",
    "{",
    "[]",
    "null",
    "7",
    '{"type":"toString"}',
    '{"type":"__proto__"}',
    '{"type":7}',
    " ".repeat(2 << 20),
  ]) {
    assert.equal(readMessage(bad), null, bad.slice(0, 20));
  }
  const hello = readMessage(
    '{"type":"hello","items":[1,null,{"name":"x"}],"commands":[{"cmd":"a","words":[7,{"word":"w","value":[]}]},"b"]}',
  );
  assert.deepEqual(
    hello.value.items.map((it) => it.name),
    ["x"],
  );
  assert.deepEqual(
    hello.value.commands.map((it) => [it.cmd, it.words.length]),
    [["a", 1]],
  );
  const telemetry = readMessage(
    '{"type":"telemetry","items":{"iso":7,"wb":"' + "x".repeat(900) + '"},"histogram":[1,2]}',
  );
  assert.equal(telemetry.value.items.get("iso"), "");
  assert.equal(telemetry.value.items.get("wb").length, 60);
  assert.equal(telemetry.value.histogram, null);
});

test("all modules are asked for at once, not one because of another", () => {
  const folder = new URL("../../console/page/", import.meta.url).pathname;
  const page = readFileSync(join(folder, "index.html"), "utf8");
  const named = [...page.matchAll(/(?:href|src)="([a-z0-9_]+\.js)"/g)].map((it) => it[1]);
  assert.deepEqual(
    named.sort(),
    readdirSync(folder)
      .filter((name) => name.endsWith(".js"))
      .sort(),
  );
});

test("the page weighs no more than 250 kB in all", () => {
  const folder = new URL("../../console/page/", import.meta.url).pathname;
  const files = [
    ...readdirSync(folder),
    ...readdirSync(join(folder, "vendor")).map((name) => `vendor/${name}`),
  ];
  const served = files.filter((name) => /\.(html|css|js|svg)$/.test(name));
  const weight = served.reduce((sum, name) => sum + statSync(join(folder, name)).size, 0);
  assert.ok(weight > 50_000 && weight <= 250_000, `${weight} bytes`);
});
