// One control: a command's words as buttons or as a list, the number that a word needs, the state of
// what was sent. Made from what the server's hello says exists: not one word stands here.
import { element, setText } from "./dom.js";

const kFewWords = 4; // side by side; more go into a list
export const kTriggers = ["shot", "record"]; // big, under the thumb

// What every control has: its command, the fields that show how a command of it fares.
function createControl(command) {
  const status = element("span", { class: "status" });
  const again = element("button", { type: "button", class: "again", hidden: true }, "Send again");
  return { command, status, again, buttons: [], show: () => {}, sent: null, timer: 0 };
}

// A switch's words are read as such.
const kSpoken = new Map([
  ["1", "on"],
  ["0", "off"],
]);
const isSwitch = (words) => words.length === 2 && words.every(({ word }) => kSpoken.has(word));

function wordButton(control, word, send) {
  const spoken = isSwitch(control.command.words) ? kSpoken.get(word.word) : word.word;
  const button = element(
    "button",
    { type: "button", class: word.ask === "" ? "word" : "word danger", "aria-pressed": "false" },
    word.ask === "" ? spoken : `${spoken}…`,
  );
  button.addEventListener("click", () => send(word));
  control.buttons.push(button);
  return button;
}

// Few words: buttons side by side, the present one pressed.
function buildButtons(control, send) {
  const { words, item, label } = control.command;
  const row = element("div", { class: "words", role: "group", "aria-label": label });
  const buttons = words.map((word) => wordButton(control, word, send));
  row.append(...buttons);
  const isPresent = (word, items, histogram) =>
    word.shows !== ""
      ? items.get(item) === word.shows
      : item === "histogram" && (word.word === "1") === (histogram !== null);
  control.show = (items, { histogram }) =>
    words.forEach((word, i) =>
      buttons[i].setAttribute("aria-pressed", isPresent(word, items, histogram)),
    );
  return row;
}

// Many words: a list, with a step to each side of it.
function buildList(control, send) {
  const { words, item, label } = control.command;
  const unknown = element("option", { value: "", disabled: true, selected: true }, "–");
  const select = element(
    "select",
    { "aria-label": label },
    unknown,
    ...words.map((word, i) => element("option", { value: i }, word.word)),
  );
  const stepTo = (step) => {
    const at = select.value === "" ? -1 : Number(select.value);
    const next = Math.min(Math.max(at + step, 0), words.length - 1);
    if (next !== at) {
      select.value = next;
      send(words[next]);
    }
  };
  const step = (sign, by) =>
    element(
      "button",
      {
        type: "button",
        "aria-label": `${label}: ${by < 0 ? "previous" : "next"}`,
        on: { click: () => stepTo(by) },
      },
      sign,
    );
  select.addEventListener("change", () => send(words[Number(select.value)]));
  const row = element("div", { class: "list" }, step("‹", -1), select, step("›", 1));
  control.buttons.push(select, ...row.querySelectorAll("button"));
  control.show = (items) => {
    const present = words.findIndex((word) => word.shows !== "" && word.shows === items.get(item));
    const wanted = present < 0 ? "" : String(present);
    if (select.value !== wanted) {
      select.value = wanted;
    }
  };
  return row;
}

// The number that one of the words needs beside it.
function buildValue(control, word, send) {
  const { min, max, step, unit, item } = word.value;
  const id = `value-${control.command.cmd}`;
  const input = element("input", {
    id,
    type: "number",
    min,
    max,
    step,
    inputmode: "numeric",
    value: min,
  });
  const button = element("button", { type: "button" }, "Set");
  const form = element(
    "form",
    { class: "value-form" },
    element("label", { for: id }, unit === "" ? word.word : `${word.word}, ${unit}`),
    input,
    button,
  );
  button.type = "submit";
  form.addEventListener("submit", (event) => {
    event.preventDefault();
    send(word, String(input.valueAsNumber));
  });
  const showWord = control.show;
  control.show = (items, telemetry) => {
    showWord(items, telemetry);
    const present = Number(items.get(item) ?? "");
    if (document.activeElement !== input && present >= min && present <= max) {
      input.value = present;
    }
  };
  control.buttons.push(input, button);
  return { form, read: () => String(input.valueAsNumber) };
}

function buildAction(control, send) {
  const { label, ask } = control.command;
  const button = wordButton(control, { word: label, ask }, () => send(null));
  button.removeAttribute("aria-pressed");
  return element("div", { class: "words" }, button);
}

// Shot, and record with its two words: big, under the thumb.
function buildTrigger(control, send) {
  const { cmd, label, words } = control.command;
  const button = element("button", { type: "button", class: `trigger ${cmd}` });
  const name = element("span", { class: "name" }, label);
  button.append(element("span", { class: "face", "aria-hidden": "true" }), name);
  control.buttons.push(button);
  let recording = false;
  control.press = () => send(words.length === 2 ? words[recording ? 1 : 0] : null);
  button.addEventListener("click", control.press);
  if (words.length === 2) {
    control.show = (items, telemetry) => {
      recording = telemetry.recording;
      button.dataset.on = recording;
      button.setAttribute("aria-pressed", recording);
      setText(name, recording ? words[1].word : label);
    };
  }
  return button;
}

function buildBody(control, send) {
  const { words } = control.command;
  if (words.length === 0) {
    return [buildAction(control, send)];
  }
  const with_value = words.find((word) => word.value !== null);
  let value = null;
  const sendWord = (word) => (word === with_value ? send(word, value.read()) : send(word));
  const body =
    words.length <= kFewWords ? buildButtons(control, sendWord) : buildList(control, sendWord);
  if (with_value === undefined) {
    return [body];
  }
  value = buildValue(control, with_value, send);
  return [body, value.form];
}

const isTrigger = ({ cmd }) => kTriggers.includes(cmd);

// The control of a command as {command, box, status, again, buttons, show(items, telemetry), press},
// where `box` is its element, and `sent` and `timer` are for who sends. give(control, word, value) is
// called when the user wants it.
export function buildControl(command, give) {
  const control = createControl(command);
  const send = (word, value) => give(control, word, value);
  const is_trigger = isTrigger(command);
  const body = is_trigger ? [buildTrigger(control, send)] : buildBody(control, send);
  const has_label = !is_trigger && command.words.length > 0;
  const label = has_label ? [element("span", { class: "label" }, command.label)] : [];
  const head = element("div", { class: "head" }, ...label, control.status, control.again);
  const parts = is_trigger ? [...body, head] : [head, ...body];
  control.box = element("div", { class: "control", id: `control-${command.cmd}` }, ...parts);
  return control;
}
