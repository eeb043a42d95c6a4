// What the server says of the camera, the link and the commands: each message is checked, and handed
// on as plain values of known types. A message of an unknown type is left alone.
import { openBackoffSocket } from "./backoff_socket.js";
import { isObject, list, members, number, parseObject, text } from "./checks.js";

const kMostWords = 200;
const kMostEvents = 500;
const kMostSamples = 700;
const kHistogramSize = 64;

const item = (it) => ({
  name: text(it?.name, 40),
  label: text(it?.label, 60),
  unit: text(it?.unit, 12),
});

const valueRange = (value) =>
  isObject(value)
    ? {
        min: number(value.min) ?? 0,
        max: number(value.max) ?? 0,
        step: number(value.step) ?? 1,
        unit: text(value.unit, 12),
        item: text(value.item, 40),
      }
    : null;

const word = (it) => ({
  word: text(it?.word, 60),
  shows: text(it?.shows, 60),
  ask: text(it?.ask, 40),
  value: valueRange(it?.value),
});

const command = (it) => ({
  cmd: text(it?.cmd, 40),
  label: text(it?.label, 60),
  item: text(it?.item, 40),
  ask: text(it?.ask, 40),
  words: list(it?.words, kMostWords)
    .map(word)
    .filter((w) => w.word !== ""),
});

// Milliseconds since 1970, such as a Date takes.
const kLastTime_ms = 4e15;
const time = (value) => Math.min(Math.max(number(value) ?? 0, 0), kLastTime_ms);

const event = (it) => ({ time_ms: time(it?.time_ms), text: text(it?.text, 300) });

const sample = (it) => ({
  time_ms: time(it?.time_ms),
  mbit_s: number(it?.mbit_s),
  fps: number(it?.fps),
  corrupted: number(it?.corrupted),
  kernel_drops: number(it?.kernel_drops),
  unit_gap_ms_max: number(it?.unit_gap_ms_max),
  camera_up: it?.camera_up === true,
  phone_up: it?.phone_up === true,
});

function histogram(values) {
  const numbers = list(values, kHistogramSize).map((value) => Math.max(0, number(value) ?? 0));
  return numbers.length === kHistogramSize ? numbers : null;
}

// One reader for each type of message: what the page gets of it.
const kReaders = {
  hello: (m) => ({
    version: text(m.version, 40),
    time_ms: time(m.time_ms),
    view_only: m.view_only === true,
    items: list(m.items, 60)
      .map(item)
      .filter((it) => it.name !== ""),
    commands: list(m.commands, 60)
      .map(command)
      .filter((it) => it.cmd !== ""),
  }),
  telemetry: (m) => ({
    items: members(m.items, (value) => text(value, 60), 60),
    recording: m.recording === true,
    histogram: histogram(m.histogram),
  }),
  link: sample,
  history: (m) => list(m.samples, kMostSamples).map(sample),
  event,
  events: (m) => list(m.list, kMostEvents).map(event),
  problem: (m) => ({ id: text(m.id, 40), text: text(m.text, 300), active: m.active === true }),
  allowed: (m) => members(m.cmds, (value) => value === true, 60),
  command: (m) => ({ id: number(m.id) ?? -1, state: text(m.state, 12), why: text(m.why, 200) }),
};

// The message as {type, value}; null when it is none.
export function readMessage(data) {
  const message = parseObject(data);
  const type = text(message?.type, 20);
  return Object.hasOwn(kReaders, type) ? { type, value: kReaders[type](message) } : null;
}

// handlers: one for each type of message, called with its value; and onOpen, onLost(code, wait_ms).
export function openStateSocket(handlers) {
  const onMessage = (data) => {
    const message = readMessage(data);
    if (message !== null) {
      handlers[message.type]?.(message.value);
    }
  };
  const { onOpen, onLost } = handlers;
  return openBackoffSocket("state", { onMessage, onOpen, onLost }, { speaks_always: true });
}
